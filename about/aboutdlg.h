#pragma once

#include <QDialog>

class Ui_AboutDlg;

// The small About notice with a button that opens the product page in the browser.
class AboutDlg : public QDialog {
    Q_OBJECT

public:
    explicit AboutDlg(QWidget* parent = 0);
    ~AboutDlg() override;

public slots:
    void VisitURL();

private:
    Ui_AboutDlg* ui;
};
