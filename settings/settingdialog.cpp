#include "settings/settingdialog.h"

#include "settings/settingsfile.h"
#include "ui_settingdialog.h"

#include <QBrush>
#include <QPalette>
#include <QPixmap>
#include <QSettings>
#include <QVariant>

namespace {

const int kDialogWidth = 372;
const int kDialogHeight = 299;

// A number field is stored as a positive integer: anything that parses to less than 1
// (empty text and text that does not parse included) is stored as 100.
QString NumberFieldToStored(const QString& strText)
{
    int iValue = strText.toInt();
    if (iValue < 1)
        return QString("100");
    return QString::number(iValue);
}

// A stored page size or resolution; missing, unparsable or non-positive values show as 100.
QString StoredNumberToField(QSettings& settings, const QString& strKey)
{
    int iValue = settings.value(strKey, 100).toInt();
    if (iValue <= 0)
        iValue = 100;
    return QString::number(iValue);
}

}  // namespace

SettingDialog::SettingDialog(QWidget* parent)
    : QDialog(parent)
{
    ui = new Ui_SettingDialog;
    ui->setupUi(this);

    connect(ui->pushButton_Ok, SIGNAL(clicked()), this, SLOT(OnButtonOk()));
    connect(ui->checkBox_PageSize, SIGNAL(clicked()), this, SLOT(ClickCheckBoxResizePage()));
    connect(ui->checkBox_Resolution, SIGNAL(clicked()), this, SLOT(ClickCheckBoxResolution()));
    connect(ui->pushButton_Reset, SIGNAL(clicked()), this, SLOT(OnButtonReset()));
    connect(ui->comboBox_BitCount, SIGNAL(currentIndexChanged(int)), this, SLOT(ChangeBitCount()));
    connect(ui->comboBox_CLASSF, SIGNAL(currentIndexChanged(int)), this, SLOT(ChangeFaxTiff()));

    // Background picture, scaled once to the dialog's size; the size is fixed from here on.
    QPalette palette = this->palette();
    QPixmap pixmap(":/MyImage/Image/bg2.png");
    palette.setBrush(QPalette::Window,
                     QBrush(pixmap.scaled(size(), Qt::IgnoreAspectRatio,
                                          Qt::SmoothTransformation)));
    setPalette(palette);

    IniAllChoice();
    LoadInfo();
}

SettingDialog::~SettingDialog()
{
    delete ui;
}

// The default fill, also run by Reset. The combo boxes' change handlers run during the fill:
// adding "1 Bit" to the empty depth list loads the 1-bit compression list, which step 3 then
// replaces with the full list of eight; clearing the fax list greys everything out and adding
// its first item enables it again.
void SettingDialog::IniAllChoice()
{
    ui->comboBox_BitCount->clear();
    ui->comboBox_BitCount->addItem("1 Bit");
    ui->comboBox_BitCount->addItem("8 Bits");
    ui->comboBox_BitCount->addItem("24 Bits");
    ui->comboBox_BitCount->setCurrentIndex(0);

    ui->lineEdit_PageSizeX->setText("");
    ui->lineEdit_PageSizeY->setText("");
    ui->lineEdit_ResoX->setText("");
    ui->lineEdit_ResoY->setText("");

    ui->comboBox_Compress->clear();
    ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("none"));
    ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("packbits"));
    ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("lzw:1"));
    ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("lzw:2"));
    ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("g3:1d:fill"));
    ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("g3:2d:fill"));
    ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("g4"));
    ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("zip"));

    ui->comboBox_CLASSF->clear();
    ui->comboBox_CLASSF->addItem("NOT Faxable TIFF");
    ui->comboBox_CLASSF->addItem("Faxable TIFF Class F (DPI: 204x98)");
    ui->comboBox_CLASSF->addItem("Faxable TIFF Class F (DPI: 204x196)");

    ui->checkBox_PageSize->setChecked(false);
    ui->checkBox_Resolution->setChecked(false);

    bool bPageSize = ui->checkBox_PageSize->isChecked();
    ui->lineEdit_PageSizeX->setEnabled(bPageSize);
    ui->lineEdit_PageSizeY->setEnabled(bPageSize);
    bool bResolution = ui->checkBox_Resolution->isChecked();
    ui->lineEdit_ResoX->setEnabled(bResolution);
    ui->lineEdit_ResoY->setEnabled(bResolution);

    setFixedSize(kDialogWidth, kDialogHeight);
}

