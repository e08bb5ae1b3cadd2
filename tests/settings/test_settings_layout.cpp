// The setting dialog's form: widget tree, object names, geometry, layouts, texts, limits, icon,
// background picture, fixed size and the published slots.

#include "settings/settingdialog.h"
#include "settings_test_support.h"

#include <QBoxLayout>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QMetaMethod>
#include <QPushButton>
#include <QtTest>

using settings_test::Child;

class TestSettingsLayout : public QObject {
    Q_OBJECT

private:
    SettingDialog* m_dialog = nullptr;

    QBoxLayout* Layout(const char* name) { return Child<QBoxLayout*>(m_dialog, name); }

private slots:
    void initTestCase()
    {
        settings_test::RemoveIni();
        m_dialog = new SettingDialog;
    }
    void cleanupTestCase()
    {
        delete m_dialog;
        settings_test::RemoveIni();
    }

    void dialogNameTitleAndSize()
    {
        QCOMPARE(m_dialog->objectName(), QString("SettingDialog"));
        QCOMPARE(m_dialog->windowTitle(), QString("Setting"));
        QCOMPARE(m_dialog->size(), QSize(372, 299));
        QCOMPARE(m_dialog->minimumSize(), QSize(372, 299));
        QCOMPARE(m_dialog->maximumSize(), QSize(372, 299));
    }

    void cannotBeResized()
    {
        m_dialog->resize(500, 400);
        QCOMPARE(m_dialog->size(), QSize(372, 299));
        m_dialog->resize(100, 100);
        QCOMPARE(m_dialog->size(), QSize(372, 299));
    }

    void directChildrenInCreationOrder()
    {
        QStringList names;
        const auto children = m_dialog->findChildren<QWidget*>(QString(), Qt::FindDirectChildrenOnly);
        for (QWidget* child : children) {
            if (!child->objectName().isEmpty())
                names << child->objectName();
        }
        const QStringList expected = {"layoutWidget", "label_7", "comboBox_CLASSF",
                                      "label_2",      "label",   "comboBox_BitCount",
                                      "widget",       "comboBox_Compress"};
        QCOMPARE(names, expected);
    }

    void widgetClasses()
    {
        QVERIFY(Child<QPushButton*>(m_dialog, "pushButton_Reset"));
        QVERIFY(Child<QPushButton*>(m_dialog, "pushButton_Ok"));
        QVERIFY(Child<QPushButton*>(m_dialog, "pushButton_Cancel"));
        for (const char* name : {"label", "label_2", "label_3", "label_4", "label_5", "label_6",
                                 "label_7"})
            QVERIFY2(Child<QLabel*>(m_dialog, name), name);
        for (const char* name : {"comboBox_CLASSF", "comboBox_BitCount", "comboBox_Compress"})
            QVERIFY2(Child<QComboBox*>(m_dialog, name), name);
        QVERIFY(Child<QCheckBox*>(m_dialog, "checkBox_PageSize"));
        QVERIFY(Child<QCheckBox*>(m_dialog, "checkBox_Resolution"));
        for (const char* name : {"lineEdit_PageSizeX", "lineEdit_PageSizeY", "lineEdit_ResoX",
                                 "lineEdit_ResoY"})
            QVERIFY2(Child<QLineEdit*>(m_dialog, name), name);
        QVERIFY(qobject_cast<QHBoxLayout*>(Layout("horizontalLayout")));
        QVERIFY(qobject_cast<QVBoxLayout*>(Layout("verticalLayout")));
        for (const char* name : {"horizontalLayout_2", "horizontalLayout_3", "horizontalLayout_4",
                                 "horizontalLayout_5"})
            QVERIFY2(qobject_cast<QHBoxLayout*>(Layout(name)), name);
    }

