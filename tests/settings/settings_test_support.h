#pragma once
// Helpers shared by the setting dialog tests: the real settings file beside the test executable,
// widget look-up by object name, and driving a modal exec() from a timer.

#include <QApplication>
#include <QComboBox>
#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QPushButton>
#include <QSettings>
#include <QStringList>
#include <QTimer>
#include <QWidget>

#include <functional>

namespace settings_test {

inline QString IniPath()
{
    return QCoreApplication::applicationDirPath() + "/quarvelinfo.ini";
}

inline void RemoveIni()
{
    QFile::remove(IniPath());
}

// Writes the settings file as a user or an older run would have left it: the given lines under
// [SettingInfo], plus any extra raw text.
inline bool WriteIni(const QStringList& settingInfoLines, const QString& extra = QString())
{
    QFile::remove(IniPath());
    QFile file(IniPath());
    if (!file.open(QIODevice::WriteOnly | QIODevice::Text))
        return false;
    QByteArray text = "[SettingInfo]\n";
    for (const QString& line : settingInfoLines)
        text += line.toUtf8() + "\n";
    text += extra.toUtf8();
    if (file.write(text) != text.size() || !file.flush())
        return false;
    // QSettings keeps parsed files in a process-wide cache and re-reads one only when its size or
    // modification time changed. Two files written in quick succession can share both, so every
    // file written here gets a modification time of its own.
    static int s_iWriteCount = 0;
    const QDateTime stamp(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC);
    return file.setFileTime(stamp.addSecs(++s_iWriteCount), QFileDevice::FileModificationTime);
}

inline QByteArray ReadIniBytes()
{
    QFile file(IniPath());
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

inline QString StoredValue(const QString& key)
{
    QSettings settings(IniPath(), QSettings::IniFormat);
    return settings.value("SettingInfo/" + key).toString();
}

inline QStringList StoredKeys()
{
    QSettings settings(IniPath(), QSettings::IniFormat);
    QStringList keys = settings.allKeys();
    keys.sort();
    return keys;
}

inline QStringList TenKeysSorted()
{
    QStringList keys = {"SettingInfo/Format",           "SettingInfo/BitCount",
                        "SettingInfo/ResizePage",       "SettingInfo/PageSizeX",
                        "SettingInfo/PageSizeY",        "SettingInfo/ResizeResolution",
                        "SettingInfo/ResolutionX",      "SettingInfo/ResolutionY",
                        "SettingInfo/CompressMethod",   "SettingInfo/FaxTiff"};
    keys.sort();
    return keys;
}

template <typename T>
T Child(QWidget* dialog, const char* name)
{
    return dialog->findChild<T>(QString::fromLatin1(name));
}

// The texts of a combo box's items, in list order.
inline QStringList Items(QWidget* dialog, const char* comboName)
{
    QStringList texts;
    QComboBox* combo = Child<QComboBox*>(dialog, comboName);
    if (!combo)
        return texts;
    for (int i = 0; i < combo->count(); ++i)
        texts << combo->itemText(i);
    return texts;
}

// Runs `action` on the active modal widget as soon as exec() has made one. The action is
// expected to close the dialog (by clicking one of its buttons).
inline void WhenModal(std::function<void(QWidget*)> action)
{
    auto* timer = new QTimer;
    timer->setInterval(5);
    QObject::connect(timer, &QTimer::timeout, [timer, action]() {
        QWidget* modal = QApplication::activeModalWidget();
        if (!modal)
            return;
        timer->stop();
        timer->deleteLater();
        action(modal);
    });
    timer->start();
}

// The push button with exactly this caption inside the given window, or null.
inline QPushButton* ButtonWithText(QWidget* window, const QString& text)
{
    const auto buttons = window->findChildren<QPushButton*>();
    for (QPushButton* button : buttons) {
        if (button->text() == text)
            return button;
    }
    return nullptr;
}

}  // namespace settings_test
