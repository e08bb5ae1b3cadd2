// Loading and saving the TIFF options: the real quarvelinfo.ini beside this test executable is
// written before each dialog is built, and read back after OK. A "restart" is a fresh dialog
// built on the same file.

#include "settings/settingdialog.h"
#include "settings/settingsfile.h"
#include "settings_test_support.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLineEdit>
#include <QPushButton>
#include <QtTest>

#include <cstring>
#include <memory>

using settings_test::Child;
using settings_test::Items;
using settings_test::StoredValue;
using settings_test::WriteIni;

namespace {

const QStringList kFullList = {"None",
                               "PackBits",
                               "Lempel-Ziv-Welch-1",
                               "Lempel-Ziv-Welch-2",
                               "CCITT Group 3 (1-D)",
                               "CCITT Group 3 (2-D)",
                               "CCITT Group 4",
                               "ZIP"};

QComboBox* Combo(QWidget* dialog, const char* name) { return Child<QComboBox*>(dialog, name); }
QCheckBox* Check(QWidget* dialog, const char* name) { return Child<QCheckBox*>(dialog, name); }
QLineEdit* Edit(QWidget* dialog, const char* name) { return Child<QLineEdit*>(dialog, name); }

// Shows the dialog modally; as soon as it is the active modal widget, `action` runs on it and
// then the button with caption `closingButton` is clicked. Returns exec()'s result.
int ExecAndClick(SettingDialog& dialog, const QString& closingButton,
                 std::function<void(QWidget*)> action = {})
{
    settings_test::WhenModal([closingButton, action](QWidget* modal) {
        if (action)
            action(modal);
        QPushButton* button = settings_test::ButtonWithText(modal, closingButton);
        if (button)
            QTest::mouseClick(button, Qt::LeftButton);
        else
            qobject_cast<QDialog*>(modal)->done(-99);  // fails the caller's result check
    });
    return dialog.exec();
}

}  // namespace

class TestSettingsStore : public QObject {
    Q_OBJECT

private slots:
    void init() { settings_test::RemoveIni(); }
    void cleanup() { settings_test::RemoveIni(); }

    void filePathBesideExecutable()
    {
        QCOMPARE(QString::fromLatin1(g_chSoftwareName), QString("quarvel"));
        QCOMPARE(SettingsFilePath(), QCoreApplication::applicationDirPath() + "/quarvelinfo.ini");
        QCOMPARE(SettingsFilePath(), settings_test::IniPath());
    }

    void firstRunDefaults()
    {
        SettingDialog dialog;
        QCOMPARE(Combo(&dialog, "comboBox_BitCount")->currentText(), QString("1 Bit"));
        QCOMPARE(Combo(&dialog, "comboBox_Compress")->currentText(), QString("None"));
        QCOMPARE(Items(&dialog, "comboBox_Compress"), kFullList);
        QCOMPARE(Combo(&dialog, "comboBox_CLASSF")->currentText(), QString("NOT Faxable TIFF"));
        QVERIFY(!Check(&dialog, "checkBox_PageSize")->isChecked());
        QVERIFY(!Check(&dialog, "checkBox_Resolution")->isChecked());
        for (const char* name : {"lineEdit_PageSizeX", "lineEdit_PageSizeY", "lineEdit_ResoX",
                                 "lineEdit_ResoY"}) {
            QCOMPARE(Edit(&dialog, name)->text(), QString("100"));
            QVERIFY2(!Edit(&dialog, name)->isEnabled(), name);
        }
        QVERIFY(!QFile::exists(settings_test::IniPath()));
    }

    // Opening, Reset and Cancel write nothing; the first file appears with OK.
    void noFileUntilOk()
    {
        SettingDialog dialog;
        const int cancelled = ExecAndClick(dialog, "Cancle", [](QWidget* modal) {
            QTest::mouseClick(settings_test::ButtonWithText(modal, "Reset"), Qt::LeftButton);
        });
        QCOMPARE(cancelled, int(QDialog::Rejected));
        QVERIFY(!QFile::exists(settings_test::IniPath()));

        QCOMPARE(ExecAndClick(dialog, "OK"), int(QDialog::Accepted));
        QVERIFY(QFile::exists(settings_test::IniPath()));
    }

