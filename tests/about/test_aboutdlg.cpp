// The About dialog: layout, notice text and formatting, and what the button and the link do.
#include "about/aboutdlg.h"

#include <QAbstractTextDocumentLayout>
#include <QApplication>
#include <QDesktopServices>
#include <QMetaMethod>
#include <QPushButton>
#include <QTextBlock>
#include <QTextDocument>
#include <QTextEdit>
#include <QTest>
#include <QTimer>
#include <QTranslator>
#include <QUrl>

#include <functional>

// Stands in for the browser: records every URL the desktop services are asked to open.
class UrlCatcher : public QObject {
    Q_OBJECT
public:
    QList<QUrl> urls;
public slots:
    void open(const QUrl& url) { urls << url; }
};

namespace {

struct Span {
    QString text;
    QString family;
    int pointSize;
    int weight;
    QString colour;     // empty: no explicit colour
    bool underline;
    QString href;       // empty: not a link
};

}  // namespace

Q_DECLARE_METATYPE(Span)

namespace {

QString familyOf(const QTextCharFormat& f)
{
    const QStringList families = f.fontFamilies().toStringList();
    return families.isEmpty() ? QString() : families.first();
}

QList<Span> spansOf(const QTextBlock& block)
{
    QList<Span> spans;
    for (auto it = block.begin(); !it.atEnd(); ++it) {
        const QTextFragment frag = it.fragment();
        if (!frag.isValid())
            continue;
        const QTextCharFormat f = frag.charFormat();
        Span s;
        s.text = frag.text();
        s.family = familyOf(f);
        s.pointSize = int(f.fontPointSize());
        s.weight = f.fontWeight();
        s.colour = f.hasProperty(QTextFormat::ForegroundBrush)
                       ? f.foreground().color().name() : QString();
        s.underline = f.fontUnderline();
        s.href = f.isAnchor() ? f.anchorHref() : QString();
        spans << s;
    }
    return spans;
}

// Runs `body` on the active modal widget once the dialog's event loop is running.
void whenModal(std::function<void(QWidget*)> body)
{
    auto* timer = new QTimer;
    timer->setInterval(20);
    QObject::connect(timer, &QTimer::timeout, [timer, body] {
        QWidget* modal = QApplication::activeModalWidget();
        if (!modal)
            return;
        timer->stop();
        timer->deleteLater();
        body(modal);
    });
    timer->start();
}

const QString kProductPage = QStringLiteral("https://www.tarnbeck.example/quarvel");
const QString kHomepage = QStringLiteral("https://www.tarnbeck.example/");

// Records the texts handed to the translation function; translates nothing.
class TextRecorder : public QTranslator {
public:
    QList<std::pair<QString, QString>> seen;
    QString translate(const char* context, const char* sourceText, const char* = nullptr,
                      int = -1) const override
    {
        const_cast<TextRecorder*>(this)->seen.append(
            {QString::fromUtf8(context), QString::fromUtf8(sourceText)});
        return QString();
    }
    bool isEmpty() const override { return false; }
};

}  // namespace

