// The setting dialog's widget rules: default fill and Reset, colour depth and compression lists,
// fax class greying, check boxes and their number fields, typing limits.

#include "settings/settingdialog.h"
#include "settings_test_support.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLineEdit>
#include <QPushButton>
#include <QtTest>

#include <memory>

using settings_test::Child;
using settings_test::Items;

namespace {

const QStringList kFullList = {"None",
                               "PackBits",
                               "Lempel-Ziv-Welch-1",
                               "Lempel-Ziv-Welch-2",
                               "CCITT Group 3 (1-D)",
                               "CCITT Group 3 (2-D)",
                               "CCITT Group 4",
                               "ZIP"};
const QStringList kOneBitList = {"None",
                                 "PackBits",
                                 "Lempel-Ziv-Welch-1",
                                 "CCITT Group 3 (1-D)",
                                 "CCITT Group 3 (2-D)",
                                 "CCITT Group 4",
                                 "ZIP"};
const QStringList kEightBitList = {"None", "PackBits", "Lempel-Ziv-Welch-1", "Lempel-Ziv-Welch-2",
                                   "ZIP"};
const QStringList kTwentyFourBitList = {"None", "PackBits", "Lempel-Ziv-Welch-2", "ZIP"};
const QStringList kNumberFields = {"lineEdit_PageSizeX", "lineEdit_PageSizeY", "lineEdit_ResoX",
                                   "lineEdit_ResoY"};

}  // namespace

class TestSettingsRules : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<SettingDialog> m_dialog;

    QComboBox* Combo(const char* name) { return Child<QComboBox*>(m_dialog.get(), name); }
    QCheckBox* Check(const char* name) { return Child<QCheckBox*>(m_dialog.get(), name); }
    QLineEdit* Edit(const QString& name) { return m_dialog->findChild<QLineEdit*>(name); }
    QPushButton* Button(const char* name) { return Child<QPushButton*>(m_dialog.get(), name); }

    // Clicks a check box with the mouse on its indicator, as a user does.
    void ClickCheck(const char* name)
    {
        QCheckBox* box = Check(name);
        QTest::mouseClick(box, Qt::LeftButton, Qt::NoModifier, QPoint(6, box->height() / 2));
    }

    void VerifyResetState()
    {
        QCOMPARE(Items(m_dialog.get(), "comboBox_BitCount"),
                 QStringList({"1 Bit", "8 Bits", "24 Bits"}));
        QCOMPARE(Combo("comboBox_BitCount")->currentIndex(), 0);
        QCOMPARE(Items(m_dialog.get(), "comboBox_Compress"), kFullList);
        QCOMPARE(Combo("comboBox_Compress")->currentIndex(), 0);
        QCOMPARE(Items(m_dialog.get(), "comboBox_CLASSF"),
                 QStringList({"NOT Faxable TIFF", "Faxable TIFF Class F (DPI: 204x98)",
                              "Faxable TIFF Class F (DPI: 204x196)"}));
        QCOMPARE(Combo("comboBox_CLASSF")->currentIndex(), 0);
        QVERIFY(Combo("comboBox_BitCount")->isEnabled());
        QVERIFY(Combo("comboBox_Compress")->isEnabled());
        QVERIFY(Combo("comboBox_CLASSF")->isEnabled());
        QVERIFY(!Check("checkBox_PageSize")->isChecked());
        QVERIFY(!Check("checkBox_Resolution")->isChecked());
        QVERIFY(Check("checkBox_PageSize")->isEnabled());
        QVERIFY(Check("checkBox_Resolution")->isEnabled());
        for (const QString& name : kNumberFields) {
            QCOMPARE(Edit(name)->text(), QString(""));
            QVERIFY2(!Edit(name)->isEnabled(), qPrintable(name));
        }
        QCOMPARE(m_dialog->size(), QSize(372, 299));
        QCOMPARE(m_dialog->minimumSize(), QSize(372, 299));
        QCOMPARE(m_dialog->maximumSize(), QSize(372, 299));
    }

