// The engine's option string from the stored options, the compression index mapping, and the
// font folder handed to the engine through the environment.
#include "app/mainwindow.h"
#include "engine/fontpath.h"
#include "settings/settingsfile.h"

#include <QApplication>
#include <QFile>
#include <QSettings>
#include <QTest>

#include <cstdlib>
#include <cstring>

extern char** environ;

namespace {

using Keys = QList<QPair<QString, QString>>;

void writeSettings(const Keys& keys)
{
    QFile::remove(SettingsFilePath());
    if (keys.isEmpty())
        return;
    QSettings settings(SettingsFilePath(), QSettings::IniFormat);
    for (const auto& kv : keys)
        settings.setValue("/SettingInfo/" + kv.first, kv.second);
}

// The option strings below are written with "_" for every blank, so that the blanks can be
// counted; everything else is literal.
QString blanks(QString s)
{
    return s.replace('_', ' ');
}

QStringList g_debugLines;

void captureDebug(QtMsgType type, const QMessageLogContext&, const QString& msg)
{
    if (type == QtDebugMsg)
        g_debugLines << msg;
}

int countEnvironmentEntries(const char* prefix)
{
    int n = 0;
    for (char** e = environ; *e; ++e)
        if (std::strncmp(*e, prefix, std::strlen(prefix)) == 0)
            ++n;
    return n;
}

}  // namespace

Q_DECLARE_METATYPE(Keys)

class TestCmdArg : public QObject {
    Q_OBJECT

private slots:
    void init() { QFile::remove(SettingsFilePath()); }
    void cleanupTestCase() { QFile::remove(SettingsFilePath()); }