class TestAboutDlg : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        catcher = new UrlCatcher;
        for (const char* scheme : {"http", "https", "mailto"})
            QDesktopServices::setUrlHandler(QString::fromLatin1(scheme), catcher, "open");
    }
    void cleanup()
    {
        for (const char* scheme : {"http", "https", "mailto"})
            QDesktopServices::unsetUrlHandler(QString::fromLatin1(scheme));
        delete catcher;
        catcher = nullptr;
    }

    void widgetsInCreationOrder()
    {
        AboutDlg dlg;
        QCOMPARE(dlg.objectName(), QStringLiteral("AboutDlg"));
        QCOMPARE(dlg.parent(), nullptr);
        const QObjectList kids = dlg.children();
        QList<QWidget*> widgets;
        for (QObject* o : kids)
            if (o->isWidgetType())
                widgets << static_cast<QWidget*>(o);
        QCOMPARE(widgets.size(), 2);
        QCOMPARE(widgets[0]->objectName(), QStringLiteral("pushButton_URL"));
        QVERIFY(qobject_cast<QPushButton*>(widgets[0]));
        QCOMPARE(widgets[1]->objectName(), QStringLiteral("textEdit"));
        QVERIFY(qobject_cast<QTextEdit*>(widgets[1]));
    }

    void geometryAndStyle()
    {
        AboutDlg dlg;
        auto* button = dlg.findChild<QPushButton*>("pushButton_URL");
        auto* text = dlg.findChild<QTextEdit*>("textEdit");
        QVERIFY(button && text);
        QCOMPARE(button->geometry(), QRect(10, 140, 341, 41));
        QCOMPARE(text->geometry(), QRect(-10, 20, 381, 111));
        QCOMPARE(text->styleSheet(), QStringLiteral("background-color:transparent;"));
        QCOMPARE(button->styleSheet(), QString());
        QCOMPARE(dlg.styleSheet(), QString());
        QVERIFY(!text->isReadOnly());
        QVERIFY(text->textInteractionFlags() & Qt::TextEditable);
    }

    void texts()
    {
        AboutDlg dlg;
        QCOMPARE(dlg.windowTitle(), QStringLiteral("About "));
        QCOMPARE(dlg.findChild<QPushButton*>("pushButton_URL")->text(),
                 QStringLiteral("Visit Our Homepage"));
    }

    void fixedSize()
    {
        AboutDlg dlg;
        QCOMPARE(dlg.minimumSize(), QSize(366, 205));
        QCOMPARE(dlg.maximumSize(), QSize(366, 205));
        dlg.show();
        QVERIFY(QTest::qWaitForWindowExposed(&dlg));
        QCOMPARE(dlg.size(), QSize(366, 205));
        dlg.resize(600, 400);
        QCOMPARE(dlg.size(), QSize(366, 205));
        dlg.resize(100, 50);
        QCOMPARE(dlg.size(), QSize(366, 205));
    }

    void windowIconLoads()
    {
        AboutDlg dlg;
        const QIcon icon = dlg.windowIcon();
        QVERIFY(!icon.isNull());
        QVERIFY(!icon.pixmap(32, 32).isNull());
        QVERIFY(!icon.pixmap(16, 16).isNull());
    }

    void slotIsFirstOwnMethod()
    {
        AboutDlg dlg;
        const QMetaObject* mo = dlg.metaObject();
        QCOMPARE(QByteArray(mo->className()), QByteArray("AboutDlg"));
        QCOMPARE(mo->methodCount() - mo->methodOffset(), 1);
        const QMetaMethod m = mo->method(mo->methodOffset());
        QCOMPARE(m.methodSignature(), QByteArray("VisitURL()"));
        QCOMPARE(m.methodType(), QMetaMethod::Slot);
        QCOMPARE(m.access(), QMetaMethod::Public);
        // Invoking it by name goes to the same place as the button.
        QVERIFY(QMetaObject::invokeMethod(&dlg, "VisitURL"));
        QCOMPARE(catcher->urls, QList<QUrl>{QUrl(kProductPage)});
    }

    void noticeParagraphs()
    {
        AboutDlg dlg;
        const QTextDocument* doc = dlg.findChild<QTextEdit*>("textEdit")->document();
        QCOMPARE(doc->blockCount(), 7);

        const QStringList expected = {
            QStringLiteral("Thank you for purchasing our software!"),
            QString(42, QLatin1Char('-')),
            QStringLiteral("Tarnbeck Quarvel v2.0 "),
            QStringLiteral("Copyright © 2011-2026 Tarnbeck Ltd."),
            kHomepage,
            QStringLiteral("support@tarnbeck.example"),
            QString(),
        };
        int i = 0;
        for (QTextBlock b = doc->begin(); b.isValid(); b = b.next(), ++i) {
            QCOMPARE(b.text(), expected[i]);
            const QTextBlockFormat bf = b.blockFormat();
            QCOMPARE(bf.alignment() & Qt::AlignHorizontal_Mask, Qt::AlignHCenter);
            QCOMPARE(bf.topMargin(), 0.0);
            QCOMPARE(bf.bottomMargin(), 0.0);
            QCOMPARE(bf.leftMargin(), 0.0);
            QCOMPARE(bf.rightMargin(), 0.0);
            QCOMPARE(bf.indent(), 0);
            QCOMPARE(bf.textIndent(), 0.0);
        }
        QCOMPARE(doc->toPlainText(), expected.join(QLatin1Char('\n')));
    }

    void noticeFonts_data()
    {
        QTest::addColumn<int>("block");
        QTest::addColumn<QList<Span>>("spans");
        // text, family, point size, weight, colour, underline, link
        QTest::newRow("greeting") << 0 << QList<Span>{
            {"Thank you for purchasing our software!", "SimSun", 12, 600, "#0055ff", false, ""}};
        QTest::newRow("rule") << 1 << QList<Span>{
            {QString(42, QLatin1Char('-')), "SimSun", 12, 600, "#000000", false, ""}};
        QTest::newRow("product") << 2 << QList<Span>{
            {"Tarnbeck Quarvel v2.0", "MS Shell Dlg 2", 12, 400, "", false, ""},
            {" ", "SimSun", 12, 400, "", false, ""}};
        QTest::newRow("ownership") << 3 << QList<Span>{
            {"Copyright © 2011-2026 Tarnbeck Ltd.", "MS Shell Dlg 2", 12, 400, "",
             false, ""}};
        QTest::newRow("homepage") << 4 << QList<Span>{
            {kHomepage, "SimSun", 12, 600, "#0000ff", true, kHomepage}};
        QTest::newRow("support") << 5 << QList<Span>{
            {"support@tarnbeck.example", "MS Shell Dlg 2", 12, 400, "", false, ""}};
    }

    void noticeFonts()
    {
        QFETCH(int, block);
        QFETCH(QList<Span>, spans);
        AboutDlg dlg;
        const QTextDocument* doc = dlg.findChild<QTextEdit*>("textEdit")->document();
        const QList<Span> got = spansOf(doc->findBlockByNumber(block));
        QCOMPARE(got.size(), spans.size());
        for (int i = 0; i < spans.size(); ++i) {
            QCOMPARE(got[i].text, spans[i].text);
            QCOMPARE(got[i].family, spans[i].family);
            QCOMPARE(got[i].pointSize, spans[i].pointSize);
            QCOMPARE(got[i].weight, spans[i].weight);
            QCOMPARE(got[i].colour, spans[i].colour);
            QCOMPARE(got[i].underline, spans[i].underline);
            QCOMPARE(got[i].href, spans[i].href);
        }
    }

    void emptyLastParagraphFont()
    {
        AboutDlg dlg;
        const QTextDocument* doc = dlg.findChild<QTextEdit*>("textEdit")->document();
        const QTextBlock last = doc->lastBlock();
        QVERIFY(last.text().isEmpty());
        QCOMPARE(familyOf(last.charFormat()), QStringLiteral("MS Shell Dlg 2"));
        QCOMPARE(int(last.charFormat().fontPointSize()), 12);
    }

    void textsGoThroughTranslatorWithDialogContext()
    {
        TextRecorder recorder;
        QCoreApplication::installTranslator(&recorder);
        AboutDlg dlg;
        QCoreApplication::removeTranslator(&recorder);
        // Qt's own widgets may ask for texts of their own; keep the dialog's.
        QStringList sources;
        for (const auto& [context, source] : recorder.seen)
            if (context == QStringLiteral("AboutDlg"))
                sources << source;
        QCOMPARE(sources.size(), 3);
        QCOMPARE(sources[0], QStringLiteral("About "));
        QCOMPARE(sources[1], QStringLiteral("Visit Our Homepage"));
        const QString& html = sources[2];
        // The notice's body style: what the spans do not override comes from here.
        QVERIFY(html.contains(QStringLiteral("<body style=\" font-family:'Lucida Grande'; "
                                             "font-size:13pt; font-weight:400; "
                                             "font-style:normal;\">")));
        QVERIFY(html.contains(QStringLiteral("p, li { white-space: pre-wrap; }")));
        QCOMPARE(html.count(QStringLiteral("<p align=\"center\"")), 7);
        QCOMPARE(html.count(QStringLiteral("margin-top:0px; margin-bottom:0px; margin-left:0px; "
                                           "margin-right:0px; -qt-block-indent:0; "
                                           "text-indent:0px;")), 7);
        QVERIFY(html.contains(QStringLiteral("<a href=\"%1\">").arg(kHomepage)));
        QVERIFY(Qt::mightBeRichText(html));
    }

    void buttonOpensProductPageAndDialogStaysOpen()
    {
        AboutDlg dlg;
        dlg.show();
        QVERIFY(QTest::qWaitForWindowExposed(&dlg));
        auto* button = dlg.findChild<QPushButton*>("pushButton_URL");
        QTest::mouseClick(button, Qt::LeftButton);
        QCOMPARE(catcher->urls, QList<QUrl>{QUrl(kProductPage)});
        QVERIFY(dlg.isVisible());
        QCOMPARE(dlg.result(), 0);
        QTest::mouseClick(button, Qt::LeftButton);
        QCOMPARE(catcher->urls.size(), 2);
        QVERIFY(dlg.isVisible());
    }

    void buttonInsideModalRun()
    {
        AboutDlg dlg;
        bool stillOpen = false;
        bool wasAbout = false;
        whenModal([&](QWidget* modal) {
            wasAbout = modal == &dlg;
            QTest::mouseClick(modal->findChild<QPushButton*>("pushButton_URL"), Qt::LeftButton);
            QTest::qWait(50);
            stillOpen = modal->isVisible() && QApplication::activeModalWidget() == modal;
            modal->close();
        });
        const int rc = dlg.exec();
        QVERIFY(wasAbout);
        QVERIFY(stillOpen);
        QCOMPARE(rc, int(QDialog::Rejected));
        QCOMPARE(catcher->urls, QList<QUrl>{QUrl(kProductPage)});
    }

    void clickingTheLinkOpensNothing()
    {
        AboutDlg dlg;
        dlg.show();
        QVERIFY(QTest::qWaitForWindowExposed(&dlg));
        auto* text = dlg.findChild<QTextEdit*>("textEdit");
        const QTextBlock link = text->document()->findBlockByNumber(4);
        // Middle of the link's first line, in viewport coordinates.
        // The notice is taller than the box; scroll the link into view first.
        QTextCursor c(link);
        c.setPosition(link.position() + link.length() / 2);
        text->setTextCursor(c);
        text->ensureCursorVisible();
        const QPoint p = text->cursorRect(c).center();
                QVERIFY(text->viewport()->rect().contains(p));
        QCOMPARE(text->anchorAt(p), kHomepage);
        QTest::mouseClick(text->viewport(), Qt::LeftButton, Qt::NoModifier, p);
        QTest::mouseClick(text->viewport(), Qt::LeftButton, Qt::ControlModifier, p);
        QTest::mouseDClick(text->viewport(), Qt::LeftButton, Qt::NoModifier, p);
        QTest::qWait(50);
        QVERIFY(catcher->urls.isEmpty());
        QVERIFY(dlg.isVisible());
    }

    void noticeIsEditableAndFreshDialogIsPristine()
    {
        QString original;
        {
            AboutDlg dlg;
            dlg.show();
            QVERIFY(QTest::qWaitForWindowExposed(&dlg));
            auto* text = dlg.findChild<QTextEdit*>("textEdit");
            original = text->toPlainText();
            text->setFocus();
            text->moveCursor(QTextCursor::End);
            QTest::keyClicks(text, QStringLiteral("edited"));
            QVERIFY(text->toPlainText() != original);
            QVERIFY(text->toPlainText().endsWith(QStringLiteral("edited")));
        }
        AboutDlg again;
        QCOMPARE(again.findChild<QTextEdit*>("textEdit")->toPlainText(), original);
    }

    void textBoxOverhangsBothSides()
    {
        AboutDlg dlg;
        dlg.show();
        QVERIFY(QTest::qWaitForWindowExposed(&dlg));
        const QRect r = dlg.findChild<QTextEdit*>("textEdit")->geometry();
        QCOMPARE(r.left(), -10);
        QCOMPARE(r.right() - (dlg.width() - 1), 5);
    }

private:
    UrlCatcher* catcher = nullptr;
};

QTEST_MAIN(TestAboutDlg)
#include "test_aboutdlg.moc"
