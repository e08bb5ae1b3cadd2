#pragma once

#include "settings/settingdialog.h"

#include <QMainWindow>
#include <QString>
#include <QStringList>

class QProcess;
class Ui_MainWindow;

// The program's only window: the list of input files, the output folder, and the Convert/Stop
// button that runs the conversion engine once per listed file. The engine driver (command
// line, font environment, batch runner) lives in engine/ as member functions of this class.
class MainWindow : public QMainWindow {
    Q_OBJECT

public:
    explicit MainWindow(QWidget* parent = 0);
    ~MainWindow() override;

    // Called once by start-up after the window is shown: the table's column widths depend on
    // the width the table has been laid out with.
    void InitAllChoice();

    // Output folder chosen in the folder dialog, or empty when it was cancelled.
    QString GetOutPutFolder();

    // The engine's option string built from the stored TIFF options. Also fixes the output
    // extension to ".tif".
    QString GetCmdArg();

    // Stored compression index (decimal text) to the engine's "-c" option, or empty text.
    QString iCompressMethodtoCompressMethod(QString iCompressMethod);

    // The stop sequence: clear the running flag, then close the current engine process.
    void KillProcess();

public slots:
    void AddFile();
    void DeleteFile();
    void DeleteAllFile();
    void Setting();
    void StartConvert();
    bool ExeCmd();
    void AddOutputPath();
    bool SetFontPath();
    void ShowAbout();
    void Onkeyboard();

private:
    int m_iFileIndex;
    int m_iFileCount;
    QString m_strOutputFolder;
    QString m_strOutputExt;
    QStringList m_listFile;
    bool m_bConverting;
    Ui_MainWindow* ui;
    SettingDialog m_settingDialog;
    QProcess* m_process;
};
