// The main window: widget tree, geometry, texts, style sheets, icons and background; the file
// list (adding with the file dialog, sizes, removing); the output folder dialog; the Setting
// and About dialogs. Dialogs are driven through the real modal code paths.
#include "app/mainwindow.h"
#include "settings/settingdialog.h"
#include "settings/settingsfile.h"
#include "windowdriver.h"

#include <QAction>
#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QMenuBar>
#include <QMetaMethod>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QSettings>
#include <QStatusBar>
#include <QTableWidget>
#include <QTemporaryDir>
#include <QTest>
#include <QToolBar>

namespace {

const QString kStyleA = QStringLiteral(
    "QPushButton{\nbackground-color:#F0F0F0;\nfont-weight:normal;\nborder-left:1px solid #000000;\n"
    "border-top:1px solid #000000;\nborder-right:1px solid #000000;\nborder-bottom:1px solid #000000;\n"
    "border-radius:2px;\n}\nQPushButton:hover{\nborder-left:2px solid #C2C2C2;\nborder-top:0px solid #000000;\n"
    "border-right:2px solid #C2C2C2;\nborder-bottom:2px solid #C2C2C2;\nbackground-color:#FFFFFF;\n}\n");
const QString kStyleB = QStringLiteral(
    "QPushButton{\nbackground-color:#F0F0F0;\nfont-weight:normal;\nborder-left:1px solid #000000;\n"
    "border-top:1px solid #000000;\nborder-right:1px solid #000000;\nborder-bottom:1px solid #000000;\n"
    "border-radius:2px;\n}\nQPushButton:hover{\nborder-left:2px solid #C2C2C2;\nborder-top:2px solid #C2C2C2;\n"
    "border-right:0px solid #000000;\nborder-bottom:2px solid #C2C2C2;\nbackground-color:#FFFFFF;\n}\n\n"
    "QPushButton:active {\n\n}\nQPushBUtton:focus{\n\n}");
const QString kStyleC = QStringLiteral(
    "border-left:1px solid #000000;\nborder-top:1px solid #000000;\nborder-right:1px solid #000000;\n"
    "border-bottom:1px solid #000000;\nborder-radius:2px;");
const QString kStyleD = QStringLiteral("border:0px solid #999999;");
const QString kStyleE = QStringLiteral("border:1xp blue solid;");

const QString kFilter = QStringLiteral(
    "All Supported Files (*.pcl *.pxl *.px3 *.prn *.spl);;PCL File (*.pcl);;PXL File (*.pxl);;"
    "PX3 File (*.px3);;PRN File (*.prn);;SPL File (*.spl);;All Files (*.*)");

QImage iconImage(const QIcon& icon, int side)
{
    return icon.pixmap(QSize(side, side)).toImage().convertToFormat(QImage::Format_ARGB32);
}

QImage resourceIconImage(const QString& path, int side)
{
    return iconImage(QIcon(path), side);
}

void writeFile(const QString& path, qint64 size)
{
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    if (size > 0 && size < 1 << 20)
        f.write(QByteArray(int(size), 'x'));
    else if (size > 0)
        QVERIFY(f.resize(size));  // sparse: no disk space is used
    f.close();
}

QString settingValue(const QString& key)
{
    QSettings settings(SettingsFilePath(), QSettings::IniFormat);
    return settings.value(key).toString();
}

}  // namespace

class TestMainWindow : public QObject {
    Q_OBJECT

    QTemporaryDir m_tmp;



    static QStringList column0(MainWindow& w)
    {
        QTableWidget* t = child<QTableWidget>(w, "tableWidget");
        QStringList out;
        for (int r = 0; r < t->rowCount(); ++r)
            out << (t->item(r, 0) ? t->item(r, 0)->text() : QStringLiteral("<none>"));
        return out;
    }

private slots:
    void initTestCase() { QVERIFY(m_tmp.isValid()); }

    void init() { QFile::remove(SettingsFilePath()); }

