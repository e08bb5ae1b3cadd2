// End to end: real printer files listed in the main window, Convert pressed, and the real
// quarvex engine (copied beside this test executable, where the window looks for it) writes
// TIFF files that libtiff reads back with the options chosen in the settings file.
#include "app/mainwindow.h"
#include "settings/settingsfile.h"
#include "../app/windowdriver.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLineEdit>
#include <QProcess>
#include <QProgressBar>
#include <QPushButton>
#include <QSettings>
#include <QTableWidget>
#include <QTemporaryDir>
#include <QTest>

#include <tiffio.h>
#include <zlib.h>

#include <memory>

namespace {

constexpr int kWait = 120000;

struct TiffInfo {
    bool ok = false;
    int pages = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    uint16_t compression = 0;
    uint16_t bits = 0;
    uint16_t samples = 0;
    uint16_t photometric = 0;
    float xres = 0;
    float yres = 0;
    qint64 inkPixels = 0; // on the first page: black (1-bit) or darker than mid grey
};

TiffInfo readTiff(const QString& path)
{
    TiffInfo info;
    std::unique_ptr<TIFF, void (*)(TIFF*)> tif(TIFFOpen(QFile::encodeName(path).constData(), "r"),
                                               TIFFClose);
    if (!tif)
        return info;
    TIFFGetField(tif.get(), TIFFTAG_IMAGEWIDTH, &info.width);
    TIFFGetField(tif.get(), TIFFTAG_IMAGELENGTH, &info.height);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_COMPRESSION, &info.compression);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_BITSPERSAMPLE, &info.bits);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_SAMPLESPERPIXEL, &info.samples);
    TIFFGetField(tif.get(), TIFFTAG_PHOTOMETRIC, &info.photometric);
    TIFFGetField(tif.get(), TIFFTAG_XRESOLUTION, &info.xres);
    TIFFGetField(tif.get(), TIFFTAG_YRESOLUTION, &info.yres);

    std::vector<uint8_t> row(TIFFScanlineSize(tif.get()));
    for (uint32_t y = 0; y < info.height; ++y) {
        if (TIFFReadScanline(tif.get(), row.data(), y) < 0)
            return info;
        for (uint32_t x = 0; x < info.width; ++x) {
            if (info.bits == 1) {
                const bool set = row[x / 8] & (0x80 >> (x % 8));
                const bool black = info.photometric == PHOTOMETRIC_MINISWHITE ? set : !set;
                info.inkPixels += black;
            } else if (info.samples == 1) {
                const uint8_t v = row[x];
                info.inkPixels += info.photometric == PHOTOMETRIC_MINISBLACK ? v < 128 : v >= 128;
            } else {
                const uint8_t* p = &row[x * info.samples];
                info.inkPixels += (p[0] + p[1] + p[2]) < 3 * 128;
            }
        }
    }
    do {
        ++info.pages;
    } while (TIFFReadDirectory(tif.get()));
    info.ok = true;
    return info;
}

QString dataFile(const char* relative)
{
    return QStringLiteral(QX_TEST_DATA_ROOT "/") + QString::fromLatin1(relative);
}

// Unpacks a gzip file (test data is committed packed).
bool gunzip(const QString& from, const QString& to)
{
    std::unique_ptr<gzFile_s, int (*)(gzFile)> in(gzopen(QFile::encodeName(from).constData(), "rb"), gzclose);
    QFile out(to);
    if (!in || !out.open(QIODevice::WriteOnly))
        return false;
    char buf[65536];
    int got = 0;
    while ((got = gzread(in.get(), buf, sizeof buf)) > 0) {
        if (out.write(buf, got) != got)
            return false;
    }
    return got == 0;
}

} // namespace

class TestEndToEnd : public QObject {
    Q_OBJECT

    QTemporaryDir m_tmp;


    static void writeSettings(const QList<QPair<QString, QString>>& keys)
    {
        QFile::remove(SettingsFilePath());
        QSettings s(SettingsFilePath(), QSettings::IniFormat);
        for (const auto& kv : keys)
            s.setValue("/SettingInfo/" + kv.first, kv.second);
    }