    void optionString_data()
    {
        QTest::addColumn<Keys>("keys");
        QTest::addColumn<QString>("expected");

        QTest::newRow("no settings file") << Keys{} << blanks(R"(_"-b"_"1"_"-c"_"0")");
        QTest::newRow("file without these keys")
            << Keys{{"Format", ".tif"}, {"OutputFolder", "/tmp"}} << blanks(R"(_"-b"_"1"_"-c"_"0")");
        QTest::newRow("all options")
            << Keys{{"ResizePage", "TRUE"}, {"PageSizeX", "1700"}, {"PageSizeY", "2200"},
                    {"ResizeResolution", "TRUE"}, {"ResolutionX", "200"}, {"ResolutionY", "200"},
                    {"BitCount", "2"}, {"CompressMethod", "2"}, {"FaxTiff", "0"}}
            << blanks(R"(_"-gw"_"1700"_"-gh"_"2200"_"-r"_"200x200"__"-b"_"24"_"-c"_"2")");
        QTest::newRow("g4 and fax class 2")
            << Keys{{"BitCount", "0"}, {"CompressMethod", "6"}, {"FaxTiff", "2"},
                    {"ResizePage", "FALSE"}, {"ResizeResolution", "FALSE"}}
            << blanks(R"(_"-b"_"1"_"-c"_"7"_"-faxtif"_"1"_)");
        QTest::newRow("zip and fax class 1")
            << Keys{{"BitCount", "0"}, {"CompressMethod", "7"}, {"FaxTiff", "1"}}
            << blanks(R"(_"-b"_"1"__"-faxtif"_"0"_)");

        for (int c = 0; c <= 5; ++c)
            QTest::newRow(qPrintable(QStringLiteral("compression %1").arg(c)))
                << Keys{{"CompressMethod", QString::number(c)}}
                << blanks(QStringLiteral(R"(_"-b"_"1"_"-c"_"%1")").arg(c));
        QTest::newRow("compression 6") << Keys{{"CompressMethod", "6"}} << blanks(R"(_"-b"_"1"_"-c"_"7")");
        QTest::newRow("compression 7") << Keys{{"CompressMethod", "7"}} << blanks(R"(_"-b"_"1"_)");
        QTest::newRow("compression -1") << Keys{{"CompressMethod", "-1"}} << blanks(R"(_"-b"_"1"_"-c"_"0")");
        QTest::newRow("compression 8") << Keys{{"CompressMethod", "8"}} << blanks(R"(_"-b"_"1"_"-c"_"0")");
        QTest::newRow("compression 100") << Keys{{"CompressMethod", "100"}} << blanks(R"(_"-b"_"1"_"-c"_"0")");
        QTest::newRow("compression text") << Keys{{"CompressMethod", "zip"}} << blanks(R"(_"-b"_"1"_"-c"_"0")");

        QTest::newRow("depth 8") << Keys{{"BitCount", "1"}} << blanks(R"(_"-b"_"8"_"-c"_"0")");
        QTest::newRow("depth 24") << Keys{{"BitCount", "2"}} << blanks(R"(_"-b"_"24"_"-c"_"0")");
        QTest::newRow("depth text") << Keys{{"BitCount", "many"}} << blanks(R"(_"-b"_"1"_"-c"_"0")");
        QTest::newRow("depth 3 alone") << Keys{{"BitCount", "3"}} << blanks(R"("-c"_"0")");
        QTest::newRow("depth -1") << Keys{{"BitCount", "-1"}} << blanks(R"("-c"_"0")");
        QTest::newRow("depth 3 after page height")
            << Keys{{"BitCount", "3"}, {"ResizePage", "TRUE"}, {"PageSizeX", "0"}, {"PageSizeY", "500"}}
            << blanks(R"(_"-gh"_"500""-c"_"0")");
        QTest::newRow("depth 3 after resolution")
            << Keys{{"BitCount", "3"}, {"ResizeResolution", "TRUE"}}
            << blanks(R"(_"-r"_"100x100"_"-c"_"0")");

        QTest::newRow("page switch lower case")
            << Keys{{"ResizePage", "true"}, {"PageSizeX", "500"}, {"PageSizeY", "600"}}
            << blanks(R"(_"-b"_"1"_"-c"_"0")");
        QTest::newRow("page width 0, height 500")
            << Keys{{"ResizePage", "TRUE"}, {"PageSizeX", "0"}, {"PageSizeY", "500"}}
            << blanks(R"(_"-gh"_"500"_"-b"_"1"_"-c"_"0")");
        QTest::newRow("page width 500, height text")
            << Keys{{"ResizePage", "TRUE"}, {"PageSizeX", "500"}, {"PageSizeY", "tall"}}
            << blanks(R"(_"-gw"_"500"_"-b"_"1"_"-c"_"0")");
        QTest::newRow("page sizes missing")
            << Keys{{"ResizePage", "TRUE"}}
            << blanks(R"(_"-gw"_"100"_"-gh"_"100"_"-b"_"1"_"-c"_"0")");
        QTest::newRow("page sizes unbounded")
            << Keys{{"ResizePage", "TRUE"}, {"PageSizeX", "100000"}, {"PageSizeY", "100000"}}
            << blanks(R"(_"-gw"_"100000"_"-gh"_"100000"_"-b"_"1"_"-c"_"0")");

        QTest::newRow("resolution with one axis 0")
            << Keys{{"ResizeResolution", "TRUE"}, {"ResolutionX", "300"}, {"ResolutionY", "0"}}
            << blanks(R"(_"-b"_"1"_"-c"_"0")");
        QTest::newRow("resolution keys missing")
            << Keys{{"ResizeResolution", "TRUE"}} << blanks(R"(_"-r"_"100x100"__"-b"_"1"_"-c"_"0")");
        QTest::newRow("resolution switched off")
            << Keys{{"ResizeResolution", "FALSE"}, {"ResolutionX", "300"}, {"ResolutionY", "600"}}
            << blanks(R"(_"-b"_"1"_"-c"_"0")");
        QTest::newRow("resolution switch lower case")
            << Keys{{"ResizeResolution", "true"}, {"ResolutionX", "300"}, {"ResolutionY", "600"}}
            << blanks(R"(_"-b"_"1"_"-c"_"0")");
        QTest::newRow("resolution unequal")
            << Keys{{"ResizeResolution", "TRUE"}, {"ResolutionX", "300"}, {"ResolutionY", "600"}}
            << blanks(R"(_"-r"_"300x600"__"-b"_"1"_"-c"_"0")");
        QTest::newRow("resolution text")
            << Keys{{"ResizeResolution", "TRUE"}, {"ResolutionX", "fine"}, {"ResolutionY", "600"}}
            << blanks(R"(_"-b"_"1"_"-c"_"0")");

        QTest::newRow("fax 3") << Keys{{"FaxTiff", "3"}} << blanks(R"(_"-b"_"1"_"-c"_"0")");
        QTest::newRow("fax empty") << Keys{{"FaxTiff", ""}} << blanks(R"(_"-b"_"1"_"-c"_"0")");
        QTest::newRow("fax 1 and a blank") << Keys{{"FaxTiff", "1 "}} << blanks(R"(_"-b"_"1"_"-c"_"0")");
        QTest::newRow("fax 01") << Keys{{"FaxTiff", "01"}} << blanks(R"(_"-b"_"1"_"-c"_"0")");
        QTest::newRow("fax with 24 bits and lzw")
            << Keys{{"FaxTiff", "2"}, {"BitCount", "2"}, {"CompressMethod", "2"}}
            << blanks(R"(_"-b"_"24"_"-c"_"2"_"-faxtif"_"1"_)");
    }

