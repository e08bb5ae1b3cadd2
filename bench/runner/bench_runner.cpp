// Measures what the batch runner adds per file on top of starting the engine: a batch of
// input files goes through the main window's Convert button with a stand-in engine that
// exits at once (a copy of /bin/true named quarvex beside this program), and the same stand-in
// is started the same number of times in a plain loop of QProcess starts. The difference per
// file is the runner's overhead (settings read, command assembly, font environment, progress
// bar and table updates, signal chaining).
//
// Usage: bench_runner [files] [rounds]      (defaults: 300 files, 3 rounds)
#include "app/mainwindow.h"
#include "settings/settingsfile.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QLineEdit>
#include <QProcess>
#include <QPushButton>
#include <QTableWidget>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <vector>

namespace {

int g_debugLines = 0;

// The runner writes one debug line per file; count them instead of printing them, so that
// the terminal's speed is not measured.
void countDebug(QtMsgType type, const QMessageLogContext&, const QString&)
{
    if (type == QtDebugMsg)
        ++g_debugLines;
}

bool installStandIn(const QString& engine)
{
    QFile::remove(engine);
    if (!QFile::copy("/bin/true", engine))
        return false;
    return QFile::setPermissions(engine, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

double runnerBatchMs(const QStringList& inputs, const QString& outFolder)
{
    MainWindow w;
    w.setFixedSize(730, 450);
    w.show();
    w.InitAllChoice();
    auto* table = w.findChild<QTableWidget*>("tableWidget");
    for (const QString& in : inputs) {
        const int row = table->rowCount();
        table->insertRow(row);
        table->setItem(row, 0, new QTableWidgetItem(in));
    }
    w.findChild<QLineEdit*>("lineEdit_OutPutPath")->setText(outFolder);
    auto* convert = w.findChild<QPushButton*>("pushButton_Convert");

    QElapsedTimer timer;
    timer.start();
    convert->click();
    while (convert->text() != QLatin1String("Convert"))
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    return double(timer.nsecsElapsed()) / 1e6;
}

double plainLoopMs(const QString& engine, const QStringList& inputs, const QString& outFolder)
{
    QElapsedTimer timer;
    timer.start();
    for (const QString& in : inputs) {
        const QString base = QFileInfo(in).completeBaseName();
        const QString command = "\"" + engine + "\"  \"-b\" \"1\" \"-c\" \"0\" \"-writelocal\" \"n\"  "
                                "\"-o\" \"" + outFolder + "/" + base + ".tif\"  \"-i\" \"" + in + "\" ";
        QProcess p;
        p.startCommand(command, QIODevice::ReadWrite);
        p.waitForFinished(-1);
    }
    return double(timer.nsecsElapsed()) / 1e6;
}

// The same starts chained through the event loop, one process per file started from the
// previous one's finished signal, as the runner does, but with nothing else around them.
double chainedLoopMs(const QString& engine, const QStringList& inputs, const QString& outFolder)
{
    int next = 0;
    bool done = false;
    std::function<void()> startNext = [&] {
        if (next >= inputs.size()) {
            done = true;
            return;
        }
        const QString in = inputs.at(next++);
        const QString base = QFileInfo(in).completeBaseName();
        const QString command = "\"" + engine + "\"  \"-b\" \"1\" \"-c\" \"0\" \"-writelocal\" \"n\"  "
                                "\"-o\" \"" + outFolder + "/" + base + ".tif\"  \"-i\" \"" + in + "\" ";
        auto* p = new QProcess;
        QObject::connect(p, &QProcess::finished, p, [p, &startNext] {
            p->deleteLater();
            startNext();
        });
        p->startCommand(command, QIODevice::ReadWrite);
    };
    QElapsedTimer timer;
    timer.start();
    startNext();
    while (!done)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    return double(timer.nsecsElapsed()) / 1e6;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

}  // namespace

int main(int argc, char* argv[])
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    const int files = argc > 1 ? std::max(1, atoi(argv[1])) : 300;
    const int rounds = argc > 2 ? std::max(1, atoi(argv[2])) : 3;

    const QString engine = QCoreApplication::applicationDirPath() + "/quarvex";
    if (!installStandIn(engine)) {
        std::fprintf(stderr, "cannot install the stand-in engine at %s\n", qPrintable(engine));
        return 1;
    }
    QFile::remove(SettingsFilePath());

    QTemporaryDir tmp;
    const QString outFolder = tmp.filePath("out");
    QDir().mkpath(outFolder);
    QStringList inputs;
    for (int i = 0; i < files; ++i) {
        inputs << tmp.filePath(QStringLiteral("in/job%1.pcl").arg(i, 4, 10, QLatin1Char('0')));
        QDir().mkpath(QFileInfo(inputs.last()).absolutePath());
        QFile f(inputs.last());
        f.open(QIODevice::WriteOnly);
    }

    qInstallMessageHandler(countDebug);
    std::vector<double> runner, plain, chained;
    for (int r = 0; r < rounds; ++r) {
        g_debugLines = 0;
        runner.push_back(runnerBatchMs(inputs, outFolder));
        if (g_debugLines != files) {
            std::fprintf(stderr, "the runner started %d of %d files\n", g_debugLines, files);
            return 1;
        }
        plain.push_back(plainLoopMs(engine, inputs, outFolder));
        chained.push_back(chainedLoopMs(engine, inputs, outFolder));
    }
    qInstallMessageHandler(nullptr);

    const double r = median(runner), p = median(plain), c = median(chained);
    std::printf("files per batch: %d, rounds: %d (medians)\n", files, rounds);
    std::printf("runner batch:            %9.1f ms  %7.3f ms/file\n", r, r / files);
    std::printf("plain QProcess loop:     %9.1f ms  %7.3f ms/file\n", p, p / files);
    std::printf("chained QProcess starts: %9.1f ms  %7.3f ms/file\n", c, c / files);
    std::printf("runner overhead vs plain loop:   %7.3f ms/file\n", (r - p) / files);
    std::printf("runner overhead vs chained:      %7.3f ms/file\n", (r - c) / files);

    QFile::remove(engine);
    QFile::remove(SettingsFilePath());
    return 0;
}