    void windowAndActions()
    {
        MainWindow w;
        QCOMPARE(w.objectName(), QStringLiteral("MainWindow"));
        QCOMPARE(w.size(), QSize(730, 450));
        QCOMPARE(w.windowTitle(), QStringLiteral("Quarvel"));
        QCOMPARE(w.styleSheet(), QString());
        QCOMPARE(iconImage(w.windowIcon(), 32), resourceIconImage(":/MyIco/Image/Main.ico", 32));
        QVERIFY(!w.windowIcon().isNull());

        const QStringList names = {"actionNew", "actionOpen", "actionDOC", "actionRTF", "actionPDF",
            "actionHTML", "actionXLS", "actionTXT", "actionCSV", "actionJPEG", "actionTIFF",
            "actionODT", "actionODS", "actionXML", "actionXLSX", "actionSQL", "actionDBF",
            "actionDIFF", "actionSYLK", "actionLaTex", "actionLotus", "actionRemove_All"};
        const QStringList texts = {"Add", "Remove", "DOC", "RTF", "PDF", "HTML", "XLS", "TXT",
            "CSV", "JPEG", "TIFF", "ODT", "ODS", "XML", "XLSX", "SQL", "DBF", "DIFF", "SYLK",
            "LaTex", "Lotus", "Remove All"};
        const QList<QAction*> actions = w.findChildren<QAction*>(QString(), Qt::FindDirectChildrenOnly);
        QStringList gotNames, gotTexts;
        for (QAction* a : actions) {
            gotNames << a->objectName();
            gotTexts << a->text();
            // Inert: placed nowhere and connected to nothing.
            QVERIFY2(a->associatedObjects().isEmpty(), qPrintable(a->objectName()));
        }
        QCOMPARE(gotNames, names);
        QCOMPARE(gotTexts, texts);
        QVERIFY(w.actions().isEmpty());

        // No menu bar, status bar or tool bar (menuWidget() does not create one).
        QCOMPARE(w.menuWidget(), nullptr);
        QCOMPARE(w.findChild<QMenuBar*>(), nullptr);
        QCOMPARE(w.findChild<QStatusBar*>(), nullptr);
        QVERIFY(w.findChildren<QToolBar*>().isEmpty());
    }

    void widgetTreeInCreationOrder()
    {
        MainWindow w;
        QWidget* central = w.centralWidget();
        QVERIFY(central);
        QCOMPARE(central->objectName(), QStringLiteral("centralWidget"));
        QStringList names;
        for (QObject* o : central->children())
            if (o->isWidgetType())
                names << o->objectName();
        QCOMPARE(names, QStringList({"pushButton_Convert", "tableWidget", "progressBarA",
                                     "pushButton_OutPutPath", "pushButton_Add", "pushButton_About",
                                     "pushButton_Setting", "pushButton_RemoveAll",
                                     "pushButton_Remove", "layoutWidget"}));
        QVERIFY(qobject_cast<QTableWidget*>(child<QWidget>(w, "tableWidget")));
        QVERIFY(qobject_cast<QProgressBar*>(child<QWidget>(w, "progressBarA")));

        QWidget* layoutWidget = child<QWidget>(w, "layoutWidget");
        QCOMPARE(layoutWidget->geometry(), QRect(64, 351, 411, 51));
        auto* layout = qobject_cast<QHBoxLayout*>(layoutWidget->layout());
        QVERIFY(layout);
        QCOMPARE(layout->objectName(), QStringLiteral("horizontalLayout"));
        QCOMPARE(layout->spacing(), 6);
        QCOMPARE(layout->contentsMargins(), QMargins(0, 0, 0, 0));
        QCOMPARE(layout->count(), 2);
        QCOMPARE(layout->itemAt(0)->widget(), child<QWidget>(w, "label_2"));
        QCOMPARE(layout->itemAt(1)->widget(), child<QWidget>(w, "lineEdit_OutPutPath"));
        QCOMPARE(layout->stretch(0), 0);
        QCOMPARE(layout->stretch(1), 0);
        QCOMPARE(int(layout->itemAt(0)->alignment()), 0);
        QCOMPARE(int(layout->itemAt(1)->alignment()), 0);
        QCOMPARE(child<QLabel>(w, "label_2")->text(), QStringLiteral("Output Path:"));
        QCOMPARE(child<QLineEdit>(w, "lineEdit_OutPutPath")->styleSheet(), kStyleE);
        QCOMPARE(child<QLineEdit>(w, "lineEdit_OutPutPath")->text(), QString());
    }

