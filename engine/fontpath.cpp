// The engine's font folder, handed over through the environment variable PCLFONTSOURCE.
#include "engine/fontpath.h"

#include "app/mainwindow.h"

#include <QCoreApplication>
#include <QDebug>

#include <cstdlib>
#include <cstring>

QByteArray FontSourceEntry(const QString& strAppDir)
{
    static const char kPrefix[] = "PCLFONTSOURCE=";
    static const char kFonts[] = "fonts/";

    // Cut before the last "." (the bundle's extension and what follows it), then before the
    // last "/": what is left names the folder that holds the bundle.
    QString strDir = strAppDir;
    int iDot = strDir.lastIndexOf(QChar('.'));
    if (iDot >= 0)
        strDir = strDir.left(iDot);
    int iSlash = strDir.lastIndexOf(QChar('/'));
    if (iSlash >= 0)
        strDir = strDir.left(iSlash);

    QByteArray baDir = strDir.toLatin1();
    if (baDir.isEmpty())
        baDir = "/";  // the bundle lies in the root folder
    char chLast = baDir.at(baDir.size() - 1);
    if (chLast != '/' && chLast != '\\')
        baDir.append('/');

    QByteArray baEntry(kPrefix);
    int iLength = baEntry.size() + baDir.size() + int(sizeof(kFonts) - 1);
    if (iLength > kFontSourceEntrySize - 1)
        return baEntry;  // too long for the buffer: an empty value instead of a cut path
    baEntry.append(baDir);
    baEntry.append(kFonts);
    baEntry.replace('\\', '/');
    return baEntry;
}

bool MainWindow::SetFontPath()
{
    // putenv keeps the pointer, not a copy: the entry lives in one static buffer for the whole
    // process and is rewritten in place on every call.
    static char s_chEntry[kFontSourceEntrySize];

    QByteArray baEntry = FontSourceEntry(QCoreApplication::applicationDirPath());
    std::memset(s_chEntry, 0, sizeof(s_chEntry));
    std::memcpy(s_chEntry, baEntry.constData(), size_t(baEntry.size()));

    qDebug("%s\n", s_chEntry);
    putenv(s_chEntry);
    const char* pchValue = getenv("PCLFONTSOURCE");
    Q_UNUSED(pchValue);
    return true;
}
