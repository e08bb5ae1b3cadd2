#include "app/mainwindow.h"

#include "about/aboutdlg.h"
#include "settings/settingsfile.h"
#include "ui_mainwindow.h"

#include <QBrush>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QItemSelectionModel>
#include <QMap>
#include <QPalette>
#include <QPixmap>
#include <QSettings>
#include <QTableWidgetItem>

#include <cstdint>

MainWindow::MainWindow(QWidget* parent)
    : QMainWindow(parent),
      m_iFileIndex(0),
      m_iFileCount(0),
      m_bConverting(false),
      ui(new Ui_MainWindow),
      m_settingDialog(0),
      m_process(nullptr)
{
    ui->setupUi(this);

    connect(ui->pushButton_Add, SIGNAL(clicked()), this, SLOT(AddFile()));
    connect(ui->pushButton_Remove, SIGNAL(clicked()), this, SLOT(DeleteFile()));
    connect(ui->pushButton_RemoveAll, SIGNAL(clicked()), this, SLOT(DeleteAllFile()));
    connect(ui->pushButton_Setting, SIGNAL(clicked()), this, SLOT(Setting()));
    connect(ui->pushButton_Convert, SIGNAL(clicked()), this, SLOT(StartConvert()));
    connect(ui->pushButton_OutPutPath, SIGNAL(clicked()), this, SLOT(AddOutputPath()));
    connect(ui->pushButton_About, SIGNAL(clicked()), this, SLOT(ShowAbout()));
    connect(ui->tableWidget, SIGNAL(itemSelectionChanged()), this, SLOT(Onkeyboard()));

    // Background picture, stretched once to the window's size (the size is fixed afterwards).
    QPalette palette = this->palette();
    QPixmap pixmap(":/MyImage/Image/bg1.png");
    palette.setBrush(QPalette::All, QPalette::Window,
                     QBrush(pixmap.scaled(size(), Qt::IgnoreAspectRatio,
                                          Qt::SmoothTransformation)));
    setPalette(palette);
}

MainWindow::~MainWindow()
{
    delete ui;
}

void MainWindow::InitAllChoice()
{
    setFixedSize(730, 450);

    m_bConverting = false;
    m_strOutputExt = ".PDF";

    QTableWidget* table = ui->tableWidget;
    table->setRowCount(0);
    table->setColumnCount(2);
    table->setSelectionBehavior(QAbstractItemView::SelectRows);
    table->setHorizontalHeaderLabels(QStringList() << "File Name" << "File Size");

    int iWidth = table->width();
    table->setColumnWidth(0, iWidth / 6 * 4);
    table->setColumnWidth(1, iWidth / 6);
    table->setColumnWidth(2, iWidth / 6);  // there is no third column; this does nothing

    QPixmap pixmap(":/MyIco/Image/media_playback_start.ico");
    ui->pushButton_Convert->setIcon(QIcon(pixmap));
    ui->pushButton_Convert->setIconSize(pixmap.size());
}

void MainWindow::AddFile()
{
    if (m_bConverting)
        return;

    QSettings settings(SettingsFilePath(), QSettings::IniFormat);
    QString strInputFolder = settings.value("/SettingInfo/InputFolder", "").toString();

    QStringList listFiles = QFileDialog::getOpenFileNames(
        this, tr("Select one or more files to open"), strInputFolder,
        tr("All Supported Files (*.pcl *.pxl *.px3 *.prn *.spl);;PCL File (*.pcl);;"
           "PXL File (*.pxl);;PX3 File (*.px3);;PRN File (*.prn);;SPL File (*.spl);;"
           "All Files (*.*)"));
    if (listFiles.isEmpty())
        return;

    // The remembered folder is the first path cut before its last backslash. Paths here use
    // "/", so normally the whole path of the first file is kept; the dialog then opens in
    // that file's folder next time.
    QString strFirst = listFiles.first();
    int iBackslash = strFirst.lastIndexOf(QChar('\\'));
    if (iBackslash >= 0)
        strFirst = strFirst.left(iBackslash);
    settings.setValue("/SettingInfo/InputFolder", strFirst);

    QString strJoined = listFiles.join(",");  // the chosen paths as one text; nothing uses it
    Q_UNUSED(strJoined);

    QTableWidget* table = ui->tableWidget;
    int iRow = table->rowCount();
    for (const QString& strPath : listFiles) {
        table->insertRow(iRow);
        table->setItem(iRow, 0, new QTableWidgetItem(strPath));

        // Sizes travel as a 32-bit signed integer: 2 GiB and larger files wrap around, and
        // only a positive result gets a size cell.
        std::int32_t iSize = static_cast<std::int32_t>(QFileInfo(strPath).size());
        if (iSize > 0) {
            QString strSize = QString::asprintf("%14.3f KB", iSize / 1000.0);
            table->setItem(iRow, 1, new QTableWidgetItem(strSize));
        }
        ++iRow;
    }
}

void MainWindow::DeleteFile()
{
    if (m_bConverting)
        return;

    QTableWidget* table = ui->tableWidget;
    table->removeRow(table->currentRow());  // -1 (no current row) removes nothing

    // Whatever is still selected goes too, from the highest row down so that the lower row
    // numbers stay valid.
    QMap<int, int> mapRows;
    const QModelIndexList listSelected = table->selectionModel()->selectedIndexes();
    for (const QModelIndex& index : listSelected)
        mapRows.insert(index.row(), 0);
    QList<int> listRows = mapRows.keys();
    for (int i = listRows.size() - 1; i >= 0; --i)
        table->removeRow(listRows.at(i));
}

void MainWindow::DeleteAllFile()
{
    if (m_bConverting)
        return;

    QTableWidget* table = ui->tableWidget;
    int iCount = table->rowCount();
    if (iCount < 1)
        return;
    for (int i = iCount - 1; i >= 0; --i)
        table->removeRow(i);
}

void MainWindow::Setting()
{
    m_settingDialog.exec();
}

void MainWindow::AddOutputPath()
{
    if (m_bConverting)
        return;

    m_strOutputFolder = GetOutPutFolder();
    // Set even when empty: cancelling the dialog clears the field.
    ui->lineEdit_OutPutPath->setText(m_strOutputFolder);
}

QString MainWindow::GetOutPutFolder()
{
    QSettings settings(SettingsFilePath(), QSettings::IniFormat);
    QString strStart = settings.value("/SettingInfo/OutputFolder", "").toString();
    if (!QFile::exists(strStart))
        strStart = "";

    return QFileDialog::getExistingDirectory(
        this, tr("Open directory"), strStart,
        QFileDialog::ShowDirsOnly | QFileDialog::DontResolveSymlinks);
}

void MainWindow::ShowAbout()
{
    AboutDlg dlg;
    dlg.exec();
}

void MainWindow::Onkeyboard()
{
}
