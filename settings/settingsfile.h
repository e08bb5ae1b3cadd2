#pragma once
// The settings file: quarvelinfo.ini beside the executable, one INI group "SettingInfo".
// Every access opens its own short-lived QSettings on this path and lets it go when done.

#include <QString>

// The software's short name; the settings file is named after it.
extern const char* g_chSoftwareName;

// applicationDirPath() + "/" + g_chSoftwareName + "info.ini", built afresh on every call.
QString SettingsFilePath();