// Reads the TIFF options from the settings file into the widgets. The order matters: the fax
// class and the colour depth are selected first (their handlers grey out widgets and refill the
// compression list), and the stored compression is looked up last in whatever list is left.
void SettingDialog::LoadInfo()
{
    QSettings settings(SettingsFilePath(), QSettings::IniFormat);

    QString strBitCount = settings.value("/SettingInfo/BitCount", "0").toString();

    int iFaxTiff = settings.value("/SettingInfo/FaxTiff", 0).toInt();
    if (iFaxTiff >= 0 && iFaxTiff <= 2)
        ui->comboBox_CLASSF->setCurrentIndex(iFaxTiff);
    else
        ui->comboBox_CLASSF->setCurrentIndex(0);

    // No range check: an index the list lacks leaves the box with no current item.
    ui->comboBox_BitCount->setCurrentIndex(strBitCount.toInt());

    bool bResizePage = settings.value("/SettingInfo/ResizePage", "FALSE").toString() == "TRUE";
    ui->checkBox_PageSize->setChecked(bResizePage);
    ui->lineEdit_PageSizeX->setEnabled(ui->checkBox_PageSize->isChecked());
    ui->lineEdit_PageSizeY->setEnabled(ui->checkBox_PageSize->isChecked());

    ui->lineEdit_PageSizeX->setText(StoredNumberToField(settings, "/SettingInfo/PageSizeX"));
    ui->lineEdit_PageSizeY->setText(StoredNumberToField(settings, "/SettingInfo/PageSizeY"));

    bool bResizeResolution =
        settings.value("/SettingInfo/ResizeResolution", "FALSE").toString() == "TRUE";
    ui->checkBox_Resolution->setChecked(bResizeResolution);
    ui->lineEdit_ResoX->setEnabled(ui->checkBox_Resolution->isChecked());
    ui->lineEdit_ResoY->setEnabled(ui->checkBox_Resolution->isChecked());

    // Both resolution fields come from the horizontal value.
    ui->lineEdit_ResoX->setText(StoredNumberToField(settings, "/SettingInfo/ResolutionX"));
    ui->lineEdit_ResoY->setText(StoredNumberToField(settings, "/SettingInfo/ResolutionX"));

    QString strCompressMethod = settings.value("/SettingInfo/CompressMethod", "0").toString();
    int iCompressMethod = strCompressMethod.toInt();
    if (iCompressMethod < 0 || iCompressMethod > 7)
        strCompressMethod = "0";
    QString strFullName =
        CompressMethodShortNametoFullName(iCompressMethodtoCompressMethod(strCompressMethod));
    int iIndex = ui->comboBox_Compress->findData(strFullName, Qt::DisplayRole,
                                                 Qt::MatchCaseSensitive);
    ui->comboBox_Compress->setCurrentIndex(iIndex);
}

// Writes the ten TIFF option keys from the widgets, greyed-out ones included.
void SettingDialog::SaveInfo()
{
    QSettings settings(SettingsFilePath(), QSettings::IniFormat);

    QString strFormat = ".tif";
    QString strBitCount = QString::number(ui->comboBox_BitCount->currentIndex());
    QString strResizePage = ui->checkBox_PageSize->isChecked() ? "TRUE" : "FALSE";
    QString strPageSizeX = NumberFieldToStored(ui->lineEdit_PageSizeX->text());
    QString strPageSizeY = NumberFieldToStored(ui->lineEdit_PageSizeY->text());
    QString strResizeResolution = ui->checkBox_Resolution->isChecked() ? "TRUE" : "FALSE";
    QString strResolutionX = NumberFieldToStored(ui->lineEdit_ResoX->text());
    QString strResolutionY = NumberFieldToStored(ui->lineEdit_ResoY->text());
    QString strCompressMethod = QString::number(
        CompressMethodtoInt(CompressMethodFullNametoShortName(ui->comboBox_Compress->currentText())));
    QString strFaxTiff = QString::number(ui->comboBox_CLASSF->currentIndex());

    settings.setValue("/SettingInfo/Format", QVariant(strFormat));
    settings.setValue("/SettingInfo/BitCount", QVariant(strBitCount));
    settings.setValue("/SettingInfo/ResizePage", QVariant(strResizePage));
    settings.setValue("/SettingInfo/PageSizeX", QVariant(strPageSizeX));
    settings.setValue("/SettingInfo/PageSizeY", QVariant(strPageSizeY));
    settings.setValue("/SettingInfo/ResizeResolution", QVariant(strResizeResolution));
    settings.setValue("/SettingInfo/ResolutionX", QVariant(strResolutionX));
    settings.setValue("/SettingInfo/ResolutionY", QVariant(strResolutionY));
    settings.setValue("/SettingInfo/CompressMethod", QVariant(strCompressMethod));
    settings.setValue("/SettingInfo/FaxTiff", QVariant(strFaxTiff));
}