    // Lists the files through the real file dialog, presses Convert and waits for the batch.
    void convert(const QStringList& inputs, const QString& outFolder)
    {
        MainWindow w;
        bringUp(w);
        addFiles(w, inputs);
        QCOMPARE(child<QTableWidget>(w, "tableWidget")->rowCount(), inputs.size());
        child<QLineEdit>(w, "lineEdit_OutPutPath")->setText(outFolder);

        ModalDriver noMessage([&](QWidget* m) { rejectDialog(m); });
        QPushButton* button = child<QPushButton>(w, "pushButton_Convert");
        button->click();
        QCOMPARE(button->text(), QStringLiteral("Stop "));
        QTRY_COMPARE_WITH_TIMEOUT(button->text(), QStringLiteral("Convert"), kWait);
        QCOMPARE(noMessage.hits(), 0);
        QCOMPARE(child<QProgressBar>(w, "progressBarA")->value(), 0);
    }

    // The engine run by hand on input with options writes the very bytes of byWindow.
    void sameAsCommandLine(const QString& byWindow, const QString& input, QStringList options)
    {
        const QString byHand = m_tmp.filePath(QFileInfo(byWindow).completeBaseName() + "_by_hand.tif");
        options << "-o" << byHand << "-i" << input;
        QProcess engine;
        engine.start(QCoreApplication::applicationDirPath() + "/quarvex", options);
        QVERIFY(engine.waitForFinished(kWait));
        QCOMPARE(engine.exitCode(), 0);
        QFile a(byWindow), b(byHand);
        QVERIFY(a.open(QIODevice::ReadOnly) && b.open(QIODevice::ReadOnly));
        QVERIFY2(a.readAll() == b.readAll(), "the window's TIFF differs from the command line's");
    }

private slots:
    void initTestCase()
    {
        QCoreApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
        QVERIFY(m_tmp.isValid());
        // The engine must be where the window starts it: beside the executable.
        QVERIFY(QFileInfo(QCoreApplication::applicationDirPath() + "/quarvex").size() > 0);
    }

    void cleanup() { QFile::remove(SettingsFilePath()); }

    void driverRasterToGroup4()
    {
        // 1 Bit with "CCITT Group 4" stored as 6: the engine gets -b 1 -c 7.
        writeSettings({{"BitCount", "0"}, {"CompressMethod", "6"}, {"FaxTiff", "0"}});
        const QString out = m_tmp.filePath("g4");
        QVERIFY(QDir().mkpath(out));
        convert({dataFile("quarvex/pcl5/data/small-ljet4.pcl")}, out);

        const TiffInfo t = readTiff(out + "/small-ljet4.tif");
        QVERIFY(t.ok);
        QCOMPARE(t.compression, uint16_t(COMPRESSION_CCITTFAX4));
        QCOMPARE(t.bits, uint16_t(1));
        QCOMPARE(t.photometric, uint16_t(PHOTOMETRIC_MINISWHITE));
        QVERIFY(t.pages >= 1);
        QVERIFY(t.width > 1000 && t.height > 1000);
        QVERIFY2(t.inkPixels > 100, "the page came out blank");
    }

    void batchOfTwoToRgbLzw()
    {
        // 24 Bits with Lempel-Ziv-Welch-1 (stored 2): -b 24 -c 2, for a PCL 5 and a PCL XL file.
        writeSettings({{"BitCount", "2"}, {"CompressMethod", "2"}});
        const QString out = m_tmp.filePath("rgb");
        QVERIFY(QDir().mkpath(out));
        convert({dataFile("quarvex/pcl5/data/small-ljet4.pcl"),
                 dataFile("quarvex/data/two_pages_pxlmono_75dpi.pxl")},
                out);

        const TiffInfo pcl = readTiff(out + "/small-ljet4.tif");
        QVERIFY(pcl.ok);
        QCOMPARE(pcl.compression, uint16_t(COMPRESSION_LZW));
        QCOMPARE(pcl.samples, uint16_t(3));
        QCOMPARE(pcl.photometric, uint16_t(PHOTOMETRIC_RGB));
        QVERIFY(pcl.inkPixels > 100);

        const TiffInfo pxl = readTiff(out + "/two_pages_pxlmono_75dpi.tif");
        QVERIFY(pxl.ok);
        QCOMPARE(pxl.compression, uint16_t(COMPRESSION_LZW));
        QCOMPARE(pxl.pages, 2);
    }

