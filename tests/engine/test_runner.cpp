// The batch runner through real child processes: a stand-in engine named quarvex beside the
// test executable logs the arguments and the font folder it receives, can be held back per
// input file, and writes the output file it is given.
#include "app/mainwindow.h"
#include "engine/fontpath.h"
#include "settings/settingsfile.h"
#include "../app/windowdriver.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QSettings>
#include <QSignalSpy>
#include <QTableWidget>
#include <QTemporaryDir>
#include <QTest>

namespace {

// Upper limit for waiting on child processes; a busy machine can be slow to start them.
constexpr int kWait = 30000;

// Holds back the run for input file <name> while <dir>/hold-<name> exists.
const char kStandIn[] = R"SH(#!/bin/sh
dir=$(dirname "$0")
log="$dir/engine.log"
{
  echo "BEGIN"
  printf 'PROG %s\n' "$0"
  for a in "$@"; do printf 'ARG %s\n' "$a"; done
  if [ -n "${PCLFONTSOURCE+x}" ]; then printf 'FONT %s\n' "$PCLFONTSOURCE"; else echo "FONT-UNSET"; fi
} >> "$log"
out=""; in=""; prev=""
for a in "$@"; do
  [ "$prev" = "-o" ] && out="$a"
  [ "$prev" = "-i" ] && in="$a"
  prev="$a"
done
hold="$dir/hold-$(basename "$in")"
while [ -f "$hold" ]; do sleep 0.02; done
[ -n "$out" ] && printf 'converted %s\n' "$in" > "$out"
echo "END" >> "$log"
)SH";

struct EngineRun {
    QString program;
    QStringList args;
    QString font;
    bool finished = false;

    QString value(const QString& option) const
    {
        const int i = args.indexOf(option);
        return i >= 0 && i + 1 < args.size() ? args.at(i + 1) : QString();
    }
};

QString appDir()
{
    return QCoreApplication::applicationDirPath();
}

QString enginePath()
{
    return appDir() + "/quarvex";
}

QString logPath()
{
    return appDir() + "/engine.log";
}

QList<EngineRun> readRuns()
{
    QList<EngineRun> runs;
    QFile f(logPath());
    if (!f.open(QIODevice::ReadOnly))
        return runs;
    const QStringList lines = QString::fromLocal8Bit(f.readAll()).split('\n');
    for (const QString& line : lines) {
        if (line == "BEGIN")
            runs << EngineRun();
        else if (runs.isEmpty())
            continue;
        else if (line.startsWith("PROG "))
            runs.last().program = line.mid(5);
        else if (line.startsWith("ARG "))
            runs.last().args << line.mid(4);
        else if (line.startsWith("FONT "))
            runs.last().font = line.mid(5);
        else if (line == "FONT-UNSET")
            runs.last().font = "<unset>";
        else if (line == "END")
            runs.last().finished = true;
    }
    return runs;
}

int runCount()
{
    return int(readRuns().size());
}

void writeStandIn()
{
    QFile f(enginePath());
    QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    f.write(kStandIn);
    f.close();
    QVERIFY(QFile::setPermissions(enginePath(), QFile::ReadOwner | QFile::WriteOwner
                                                    | QFile::ExeOwner | QFile::ReadGroup
                                                    | QFile::ExeGroup));
}

void hold(const QString& inputName)
{
    QFile f(appDir() + "/hold-" + inputName);
    QVERIFY(f.open(QIODevice::WriteOnly));
}

void release(const QString& inputName)
{
    QFile::remove(appDir() + "/hold-" + inputName);
}

void makeFile(const QString& path)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    f.write("\x1b" "E");
}

using Keys = QList<QPair<QString, QString>>;

void writeSettings(const Keys& keys)
{
    QSettings settings(SettingsFilePath(), QSettings::IniFormat);
    for (const auto& kv : keys)
        settings.setValue("/SettingInfo/" + kv.first, kv.second);
}

QString settingValue(const QString& key)
{
    QSettings settings(SettingsFilePath(), QSettings::IniFormat);
    return settings.value(key).toString();
}

QImage iconImage(const QIcon& icon, const QSize& size)
{
    return icon.pixmap(size).toImage().convertToFormat(QImage::Format_ARGB32);
}

QStringList fixedTail(const QString& output, const QString& input)
{
    return {"-writelocal", "n", "-o", output, "-i", input};
}

}  // namespace