void SettingDialog::OnButtonOk()
{
    SaveInfo();
    accept();
}

void SettingDialog::ClickCheckBoxResizePage()
{
    ui->lineEdit_PageSizeX->setEnabled(ui->checkBox_PageSize->isChecked());
    ui->lineEdit_PageSizeY->setEnabled(ui->checkBox_PageSize->isChecked());
}

void SettingDialog::ClickCheckBoxResolution()
{
    ui->lineEdit_ResoX->setEnabled(ui->checkBox_Resolution->isChecked());
    ui->lineEdit_ResoY->setEnabled(ui->checkBox_Resolution->isChecked());
}

// Refills the form with its defaults; the file is written only by a later OK.
void SettingDialog::OnButtonReset()
{
    IniAllChoice();
}

void SettingDialog::ChangeBitCount()
{
    BitCountChanged(ui->comboBox_BitCount->currentText());
}

// Any fax class greys out every other option; "NOT Faxable TIFF" brings them back, each pair of
// number fields only if its check box is checked. Values are left as they are.
void SettingDialog::ChangeFaxTiff()
{
    if (ui->comboBox_CLASSF->currentIndex() == 0) {
        ui->checkBox_PageSize->setEnabled(true);
        ui->lineEdit_PageSizeX->setEnabled(ui->checkBox_PageSize->isChecked());
        ui->lineEdit_PageSizeY->setEnabled(ui->checkBox_PageSize->isChecked());
        ui->checkBox_Resolution->setEnabled(true);
        ui->lineEdit_ResoX->setEnabled(ui->checkBox_Resolution->isChecked());
        ui->lineEdit_ResoY->setEnabled(ui->checkBox_Resolution->isChecked());
        ui->comboBox_Compress->setEnabled(true);
        ui->comboBox_BitCount->setEnabled(true);
    } else {
        ui->checkBox_PageSize->setEnabled(false);
        ui->lineEdit_PageSizeX->setEnabled(false);
        ui->lineEdit_PageSizeY->setEnabled(false);
        ui->checkBox_Resolution->setEnabled(false);
        ui->lineEdit_ResoX->setEnabled(false);
        ui->lineEdit_ResoY->setEnabled(false);
        ui->comboBox_Compress->setEnabled(false);
        ui->comboBox_BitCount->setEnabled(false);
    }
}

// The colour depth decides which compression methods are offered. Every refill starts again at
// "None"; a text other than the three depths (the empty text of a cleared box) changes nothing.
void SettingDialog::BitCountChanged(QString strBitCount)
{
    if (strBitCount == "1 Bit") {
        ui->comboBox_Compress->clear();
        ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("none"));
        ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("packbits"));
        ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("lzw:1"));
        ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("g3:1d:fill"));
        ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("g3:2d:fill"));
        ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("g4"));
        ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("zip"));
    } else if (strBitCount == "8 Bits") {
        ui->comboBox_Compress->clear();
        ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("none"));
        ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("packbits"));
        ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("lzw:1"));
        ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("lzw:2"));
        ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("zip"));
    } else if (strBitCount == "24 Bits") {
        ui->comboBox_Compress->clear();
        ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("none"));
        ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("packbits"));
        ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("lzw:2"));
        ui->comboBox_Compress->addItem(CompressMethodShortNametoFullName("zip"));
    }
}