    void faxClassF()
    {
        // "Faxable TIFF Class F (DPI: 204x196)" reaches the engine as -faxtif 1.
        writeSettings({{"BitCount", "0"}, {"CompressMethod", "0"}, {"FaxTiff", "2"}});
        const QString out = m_tmp.filePath("fax");
        QVERIFY(QDir().mkpath(out));
        convert({dataFile("quarvex/pcl5/data/small-ljet4.pcl")}, out);

        const TiffInfo t = readTiff(out + "/small-ljet4.tif");
        QVERIFY(t.ok);
        QCOMPARE(t.width, uint32_t(1728));
        QCOMPARE(t.bits, uint16_t(1));
        QCOMPARE(qRound(t.xres), 204);
        QCOMPARE(qRound(t.yres), 196);
        QVERIFY(t.inkPixels > 100);
    }

    void postScriptPrnSameAsCommandLine()
    {
        // A PostScript driver's .prn (PJL around PostScript, a PCL job and a PDF job behind
        // it), converted from the window with 1 Bit and "CCITT Group 4" (-b 1 -c 7), gives the
        // very bytes that the engine writes when run by hand with those options.
        writeSettings({{"BitCount", "0"}, {"CompressMethod", "6"}, {"FaxTiff", "0"}});
        const QString out = m_tmp.filePath("postscript");
        QVERIFY(QDir().mkpath(out));
        const QString input = dataFile("quarvex/postscript/data/mixed_jobs.prn");
        convert({input}, out);

        const QString byWindow = out + "/mixed_jobs.tif";
        const TiffInfo t = readTiff(byWindow);
        QVERIFY(t.ok);
        QCOMPARE(t.pages, 6);
        QCOMPARE(t.compression, uint16_t(COMPRESSION_CCITTFAX4));
        QVERIFY(t.inkPixels > 100);

        sameAsCommandLine(byWindow, input, {"-b", "1", "-c", "7"});
    }

    void emfSpoolSameAsCommandLine()
    {
        // A Windows EMF spool file (.spl, four pages of LibreOffice and Inkscape drawings),
        // converted from the window with 24 Bits and Lempel-Ziv-Welch-1 (-b 24 -c 2), gives the
        // very bytes that the engine writes when run by hand with those options.
        const QString input = m_tmp.filePath("lo_inkscape_4pages.spl");
        QVERIFY(gunzip(dataFile("quarvex/emf/data/lo_inkscape_4pages.spl.gz"), input));
        writeSettings({{"BitCount", "2"}, {"CompressMethod", "2"}, {"FaxTiff", "0"}});
        const QString out = m_tmp.filePath("emfspool");
        QVERIFY(QDir().mkpath(out));
        convert({input}, out);

        const QString byWindow = out + "/lo_inkscape_4pages.tif";
        const TiffInfo t = readTiff(byWindow);
        QVERIFY(t.ok);
        QCOMPARE(t.pages, 4);
        QCOMPARE(t.compression, uint16_t(COMPRESSION_LZW));
        QCOMPARE(t.samples, uint16_t(3));
        QVERIFY2(t.inkPixels > 100, "the first page came out blank");

        sameAsCommandLine(byWindow, input, {"-b", "24", "-c", "2"});
    }

    void textInResidentFonts()
    {
        // A plain PCL text job: the glyphs come from the staged fonts the window points the
        // engine at through PCLFONTSOURCE.
        writeSettings({{"BitCount", "1"}, {"CompressMethod", "7"}});
        const QString out = m_tmp.filePath("text");
        QVERIFY(QDir().mkpath(out));
        convert({dataFile("quarvex/pcl5/data/text-fonts.pcl")}, out);

        const TiffInfo t = readTiff(out + "/text-fonts.tif");
        QVERIFY(t.ok);
        QCOMPARE(t.samples, uint16_t(1));
        QCOMPARE(t.bits, uint16_t(8));
        QVERIFY2(t.inkPixels > 200, "no text was drawn");
    }
};

QTEST_MAIN(TestEndToEnd)
#include "test_endtoend.moc"