    void optionString()
    {
        QFETCH(Keys, keys);
        QFETCH(QString, expected);
        writeSettings(keys);
        MainWindow w;
        QCOMPARE(w.GetCmdArg(), expected);
        // Read afresh on every call, never written.
        QCOMPARE(w.GetCmdArg(), expected);
        QCOMPARE(QFile::exists(SettingsFilePath()), !keys.isEmpty());
    }

    void optionsFollowTheFileBetweenCalls()
    {
        MainWindow w;
        QCOMPARE(w.GetCmdArg(), blanks(R"(_"-b"_"1"_"-c"_"0")"));
        writeSettings({{"BitCount", "2"}, {"CompressMethod", "3"}});
        QCOMPARE(w.GetCmdArg(), blanks(R"(_"-b"_"24"_"-c"_"3")"));
        QFile::remove(SettingsFilePath());
        QCOMPARE(w.GetCmdArg(), blanks(R"(_"-b"_"1"_"-c"_"0")"));
        QVERIFY(!QFile::exists(SettingsFilePath()));
    }

    void compressionIndexMapping_data()
    {
        QTest::addColumn<QString>("index");
        QTest::addColumn<QString>("expected");
        for (int i = 0; i <= 5; ++i)
            QTest::newRow(qPrintable(QString::number(i)))
                << QString::number(i) << QStringLiteral("\"-c\" \"%1\"").arg(i);
        QTest::newRow("6") << "6" << "\"-c\" \"7\"";
        QTest::newRow("7") << "7" << "";
        QTest::newRow("8") << "8" << "";
        QTest::newRow("06") << "06" << "";
        QTest::newRow("blank 6") << " 6" << "";
        QTest::newRow("empty") << "" << "";
        QTest::newRow("-1") << "-1" << "";
    }

    void compressionIndexMapping()
    {
        QFETCH(QString, index);
        QFETCH(QString, expected);
        MainWindow w;
        const QString got = w.iCompressMethodtoCompressMethod(index);
        QCOMPARE(got, expected);
        QVERIFY(!got.contains("\"6\""));
    }