private slots:
    // Every case starts from a fresh dialog on a fresh first run (no settings file).
    void init()
    {
        settings_test::RemoveIni();
        m_dialog = std::make_unique<SettingDialog>();
        m_dialog->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_dialog.get()));
    }
    void cleanup()
    {
        m_dialog.reset();
        settings_test::RemoveIni();
    }

    void twentyFourBitsList()
    {
        Combo("comboBox_BitCount")->setCurrentIndex(2);
        QCOMPARE(Items(m_dialog.get(), "comboBox_Compress"), kTwentyFourBitList);
        QCOMPARE(Combo("comboBox_Compress")->currentText(), QString("None"));
    }

    void eightBitsList()
    {
        Combo("comboBox_BitCount")->setCurrentIndex(1);
        QCOMPARE(Items(m_dialog.get(), "comboBox_Compress"), kEightBitList);
        QCOMPARE(Combo("comboBox_Compress")->currentText(), QString("None"));
    }

    void oneBitAfterAnotherDepth()
    {
        Combo("comboBox_BitCount")->setCurrentIndex(1);
        Combo("comboBox_BitCount")->setCurrentIndex(0);
        QCOMPARE(Items(m_dialog.get(), "comboBox_Compress"), kOneBitList);
        QVERIFY(!Items(m_dialog.get(), "comboBox_Compress").contains("Lempel-Ziv-Welch-2"));
        QCOMPARE(Combo("comboBox_Compress")->currentIndex(), 0);
    }

    // The default fill leaves the full list of eight although "1 Bit" is selected.
    void fullListWithOneBitAfterOpening()
    {
        QCOMPARE(Combo("comboBox_BitCount")->currentText(), QString("1 Bit"));
        QCOMPARE(Items(m_dialog.get(), "comboBox_Compress"), kFullList);
    }

    void fullListWithOneBitAfterReset()
    {
        Combo("comboBox_BitCount")->setCurrentIndex(2);
        QCOMPARE(Items(m_dialog.get(), "comboBox_Compress"), kTwentyFourBitList);
        QTest::mouseClick(Button("pushButton_Reset"), Qt::LeftButton);
        QCOMPARE(Combo("comboBox_BitCount")->currentText(), QString("1 Bit"));
        QCOMPARE(Items(m_dialog.get(), "comboBox_Compress"), kFullList);
        QVERIFY(m_dialog->isVisible());
    }

    void depthChangeResetsCompression()
    {
        Combo("comboBox_BitCount")->setCurrentIndex(1);
        Combo("comboBox_Compress")->setCurrentIndex(1);
        QCOMPARE(Combo("comboBox_Compress")->currentText(), QString("PackBits"));
        Combo("comboBox_BitCount")->setCurrentIndex(2);
        QCOMPARE(Combo("comboBox_Compress")->currentText(), QString("None"));
    }

    // Choosing the depth that is already selected keeps the list and its selection.
    void sameDepthKeepsSelection()
    {
        Combo("comboBox_BitCount")->setCurrentIndex(1);
        Combo("comboBox_Compress")->setCurrentIndex(3);
        Combo("comboBox_BitCount")->setCurrentIndex(1);
        QCOMPARE(Combo("comboBox_Compress")->currentText(), QString("Lempel-Ziv-Welch-2"));
    }

    void bitCountChangedWithUnknownText()
    {
        Combo("comboBox_BitCount")->setCurrentIndex(1);
        Combo("comboBox_Compress")->setCurrentIndex(2);
        m_dialog->BitCountChanged("");
        m_dialog->BitCountChanged("8 bits");
        m_dialog->BitCountChanged("1");
        QCOMPARE(Items(m_dialog.get(), "comboBox_Compress"), kEightBitList);
        QCOMPARE(Combo("comboBox_Compress")->currentIndex(), 2);
        m_dialog->BitCountChanged("24 Bits");
        QCOMPARE(Items(m_dialog.get(), "comboBox_Compress"), kTwentyFourBitList);
    }

    void faxClassGreysOutEverything_data()
    {
        QTest::addColumn<int>("faxIndex");
        QTest::newRow("204x98") << 1;
        QTest::newRow("204x196") << 2;
    }
    void faxClassGreysOutEverything()
    {
        QFETCH(int, faxIndex);
        ClickCheck("checkBox_PageSize");
        QVERIFY(Edit("lineEdit_PageSizeX")->isEnabled());
        Combo("comboBox_BitCount")->setCurrentIndex(1);
        Combo("comboBox_Compress")->setCurrentIndex(4);

        Combo("comboBox_CLASSF")->setCurrentIndex(faxIndex);
        QVERIFY(!Check("checkBox_PageSize")->isEnabled());
        QVERIFY(!Check("checkBox_Resolution")->isEnabled());
        for (const QString& name : kNumberFields)
            QVERIFY2(!Edit(name)->isEnabled(), qPrintable(name));
        QVERIFY(!Combo("comboBox_Compress")->isEnabled());
        QVERIFY(!Combo("comboBox_BitCount")->isEnabled());
        QVERIFY(Combo("comboBox_CLASSF")->isEnabled());
        // Values stay as they were, only greyed out.
        QVERIFY(Check("checkBox_PageSize")->isChecked());
        QCOMPARE(Combo("comboBox_BitCount")->currentText(), QString("8 Bits"));
        QCOMPARE(Combo("comboBox_Compress")->currentText(), QString("ZIP"));

        // Back to no fax class: each pair of fields follows its own check box.
        Combo("comboBox_CLASSF")->setCurrentIndex(0);
        QVERIFY(Check("checkBox_PageSize")->isEnabled());
        QVERIFY(Check("checkBox_Resolution")->isEnabled());
        QVERIFY(Combo("comboBox_Compress")->isEnabled());
        QVERIFY(Combo("comboBox_BitCount")->isEnabled());
        QVERIFY(Edit("lineEdit_PageSizeX")->isEnabled());
        QVERIFY(Edit("lineEdit_PageSizeY")->isEnabled());
        QVERIFY(!Edit("lineEdit_ResoX")->isEnabled());
        QVERIFY(!Edit("lineEdit_ResoY")->isEnabled());
    }

    void resetDuringFaxClass()
    {
        ClickCheck("checkBox_Resolution");
        Combo("comboBox_CLASSF")->setCurrentIndex(2);
        QVERIFY(!Combo("comboBox_BitCount")->isEnabled());
        QTest::mouseClick(Button("pushButton_Reset"), Qt::LeftButton);
        QCOMPARE(Combo("comboBox_CLASSF")->currentText(), QString("NOT Faxable TIFF"));
        VerifyResetState();
    }

    void resetEmptiesFieldsAndUnchecks()
    {
        ClickCheck("checkBox_PageSize");
        ClickCheck("checkBox_Resolution");
        QTest::keyClicks(Edit("lineEdit_PageSizeX"), "640");
        QTest::keyClicks(Edit("lineEdit_ResoY"), "300");
        Combo("comboBox_BitCount")->setCurrentIndex(2);
        Combo("comboBox_Compress")->setCurrentIndex(3);
        QTest::mouseClick(Button("pushButton_Reset"), Qt::LeftButton);
        VerifyResetState();
        QVERIFY(m_dialog->isVisible());
        QVERIFY(!QFile::exists(settings_test::IniPath()));
    }

    void checkBoxesEnableTheirFields()
    {
        ClickCheck("checkBox_PageSize");
        QVERIFY(Check("checkBox_PageSize")->isChecked());
        QVERIFY(Edit("lineEdit_PageSizeX")->isEnabled());
        QVERIFY(Edit("lineEdit_PageSizeY")->isEnabled());
        QVERIFY(!Edit("lineEdit_ResoX")->isEnabled());
        ClickCheck("checkBox_Resolution");
        QVERIFY(Edit("lineEdit_ResoX")->isEnabled());
        QVERIFY(Edit("lineEdit_ResoY")->isEnabled());

        // Text is left alone when a box is cleared.
        QCOMPARE(Edit("lineEdit_PageSizeX")->text(), QString("100"));
        Edit("lineEdit_PageSizeX")->setText("640");
        ClickCheck("checkBox_PageSize");
        QVERIFY(!Edit("lineEdit_PageSizeX")->isEnabled());
        QVERIFY(!Edit("lineEdit_PageSizeY")->isEnabled());
        QCOMPARE(Edit("lineEdit_PageSizeX")->text(), QString("640"));
        QVERIFY(Edit("lineEdit_ResoX")->isEnabled());
    }

    // Only a user's click or key press is wired; setting the state from code changes nothing.
    void setCheckedFromCodeIsNotWired()
    {
        Check("checkBox_PageSize")->setChecked(true);
        QVERIFY(!Edit("lineEdit_PageSizeX")->isEnabled());
        Check("checkBox_Resolution")->setChecked(true);
        QVERIFY(!Edit("lineEdit_ResoY")->isEnabled());
    }

    void keyboardTogglesResizePage()
    {
        QCheckBox* box = Check("checkBox_PageSize");
        box->setFocus();
        QTest::keyClick(box, Qt::Key_Space);
        QVERIFY(box->isChecked());
        QVERIFY(Edit("lineEdit_PageSizeX")->isEnabled());
        QVERIFY(Edit("lineEdit_PageSizeY")->isEnabled());
        QTest::keyClick(box, Qt::Key_Space);
        QVERIFY(!box->isChecked());
        QVERIFY(!Edit("lineEdit_PageSizeX")->isEnabled());
        QVERIFY(!Edit("lineEdit_PageSizeY")->isEnabled());
    }

    void keyboardTogglesResolution()
    {
        QCheckBox* box = Check("checkBox_Resolution");
        box->setFocus();
        QTest::keyClick(box, Qt::Key_Space);
        QVERIFY(box->isChecked());
        QVERIFY(Edit("lineEdit_ResoX")->isEnabled());
        QVERIFY(Edit("lineEdit_ResoY")->isEnabled());
    }

    void sixthCharacterIsRefused()
    {
        ClickCheck("checkBox_PageSize");
        ClickCheck("checkBox_Resolution");
        for (const QString& name : kNumberFields) {
            QLineEdit* edit = Edit(name);
            edit->setFocus();
            edit->selectAll();
            QTest::keyClick(edit, Qt::Key_Backspace);
            QCOMPARE(edit->text(), QString());
            QTest::keyClicks(edit, "12345");
            QCOMPARE(edit->text(), QString("12345"));
            QTest::keyClick(edit, Qt::Key_6);
            QCOMPARE(edit->text(), QString("12345"));
        }
    }

    void lettersAreAccepted()
    {
        ClickCheck("checkBox_PageSize");
        QLineEdit* edit = Edit("lineEdit_PageSizeY");
        edit->setFocus();
        edit->selectAll();
        QTest::keyClicks(edit, "ab-c1x");
        QCOMPARE(edit->text(), QString("ab-c1"));
    }

    // Clearing the fax list (as Reset does) passes through index -1, which counts as a fax class.
    void faxIndexMinusOneDisables()
    {
        Combo("comboBox_CLASSF")->clear();
        QCOMPARE(Combo("comboBox_CLASSF")->currentIndex(), -1);
        QVERIFY(!Check("checkBox_PageSize")->isEnabled());
        QVERIFY(!Combo("comboBox_BitCount")->isEnabled());
        Combo("comboBox_CLASSF")->addItem("NOT Faxable TIFF");
        QVERIFY(Check("checkBox_PageSize")->isEnabled());
        QVERIFY(Combo("comboBox_BitCount")->isEnabled());
    }

    void cancelClosesWithoutSaving()
    {
        QVERIFY(m_dialog->isVisible());
        QTest::mouseClick(Button("pushButton_Cancel"), Qt::LeftButton);
        QVERIFY(!m_dialog->isVisible());
        QCOMPARE(m_dialog->result(), int(QDialog::Rejected));
        QVERIFY(!QFile::exists(settings_test::IniPath()));
    }
};

QTEST_MAIN(TestSettingsRules)
#include "test_settings_rules.moc"