    void okWritesExactlyTheTenKeys()
    {
        SettingDialog dialog;
        QCOMPARE(ExecAndClick(dialog, "OK"), int(QDialog::Accepted));
        QCOMPARE(settings_test::StoredKeys(), settings_test::TenKeysSorted());
        QCOMPARE(StoredValue("Format"), QString(".tif"));
        QCOMPARE(StoredValue("BitCount"), QString("0"));
        QCOMPARE(StoredValue("ResizePage"), QString("FALSE"));
        QCOMPARE(StoredValue("PageSizeX"), QString("100"));
        QCOMPARE(StoredValue("PageSizeY"), QString("100"));
        QCOMPARE(StoredValue("ResizeResolution"), QString("FALSE"));
        QCOMPARE(StoredValue("ResolutionX"), QString("100"));
        QCOMPARE(StoredValue("ResolutionY"), QString("100"));
        QCOMPARE(StoredValue("CompressMethod"), QString("0"));
        QCOMPARE(StoredValue("FaxTiff"), QString("0"));

        // One section, plain text values.
        const QByteArray bytes = settings_test::ReadIniBytes();
        QVERIFY(bytes.startsWith("[SettingInfo]"));
        QCOMPARE(bytes.count('['), 1);
        QVERIFY(bytes.contains("Format=.tif"));
        QVERIFY(bytes.contains("ResizePage=FALSE"));
        QVERIFY(bytes.contains("FaxTiff=0"));
    }

    // Keys this dialog does not own are left where they are.
    void otherKeysAreKept()
    {
        QVERIFY(WriteIni({"OutputFolder=/tmp", "InputFolder=/home/user/in", "BitCount=2"},
                         "[Elsewhere]\nKey=value\n"));
        SettingDialog dialog;
        QCOMPARE(ExecAndClick(dialog, "OK"), int(QDialog::Accepted));
        QSettings settings(settings_test::IniPath(), QSettings::IniFormat);
        QCOMPARE(settings.value("SettingInfo/OutputFolder").toString(), QString("/tmp"));
        QCOMPARE(settings.value("SettingInfo/InputFolder").toString(), QString("/home/user/in"));
        QCOMPARE(settings.value("Elsewhere/Key").toString(), QString("value"));
        QCOMPARE(settings.value("SettingInfo/BitCount").toString(), QString("2"));
        QCOMPARE(settings.allKeys().size(), 13);
    }

    void faxTiffLoading_data()
    {
        QTest::addColumn<QString>("stored");
        QTest::addColumn<int>("index");
        QTest::newRow("0") << "0" << 0;
        QTest::newRow("1") << "1" << 1;
        QTest::newRow("2") << "2" << 2;
        QTest::newRow("3") << "3" << 0;
        QTest::newRow("7") << "7" << 0;
        QTest::newRow("-1") << "-1" << 0;
        QTest::newRow("abc") << "abc" << 0;
    }
    void faxTiffLoading()
    {
        QFETCH(QString, stored);
        QFETCH(int, index);
        QVERIFY(WriteIni({"FaxTiff=" + stored}));
        SettingDialog dialog;
        QCOMPARE(Combo(&dialog, "comboBox_CLASSF")->currentIndex(), index);
        QCOMPARE(Combo(&dialog, "comboBox_BitCount")->isEnabled(), index == 0);
    }

    void checkBoxLoading_data()
    {
        QTest::addColumn<QString>("stored");
        QTest::addColumn<bool>("checked");
        QTest::newRow("TRUE") << "TRUE" << true;
        QTest::newRow("true") << "true" << false;
        QTest::newRow("True") << "True" << false;
        QTest::newRow("1") << "1" << false;
        QTest::newRow("FALSE") << "FALSE" << false;
    }
    void checkBoxLoading()
    {
        QFETCH(QString, stored);
        QFETCH(bool, checked);
        QVERIFY(WriteIni({"ResizePage=" + stored, "ResizeResolution=" + stored}));
        SettingDialog dialog;
        QCOMPARE(Check(&dialog, "checkBox_PageSize")->isChecked(), checked);
        QCOMPARE(Edit(&dialog, "lineEdit_PageSizeX")->isEnabled(), checked);
        QCOMPARE(Edit(&dialog, "lineEdit_PageSizeY")->isEnabled(), checked);
        QCOMPARE(Check(&dialog, "checkBox_Resolution")->isChecked(), checked);
        QCOMPARE(Edit(&dialog, "lineEdit_ResoX")->isEnabled(), checked);
        QCOMPARE(Edit(&dialog, "lineEdit_ResoY")->isEnabled(), checked);
    }

