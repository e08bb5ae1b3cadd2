#include "settings/settingsfile.h"

#include <QCoreApplication>

const char* g_chSoftwareName = "quarvel";

QString SettingsFilePath()
{
    return QCoreApplication::applicationDirPath() + "/" + g_chSoftwareName + "info.ini";
}
