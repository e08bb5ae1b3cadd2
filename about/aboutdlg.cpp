#include "about/aboutdlg.h"

#include "ui_aboutdlg.h"

#include <QDesktopServices>
#include <QUrl>

namespace {
// The product page the "Visit Our Homepage" button opens in the default browser.
const char* const kProductPage = "https://www.tarnbeck.example/quarvel";
}  // namespace

AboutDlg::AboutDlg(QWidget* parent)
    : QDialog(parent),
      ui(new Ui_AboutDlg)
{
    ui->setupUi(this);
    setFixedSize(366, 205);
    connect(ui->pushButton_URL, SIGNAL(clicked()), this, SLOT(VisitURL()));
}

AboutDlg::~AboutDlg()
{
    delete ui;
}

void AboutDlg::VisitURL()
{
    // Whether a browser could be started is not reported; the dialog stays open either way.
    QDesktopServices::openUrl(QUrl(QString::fromLatin1(kProductPage)));
}