Q_DECLARE_METATYPE(Keys)

class TestRunner : public QObject {
    Q_OBJECT

    QTemporaryDir m_tmp;
    QString m_out;



    static QPushButton* convertButton(MainWindow& w) { return child<QPushButton>(w, "pushButton_Convert"); }
    static QProgressBar* bar(MainWindow& w) { return child<QProgressBar>(w, "progressBarA"); }
    static QTableWidget* table(MainWindow& w) { return child<QTableWidget>(w, "tableWidget"); }
    static QLineEdit* outEdit(MainWindow& w) { return child<QLineEdit>(w, "lineEdit_OutPutPath"); }

    static void checkIdle(MainWindow& w)
    {
        QCOMPARE(convertButton(w)->text(), QStringLiteral("Convert"));
        const QPixmap start(":/MyIco/Image/media_playback_start.ico");
        QCOMPARE(convertButton(w)->iconSize(), start.size());
        QCOMPARE(iconImage(convertButton(w)->icon(), start.size()),
                 start.toImage().convertToFormat(QImage::Format_ARGB32));
    }

    static void checkRunning(MainWindow& w)
    {
        QCOMPARE(convertButton(w)->text(), QStringLiteral("Stop "));
        const QPixmap stop(":/MyIco/Image/stop.ico");
        QCOMPARE(convertButton(w)->iconSize(), stop.size());
        QCOMPARE(iconImage(convertButton(w)->icon(), stop.size()),
                 stop.toImage().convertToFormat(QImage::Format_ARGB32));
    }

    // Presses Convert (or Stop) and returns the message box it showed, if any.
    static SeenDialog press(MainWindow& w, int* hits = nullptr)
    {
        SeenDialog seen;
        ModalDriver driver([&](QWidget* m) {
            seen = describe(m);
            pressYes(m);
        });
        convertButton(w)->click();
        if (hits)
            *hits = driver.hits();
        return seen;
    }

    static void waitIdle(MainWindow& w)
    {
        QTRY_COMPARE_WITH_TIMEOUT(convertButton(w)->text(), QStringLiteral("Convert"), kWait);
    }

