// Start-up of the real staged executable, run as a black box: which folder it searches for
// plug-ins, with and without a plugins folder beside its own folder.
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

namespace {

// Copies the staged executable to <root>/bin/quarvel; with withPlugins, <root>/plugins holds
// an empty imageformats folder.
QString makeLayout(const QString& root, bool withPlugins)
{
    QDir().mkpath(root + "/bin");
    if (withPlugins)
        QDir().mkpath(root + "/plugins/imageformats");
    const QString exe = root + "/bin/quarvel";
    QFile::remove(exe);
    if (!QFile::copy(QStringLiteral(QUARVEL_STAGED_BINARY), exe))
        return QString();
    QFile::setPermissions(exe, QFile::permissions(exe) | QFile::ExeOwner);
    return exe;
}

// Starts the program and collects its plug-in loader's diagnostics until the image format
// folder has been searched (the main window loads its pictures at construction), then stops it.
struct Run {
    QString log;
    bool stillRunning = false;
};

Run runUntilImageFormatsSearched(const QString& exe, const QStringList& args)
{
    QProcess p;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("QT_QPA_PLATFORM", "offscreen");
    env.insert("QT_DEBUG_PLUGINS", "1");
    env.remove("QT_PLUGIN_PATH");
    p.setProcessEnvironment(env);
    p.setProcessChannelMode(QProcess::MergedChannels);
    p.setWorkingDirectory(QFileInfo(exe).absolutePath());
    p.start(exe, args);
    Run run;
    if (!p.waitForStarted(30000))
        return run;
    QDeadlineTimer deadline(60000);
    // Wait for the line that names the folder searched for image formats, and for the
    // line that follows it (so the search has really happened after the paths were set).
    while (!deadline.hasExpired() && p.state() == QProcess::Running) {
        p.waitForReadyRead(200);
        run.log += QString::fromLocal8Bit(p.readAll());
        if (run.log.contains("/imageformats\"") && run.log.contains("accessible"))
            break;
    }
    run.stillRunning = p.state() == QProcess::Running;
    p.kill();
    p.waitForFinished(30000);
    run.log += QString::fromLocal8Bit(p.readAll());
    return run;
}

QStringList searchedImageFormatFolders(const QString& log)
{
    QStringList out;
    const QStringList lines = log.split('\n');
    for (const QString& line : lines) {
        const int at = line.indexOf("checking directory path \"");
        if (at < 0 || !line.contains("/imageformats\""))
            continue;
        const int start = at + int(strlen("checking directory path \""));
        const int end = line.indexOf('"', start);
        out << line.mid(start, end - start);
    }
    return out;
}

}  // namespace

class TestStartup : public QObject {
    Q_OBJECT
    QTemporaryDir m_tmp;

private slots:
    void initTestCase()
    {
        QVERIFY(m_tmp.isValid());
        QVERIFY(QFile::exists(QStringLiteral(QUARVEL_STAGED_BINARY)));
    }

    void pluginFolderBesideExecutablesFolder()
    {
        const QString root = QDir(m_tmp.path()).absoluteFilePath("bundle");
        const QString exe = makeLayout(root, true);
        QVERIFY(!exe.isEmpty());
        const Run run = runUntilImageFormatsSearched(exe, {});
        QVERIFY2(run.stillRunning, qPrintable(run.log));
        // The only folder searched for image formats is <root>/plugins/imageformats: Qt's own
        // plug-in folder is not searched.
        QCOMPARE(searchedImageFormatFolders(run.log),
                 QStringList({root + "/plugins/imageformats"}));
    }

    void withoutPluginsFolderTheParentIsUsed()
    {
        const QString root = QDir(m_tmp.path()).absoluteFilePath("loose");
        const QString exe = makeLayout(root, false);
        QVERIFY(!exe.isEmpty());
        const Run run = runUntilImageFormatsSearched(exe, {});
        QVERIFY2(run.stillRunning, qPrintable(run.log));
        QCOMPARE(searchedImageFormatFolders(run.log), QStringList({root + "/imageformats"}));
    }

    void argumentsHaveNoEffect()
    {
        const QString root = QDir(m_tmp.path()).absoluteFilePath("args");
        const QString exe = makeLayout(root, true);
        QVERIFY(!exe.isEmpty());
        // Options a program might act on, and a file name: none of them ends the program,
        // changes the plug-in folder, or touches the settings file.
        const Run run = runUntilImageFormatsSearched(
            exe, {"--help", "--version", "-o", root + "/out", root + "/input.pcl"});
        QVERIFY2(run.stillRunning, qPrintable(run.log));
        QCOMPARE(searchedImageFormatFolders(run.log),
                 QStringList({root + "/plugins/imageformats"}));
        QVERIFY(!QFile::exists(root + "/bin/quarvelinfo.ini"));
        QVERIFY(!QFile::exists(root + "/out"));
    }
};

QTEST_GUILESS_MAIN(TestStartup)
#include "test_startup.moc"