    void fontSourceEntry_data()
    {
        QTest::addColumn<QString>("appDir");
        QTest::addColumn<QByteArray>("entry");
        QTest::newRow("bundle") << "/Applications/Quarvel.app/Contents/MacOS"
                                << QByteArray("PCLFONTSOURCE=/Applications/fonts/");
        QTest::newRow("no full stop") << "/opt/quarvel/bin" << QByteArray("PCLFONTSOURCE=/opt/quarvel/fonts/");
        QTest::newRow("full stop in a folder name") << "/Users/j.doe/bin"
                                                    << QByteArray("PCLFONTSOURCE=/Users/fonts/");
        QTest::newRow("two full stops") << "/Volumes/Tools/Quarvel 2.1.app/Contents/MacOS"
                                        << QByteArray("PCLFONTSOURCE=/Volumes/Tools/fonts/");
        QTest::newRow("backslashes") << "C:\\Tools\\Quarvel.app\\Contents\\MacOS"
                                     << QByteArray("PCLFONTSOURCE=C:/Tools/Quarvel/fonts/");
        QTest::newRow("backslash before the last slash") << "/srv/a\\b/Q.app/Contents/MacOS"
                                                         << QByteArray("PCLFONTSOURCE=/srv/a/b/fonts/");
        QTest::newRow("ends in a backslash") << "/srv/tools\\/Q.app/MacOS"
                                             << QByteArray("PCLFONTSOURCE=/srv/tools/fonts/");
        QTest::newRow("bundle in the root") << "/Quarvel.app/Contents/MacOS"
                                            << QByteArray("PCLFONTSOURCE=/fonts/");
        QTest::newRow("one level below the root") << "/bin" << QByteArray("PCLFONTSOURCE=/fonts/");
        QTest::newRow("no slash at all") << "Quarvel.app" << QByteArray("PCLFONTSOURCE=Quarvel/fonts/");
        QTest::newRow("latin-1") << QString::fromUtf8("/opt/Qu\u00e4rvel/bin")
                                 << QByteArray("PCLFONTSOURCE=/opt/Qu\xe4rvel/fonts/");
        QTest::newRow("outside latin-1") << QString::fromUtf8("/opt/Q\u20acl/sub/bin")
                                         << QByteArray("PCLFONTSOURCE=/opt/Q?l/sub/fonts/");
    }

    void fontSourceEntry()
    {
        QFETCH(QString, appDir);
        QFETCH(QByteArray, entry);
        QCOMPARE(FontSourceEntry(appDir), entry);
    }

    void fontSourceEntryLength()
    {
        // "PCLFONTSOURCE=" (14) + folder + "/" + "fonts/" (6) must fit 1023 characters.
        const QString fits = "/" + QString(1001, 'a');    // folder of 1002 characters
        QString dir = fits + "/bin";                       // cut back to `fits`
        QByteArray entry = FontSourceEntry(dir);
        QCOMPARE(entry.size(), 1023);
        QCOMPARE(entry, "PCLFONTSOURCE=" + fits.toLatin1() + "/fonts/");

        const QString tooLong = "/" + QString(1002, 'a');
        entry = FontSourceEntry(tooLong + "/bin");
        QCOMPARE(entry, QByteArray("PCLFONTSOURCE="));
        QCOMPARE(FontSourceEntry("/" + QString(5000, 'b') + "/Q.app/Contents/MacOS"),
                 QByteArray("PCLFONTSOURCE="));
    }

    void setFontPathSetsTheEnvironment()
    {
        const QByteArray expected = FontSourceEntry(QCoreApplication::applicationDirPath());
        QVERIFY(expected.startsWith("PCLFONTSOURCE=/"));
        QVERIFY(expected.endsWith("/fonts/"));

        qputenv("PCLFONTSOURCE", "/somewhere/else/");
        MainWindow w;
        g_debugLines.clear();
        QtMessageHandler old = qInstallMessageHandler(captureDebug);
        const bool result = w.SetFontPath();
        qInstallMessageHandler(old);
        QVERIFY(result);
        QCOMPARE(QByteArray(getenv("PCLFONTSOURCE")), expected.mid(14));
        QCOMPARE(g_debugLines, QStringList({QString::fromLatin1(expected) + "\n"}));
        QCOMPARE(countEnvironmentEntries("PCLFONTSOURCE="), 1);
        const char* first = getenv("PCLFONTSOURCE");

        // Twice: still one entry, same text, same buffer; one debug line per call.
        g_debugLines.clear();
        old = qInstallMessageHandler(captureDebug);
        w.SetFontPath();
        qInstallMessageHandler(old);
        QCOMPARE(g_debugLines.size(), 1);
        QCOMPARE(countEnvironmentEntries("PCLFONTSOURCE="), 1);
        QCOMPARE(getenv("PCLFONTSOURCE"), first);
        QCOMPARE(QByteArray(getenv("PCLFONTSOURCE")), expected.mid(14));

        // A second window shares the one buffer.
        MainWindow other;
        other.SetFontPath();
        QCOMPARE(getenv("PCLFONTSOURCE"), first);
    }
};

int main(int argc, char* argv[])
{
    QApplication app(argc, argv);
    TestCmdArg t;
    return QTest::qExec(&t, argc, argv);
}

#include "test_cmdarg.moc"