    // Runs one file with the stored options as they are; returns the run the engine saw.
    EngineRun runOne(const QString& input, const QString& outFolder)
    {
        MainWindow w;
        bringUp(w);
        addFiles(w, {input});
        outEdit(w)->setText(outFolder);
        int hits = -1;
        press(w, &hits);
        waitIdle(w);
        const QList<EngineRun> runs = readRuns();
        return runs.size() == 1 && hits == 0 ? runs.first() : EngineRun();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_tmp.isValid());
        m_out = m_tmp.filePath("out");
        QVERIFY(QDir().mkpath(m_out));
    }

    void init()
    {
        QFile::remove(SettingsFilePath());
        QFile::remove(logPath());
        const QStringList holds = QDir(appDir()).entryList({"hold-*"}, QDir::Files);
        for (const QString& h : holds)
            QFile::remove(appDir() + "/" + h);
        writeStandIn();
        QDir(m_out).removeRecursively();
        QDir().mkpath(m_out);
    }

    void cleanupTestCase()
    {
        QFile::remove(SettingsFilePath());
        QFile::remove(logPath());
        QFile::remove(enginePath());
    }

    void emptyTableSaysNoFile()
    {
        MainWindow w;
        bringUp(w);
        outEdit(w)->setText(m_out);
        int hits = 0;
        const SeenDialog seen = press(w, &hits);
        QCOMPARE(hits, 1);
        QCOMPARE(seen.className, QStringLiteral("QMessageBox"));
        QCOMPARE(seen.parent, &w);
        QCOMPARE(seen.title, QStringLiteral("Warning"));
        QCOMPARE(seen.text, QStringLiteral("No File!"));
        QCOMPARE(seen.icon, int(QMessageBox::Information));
        QCOMPARE(seen.buttons, int(QMessageBox::Yes));
        QVERIFY(!seen.hasDefaultButton);
        checkIdle(w);
        QCOMPARE(runCount(), 0);
        QVERIFY(!QFile::exists(SettingsFilePath()));
    }

    void missingOutputFolder_data()
    {
        QTest::addColumn<QString>("folder");
        QTest::newRow("empty") << QString();
        QTest::newRow("does not exist") << m_tmp.filePath("no/such/folder");
    }

    void missingOutputFolder()
    {
        QFETCH(QString, folder);
        const QString in = m_tmp.filePath("in/a.pcl");
        makeFile(in);
        MainWindow w;
        bringUp(w);
        addFiles(w, {in});
        QFile::remove(SettingsFilePath());  // adding wrote the input folder
        outEdit(w)->setText(folder);
        int hits = 0;
        const SeenDialog seen = press(w, &hits);
        QCOMPARE(hits, 1);
        QCOMPARE(seen.parent, &w);
        QCOMPARE(seen.title, QStringLiteral("Warning"));
        QCOMPARE(seen.text, QStringLiteral("Please select a correct output folder."));
        QCOMPARE(seen.icon, int(QMessageBox::Information));
        QCOMPARE(seen.buttons, int(QMessageBox::Yes));
        QVERIFY(!seen.hasDefaultButton);
        checkIdle(w);
        QCOMPARE(bar(w)->value(), 0);
        QCoreApplication::processEvents();
        QCOMPARE(runCount(), 0);
        QVERIFY(!QFile::exists(SettingsFilePath()));
    }

    void threeFilesProgressAndHighlight()
    {
        QStringList inputs;
        for (const char* n : {"a.pcl", "b.pxl", "c.prn"}) {
            inputs << m_tmp.filePath(QStringLiteral("three/") + n);
            makeFile(inputs.last());
            hold(n);
        }
        MainWindow w;
        bringUp(w);
        addFiles(w, inputs);
        QTest::keyClicks(outEdit(w), m_out);  // typed by hand
        QSignalSpy values(bar(w), &QProgressBar::valueChanged);

        int hits = -1;
        press(w, &hits);
        QCOMPARE(hits, 0);
        checkRunning(w);
        QCOMPARE(bar(w)->maximum(), 3);
        QCOMPARE(bar(w)->value(), 1);
        QCOMPARE(table(w)->currentRow(), 0);
        QCOMPARE(table(w)->currentColumn(), 1);
        QCOMPARE(table(w)->selectionModel()->selectedRows().size(), 1);
        QCOMPARE(table(w)->selectionModel()->selectedRows().first().row(), 0);
        // Saved as soon as the batch starts.
        QCOMPARE(settingValue("/SettingInfo/OutputFolder"), m_out);
        QTRY_COMPARE_WITH_TIMEOUT(runCount(), 1, kWait);

        release("a.pcl");
        QTRY_COMPARE_WITH_TIMEOUT(bar(w)->value(), 2, kWait);
        QCOMPARE(table(w)->currentRow(), 1);
        QCOMPARE(table(w)->currentColumn(), 1);
        checkRunning(w);
        QTRY_COMPARE_WITH_TIMEOUT(runCount(), 2, kWait);

        release("b.pxl");
        QTRY_COMPARE_WITH_TIMEOUT(bar(w)->value(), 3, kWait);
        QCOMPARE(table(w)->currentRow(), 2);
        checkRunning(w);

        release("c.prn");
        waitIdle(w);
        checkIdle(w);
        QCOMPARE(bar(w)->value(), 0);

        QList<int> seenValues;
        for (const QList<QVariant>& args : values)
            seenValues << args.first().toInt();
        QCOMPARE(seenValues, QList<int>({1, 2, 3, 0}));

        const QList<EngineRun> runs = readRuns();
        QCOMPARE(runs.size(), 3);
        const QStringList outs = {m_out + "/a.tif", m_out + "/b.tif", m_out + "/c.tif"};
        for (int i = 0; i < 3; ++i) {
            QVERIFY(runs[i].finished);
            QCOMPARE(runs[i].program, enginePath());
            QCOMPARE(runs[i].args, QStringList({"-b", "1", "-c", "0"}) + fixedTail(outs[i], inputs[i]));
            QVERIFY(QFile::exists(outs[i]));
        }
        QCOMPARE(table(w)->rowCount(), 3);  // the list stays
    }

    void argumentLists_data()
    {
        QTest::addColumn<Keys>("keys");
        QTest::addColumn<QStringList>("options");
        QTest::newRow("defaults") << Keys{} << QStringList{"-b", "1", "-c", "0"};
        QTest::newRow("all options")
            << Keys{{"ResizePage", "TRUE"}, {"PageSizeX", "1700"}, {"PageSizeY", "2200"},
                    {"ResizeResolution", "TRUE"}, {"ResolutionX", "200"}, {"ResolutionY", "200"},
                    {"BitCount", "2"}, {"CompressMethod", "2"}, {"FaxTiff", "0"}}
            << QStringList{"-gw", "1700", "-gh", "2200", "-r", "200x200", "-b", "24", "-c", "2"};
        QTest::newRow("compression 6 gives 7, fax class 2")
            << Keys{{"BitCount", "0"}, {"CompressMethod", "6"}, {"FaxTiff", "2"}}
            << QStringList{"-b", "1", "-c", "7", "-faxtif", "1"};
        QTest::newRow("compression 7 gives none, fax class 1")
            << Keys{{"BitCount", "0"}, {"CompressMethod", "7"}, {"FaxTiff", "1"}}
            << QStringList{"-b", "1", "-faxtif", "0"};
        QTest::newRow("depth 3 joins page height and compression")
            << Keys{{"BitCount", "3"}, {"ResizePage", "TRUE"}, {"PageSizeX", "0"}, {"PageSizeY", "500"}}
            << QStringList{"-gh", "500-c", "0"};
        QTest::newRow("depth 3 alone")
            << Keys{{"BitCount", "3"}} << QStringList{"-c", "0"};
        QTest::newRow("depth 3 and zip: no options")
            << Keys{{"BitCount", "3"}, {"CompressMethod", "7"}} << QStringList{};
        QTest::newRow("resolution with an axis 0")
            << Keys{{"ResizeResolution", "TRUE"}, {"ResolutionX", "300"}, {"ResolutionY", "0"}}
            << QStringList{"-b", "1", "-c", "0"};
        QTest::newRow("resolution defaults")
            << Keys{{"ResizeResolution", "TRUE"}} << QStringList{"-r", "100x100", "-b", "1", "-c", "0"};
        QTest::newRow("fax with 24 bits")
            << Keys{{"FaxTiff", "2"}, {"BitCount", "2"}, {"CompressMethod", "2"}}
            << QStringList{"-b", "24", "-c", "2", "-faxtif", "1"};
        QTest::newRow("fax 3") << Keys{{"FaxTiff", "3"}} << QStringList{"-b", "1", "-c", "0"};
    }

    void argumentLists()
    {
        QFETCH(Keys, keys);
        QFETCH(QStringList, options);
        writeSettings(keys);
        const QString in = m_tmp.filePath("args/job.pcl");
        makeFile(in);
        const EngineRun run = runOne(in, m_out);
        QVERIFY(run.finished);
        QCOMPARE(run.args, options + fixedTail(m_out + "/job.tif", in));
    }

    void pathsWithBlanks()
    {
        const QString in = m_tmp.filePath("in dir/my  file.v2.pcl");
        const QString out = m_tmp.filePath("out dir");
        makeFile(in);
        QVERIFY(QDir().mkpath(out));
        const EngineRun run = runOne(in, out);
        QVERIFY(run.finished);
        QCOMPARE(run.args, QStringList({"-b", "1", "-c", "0"}) + fixedTail(out + "/my  file.v2.tif", in));
        QVERIFY(QFile::exists(out + "/my  file.v2.tif"));
    }

    void outputNames()
    {
        const QString report = m_tmp.filePath("names/report");
        const QString xy = m_tmp.filePath("names/x.y.pcl");
        const QString same1 = m_tmp.filePath("names/one/same.pcl");
        const QString same2 = m_tmp.filePath("names/two/same.pxl");
        const QString dotted = m_tmp.filePath("names/dir.v1/plain");
        for (const QString& f : {report, xy, same1, same2, dotted})
            makeFile(f);
        MainWindow w;
        bringUp(w);
        addFiles(w, {report, xy});
        addFiles(w, {same1});
        addFiles(w, {same2});
        addFiles(w, {dotted});
        outEdit(w)->setText(m_out);
        press(w);
        waitIdle(w);
        const QList<EngineRun> runs = readRuns();
        QCOMPARE(runs.size(), 5);
        QCOMPARE(runs[0].value("-o"), m_out + "/report.tif");
        QCOMPARE(runs[1].value("-o"), m_out + "/x.y.tif");
        QCOMPARE(runs[2].value("-o"), m_out + "/same.tif");
        QCOMPARE(runs[3].value("-o"), m_out + "/same.tif");
        QCOMPARE(runs[4].value("-o"), m_out + "/plain.tif");
        QCOMPARE(runs[3].value("-i"), same2);
        QVERIFY(QFile::exists(m_out + "/report.tif"));
        QVERIFY(QFile::exists(m_out + "/x.y.tif"));
        QFile last(m_out + "/same.tif");
        QVERIFY(last.open(QIODevice::ReadOnly));
        QCOMPARE(QString::fromLocal8Bit(last.readAll()), "converted " + same2 + "\n");
    }

    void folderAndOptionsReadAgainForEveryFile()
    {
        const QString a = m_tmp.filePath("again/a.pcl");
        const QString b = m_tmp.filePath("again/b.pcl");
        makeFile(a);
        makeFile(b);
        const QString other = m_tmp.filePath("otherOut");
        QVERIFY(QDir().mkpath(other));
        hold("a.pcl");
        MainWindow w;
        bringUp(w);
        addFiles(w, {a, b});
        outEdit(w)->setText(m_out);
        press(w);
        QTRY_COMPARE_WITH_TIMEOUT(runCount(), 1, kWait);
        // Changed while the first file runs: the second file gets both changes.
        outEdit(w)->setText(other);
        writeSettings({{"BitCount", "2"}, {"CompressMethod", "1"}});
        release("a.pcl");
        waitIdle(w);
        const QList<EngineRun> runs = readRuns();
        QCOMPARE(runs.size(), 2);
        QCOMPARE(runs[0].args, QStringList({"-b", "1", "-c", "0"}) + fixedTail(m_out + "/a.tif", a));
        QCOMPARE(runs[1].args, QStringList({"-b", "24", "-c", "1"}) + fixedTail(other + "/b.tif", b));
        // Only the folder in the field when Convert was pressed was saved.
        QCOMPARE(settingValue("/SettingInfo/OutputFolder"), m_out);
    }

    void stopDuringSecondOfThree()
    {
        QStringList inputs;
        for (const char* n : {"a.pcl", "b.pcl", "c.pcl"}) {
            inputs << m_tmp.filePath(QStringLiteral("stop/") + n);
            makeFile(inputs.last());
        }
        hold("b.pcl");
        MainWindow w;
        bringUp(w);
        addFiles(w, inputs);
        outEdit(w)->setText(m_out);
        press(w);
        QTRY_COMPARE_WITH_TIMEOUT(runCount(), 2, kWait);
        QCOMPARE(bar(w)->value(), 2);
        checkRunning(w);

        int hits = -1;
        press(w, &hits);  // Stop
        QCOMPARE(hits, 0);
        checkIdle(w);
        QCOMPARE(bar(w)->value(), 0);
        // Let any event that could start another run be delivered; none must.
        QTest::qWait(300);
        const QList<EngineRun> runs = readRuns();
        QCOMPARE(runs.size(), 2);
        QVERIFY(runs[0].finished);
        QVERIFY(!runs[1].finished);  // killed while held
        QVERIFY(QFile::exists(m_out + "/a.tif"));
        QVERIFY(!QFile::exists(m_out + "/b.tif"));
        QVERIFY(!QFile::exists(m_out + "/c.tif"));
        checkIdle(w);

        // The next Convert starts again at the first row.
        release("b.pcl");
        press(w);
        waitIdle(w);
        const QList<EngineRun> again = readRuns();
        QCOMPARE(again.size(), 5);
        QCOMPARE(again[2].value("-i"), inputs[0]);
        QCOMPARE(again[3].value("-i"), inputs[1]);
        QCOMPARE(again[4].value("-i"), inputs[2]);
        QVERIFY(QFile::exists(m_out + "/c.tif"));
    }

    void stopWithVanishedFolderDoesNotStop()
    {
        const QString a = m_tmp.filePath("vanish/a.pcl");
        makeFile(a);
        const QString folder = m_tmp.filePath("vanishingOut");
        QVERIFY(QDir().mkpath(folder));
        hold("a.pcl");
        MainWindow w;
        bringUp(w);
        addFiles(w, {a});
        outEdit(w)->setText(folder);
        press(w);
        QTRY_COMPARE_WITH_TIMEOUT(runCount(), 1, kWait);
        QVERIFY(QDir(folder).removeRecursively());

        int hits = 0;
        const SeenDialog seen = press(w, &hits);
        QCOMPARE(hits, 1);
        QCOMPARE(seen.text, QStringLiteral("Please select a correct output folder."));
        checkRunning(w);
        QCOMPARE(bar(w)->value(), 1);

        // With the folder back, Stop works and saves the folder again.
        QFile::remove(SettingsFilePath());
        QVERIFY(QDir().mkpath(folder));
        press(w, &hits);
        QCOMPARE(hits, 0);
        checkIdle(w);
        QCOMPARE(bar(w)->value(), 0);
        QCOMPARE(settingValue("/SettingInfo/OutputFolder"), folder);
        QVERIFY(!readRuns().first().finished);
    }

    void engineMissingOrEmpty_data()
    {
        QTest::addColumn<bool>("empty");
        QTest::newRow("missing") << false;
        QTest::newRow("empty file") << true;
    }

    void engineMissingOrEmpty()
    {
        QFETCH(bool, empty);
        QFile::remove(enginePath());
        if (empty) {
            QFile f(enginePath());
            QVERIFY(f.open(QIODevice::WriteOnly));
        }
        const QString a = m_tmp.filePath("noengine/a.pcl");
        makeFile(a);
        MainWindow w;
        bringUp(w);
        addFiles(w, {a});
        outEdit(w)->setText(m_out);
        int hits = -1;
        press(w, &hits);
        QCOMPARE(hits, 0);  // no message
        checkIdle(w);
        QCOMPARE(bar(w)->value(), 0);
        QTest::qWait(100);
        QCOMPARE(runCount(), 0);
        // The folder was saved before the engine was looked for.
        QCOMPARE(settingValue("/SettingInfo/OutputFolder"), m_out);

        // With the engine back the same window converts.
        writeStandIn();
        press(w);
        waitIdle(w);
        QCOMPARE(runCount(), 1);
    }

    void engineThatCannotStartStallsUntilStop()
    {
        QVERIFY(QFile::setPermissions(enginePath(), QFile::ReadOwner | QFile::WriteOwner));
        const QString a = m_tmp.filePath("noexec/a.pcl");
        makeFile(a);
        MainWindow w;
        bringUp(w);
        addFiles(w, {a});
        outEdit(w)->setText(m_out);
        press(w);
        checkRunning(w);
        QTest::qWait(300);
        checkRunning(w);  // stalled: no finished signal comes
        QCOMPARE(bar(w)->value(), 1);
        int hits = -1;
        press(w, &hits);
        QCOMPARE(hits, 0);
        checkIdle(w);
        QCOMPARE(bar(w)->value(), 0);
        QCOMPARE(runCount(), 0);
    }

    void engineVanishingMidBatchStallsUntilStop()
    {
        const QString a = m_tmp.filePath("vanishengine/a.pcl");
        const QString b = m_tmp.filePath("vanishengine/b.pcl");
        makeFile(a);
        makeFile(b);
        hold("a.pcl");
        MainWindow w;
        bringUp(w);
        addFiles(w, {a, b});
        outEdit(w)->setText(m_out);
        press(w);
        QTRY_COMPARE_WITH_TIMEOUT(runCount(), 1, kWait);
        // The running script has been read by its shell; removing the file does not stop it.
        QVERIFY(QFile::remove(enginePath()));
        release("a.pcl");
        QTRY_VERIFY_WITH_TIMEOUT(readRuns().first().finished, kWait);
        QTest::qWait(300);
        checkRunning(w);  // the chain stopped silently
        QCOMPARE(bar(w)->value(), 1);
        QCOMPARE(runCount(), 1);
        int hits = -1;
        press(w, &hits);
        QCOMPARE(hits, 0);
        checkIdle(w);
        QCOMPARE(bar(w)->value(), 0);
    }

    void editingIsGatedWhileRunning()
    {
        const QString a = m_tmp.filePath("gate/a.pcl");
        const QString b = m_tmp.filePath("gate/b.pcl");
        makeFile(a);
        makeFile(b);
        hold("a.pcl");
        MainWindow w;
        bringUp(w);
        addFiles(w, {a, b});
        outEdit(w)->setText(m_out);
        press(w);
        QTRY_COMPARE_WITH_TIMEOUT(runCount(), 1, kWait);

        // Add, Remove, Clear and the folder button do nothing; they stay enabled.
        {
            ModalDriver none([](QWidget* m) { rejectDialog(m); });
            child<QPushButton>(w, "pushButton_Add")->click();
            child<QPushButton>(w, "pushButton_OutPutPath")->click();
            QCOMPARE(none.hits(), 0);
        }
        QCOMPARE(outEdit(w)->text(), m_out);
        QCOMPARE(table(w)->currentRow(), 0);
        child<QPushButton>(w, "pushButton_Remove")->click();
        QCOMPARE(table(w)->rowCount(), 2);
        child<QPushButton>(w, "pushButton_RemoveAll")->click();
        QCOMPARE(table(w)->rowCount(), 2);
        for (const char* n : {"pushButton_Add", "pushButton_Remove", "pushButton_RemoveAll",
                              "pushButton_OutPutPath", "pushButton_Setting", "pushButton_About"})
            QVERIFY(child<QPushButton>(w, n)->isEnabled());

        // Setting and About still open.
        QStringList opened;
        {
            ModalDriver driver([&](QWidget* m) {
                opened << QString::fromLatin1(m->metaObject()->className());
                rejectDialog(m);
            });
            child<QPushButton>(w, "pushButton_Setting")->click();
        }
        {
            ModalDriver driver([&](QWidget* m) {
                opened << QString::fromLatin1(m->metaObject()->className());
                rejectDialog(m);
            });
            child<QPushButton>(w, "pushButton_About")->click();
        }
        QCOMPARE(opened, QStringList({"SettingDialog", "AboutDlg"}));
        checkRunning(w);

        release("a.pcl");
        waitIdle(w);
        QCOMPARE(runCount(), 2);

        // Idle again: editing works.
        child<QPushButton>(w, "pushButton_RemoveAll")->click();
        QCOMPARE(table(w)->rowCount(), 0);
    }

    void folderDialogOpensInLastBatchFolder()
    {
        const QString a = m_tmp.filePath("last/a.pcl");
        makeFile(a);
        const QString folder = m_tmp.filePath("lastOut");
        QVERIFY(QDir().mkpath(folder));
        {
            MainWindow w;
            bringUp(w);
            addFiles(w, {a});
            outEdit(w)->setText(folder);
            press(w);
            waitIdle(w);
            SeenDialog seen;
            ModalDriver driver([&](QWidget* m) {
                seen = describe(m);
                rejectDialog(m);
            });
            child<QPushButton>(w, "pushButton_OutPutPath")->click();
            QCOMPARE(driver.hits(), 1);
            QCOMPARE(seen.directory, folder);
            QCOMPARE(outEdit(w)->text(), QString());  // cancelled: field emptied
        }
        // A fresh start still shows an empty field; the dialog opens in the saved folder.
        MainWindow fresh;
        bringUp(fresh);
        QCOMPARE(outEdit(fresh)->text(), QString());
        SeenDialog seen;
        ModalDriver driver([&](QWidget* m) {
            seen = describe(m);
            rejectDialog(m);
        });
        child<QPushButton>(fresh, "pushButton_OutPutPath")->click();
        QCOMPARE(seen.directory, folder);
    }

    void ordinaryFileAsOutputFolderPassesTheCheck()
    {
        const QString a = m_tmp.filePath("plainfile/a.pcl");
        makeFile(a);
        const QString file = m_tmp.filePath("plainfile/not-a-folder");
        makeFile(file);
        const EngineRun run = runOne(a, file);
        QCOMPARE(run.value("-o"), file + "/a.tif");
        QCOMPARE(settingValue("/SettingInfo/OutputFolder"), file);
    }

    void engineInheritsFontFolder()
    {
        qputenv("PCLFONTSOURCE", "/set/before/start/");
        const QString a = m_tmp.filePath("font/a.pcl");
        makeFile(a);
        const EngineRun run = runOne(a, m_out);
        QVERIFY(run.finished);
        const QByteArray entry = FontSourceEntry(appDir());
        QVERIFY(entry.size() > 14);
        QCOMPARE(run.font.toLocal8Bit(), entry.mid(14));
        QCOMPARE(qgetenv("PCLFONTSOURCE"), entry.mid(14));
    }
};

int main(int argc, char* argv[])
{
    QTemporaryDir configHome;
    qputenv("XDG_CONFIG_HOME", configHome.path().toLocal8Bit());
    QApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
    QApplication app(argc, argv);
    TestRunner t;
    return QTest::qExec(&t, argc, argv);
}

#include "test_runner.moc"
