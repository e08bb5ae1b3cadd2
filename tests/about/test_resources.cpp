// The compiled-in pictures: every resource path is present and decodes to a usable image.
#include <QFile>
#include <QIcon>
#include <QImage>
#include <QImageReader>
#include <QPixmap>
#include <QTest>

class TestResources : public QObject {
    Q_OBJECT

private slots:
    void icons_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<int>("firstSize");
        // The Convert button's icons are loaded as plain pixmaps (the file's first image) and
        // the button's icon size follows them: they lead with the 42 pixel image the button
        // is laid out for.
        for (const char* name : {"Main", "plus_orange", "delete", "deleteall", "settings",
                                 "get_info", "folder_open"})
            QTest::newRow(name) << QStringLiteral(":/MyIco/Image/%1.ico").arg(QLatin1String(name))
                                << 16;
        for (const char* name : {"media_playback_start", "stop"})
            QTest::newRow(name) << QStringLiteral(":/MyIco/Image/%1.ico").arg(QLatin1String(name))
                                << 42;
    }

    void icons()
    {
        QFETCH(QString, path);
        QFETCH(int, firstSize);
        QVERIFY(QFile::exists(path));
        const QPixmap first(path);
        QVERIFY(!first.isNull());
        QCOMPARE(first.size(), QSize(firstSize, firstSize));
        QImageReader reader(path);
        QCOMPARE(reader.format(), QByteArray("ico"));
        // Multi-size icon: 16, 24, 32, 48 and 64 pixels, each square, with transparency.
        QList<int> sizes;
        for (int i = 0; i < reader.imageCount(); ++i) {
            QVERIFY(reader.jumpToImage(i));
            const QImage img = reader.read();
            QVERIFY2(!img.isNull(), qPrintable(reader.errorString()));
            QCOMPARE(img.width(), img.height());
            QVERIFY(img.hasAlphaChannel());
            // Neither blank nor fully opaque: a drawn shape on a transparent ground (a soft
            // shadow may leave a trace of alpha around it).
            int opaque = 0, clear = 0;
            for (int y = 0; y < img.height(); ++y)
                for (int x = 0; x < img.width(); ++x) {
                    const int a = qAlpha(img.pixel(x, y));
                    opaque += a == 255;
                    clear += a <= 8;
                }
            QVERIFY(opaque > img.width());
            QVERIFY(clear > img.width());
            sizes << img.width();
        }
        QCOMPARE(sizes.value(0), firstSize);
        sizes.removeAll(42);
        std::sort(sizes.begin(), sizes.end());
        QCOMPARE(sizes, (QList<int>{16, 24, 32, 48, 64}));

        const QIcon icon(path);
        QVERIFY(!icon.isNull());
        QVERIFY(!icon.pixmap(32, 32).isNull());
        QCOMPARE(icon.pixmap(32, 32).size(), QSize(32, 32));
    }

    void backgrounds_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QSize>("size");
        QTest::newRow("bg1") << QStringLiteral(":/MyImage/Image/bg1.png") << QSize(730, 450);
        QTest::newRow("bg2") << QStringLiteral(":/MyImage/Image/bg2.png") << QSize(372, 299);
    }

    void backgrounds()
    {
        QFETCH(QString, path);
        QFETCH(QSize, size);
        QVERIFY(QFile::exists(path));
        const QImage img(path);
        QVERIFY(!img.isNull());
        QCOMPARE(img.size(), size);
        // Light enough everywhere for black text: no pixel darker than a pale grey.
        int darkest = 255;
        for (int y = 0; y < img.height(); ++y)
            for (int x = 0; x < img.width(); ++x)
                darkest = qMin(darkest, qGray(img.pixel(x, y)));
        QVERIFY2(darkest >= 180, qPrintable(QStringLiteral("darkest grey %1").arg(darkest)));
    }
};

QTEST_MAIN(TestResources)
#include "test_resources.moc"