    void numberLoading_data()
    {
        QTest::addColumn<QString>("stored");
        QTest::addColumn<QString>("shown");
        QTest::newRow("640") << "640" << "640";
        QTest::newRow("0") << "0" << "100";
        QTest::newRow("-3") << "-3" << "100";
        QTest::newRow("abc") << "abc" << "100";
        QTest::newRow("1") << "1" << "1";
    }
    void numberLoading()
    {
        QFETCH(QString, stored);
        QFETCH(QString, shown);
        QVERIFY(WriteIni({"PageSizeX=" + stored, "PageSizeY=" + stored, "ResolutionX=" + stored}));
        SettingDialog dialog;
        QCOMPARE(Edit(&dialog, "lineEdit_PageSizeX")->text(), shown);
        QCOMPARE(Edit(&dialog, "lineEdit_PageSizeY")->text(), shown);
        QCOMPARE(Edit(&dialog, "lineEdit_ResoX")->text(), shown);
        QCOMPARE(Edit(&dialog, "lineEdit_ResoY")->text(), shown);
    }

    // Both resolution fields are loaded from ResolutionX; OK then writes it to ResolutionY.
    void verticalResolutionComesFromHorizontal()
    {
        QVERIFY(WriteIni({"ResolutionX=150", "ResolutionY=300"}));
        SettingDialog dialog;
        QCOMPARE(Edit(&dialog, "lineEdit_ResoX")->text(), QString("150"));
        QCOMPARE(Edit(&dialog, "lineEdit_ResoY")->text(), QString("150"));
        QCOMPARE(StoredValue("ResolutionY"), QString("300"));
        QCOMPARE(ExecAndClick(dialog, "OK"), int(QDialog::Accepted));
        QCOMPARE(StoredValue("ResolutionX"), QString("150"));
        QCOMPARE(StoredValue("ResolutionY"), QString("150"));
    }