    void buttonsGeometryTextsStylesIcons_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QRect>("geometry");
        QTest::addColumn<QString>("style");
        QTest::addColumn<QString>("icon");
        QTest::addColumn<int>("iconSide");
        QTest::addColumn<QString>("text");
        QTest::newRow("Convert") << "pushButton_Convert" << QRect(550, 350, 151, 50) << kStyleA
                                 << QString() << 42 << "Convert";
        QTest::newRow("OutPutPath") << "pushButton_OutPutPath" << QRect(478, 356, 50, 40) << kStyleD
                                    << ":/MyIco/Image/folder_open.ico" << 32 << QString();
        QTest::newRow("Add") << "pushButton_Add" << QRect(10, 100, 141, 40) << kStyleB
                             << ":/MyIco/Image/plus_orange.ico" << 32 << "Add File(s)";
        QTest::newRow("Remove") << "pushButton_Remove" << QRect(10, 150, 141, 40) << kStyleB
                                << ":/MyIco/Image/delete.ico" << 32 << "Remove    ";
        QTest::newRow("RemoveAll") << "pushButton_RemoveAll" << QRect(10, 200, 141, 40) << kStyleB
                                   << ":/MyIco/Image/deleteall.ico" << 32 << "Clear       ";
        QTest::newRow("Setting") << "pushButton_Setting" << QRect(10, 250, 141, 40) << kStyleB
                                 << ":/MyIco/Image/settings.ico" << 32 << "Setting   ";
        QTest::newRow("About") << "pushButton_About" << QRect(10, 300, 141, 40) << kStyleB
                               << ":/MyIco/Image/get_info.ico" << 32 << "About     ";
    }

    void buttonsGeometryTextsStylesIcons()
    {
        QFETCH(QString, name);
        QFETCH(QRect, geometry);
        QFETCH(QString, style);
        QFETCH(QString, icon);
        QFETCH(int, iconSide);
        QFETCH(QString, text);
        MainWindow w;
        auto* b = w.findChild<QPushButton*>(name);
        QVERIFY(b);
        QCOMPARE(b->parentWidget(), w.centralWidget());
        QCOMPARE(b->geometry(), geometry);
        QCOMPARE(b->styleSheet(), style);
        QCOMPARE(b->iconSize(), QSize(iconSide, iconSide));
        QCOMPARE(b->text(), text);
        QCOMPARE(b->text().isNull(), text.isNull());
        if (icon.isEmpty()) {
            QVERIFY(b->icon().isNull());  // the runner sets it later
        } else {
            QVERIFY(!b->icon().isNull());
            QCOMPARE(b->icon().availableSizes(), QIcon(icon).availableSizes());
            QCOMPARE(iconImage(b->icon(), 32), resourceIconImage(icon, 32));
            QCOMPARE(iconImage(b->icon(), 16), resourceIconImage(icon, 16));
        }
    }

    void leftColumnTopToBottom()
    {
        MainWindow w;
        bringUp(w);
        QList<QPushButton*> left;
        for (QPushButton* b : w.centralWidget()->findChildren<QPushButton*>())
            if (b->x() == 10)
                left << b;
        std::sort(left.begin(), left.end(), [](QPushButton* a, QPushButton* b) { return a->y() < b->y(); });
        QStringList texts;
        for (QPushButton* b : left) {
            texts << b->text().trimmed();
            QVERIFY(!b->icon().isNull());
            QVERIFY(b->isVisible());
        }
        QCOMPARE(texts, QStringList({"Add File(s)", "Remove", "Clear", "Setting", "About"}));
        // The output folder button shows only its icon.
        auto* out = child<QPushButton>(w, "pushButton_OutPutPath");
        QVERIFY(out->text().isNull());
        QVERIFY(!out->icon().isNull());
    }

    void tableAndProgressBar()
    {
        MainWindow w;
        auto* table = child<QTableWidget>(w, "tableWidget");
        QCOMPARE(table->geometry(), QRect(150, 80, 571, 271));
        QCOMPARE(table->styleSheet(), kStyleC);
        QCOMPARE(table->editTriggers(), QAbstractItemView::NoEditTriggers);
        auto* bar = child<QProgressBar>(w, "progressBarA");
        QCOMPARE(bar->geometry(), QRect(10, 413, 711, 20));
        QCOMPARE(bar->value(), 0);
        QVERIFY(!bar->isTextVisible());

        bringUp(w);
        QCOMPARE(table->columnCount(), 2);
        QCOMPARE(table->rowCount(), 0);
        QCOMPARE(table->horizontalHeaderItem(0)->text(), QStringLiteral("File Name"));
        QCOMPARE(table->horizontalHeaderItem(1)->text(), QStringLiteral("File Size"));
        QCOMPARE(table->selectionBehavior(), QAbstractItemView::SelectRows);
        QCOMPARE(table->width(), 571);
        QCOMPARE(table->columnWidth(0), 571 / 6 * 4);
        QCOMPARE(table->columnWidth(1), 571 / 6);
    }

    void doubleClickStartsNoEditor()
    {
        MainWindow w;
        bringUp(w);
        const QString file = m_tmp.filePath("edit.pcl");
        writeFile(file, 10);
        addFiles(w, {file});
        auto* table = child<QTableWidget>(w, "tableWidget");
        QCOMPARE(table->rowCount(), 1);
        const QRect cell = table->visualRect(table->model()->index(0, 0));
        QTest::mouseClick(table->viewport(), Qt::LeftButton, {}, cell.center());
        QTest::mouseDClick(table->viewport(), Qt::LeftButton, {}, cell.center());
        QTest::keyClick(table, Qt::Key_F2);
        QCoreApplication::processEvents();
        QVERIFY(table->findChildren<QLineEdit*>().isEmpty());
        QCOMPARE(table->item(0, 0)->text(), file);
    }

    void initAllChoiceFixesSizeAndConvertIcon()
    {
        MainWindow w;
        w.show();
        w.resize(900, 600);
        w.InitAllChoice();
        QCOMPARE(w.size(), QSize(730, 450));
        QCOMPARE(w.minimumSize(), QSize(730, 450));
        QCOMPARE(w.maximumSize(), QSize(730, 450));
        w.resize(800, 500);
        QCoreApplication::processEvents();
        QCOMPARE(w.size(), QSize(730, 450));

        auto* convert = child<QPushButton>(w, "pushButton_Convert");
        const QPixmap start(":/MyIco/Image/media_playback_start.ico");
        QVERIFY(!start.isNull());
        QCOMPARE(convert->iconSize(), start.size());
        QCOMPARE(iconImage(convert->icon(), start.width()),
                 start.toImage().convertToFormat(QImage::Format_ARGB32));
        QCOMPARE(convert->text(), QStringLiteral("Convert"));
    }

    void backgroundStretchedToWindow()
    {
        MainWindow w;
        const QImage expected = QPixmap(":/MyImage/Image/bg1.png")
                                    .scaled(QSize(730, 450), Qt::IgnoreAspectRatio,
                                            Qt::SmoothTransformation)
                                    .toImage();
        QVERIFY(!expected.isNull());
        for (QPalette::ColorGroup g : {QPalette::Active, QPalette::Inactive, QPalette::Disabled}) {
            const QBrush brush = w.palette().brush(g, QPalette::Window);
            QCOMPARE(brush.texture().size(), QSize(730, 450));
            QCOMPARE(brush.texture().toImage(), expected);
        }
    }

    void slotTableOrder()
    {
        const QMetaObject& mo = MainWindow::staticMetaObject;
        QStringList sigs;
        QStringList types;
        for (int i = mo.methodOffset(); i < mo.methodCount(); ++i) {
            const QMetaMethod m = mo.method(i);
            if (m.methodType() != QMetaMethod::Slot)
                continue;
            sigs << QString::fromLatin1(m.methodSignature());
            types << QString::fromLatin1(m.typeName());
        }
        QCOMPARE(sigs, QStringList({"AddFile()", "DeleteFile()", "DeleteAllFile()", "Setting()",
                                    "StartConvert()", "ExeCmd()", "AddOutputPath()",
                                    "SetFontPath()", "ShowAbout()", "Onkeyboard()"}));
        QCOMPARE(types, QStringList({"void", "void", "void", "void", "void", "bool", "void",
                                     "bool", "void", "void"}));
    }

    void addFileDialogAndSizes()
    {
        MainWindow w;
        bringUp(w);
        QDir(m_tmp.path()).mkpath("sizes");
        const QString a = m_tmp.filePath("sizes/a1234.pcl");
        const QString b = m_tmp.filePath("sizes/b999.pxl");
        const QString c = m_tmp.filePath("sizes/c0.prn");
        writeFile(a, 1234);
        writeFile(b, 999);
        writeFile(c, 0);

        const SeenDialog seen = addFiles(w, {a, b, c});
        QCOMPARE(seen.className, QStringLiteral("QFileDialog"));
        QCOMPARE(seen.title, QStringLiteral("Select one or more files to open"));
        QCOMPARE(seen.parent, &w);
        QCOMPARE(seen.nameFilters, kFilter.split(";;"));
        QCOMPARE(seen.selectedNameFilter, kFilter.split(";;").first());
        QCOMPARE(seen.fileMode, int(QFileDialog::ExistingFiles));
        QCOMPARE(seen.options & ~int(QFileDialog::DontUseNativeDialog), 0);
        QCOMPARE(seen.directory, QDir::currentPath());  // nothing remembered yet

        auto* table = child<QTableWidget>(w, "tableWidget");
        QCOMPARE(column0(w), QStringList({a, b, c}));
        QCOMPARE(table->item(0, 1)->text(), QStringLiteral("         1.234 KB"));
        QCOMPARE(table->item(1, 1)->text(), QStringLiteral("         0.999 KB"));
        QCOMPARE(table->item(2, 1), nullptr);

        // The remembered folder is the first path itself (no backslash in it) ...
        QCOMPARE(settingValue("/SettingInfo/InputFolder"), a);
        // ... so the next dialog opens in that file's folder. Later files are appended.
        const QString d = m_tmp.filePath("sizes/d.spl");
        writeFile(d, 2000);
        const SeenDialog again = addFiles(w, {d});
        QCOMPARE(again.directory, m_tmp.filePath("sizes"));
        QCOMPARE(column0(w), QStringList({a, b, c, d}));
        QCOMPARE(table->item(3, 1)->text(), QStringLiteral("         2.000 KB"));
        QCOMPARE(settingValue("/SettingInfo/InputFolder"), d);
    }

    void rememberedFolderCutAtBackslash()
    {
        MainWindow w;
        bringUp(w);
        const QString odd = m_tmp.filePath("we\\ird.pcl");
        writeFile(odd, 5);
        addFiles(w, {odd});
        QCOMPARE(column0(w), QStringList({odd}));
        QCOMPARE(settingValue("/SettingInfo/InputFolder"), m_tmp.filePath("we"));
    }

    void hugeFilesWrapAt32Bits()
    {
        MainWindow w;
        bringUp(w);
        const qint64 k4G = qint64(1) << 32;
        const QString wraps = m_tmp.filePath("wraps.pcl");      // 4 GiB + 1234: shows 1.234
        const QString neg = m_tmp.filePath("neg.pcl");          // 2 GiB: negative, no size
        const QString neg3 = m_tmp.filePath("neg3.pcl");        // 3 GiB: negative, no size
        const QString zero = m_tmp.filePath("zero.pcl");        // 4 GiB: zero, no size
        const QString below = m_tmp.filePath("below.pcl");      // 2 GiB - 1000: shown as is
        writeFile(wraps, k4G + 1234);
        writeFile(neg, qint64(1) << 31);
        writeFile(neg3, 3 * (qint64(1) << 30));
        writeFile(zero, k4G);
        writeFile(below, (qint64(1) << 31) - 1000);
        addFiles(w, {wraps, neg, neg3, zero, below});
        auto* table = child<QTableWidget>(w, "tableWidget");
        QCOMPARE(column0(w), QStringList({wraps, neg, neg3, zero, below}));
        QCOMPARE(table->item(0, 1)->text(), QStringLiteral("         1.234 KB"));
        QCOMPARE(table->item(1, 1), nullptr);
        QCOMPARE(table->item(2, 1), nullptr);
        QCOMPARE(table->item(3, 1), nullptr);
        QCOMPARE(table->item(4, 1)->text(), QStringLiteral("   2147482.648 KB"));
        for (const QString& f : {wraps, neg, neg3, zero, below})
            QFile::remove(f);
    }

    void sameFileTwiceAndCancel()
    {
        MainWindow w;
        bringUp(w);
        const QString f = m_tmp.filePath("twice.pcl");
        writeFile(f, 100);
        addFiles(w, {f});
        addFiles(w, {f});
        QCOMPARE(column0(w), QStringList({f, f}));
        QCOMPARE(settingValue("/SettingInfo/InputFolder"), f);

        // A cancelled dialog adds nothing and leaves the remembered folder alone.
        ModalDriver driver([](QWidget* m) { rejectDialog(m); });
        child<QPushButton>(w, "pushButton_Add")->click();
        QCOMPARE(driver.hits(), 1);
        QCOMPARE(column0(w), QStringList({f, f}));
        QCOMPARE(settingValue("/SettingInfo/InputFolder"), f);
    }

    void cancelledFirstDialogWritesNoSettings()
    {
        MainWindow w;
        bringUp(w);
        ModalDriver driver([](QWidget* m) { rejectDialog(m); });
        child<QPushButton>(w, "pushButton_Add")->click();
        QCOMPARE(driver.hits(), 1);
        QVERIFY(!QFile::exists(SettingsFilePath()));
        QCOMPARE(child<QTableWidget>(w, "tableWidget")->rowCount(), 0);
    }

    void missingFileAddedWithoutSize()
    {
        // The dialog only returns existing files; a file that vanishes before its size is
        // taken is still listed, without a size. Simulated by removing it while the dialog is up.
        MainWindow w;
        bringUp(w);
        const QString f = m_tmp.filePath("vanish.pcl");
        writeFile(f, 500);
        ModalDriver driver([&](QWidget* m) {
            auto* fd = qobject_cast<QFileDialog*>(m);
            QVERIFY(fd);
            connect(fd, &QFileDialog::filesSelected, fd, [f] { QFile::remove(f); });
            pickFiles(m, {f});
        });
        child<QPushButton>(w, "pushButton_Add")->click();
        QCOMPARE(column0(w), QStringList({f}));
        QCOMPARE(child<QTableWidget>(w, "tableWidget")->item(0, 1), nullptr);
    }

    void removeCurrentAndSelectedRows()
    {
        MainWindow w;
        bringUp(w);
        QStringList files;
        for (int i = 0; i < 7; ++i) {
            files << m_tmp.filePath(QStringLiteral("r%1.pcl").arg(i));
            writeFile(files.last(), 10);
        }
        addFiles(w, files);
        auto* table = child<QTableWidget>(w, "tableWidget");
        QCOMPARE(table->rowCount(), 7);
        QItemSelectionModel* sel = table->selectionModel();

        // Nothing selected and no current row: nothing goes.
        sel->clear();
        QCOMPARE(table->currentRow(), -1);
        child<QPushButton>(w, "pushButton_Remove")->click();
        QCOMPARE(table->rowCount(), 7);

        // Rows 1, 3 and 5 selected, row 3 current: all three go.
        sel->setCurrentIndex(table->model()->index(3, 0), QItemSelectionModel::NoUpdate);
        for (int r : {1, 3, 5})
            sel->select(table->model()->index(r, 0),
                        QItemSelectionModel::Select | QItemSelectionModel::Rows);
        QCOMPARE(table->currentRow(), 3);
        child<QPushButton>(w, "pushButton_Remove")->click();
        QCOMPARE(column0(w), QStringList({files[0], files[2], files[4], files[6]}));

        // The current row goes even when it is not selected.
        sel->clear();
        sel->setCurrentIndex(table->model()->index(2, 0), QItemSelectionModel::NoUpdate);
        sel->select(table->model()->index(0, 0),
                    QItemSelectionModel::Select | QItemSelectionModel::Rows);
        child<QPushButton>(w, "pushButton_Remove")->click();
        QCOMPARE(column0(w), QStringList({files[2], files[6]}));

        // Clicking a row makes it current and selected; Remove takes it.
        const QRect cell = table->visualRect(table->model()->index(1, 0));
        QTest::mouseClick(table->viewport(), Qt::LeftButton, {}, cell.center());
        QCOMPARE(table->currentRow(), 1);
        child<QPushButton>(w, "pushButton_Remove")->click();
        QCOMPARE(column0(w), QStringList({files[2]}));
    }

    void clearRemovesAll()
    {
        MainWindow w;
        bringUp(w);
        auto* table = child<QTableWidget>(w, "tableWidget");
        child<QPushButton>(w, "pushButton_RemoveAll")->click();  // empty table: nothing to do
        QCOMPARE(table->rowCount(), 0);
        QStringList files;
        for (int i = 0; i < 4; ++i) {
            files << m_tmp.filePath(QStringLiteral("c%1.pcl").arg(i));
            writeFile(files.last(), 10);
        }
        addFiles(w, files);
        QCOMPARE(table->rowCount(), 4);
        child<QPushButton>(w, "pushButton_RemoveAll")->click();
        QCOMPARE(table->rowCount(), 0);
        QCOMPARE(table->columnCount(), 2);
    }

    void outputFolderDialog()
    {
        MainWindow w;
        bringUp(w);
        auto* edit = child<QLineEdit>(w, "lineEdit_OutPutPath");
        const QString folder = m_tmp.filePath("outA");
        QVERIFY(QDir().mkpath(folder));

        SeenDialog seen;
        ModalDriver driver([&](QWidget* m) {
            seen = describe(m);
            pickFolder(m, folder);
        });
        child<QPushButton>(w, "pushButton_OutPutPath")->click();
        QCOMPARE(driver.hits(), 1);
        QCOMPARE(seen.className, QStringLiteral("QFileDialog"));
        QCOMPARE(seen.title, QStringLiteral("Open directory"));
        QCOMPARE(seen.parent, &w);
        QCOMPARE(seen.fileMode, int(QFileDialog::Directory));
        QCOMPARE(seen.options & ~int(QFileDialog::DontUseNativeDialog),
                 int(QFileDialog::ShowDirsOnly | QFileDialog::DontResolveSymlinks));
        // Nothing saved yet: the dialog opens wherever Qt's own default puts it.
        QVERIFY(seen.directory != folder);
        QCOMPARE(edit->text(), folder);
        // Choosing a folder saves nothing; only a started conversion does.
        QVERIFY(!QFile::exists(SettingsFilePath()));

        // Cancelling empties the field, even though it held a valid folder.
        ModalDriver cancel([](QWidget* m) { rejectDialog(m); });
        child<QPushButton>(w, "pushButton_OutPutPath")->click();
        QCOMPARE(cancel.hits(), 1);
        QCOMPARE(edit->text(), QString());
    }

    void outputFolderDialogStartsInSavedFolder()
    {
        const QString saved = m_tmp.filePath("savedOut");
        QVERIFY(QDir().mkpath(saved));
        {
            QSettings settings(SettingsFilePath(), QSettings::IniFormat);
            settings.setValue("/SettingInfo/OutputFolder", saved);
        }
        MainWindow w;
        bringUp(w);
        // A fresh start shows an empty field; the saved folder only seeds the dialog.
        QCOMPARE(child<QLineEdit>(w, "lineEdit_OutPutPath")->text(), QString());
        SeenDialog seen;
        ModalDriver driver([&](QWidget* m) {
            seen = describe(m);
            rejectDialog(m);
        });
        child<QPushButton>(w, "pushButton_OutPutPath")->click();
        QCOMPARE(seen.directory, saved);

        // A saved folder that no longer exists is not offered.
        {
            QSettings settings(SettingsFilePath(), QSettings::IniFormat);
            settings.setValue("/SettingInfo/OutputFolder", m_tmp.filePath("gone"));
        }
        SeenDialog seen2;
        ModalDriver driver2([&](QWidget* m) {
            seen2 = describe(m);
            rejectDialog(m);
        });
        child<QPushButton>(w, "pushButton_OutPutPath")->click();
        QCOMPARE(driver2.hits(), 1);
        QVERIFY(seen2.directory != m_tmp.filePath("gone"));
        // The dialog writes nothing back.
        QCOMPARE(settingValue("/SettingInfo/OutputFolder"), m_tmp.filePath("gone"));
    }

    void settingDialogIsTheWindowsOwnAndReused()
    {
        MainWindow w;
        bringUp(w);
        QPointer<QWidget> first;
        ModalDriver driver([&](QWidget* m) {
            first = m;
            // Change a choice and cancel: the dialog object keeps its widgets' state.
            if (auto* box = m->findChild<QComboBox*>(QStringLiteral("comboBox_CLASSF")))
                box->setCurrentIndex(2);
            rejectDialog(m);
        });
        child<QPushButton>(w, "pushButton_Setting")->click();
        QCOMPARE(driver.hits(), 1);
        QVERIFY(first);
        QVERIFY(qobject_cast<SettingDialog*>(first.data()));
        QCOMPARE(first->parentWidget(), nullptr);
        QVERIFY(!first->isVisible());  // closed, not destroyed

        QWidget* second = nullptr;
        int shownFax = -1;
        ModalDriver again([&](QWidget* m) {
            second = m;
            if (auto* box = m->findChild<QComboBox*>(QStringLiteral("comboBox_CLASSF")))
                shownFax = box->currentIndex();
            rejectDialog(m);
        });
        child<QPushButton>(w, "pushButton_Setting")->click();
        QCOMPARE(second, first.data());
        QCOMPARE(shownFax, 2);
    }

    void aboutDialogLivesForOneOpening()
    {
        MainWindow w;
        bringUp(w);
        QPointer<QWidget> about;
        QWidget* parent = reinterpret_cast<QWidget*>(1);
        QString className;
        ModalDriver driver([&](QWidget* m) {
            about = m;
            className = QString::fromLatin1(m->metaObject()->className());
            parent = m->parentWidget();
            rejectDialog(m);
        });
        child<QPushButton>(w, "pushButton_About")->click();
        QCOMPARE(driver.hits(), 1);
        QCOMPARE(parent, nullptr);
        QCOMPARE(className, QStringLiteral("AboutDlg"));
        QVERIFY(about.isNull());  // destroyed when exec() returned  // destroyed when exec() returned
    }
};

int main(int argc, char* argv[])
{
    // The file dialog keeps its history in the user's Qt settings; keep that out of $HOME.
    QTemporaryDir configHome;
    qputenv("XDG_CONFIG_HOME", configHome.path().toLocal8Bit());
    QApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
    QApplication app(argc, argv);
    TestMainWindow t;
    return QTest::qExec(&t, argc, argv);
}

#include "test_mainwindow.moc"
