#pragma once
// Drives the main window as start-up and a user do: builds it the way start-up does, finds its
// widgets by object name, and adds files through the Add button and the real file dialog.

#include "app/mainwindow.h"
#include "modaldriver.h"

#include <QPushButton>
#include <QTest>

template <class T>
T* child(MainWindow& w, const char* name)
{
    return w.findChild<T*>(QString::fromLatin1(name));
}

// A window as start-up builds it: fixed, shown, then initialised.
inline void bringUp(MainWindow& w)
{
    w.setFixedSize(730, 450);
    w.show();
    w.InitAllChoice();
}

// Adds files through the Add button and the real file dialog, which must open exactly once;
// returns what the dialog looked like.
inline SeenDialog addFiles(MainWindow& w, const QStringList& paths)
{
    SeenDialog seen;
    ModalDriver driver([&](QWidget* m) {
        seen = describe(m);
        pickFiles(m, paths);
    });
    child<QPushButton>(w, "pushButton_Add")->click();
    [&] { QCOMPARE(driver.hits(), 1); }();
    return seen;
}
