#pragma once
// Drives the modal dialogs that the window opens with exec(): a timer polls for the active
// modal widget and hands it to a handler, which inspects it and closes it. The handler runs
// inside the dialog's own event loop, so by the time the click that opened the dialog returns,
// it has run exactly once, or not at all when no dialog was opened.

#include <QAbstractButton>
#include <QApplication>
#include <QFileDialog>
#include <QLineEdit>
#include <QMessageBox>
#include <QObject>
#include <QTimer>
#include <QWidget>

#include <functional>

class ModalDriver : public QObject {
public:
    explicit ModalDriver(std::function<void(QWidget*)> handler)
        : m_handler(std::move(handler))
    {
        m_timer.setInterval(10);
        QObject::connect(&m_timer, &QTimer::timeout, this, [this] {
            QWidget* modal = QApplication::activeModalWidget();
            if (!modal || modal == m_last)
                return;
            m_last = modal;
            ++m_hits;
            m_handler(modal);
        });
        m_timer.start();
    }

    int hits() const { return m_hits; }

private:
    std::function<void(QWidget*)> m_handler;
    QTimer m_timer;
    QWidget* m_last = nullptr;
    int m_hits = 0;
};

// What a dialog looked like when it was driven.
struct SeenDialog {
    QString className;
    QString title;
    QString text;
    QString directory;
    QStringList nameFilters;
    QString selectedNameFilter;
    int fileMode = -1;
    int options = 0;
    int icon = -1;
    int buttons = 0;
    bool hasDefaultButton = false;
    QWidget* parent = nullptr;
    QWidget* widget = nullptr;
};

inline SeenDialog describe(QWidget* w)
{
    SeenDialog seen;
    seen.className = QString::fromLatin1(w->metaObject()->className());
    seen.title = w->windowTitle();
    seen.parent = w->parentWidget();
    seen.widget = w;
    if (auto* fd = qobject_cast<QFileDialog*>(w)) {
        seen.directory = fd->directory().absolutePath();
        seen.nameFilters = fd->nameFilters();
        seen.selectedNameFilter = fd->selectedNameFilter();
        seen.fileMode = int(fd->fileMode());
        seen.options = int(fd->options());
    }
    if (auto* mb = qobject_cast<QMessageBox*>(w)) {
        seen.text = mb->text();
        seen.icon = int(mb->icon());
        seen.buttons = int(mb->standardButtons());
        seen.hasDefaultButton = mb->defaultButton() != nullptr;
    }
    return seen;
}

// Picks files in the (non-native) file dialog by typing them as a quoted list and accepting.
inline void pickFiles(QWidget* w, const QStringList& paths)
{
    auto* fd = qobject_cast<QFileDialog*>(w);
    if (!fd) {
        w->close();
        return;
    }
    QStringList quoted;
    for (const QString& p : paths)
        quoted << QLatin1Char('"') + p + QLatin1Char('"');
    if (auto* edit = fd->findChild<QLineEdit*>(QStringLiteral("fileNameEdit")))
        edit->setText(quoted.join(QLatin1Char(' ')));
    static_cast<QDialog*>(fd)->accept();
}

// Accepts the folder dialog at the given folder.
inline void pickFolder(QWidget* w, const QString& folder)
{
    auto* fd = qobject_cast<QFileDialog*>(w);
    if (!fd) {
        w->close();
        return;
    }
    fd->setDirectory(folder);
    if (auto* edit = fd->findChild<QLineEdit*>(QStringLiteral("fileNameEdit")))
        edit->clear();
    static_cast<QDialog*>(fd)->accept();
}

inline void rejectDialog(QWidget* w)
{
    if (auto* dlg = qobject_cast<QDialog*>(w))
        dlg->reject();
    else
        w->close();
}

// Presses the message box's Yes button the way a user would.
inline void pressYes(QWidget* w)
{
    if (auto* mb = qobject_cast<QMessageBox*>(w)) {
        if (QAbstractButton* yes = mb->button(QMessageBox::Yes)) {
            yes->click();
            return;
        }
    }
    rejectDialog(w);
}
