// The compression vocabulary of the setting dialog: short names, shown names, stored numbers and
// the index texts that come back from the settings file.

#include "settings/settingdialog.h"
#include "settings_test_support.h"

#include <QtTest>

class TestSettingsVocabulary : public QObject {
    Q_OBJECT

private:
    SettingDialog* m_dialog = nullptr;

private slots:
    void initTestCase()
    {
        settings_test::RemoveIni();
        m_dialog = new SettingDialog;
    }
    void cleanupTestCase()
    {
        delete m_dialog;
        settings_test::RemoveIni();
    }

    void shortNameToInt_data()
    {
        QTest::addColumn<QString>("input");
        QTest::addColumn<int>("expected");
        QTest::newRow("none") << "none" << 0;
        QTest::newRow("packbits") << "packbits" << 1;
        QTest::newRow("lzw:1") << "lzw:1" << 2;
        QTest::newRow("lzw:2") << "lzw:2" << 3;
        QTest::newRow("g3:1d:fill") << "g3:1d:fill" << 4;
        QTest::newRow("g3:2d:fill") << "g3:2d:fill" << 5;
        QTest::newRow("g4") << "g4" << 6;
        QTest::newRow("zip") << "zip" << 7;
        QTest::newRow("G4 capitals") << "G4" << -1;
        QTest::newRow("empty") << "" << -1;
        QTest::newRow("PackBits capitals") << "PACKBITS" << -1;
        QTest::newRow("lzw without variant") << "lzw" << -1;
        QTest::newRow("leading blank") << " zip" << -1;
        QTest::newRow("full name") << "ZIP" << -1;
    }
    void shortNameToInt()
    {
        QFETCH(QString, input);
        QFETCH(int, expected);
        QCOMPARE(m_dialog->CompressMethodtoInt(input), expected);
    }

    void shortNameToFullName_data()
    {
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("expected");
        QTest::newRow("none") << "none" << "None";
        QTest::newRow("packbits") << "packbits" << "PackBits";
        QTest::newRow("lzw:1") << "lzw:1" << "Lempel-Ziv-Welch-1";
        QTest::newRow("lzw:2") << "lzw:2" << "Lempel-Ziv-Welch-2";
        QTest::newRow("g3:1d:fill") << "g3:1d:fill" << "CCITT Group 3 (1-D)";
        QTest::newRow("g3:2d:fill") << "g3:2d:fill" << "CCITT Group 3 (2-D)";
        QTest::newRow("g4") << "g4" << "CCITT Group 4";
        QTest::newRow("zip") << "zip" << "ZIP";
        QTest::newRow("lzw without variant") << "lzw" << "None";
        QTest::newRow("empty") << "" << "None";
        QTest::newRow("ZIP capitals") << "ZIP" << "None";
    }
    void shortNameToFullName()
    {
        QFETCH(QString, input);
        QFETCH(QString, expected);
        QCOMPARE(m_dialog->CompressMethodShortNametoFullName(input), expected);
    }

    void fullNameToShortName_data()
    {
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("expected");
        QTest::newRow("None") << "None" << "none";
        QTest::newRow("PackBits") << "PackBits" << "packbits";
        QTest::newRow("LZW 1") << "Lempel-Ziv-Welch-1" << "lzw:1";
        QTest::newRow("LZW 2") << "Lempel-Ziv-Welch-2" << "lzw:2";
        QTest::newRow("G3 1-D") << "CCITT Group 3 (1-D)" << "g3:1d:fill";
        QTest::newRow("G3 2-D") << "CCITT Group 3 (2-D)" << "g3:2d:fill";
        QTest::newRow("G4") << "CCITT Group 4" << "g4";
        QTest::newRow("ZIP") << "ZIP" << "zip";
        QTest::newRow("Zip mixed case") << "Zip" << "none";
        QTest::newRow("empty") << "" << "none";
        QTest::newRow("short name") << "packbits" << "none";
    }
    void fullNameToShortName()
    {
        QFETCH(QString, input);
        QFETCH(QString, expected);
        QCOMPARE(m_dialog->CompressMethodFullNametoShortName(input), expected);
    }

    // The three name mappings are inverse to each other over the eight methods.
    void namesRoundTrip()
    {
        const QStringList shortNames = {"none",       "packbits",   "lzw:1", "lzw:2",
                                        "g3:1d:fill", "g3:2d:fill", "g4",    "zip"};
        for (int i = 0; i < shortNames.size(); ++i) {
            const QString full = m_dialog->CompressMethodShortNametoFullName(shortNames[i]);
            QCOMPARE(m_dialog->CompressMethodFullNametoShortName(full), shortNames[i]);
            QCOMPARE(m_dialog->CompressMethodtoInt(shortNames[i]), i);
        }
    }

    void indexTextToShortName_data()
    {
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("expected");
        QTest::newRow("0") << "0" << "none";
        QTest::newRow("1") << "1" << "packbits";
        QTest::newRow("2") << "2" << "lzw:1";
        QTest::newRow("3") << "3" << "lzw:2";
        QTest::newRow("4") << "4" << "g3:1d:fill";
        QTest::newRow("5") << "5" << "g3:2d:fill";
        QTest::newRow("6 gives zip") << "6" << "zip";
        QTest::newRow("7 gives empty") << "7" << "";
        QTest::newRow("8") << "8" << "";
        QTest::newRow("06") << "06" << "";
        QTest::newRow("blank 6") << " 6" << "";
        QTest::newRow("-1") << "-1" << "";
        QTest::newRow("empty") << "" << "";
    }
    void indexTextToShortName()
    {
        QFETCH(QString, input);
        QFETCH(QString, expected);
        const QString result = m_dialog->iCompressMethodtoCompressMethod(input);
        QCOMPARE(result, expected);
    }

    // No index text ever yields "g4".
    void indexTextNeverGivesG4()
    {
        for (int i = -20; i <= 100; ++i)
            QVERIFY(m_dialog->iCompressMethodtoCompressMethod(QString::number(i)) != "g4");
    }
};

QTEST_MAIN(TestSettingsVocabulary)
#include "test_settings_vocabulary.moc"
