// The batch runner: one engine process per table row, one after another, each started when
// the previous one has finished.
#include "app/mainwindow.h"

#include "settings/settingsfile.h"
#include "ui_mainwindow.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QIcon>
#include <QMessageBox>
#include <QPixmap>
#include <QProcess>
#include <QSettings>

namespace {

// The button's text tells the two states apart, so it must be exactly one of these.
const char* const kTextIdle = "Convert";
const char* const kTextRunning = "Stop ";

void SetButtonState(QPushButton* pButton, bool bRunning)
{
    pButton->setText(bRunning ? kTextRunning : kTextIdle);
    QPixmap pixmap(bRunning ? ":/MyIco/Image/stop.ico"
                            : ":/MyIco/Image/media_playback_start.ico");
    pButton->setIcon(QIcon(pixmap));
    pButton->setIconSize(pixmap.size());
}

}  // namespace

void MainWindow::StartConvert()
{
    m_iFileCount = ui->tableWidget->rowCount();
    if (m_iFileCount < 1) {
        QMessageBox::information(this, "Warning", "No File!", QMessageBox::Yes,
                                 QMessageBox::NoButton);
        return;
    }

    for (int i = 0; i < m_iFileCount; ++i) {
        QTableWidgetItem* pItem = ui->tableWidget->item(i, 0);
        m_listFile.append(pItem ? pItem->text() : QString());
    }
    if (m_listFile.isEmpty())
        return;

    m_iFileIndex = 0;

    QString strOutputFolder = ui->lineEdit_OutPutPath->text();
    if (!QFile::exists(strOutputFolder)) {
        QMessageBox::information(this, "Warning", "Please select a correct output folder.",
                                 QMessageBox::Yes, QMessageBox::NoButton);
        return;
    }

    // Written to the file when this object goes out of scope at the end of the slot.
    QSettings settings(SettingsFilePath(), QSettings::IniFormat);
    settings.setValue("/SettingInfo/OutputFolder", strOutputFolder);

    QString strButton = ui->pushButton_Convert->text();
    if (strButton == kTextIdle) {
        ui->pushButton_Convert->setText(kTextRunning);
        m_bConverting = true;
        SetButtonState(ui->pushButton_Convert, true);
        if (!ExeCmd()) {
            // No engine: back to idle without a word.
            KillProcess();
            SetButtonState(ui->pushButton_Convert, false);
        }
    } else if (strButton == kTextRunning) {
        KillProcess();
        SetButtonState(ui->pushButton_Convert, false);
        ui->progressBarA->setValue(0);
    }
}

bool MainWindow::ExeCmd()
{
    // The process that finished (or was killed) is of no further use; it is freed once
    // control is back in the event loop, which keeps the re-entrant call from close() safe.
    if (m_process)
        m_process->deleteLater();
    m_process = new QProcess;
    m_process->setProcessChannelMode(QProcess::SeparateChannels);

    QString strEngine = QCoreApplication::applicationDirPath() + "/quarvex";
    QString strArg = GetCmdArg();  // also fixes m_strOutputExt to ".tif"

    if (QFileInfo(strEngine).size() <= 0)
        return false;

    int iRowCount = ui->tableWidget->rowCount();
    if (m_iFileIndex >= iRowCount) {
        // The list has run out: the batch is over.
        KillProcess();
        ui->progressBarA->setValue(0);
        SetButtonState(ui->pushButton_Convert, false);
        return true;
    }

    QTableWidgetItem* pItem = ui->tableWidget->item(m_iFileIndex, 0);
    QString strInput = pItem ? pItem->text() : QString();

    // Base name: after the last "/", cut before the last "." (only the last extension goes).
    QString strBase = strInput;
    int iSlash = strBase.lastIndexOf(QChar('/'));
    if (iSlash >= 0)
        strBase = strBase.mid(iSlash + 1);
    int iDot = strBase.lastIndexOf(QChar('.'));
    if (iDot >= 0)
        strBase = strBase.left(iDot);

    // The folder is read again for every file.
    QString strOutput = ui->lineEdit_OutPutPath->text() + "/" + strBase + m_strOutputExt;

    QString strCommand;
    strCommand += "\"" + strEngine + "\" ";
    strCommand += strArg;
    strCommand += " \"-writelocal\" \"n\"  \"-o\" ";
    strCommand += "\"" + strOutput;
    strCommand += "\"  \"-i\" \"";
    strCommand += strInput;
    strCommand += "\" ";

    SetFontPath();

    if (m_iFileIndex >= 0 && m_iFileIndex < ui->tableWidget->rowCount() && m_bConverting) {
        // Double quotes group, blanks separate: the engine gets each option name, value and
        // path as an argument of its own.
        m_process->startCommand(strCommand, QIODevice::ReadWrite);

        ui->progressBarA->setMaximum(iRowCount);
        ui->progressBarA->setValue(m_iFileIndex + 1);  // counts files started

        ui->tableWidget->setCurrentCell(m_iFileIndex, 1);

        connect(m_process, SIGNAL(finished(int,QProcess::ExitStatus)), this, SLOT(ExeCmd()),
                Qt::AutoConnection);

        m_iFileIndex += 1;
    }
    return true;
}

void MainWindow::KillProcess()
{
    if (!m_bConverting)
        return;
    // The flag goes first: close() kills the engine and emits finished() at once, which
    // re-enters ExeCmd, and that call must start nothing.
    m_bConverting = false;
    m_process->close();
}