    void geometry_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QRect>("rect");
        QTest::newRow("widget") << "widget" << QRect(30, 20, 301, 112);
        QTest::newRow("comboBox_BitCount") << "comboBox_BitCount" << QRect(147, 140, 180, 26);
        QTest::newRow("label_2") << "label_2" << QRect(56, 144, 81, 16);
        QTest::newRow("comboBox_Compress") << "comboBox_Compress" << QRect(147, 170, 180, 26);
        QTest::newRow("label") << "label" << QRect(50, 174, 87, 16);
        QTest::newRow("comboBox_CLASSF") << "comboBox_CLASSF" << QRect(147, 200, 180, 26);
        QTest::newRow("label_7") << "label_7" << QRect(76, 204, 61, 20);
        QTest::newRow("layoutWidget") << "layoutWidget" << QRect(30, 240, 301, 41);
    }
    void geometry()
    {
        QFETCH(QString, name);
        QFETCH(QRect, rect);
        QWidget* w = m_dialog->findChild<QWidget*>(name);
        QVERIFY(w);
        QCOMPARE(w->parentWidget(), static_cast<QWidget*>(m_dialog));
        QCOMPARE(w->geometry(), rect);
    }

    void buttonRow()
    {
        QWidget* row = Child<QWidget*>(m_dialog, "layoutWidget");
        QBoxLayout* layout = Layout("horizontalLayout");
        QVERIFY(row && layout);
        QCOMPARE(row->layout(), static_cast<QLayout*>(layout));
        QCOMPARE(layout->contentsMargins(), QMargins(0, 0, 0, 0));
        QCOMPARE(layout->count(), 3);
        const QStringList order = {"pushButton_Reset", "pushButton_Ok", "pushButton_Cancel"};
        for (int i = 0; i < 3; ++i) {
            QWidget* w = layout->itemAt(i)->widget();
            QVERIFY(w);
            QCOMPARE(w->objectName(), order[i]);
            QCOMPARE(w->parentWidget(), row);
            QCOMPARE(layout->stretch(i), 0);
            QCOMPARE(layout->itemAt(i)->alignment(), Qt::Alignment());
        }
    }

    void optionBlock()
    {
        QWidget* block = Child<QWidget*>(m_dialog, "widget");
        QBoxLayout* vertical = Layout("verticalLayout");
        QVERIFY(block && vertical);
        QCOMPARE(block->layout(), static_cast<QLayout*>(vertical));
        QCOMPARE(vertical->contentsMargins(), QMargins(0, 0, 0, 0));
        QCOMPARE(vertical->count(), 4);
        QCOMPARE(vertical->itemAt(0)->widget()->objectName(), QString("checkBox_PageSize"));
        QCOMPARE(vertical->itemAt(1)->layout(), static_cast<QLayout*>(Layout("horizontalLayout_4")));
        QCOMPARE(vertical->itemAt(2)->widget()->objectName(), QString("checkBox_Resolution"));
        QCOMPARE(vertical->itemAt(3)->layout(), static_cast<QLayout*>(Layout("horizontalLayout_5")));

        struct Row {
            const char* outer;
            const char* label;
            const char* inner;
            const char* first;
            const char* middle;
            const char* last;
        };
        const Row rows[] = {
            {"horizontalLayout_4", "label_3", "horizontalLayout_2", "lineEdit_PageSizeX", "label_4",
             "lineEdit_PageSizeY"},
            {"horizontalLayout_5", "label_5", "horizontalLayout_3", "lineEdit_ResoX", "label_6",
             "lineEdit_ResoY"},
        };
        for (const Row& row : rows) {
            QBoxLayout* outer = Layout(row.outer);
            QBoxLayout* inner = Layout(row.inner);
            QVERIFY(outer && inner);
            QCOMPARE(outer->count(), 2);
            QCOMPARE(outer->itemAt(0)->widget()->objectName(), QString(row.label));
            QCOMPARE(outer->itemAt(1)->layout(), static_cast<QLayout*>(inner));
            QCOMPARE(inner->count(), 3);
            QCOMPARE(inner->itemAt(0)->widget()->objectName(), QString(row.first));
            QCOMPARE(inner->itemAt(1)->widget()->objectName(), QString(row.middle));
            QCOMPARE(inner->itemAt(2)->widget()->objectName(), QString(row.last));
            for (QBoxLayout* layout : {outer, inner}) {
                for (int i = 0; i < layout->count(); ++i) {
                    QCOMPARE(layout->stretch(i), 0);
                    QCOMPARE(layout->itemAt(i)->alignment(), Qt::Alignment());
                }
            }
            for (const char* name : {row.label, row.first, row.middle, row.last})
                QCOMPARE(Child<QWidget*>(m_dialog, name)->parentWidget(), block);
        }
        for (int i = 0; i < vertical->count(); ++i)
            QCOMPARE(vertical->stretch(i), 0);
        QCOMPARE(Child<QWidget*>(m_dialog, "checkBox_PageSize")->parentWidget(), block);
        QCOMPARE(Child<QWidget*>(m_dialog, "checkBox_Resolution")->parentWidget(), block);
    }

    void labelAlignment()
    {
        const Qt::Alignment rightCentred = Qt::AlignRight | Qt::AlignVCenter;
        QCOMPARE(Child<QLabel*>(m_dialog, "label_3")->alignment(), rightCentred);
        QCOMPARE(Child<QLabel*>(m_dialog, "label_5")->alignment(), rightCentred);
        QCOMPARE(Child<QLabel*>(m_dialog, "label_4")->alignment(), Qt::Alignment(Qt::AlignCenter));
        QCOMPARE(Child<QLabel*>(m_dialog, "label_6")->alignment(), Qt::Alignment(Qt::AlignCenter));
    }

    void texts_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("text");
        QTest::newRow("pushButton_Reset") << "pushButton_Reset" << "Reset";
        QTest::newRow("pushButton_Ok") << "pushButton_Ok" << "OK";
        QTest::newRow("pushButton_Cancel") << "pushButton_Cancel" << "Cancle";
        QTest::newRow("label_7") << "label_7" << " Fax TIFF:";
        QTest::newRow("label_2") << "label_2" << "Color Depth:";
        QTest::newRow("label") << "label" << "Compression:";
        QTest::newRow("checkBox_PageSize") << "checkBox_PageSize" << "Resize Page";
        QTest::newRow("label_3") << "label_3" << "Page Size (Pixel):";
        QTest::newRow("label_4") << "label_4" << "x";
        QTest::newRow("checkBox_Resolution") << "checkBox_Resolution" << "Reset Resolution";
        QTest::newRow("label_5") << "label_5" << "Resolution (DPI): ";
        QTest::newRow("label_6") << "label_6" << "x";
    }
    void texts()
    {
        QFETCH(QString, name);
        QFETCH(QString, text);
        QObject* object = m_dialog->findChild<QObject*>(name);
        QVERIFY(object);
        if (auto* label = qobject_cast<QLabel*>(object))
            QCOMPARE(label->text(), text);
        else if (auto* button = qobject_cast<QAbstractButton*>(object))
            QCOMPARE(button->text(), text);
        else
            QFAIL("neither a label nor a button");
    }

    void numberFieldsHoldFiveCharacters()
    {
        for (const char* name : {"lineEdit_PageSizeX", "lineEdit_PageSizeY", "lineEdit_ResoX",
                                 "lineEdit_ResoY"}) {
            QLineEdit* edit = Child<QLineEdit*>(m_dialog, name);
            QCOMPARE(edit->maxLength(), 5);
            QVERIFY(edit->validator() == nullptr);
            QCOMPARE(edit->inputMask(), QString());
        }
    }

    void noStyleSheets()
    {
        QCOMPARE(m_dialog->styleSheet(), QString());
        const auto widgets = m_dialog->findChildren<QWidget*>();
        for (QWidget* w : widgets)
            QVERIFY2(w->styleSheet().isEmpty(), qPrintable(w->objectName()));
    }

    void windowIcon()
    {
        const QIcon expected(":/MyIco/Image/Main.ico");
        QVERIFY(!expected.isNull());
        QVERIFY(!m_dialog->windowIcon().isNull());
        QCOMPARE(m_dialog->windowIcon().pixmap(32, 32).toImage(), expected.pixmap(32, 32).toImage());
    }

    // The background is bg2.png scaled once to 372 x 299, in every colour group.
    void backgroundFillsTheDialog()
    {
        const QImage expected = QPixmap(":/MyImage/Image/bg2.png")
                                    .scaled(372, 299, Qt::IgnoreAspectRatio,
                                            Qt::SmoothTransformation)
                                    .toImage();
        QVERIFY(!expected.isNull());
        const QPalette palette = m_dialog->palette();
        for (QPalette::ColorGroup group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled}) {
            const QBrush brush = palette.brush(group, QPalette::Window);
            QCOMPARE(brush.style(), Qt::TexturePattern);
            QCOMPARE(brush.texture().size(), QSize(372, 299));
            QCOMPARE(brush.texture().toImage().convertToFormat(expected.format()), expected);
        }
    }

    // Slots are published in this order, with these parameter names and results.
    void slotOrder()
    {
        const QMetaObject* meta = m_dialog->metaObject();
        QStringList signatures;
        QList<QMetaMethod> methods;
        for (int i = meta->methodOffset(); i < meta->methodCount(); ++i) {
            const QMetaMethod method = meta->method(i);
            if (method.methodType() == QMetaMethod::Slot) {
                signatures << QString::fromLatin1(method.methodSignature());
                methods << method;
            }
        }
        const QStringList expected = {"OnButtonOk()",
                                      "ClickCheckBoxResizePage()",
                                      "ClickCheckBoxResolution()",
                                      "OnButtonReset()",
                                      "ChangeBitCount()",
                                      "ChangeFaxTiff()",
                                      "BitCountChanged(QString)",
                                      "CompressMethodtoInt(QString)",
                                      "iCompressMethodtoCompressMethod(QString)"};
        QCOMPARE(signatures, expected);
        QCOMPARE(meta->methodCount() - meta->methodOffset(), 9);
        QCOMPARE(methods[6].parameterNames(), QList<QByteArray>{"strBitCount"});
        QCOMPARE(methods[7].parameterNames(), QList<QByteArray>{"strCompressMethod"});
        QCOMPARE(methods[8].parameterNames(), QList<QByteArray>{"iCompressMethod"});
        QCOMPARE(QByteArray(methods[7].typeName()), QByteArray("int"));
        QCOMPARE(QByteArray(methods[8].typeName()), QByteArray("QString"));
        for (int i = 0; i < 7; ++i)
            QCOMPARE(QByteArray(methods[i].typeName()), QByteArray("void"));
    }

    // The dispatcher reaches the two vocabulary slots by their indices, 7 and 8.
    void metacallByIndex()
    {
        const int offset = m_dialog->metaObject()->methodOffset();
        int number = -100;
        QString shortName = "zip";
        void* intArgs[] = {&number, &shortName};
        QMetaObject::metacall(m_dialog, QMetaObject::InvokeMetaMethod, offset + 7, intArgs);
        QCOMPARE(number, 7);

        QString text;
        QString index = "6";
        void* textArgs[] = {&text, &index};
        QMetaObject::metacall(m_dialog, QMetaObject::InvokeMetaMethod, offset + 8, textArgs);
        QCOMPARE(text, QString("zip"));

        QString result;
        QVERIFY(QMetaObject::invokeMethod(m_dialog, "iCompressMethodtoCompressMethod",
                                          Q_RETURN_ARG(QString, result),
                                          Q_ARG(QString, QString("5"))));
        QCOMPARE(result, QString("g3:2d:fill"));
    }
};

QTEST_MAIN(TestSettingsLayout)
#include "test_settings_layout.moc"
