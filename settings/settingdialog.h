#pragma once

#include <QDialog>
#include <QString>

class Ui_SettingDialog;

// The modal dialog in which the user chooses the TIFF options. The main window holds one for
// its whole life; the widgets are the state, loaded from the settings file once at
// construction and written back by OK.
class SettingDialog : public QDialog {
    Q_OBJECT

public:
    explicit SettingDialog(QWidget* parent = 0);
    ~SettingDialog() override;

    void IniAllChoice();
    void LoadInfo();
    void SaveInfo();

    QString CompressMethodShortNametoFullName(QString strShortName);
    QString CompressMethodFullNametoShortName(QString strFullName);

public slots:
    void OnButtonOk();
    void ClickCheckBoxResizePage();
    void ClickCheckBoxResolution();
    void OnButtonReset();
    void ChangeBitCount();
    void ChangeFaxTiff();
    void BitCountChanged(QString strBitCount);
    int CompressMethodtoInt(QString strCompressMethod);
    QString iCompressMethodtoCompressMethod(QString iCompressMethod);

private:
    Ui_SettingDialog* ui;
};
