#include "app/mainwindow.h"

#include <QApplication>
#include <QDir>
#include <QStringList>

int main(int argc, char* argv[])
{
    QApplication app(argc, argv);

    // The only plug-in folder is "plugins" one level above the executable's folder (inside the
    // bundle: Contents/plugins). A missing folder leaves the QDir where the last successful
    // step put it.
    QDir dirPlugins(QCoreApplication::applicationDirPath());
    dirPlugins.cdUp();
    dirPlugins.cd("plugins");
    QCoreApplication::setLibraryPaths(QStringList() << dirPlugins.absolutePath());

    MainWindow window;
    window.setFixedSize(730, 450);
    window.show();
    window.InitAllChoice();

    return app.exec();
}