    void numberSaving_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("stored");
        QTest::newRow("250") << "250" << "250";
        QTest::newRow("0") << "0" << "100";
        QTest::newRow("-3") << "-3" << "100";
        QTest::newRow("-5") << "-5" << "100";
        QTest::newRow("abc") << "abc" << "100";
        QTest::newRow("12px") << "12px" << "100";
        QTest::newRow("empty") << "" << "100";
        QTest::newRow("0300") << "0300" << "300";
        QTest::newRow("1") << "1" << "1";
        QTest::newRow("99999") << "99999" << "99999";
    }
    void numberSaving()
    {
        QFETCH(QString, typed);
        QFETCH(QString, stored);
        SettingDialog dialog;
        const int result = ExecAndClick(dialog, "OK", [typed](QWidget* modal) {
            // Enable the fields the way a user does, then type into each.
            for (const char* box : {"checkBox_PageSize", "checkBox_Resolution"}) {
                QCheckBox* check = Child<QCheckBox*>(modal, box);
                check->setFocus();
                QTest::keyClick(check, Qt::Key_Space);
            }
            for (const char* name : {"lineEdit_PageSizeX", "lineEdit_PageSizeY", "lineEdit_ResoX",
                                     "lineEdit_ResoY"}) {
                QLineEdit* edit = Child<QLineEdit*>(modal, name);
                edit->setFocus();
                edit->selectAll();
                QTest::keyClick(edit, Qt::Key_Backspace);
                QTest::keyClicks(edit, typed);
            }
        });
        QCOMPARE(result, int(QDialog::Accepted));
        QCOMPARE(Edit(&dialog, "lineEdit_PageSizeX")->text(), typed);
        QCOMPARE(StoredValue("PageSizeX"), stored);
        QCOMPARE(StoredValue("PageSizeY"), stored);
        QCOMPARE(StoredValue("ResolutionX"), stored);
        QCOMPARE(StoredValue("ResolutionY"), stored);
        QCOMPARE(StoredValue("ResizePage"), QString("TRUE"));
        QCOMPARE(StoredValue("ResizeResolution"), QString("TRUE"));
    }

    void bitCountOutOfRange_data()
    {
        QTest::addColumn<QString>("stored");
        QTest::newRow("5") << "5";
        QTest::newRow("3") << "3";
        QTest::newRow("-1") << "-1";
    }
    void bitCountOutOfRange()
    {
        QFETCH(QString, stored);
        QVERIFY(WriteIni({"BitCount=" + stored}));
        SettingDialog dialog;
        QCOMPARE(Combo(&dialog, "comboBox_BitCount")->currentIndex(), -1);
        QCOMPARE(Combo(&dialog, "comboBox_BitCount")->currentText(), QString());
        QCOMPARE(Items(&dialog, "comboBox_Compress"), kFullList);
        QCOMPARE(ExecAndClick(dialog, "OK"), int(QDialog::Accepted));
        QCOMPARE(StoredValue("BitCount"), QString("-1"));
    }

    void bitCountNotANumberLoadsOneBit()
    {
        QVERIFY(WriteIni({"BitCount=abc"}));
        SettingDialog dialog;
        QCOMPARE(Combo(&dialog, "comboBox_BitCount")->currentText(), QString("1 Bit"));
        QCOMPARE(Items(&dialog, "comboBox_Compress"), kFullList);
    }

    void eightBitsWithLzw2()
    {
        QVERIFY(WriteIni({"BitCount=1", "CompressMethod=3"}));
        SettingDialog dialog;
        QCOMPARE(Combo(&dialog, "comboBox_BitCount")->currentText(), QString("8 Bits"));
        QCOMPARE(Items(&dialog, "comboBox_Compress"),
                 QStringList({"None", "PackBits", "Lempel-Ziv-Welch-1", "Lempel-Ziv-Welch-2",
                              "ZIP"}));
        QCOMPARE(Combo(&dialog, "comboBox_Compress")->currentText(),
                 QString("Lempel-Ziv-Welch-2"));
        QCOMPARE(Combo(&dialog, "comboBox_Compress")->currentIndex(), 3);
    }

    void compressionLoading_data()
    {
        QTest::addColumn<QString>("stored");
        QTest::addColumn<QString>("shown");
        QTest::newRow("0") << "0" << "None";
        QTest::newRow("1") << "1" << "PackBits";
        QTest::newRow("2") << "2" << "Lempel-Ziv-Welch-1";
        QTest::newRow("3") << "3" << "Lempel-Ziv-Welch-2";
        QTest::newRow("4") << "4" << "CCITT Group 3 (1-D)";
        QTest::newRow("5") << "5" << "CCITT Group 3 (2-D)";
        QTest::newRow("6") << "6" << "ZIP";
        QTest::newRow("7") << "7" << "None";
        QTest::newRow("9") << "9" << "None";
        QTest::newRow("-2") << "-2" << "None";
        QTest::newRow("abc") << "abc" << "None";
        QTest::newRow("06") << "06" << "None";
    }
    void compressionLoading()
    {
        QFETCH(QString, stored);
        QFETCH(QString, shown);
        QVERIFY(WriteIni({"CompressMethod=" + stored}));
        SettingDialog dialog;
        QCOMPARE(Combo(&dialog, "comboBox_Compress")->currentText(), shown);
        QCOMPARE(Items(&dialog, "comboBox_Compress"), kFullList);
    }

    // A stored method that the depth's list lacks leaves no selection; OK then stores 0.
    void compressionMissingFromList()
    {
        QVERIFY(WriteIni({"BitCount=2", "CompressMethod=2"}));
        SettingDialog dialog;
        QCOMPARE(Combo(&dialog, "comboBox_BitCount")->currentText(), QString("24 Bits"));
        QCOMPARE(Combo(&dialog, "comboBox_Compress")->count(), 4);
        QCOMPARE(Combo(&dialog, "comboBox_Compress")->currentIndex(), -1);
        QCOMPARE(ExecAndClick(dialog, "OK"), int(QDialog::Accepted));
        QCOMPARE(StoredValue("CompressMethod"), QString("0"));
        QCOMPARE(StoredValue("BitCount"), QString("2"));
    }

    void roundTripFirstSixMethods()
    {
        for (int i = 0; i <= 5; ++i) {
            const QString name = kFullList[i];
            {
                SettingDialog dialog;
                const int result = ExecAndClick(dialog, "OK", [i](QWidget* modal) {
                    Combo(modal, "comboBox_Compress")->setCurrentIndex(i);
                });
                QCOMPARE(result, int(QDialog::Accepted));
            }
            QCOMPARE(StoredValue("CompressMethod"), QString::number(i));
            SettingDialog restarted;
            QCOMPARE(Combo(&restarted, "comboBox_Compress")->currentText(), name);
        }
    }

    // CCITT Group 4 is stored as 6 and comes back as ZIP; ZIP is stored as 7 and comes back as
    // None.
    void roundTripShiftAcrossRestart()
    {
        {
            SettingDialog dialog;
            const int result = ExecAndClick(dialog, "OK", [](QWidget* modal) {
                QComboBox* compress = Combo(modal, "comboBox_Compress");
                compress->setCurrentIndex(compress->findText("CCITT Group 4"));
            });
            QCOMPARE(result, int(QDialog::Accepted));
            QCOMPARE(Combo(&dialog, "comboBox_Compress")->currentText(), QString("CCITT Group 4"));
        }
        QCOMPARE(StoredValue("CompressMethod"), QString("6"));
        {
            SettingDialog restarted;
            QCOMPARE(Combo(&restarted, "comboBox_Compress")->currentText(), QString("ZIP"));
            QCOMPARE(ExecAndClick(restarted, "OK"), int(QDialog::Accepted));
        }
        QCOMPARE(StoredValue("CompressMethod"), QString("7"));
        SettingDialog again;
        QCOMPARE(Combo(&again, "comboBox_Compress")->currentText(), QString("None"));
    }

    // All options chosen by a user survive a restart (apart from the compression shift).
    void fullRoundTrip()
    {
        {
            SettingDialog dialog;
            const int result = ExecAndClick(dialog, "OK", [](QWidget* modal) {
                Combo(modal, "comboBox_BitCount")->setCurrentIndex(1);
                Combo(modal, "comboBox_Compress")->setCurrentIndex(2);
                QCheckBox* page = Child<QCheckBox*>(modal, "checkBox_PageSize");
                page->setFocus();
                QTest::keyClick(page, Qt::Key_Space);
                Edit(modal, "lineEdit_PageSizeX")->setText("1700");
                Edit(modal, "lineEdit_PageSizeY")->setText("2200");
                Edit(modal, "lineEdit_ResoX")->setText("200");
                Edit(modal, "lineEdit_ResoY")->setText("400");
                Combo(modal, "comboBox_CLASSF")->setCurrentIndex(2);
            });
            QCOMPARE(result, int(QDialog::Accepted));
        }
        QCOMPARE(StoredValue("BitCount"), QString("1"));
        QCOMPARE(StoredValue("CompressMethod"), QString("2"));
        QCOMPARE(StoredValue("ResizePage"), QString("TRUE"));
        QCOMPARE(StoredValue("PageSizeX"), QString("1700"));
        QCOMPARE(StoredValue("PageSizeY"), QString("2200"));
        QCOMPARE(StoredValue("ResizeResolution"), QString("FALSE"));
        QCOMPARE(StoredValue("ResolutionX"), QString("200"));
        QCOMPARE(StoredValue("ResolutionY"), QString("400"));
        QCOMPARE(StoredValue("FaxTiff"), QString("2"));

        SettingDialog restarted;
        QCOMPARE(Combo(&restarted, "comboBox_BitCount")->currentText(), QString("8 Bits"));
        QCOMPARE(Combo(&restarted, "comboBox_Compress")->currentText(),
                 QString("Lempel-Ziv-Welch-1"));
        QCOMPARE(Combo(&restarted, "comboBox_CLASSF")->currentIndex(), 2);
        QVERIFY(Check(&restarted, "checkBox_PageSize")->isChecked());
        QCOMPARE(Edit(&restarted, "lineEdit_PageSizeX")->text(), QString("1700"));
        QCOMPARE(Edit(&restarted, "lineEdit_PageSizeY")->text(), QString("2200"));
        QCOMPARE(Edit(&restarted, "lineEdit_ResoX")->text(), QString("200"));
        QCOMPARE(Edit(&restarted, "lineEdit_ResoY")->text(), QString("200"));
    }

    // Greyed-out widgets are saved as they stand.
    void greyedOutValuesAreSaved()
    {
        SettingDialog dialog;
        const int result = ExecAndClick(dialog, "OK", [](QWidget* modal) {
            Combo(modal, "comboBox_BitCount")->setCurrentIndex(2);
            Combo(modal, "comboBox_Compress")->setCurrentIndex(3);
            Combo(modal, "comboBox_CLASSF")->setCurrentIndex(1);
        });
        QCOMPARE(result, int(QDialog::Accepted));
        QVERIFY(!Combo(&dialog, "comboBox_Compress")->isEnabled());
        QCOMPARE(StoredValue("BitCount"), QString("2"));
        QCOMPARE(StoredValue("CompressMethod"), QString("7"));
        QCOMPARE(StoredValue("FaxTiff"), QString("1"));
    }

    // Reset writes nothing; OK right after Reset stores exactly the Reset values.
    void resetThenOk()
    {
        QVERIFY(WriteIni({"Format=.tif", "BitCount=2", "ResizePage=TRUE", "PageSizeX=640",
                          "PageSizeY=480", "ResizeResolution=TRUE", "ResolutionX=300",
                          "ResolutionY=600", "CompressMethod=3", "FaxTiff=1"}));
        const QByteArray before = settings_test::ReadIniBytes();
        SettingDialog dialog;
        QByteArray afterReset;
        bool resetShowsDefaults = false;
        const int result = ExecAndClick(dialog, "OK", [&](QWidget* modal) {
            QTest::mouseClick(settings_test::ButtonWithText(modal, "Reset"), Qt::LeftButton);
            afterReset = settings_test::ReadIniBytes();
            resetShowsDefaults = modal->isVisible() &&
                                 Edit(modal, "lineEdit_PageSizeX")->text().isEmpty() &&
                                 !Check(modal, "checkBox_PageSize")->isChecked() &&
                                 Combo(modal, "comboBox_CLASSF")->currentIndex() == 0;
        });
        QCOMPARE(result, int(QDialog::Accepted));
        QCOMPARE(afterReset, before);
        QVERIFY(resetShowsDefaults);

        QCOMPARE(settings_test::StoredKeys(), settings_test::TenKeysSorted());
        QCOMPARE(StoredValue("BitCount"), QString("0"));
        QCOMPARE(StoredValue("FaxTiff"), QString("0"));
        QCOMPARE(StoredValue("CompressMethod"), QString("0"));
        QCOMPARE(StoredValue("ResizePage"), QString("FALSE"));
        QCOMPARE(StoredValue("ResizeResolution"), QString("FALSE"));
        QCOMPARE(StoredValue("PageSizeX"), QString("100"));
        QCOMPARE(StoredValue("PageSizeY"), QString("100"));
        QCOMPARE(StoredValue("ResolutionX"), QString("100"));
        QCOMPARE(StoredValue("ResolutionY"), QString("100"));
        QCOMPARE(StoredValue("Format"), QString(".tif"));
    }

    // Cancel leaves the file alone, but the widgets keep the edit for the next opening, and OK
    // then saves it.
    void cancelKeepsEditsInTheDialogOnly()
    {
        QVERIFY(WriteIni({"BitCount=0", "CompressMethod=1", "PageSizeX=640"}));
        const QByteArray before = settings_test::ReadIniBytes();
        SettingDialog dialog;
        const int cancelled = ExecAndClick(dialog, "Cancle", [](QWidget* modal) {
            Combo(modal, "comboBox_BitCount")->setCurrentIndex(2);
            Combo(modal, "comboBox_Compress")->setCurrentIndex(3);
            Edit(modal, "lineEdit_PageSizeX")->setText("800");
        });
        QCOMPARE(cancelled, int(QDialog::Rejected));
        QVERIFY(!dialog.isVisible());
        QCOMPARE(settings_test::ReadIniBytes(), before);

        QString depthOnReopen;
        QString compressOnReopen;
        QString pageXOnReopen;
        const int accepted = ExecAndClick(dialog, "OK", [&](QWidget* modal) {
            depthOnReopen = Combo(modal, "comboBox_BitCount")->currentText();
            compressOnReopen = Combo(modal, "comboBox_Compress")->currentText();
            pageXOnReopen = Edit(modal, "lineEdit_PageSizeX")->text();
        });
        QCOMPARE(accepted, int(QDialog::Accepted));
        QCOMPARE(depthOnReopen, QString("24 Bits"));
        QCOMPARE(compressOnReopen, QString("ZIP"));
        QCOMPARE(pageXOnReopen, QString("800"));
        QCOMPARE(StoredValue("BitCount"), QString("2"));
        QCOMPARE(StoredValue("CompressMethod"), QString("7"));
        QCOMPARE(StoredValue("PageSizeX"), QString("800"));
    }

    // The file is read once, when the dialog is built; later changes to it are not shown.
    void fileIsReadOnlyAtConstruction()
    {
        QVERIFY(WriteIni({"BitCount=1"}));
        SettingDialog dialog;
        QVERIFY(WriteIni({"BitCount=2", "FaxTiff=2"}));
        QString depth;
        const int result = ExecAndClick(dialog, "Cancle", [&depth](QWidget* modal) {
            depth = Combo(modal, "comboBox_BitCount")->currentText();
        });
        QCOMPARE(result, int(QDialog::Rejected));
        QCOMPARE(depth, QString("8 Bits"));
        QCOMPARE(Combo(&dialog, "comboBox_CLASSF")->currentIndex(), 0);
    }

    // The stored check states are applied after the fax class, so the check boxes come up
    // disabled while their fields are enabled, until the fax class next changes.
    void storedFaxClassWithCheckedBoxes()
    {
        QVERIFY(WriteIni({"FaxTiff=1", "ResizePage=TRUE", "ResizeResolution=TRUE"}));
        SettingDialog dialog;
        QVERIFY(Check(&dialog, "checkBox_PageSize")->isChecked());
        QVERIFY(!Check(&dialog, "checkBox_PageSize")->isEnabled());
        QVERIFY(Edit(&dialog, "lineEdit_PageSizeX")->isEnabled());
        QVERIFY(Edit(&dialog, "lineEdit_PageSizeY")->isEnabled());
        QVERIFY(!Check(&dialog, "checkBox_Resolution")->isEnabled());
        QVERIFY(Edit(&dialog, "lineEdit_ResoX")->isEnabled());
        QVERIFY(Edit(&dialog, "lineEdit_ResoY")->isEnabled());
        QVERIFY(!Combo(&dialog, "comboBox_BitCount")->isEnabled());
        QVERIFY(!Combo(&dialog, "comboBox_Compress")->isEnabled());

        Combo(&dialog, "comboBox_CLASSF")->setCurrentIndex(2);
        QVERIFY(!Edit(&dialog, "lineEdit_PageSizeX")->isEnabled());
        QVERIFY(!Edit(&dialog, "lineEdit_ResoY")->isEnabled());

        Combo(&dialog, "comboBox_CLASSF")->setCurrentIndex(0);
        QVERIFY(Check(&dialog, "checkBox_PageSize")->isEnabled());
        QVERIFY(Edit(&dialog, "lineEdit_PageSizeX")->isEnabled());
        QVERIFY(Edit(&dialog, "lineEdit_ResoY")->isEnabled());
        QVERIFY(Combo(&dialog, "comboBox_BitCount")->isEnabled());
    }

    // Closing the window (not a button) rejects without saving, like Cancel.
    void closingTheWindowSavesNothing()
    {
        SettingDialog dialog;
        bool closed = false;
        settings_test::WhenModal([&closed](QWidget* modal) {
            Combo(modal, "comboBox_BitCount")->setCurrentIndex(1);
            closed = modal->close();
        });
        QCOMPARE(dialog.exec(), int(QDialog::Rejected));
        QVERIFY(closed);
        QVERIFY(!QFile::exists(settings_test::IniPath()));
    }
};

QTEST_MAIN(TestSettingsStore)
#include "test_settings_store.moc"
