// The four spellings of a TIFF compression method: the name shown in the compression box, the
// short name used inside the program, the number stored in the settings file and the index text
// that comes back from the file. Every mapping starts from its fallback result and compares the
// whole text, case-sensitively, against the rows in order, stopping at the first equal one.

#include "settings/settingdialog.h"

int SettingDialog::CompressMethodtoInt(QString strCompressMethod)
{
    int iCompressMethod = -1;
    if (strCompressMethod == "none")
        iCompressMethod = 0;
    else if (strCompressMethod == "packbits")
        iCompressMethod = 1;
    else if (strCompressMethod == "lzw:1")
        iCompressMethod = 2;
    else if (strCompressMethod == "lzw:2")
        iCompressMethod = 3;
    else if (strCompressMethod == "g3:1d:fill")
        iCompressMethod = 4;
    else if (strCompressMethod == "g3:2d:fill")
        iCompressMethod = 5;
    else if (strCompressMethod == "g4")
        iCompressMethod = 6;
    else if (strCompressMethod == "zip")
        iCompressMethod = 7;
    return iCompressMethod;
}

QString SettingDialog::CompressMethodShortNametoFullName(QString strShortName)
{
    QString strFullName = "None";
    if (strShortName == "none")
        strFullName = "None";
    else if (strShortName == "packbits")
        strFullName = "PackBits";
    else if (strShortName == "lzw:1")
        strFullName = "Lempel-Ziv-Welch-1";
    else if (strShortName == "lzw:2")
        strFullName = "Lempel-Ziv-Welch-2";
    else if (strShortName == "g3:1d:fill")
        strFullName = "CCITT Group 3 (1-D)";
    else if (strShortName == "g3:2d:fill")
        strFullName = "CCITT Group 3 (2-D)";
    else if (strShortName == "g4")
        strFullName = "CCITT Group 4";
    else if (strShortName == "zip")
        strFullName = "ZIP";
    return strFullName;
}

QString SettingDialog::CompressMethodFullNametoShortName(QString strFullName)
{
    QString strShortName = "none";
    if (strFullName == "None")
        strShortName = "none";
    else if (strFullName == "PackBits")
        strShortName = "packbits";
    else if (strFullName == "Lempel-Ziv-Welch-1")
        strShortName = "lzw:1";
    else if (strFullName == "Lempel-Ziv-Welch-2")
        strShortName = "lzw:2";
    else if (strFullName == "CCITT Group 3 (1-D)")
        strShortName = "g3:1d:fill";
    else if (strFullName == "CCITT Group 3 (2-D)")
        strShortName = "g3:2d:fill";
    else if (strFullName == "CCITT Group 4")
        strShortName = "g4";
    else if (strFullName == "ZIP")
        strShortName = "zip";
    return strShortName;
}

// The stored index text back to a short name. The table tests "5" twice, so its "g4" row can
// never match and "6" lands on the row after it ("zip"); "7" matches nothing and gives the empty
// text. The main window's engine-option twin of this table is shifted the same way, and the two
// must stay in step, so the shift is kept.
QString SettingDialog::iCompressMethodtoCompressMethod(QString iCompressMethod)
{
    QString strCompressMethod = "";
    if (iCompressMethod == "0")
        strCompressMethod = "none";
    else if (iCompressMethod == "1")
        strCompressMethod = "packbits";
    else if (iCompressMethod == "2")
        strCompressMethod = "lzw:1";
    else if (iCompressMethod == "3")
        strCompressMethod = "lzw:2";
    else if (iCompressMethod == "4")
        strCompressMethod = "g3:1d:fill";
    else if (iCompressMethod == "5")
        strCompressMethod = "g3:2d:fill";
    else if (iCompressMethod == "5")  // never true: the shifted row
        strCompressMethod = "g4";
    else if (iCompressMethod == "6")
        strCompressMethod = "zip";
    return strCompressMethod;
}
