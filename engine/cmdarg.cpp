// The engine's option string, built from the TIFF options stored in the settings file.
#include "app/mainwindow.h"

#include "settings/settingsfile.h"

#include <QSettings>

QString MainWindow::GetCmdArg()
{
    QSettings settings(SettingsFilePath(), QSettings::IniFormat);

    QString strBitCount = settings.value("/SettingInfo/BitCount", "0").toString();
    int iCompress = settings.value("/SettingInfo/CompressMethod", "0").toInt();
    QString strFaxTiff = settings.value("/SettingInfo/FaxTiff", "0").toString();

    QString strFax;
    if (strFaxTiff == "0")
        strFax = "";
    else if (strFaxTiff == "1")
        strFax = " \"-faxtif\" \"0\" ";
    else if (strFaxTiff == "2")
        strFax = " \"-faxtif\" \"1\" ";

    if (iCompress < 0 || iCompress > 7)
        iCompress = 0;
    QString strCompress = iCompressMethodtoCompressMethod(QString::number(iCompress));

    m_strOutputExt = ".tif";

    QString strBits;
    switch (strBitCount.toInt(nullptr, 10)) {
    case 0:
        strBits = " \"-b\" \"1\" ";
        break;
    case 1:
        strBits = " \"-b\" \"8\" ";
        break;
    case 2:
        strBits = " \"-b\" \"24\" ";
        break;
    default:
        break;
    }

    QString strResizePage = settings.value("/SettingInfo/ResizePage", "FALSE").toString();
    QString strResizeResolution =
        settings.value("/SettingInfo/ResizeResolution", "FALSE").toString();

    QString strWidth;
    QString strHeight;
    if (strResizePage == "TRUE") {
        int iWidth = settings.value("/SettingInfo/PageSizeX", 100).toInt();
        if (iWidth >= 1)
            strWidth = QString(" \"-gw\" \"%1\"").arg(iWidth);
        int iHeight = settings.value("/SettingInfo/PageSizeY", 100).toInt();
        if (iHeight >= 1)
            strHeight = QString(" \"-gh\" \"%1\"").arg(iHeight);
    }

    // A resolution below 1 means "Default": no value. Only both axes together are sent.
    int iResoX = settings.value("/SettingInfo/ResolutionX", 100).toInt();
    int iResoY = settings.value("/SettingInfo/ResolutionY", 100).toInt();
    bool bDefaultX = iResoX < 1;
    bool bDefaultY = iResoY < 1;
    QString strResolution;
    if (!bDefaultX && !bDefaultY && strResizeResolution == "TRUE")
        strResolution = " \"-r\" \"" + QString::number(iResoX) + "x" + QString::number(iResoY)
                        + "\" ";

    // The segments carry their own blanks; nothing is put between them.
    return strWidth + strHeight + strResolution + strBits + strCompress + strFax;
}

// The index tests run "0" to "5", then "5" a second time, then "6". The second "5" never
// matches, so index 6 gives the option that follows it (7) and index 7 gives nothing. The
// Setting dialog's index mapping is shifted the same way and both must stay in step.
QString MainWindow::iCompressMethodtoCompressMethod(QString iCompressMethod)
{
    QString strResult = "";
    if (iCompressMethod == "0")
        strResult = "\"-c\" \"0\"";
    else if (iCompressMethod == "1")
        strResult = "\"-c\" \"1\"";
    else if (iCompressMethod == "2")
        strResult = "\"-c\" \"2\"";
    else if (iCompressMethod == "3")
        strResult = "\"-c\" \"3\"";
    else if (iCompressMethod == "4")
        strResult = "\"-c\" \"4\"";
    else if (iCompressMethod == "5")
        strResult = "\"-c\" \"5\"";
    else if (iCompressMethod == "5")
        strResult = "\"-c\" \"6\"";
    else if (iCompressMethod == "6")
        strResult = "\"-c\" \"7\"";
    return strResult;
}
