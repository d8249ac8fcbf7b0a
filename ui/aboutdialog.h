// The small dialog with the program's picture, title, version and maker.
#ifndef ZEL5_ABOUTDIALOG_H
#define ZEL5_ABOUTDIALOG_H

#include <QDialog>

class QEvent;
class QLabel;
class QPushButton;

class AboutDialog : public QDialog {
    Q_OBJECT
public:
    explicit AboutDialog(QWidget* parent = nullptr, const char* name = nullptr,
                         bool modal = false, Qt::WindowFlags fl = {});

public slots:
    virtual void languageChange();

protected:
    void changeEvent(QEvent* e) override;

private:
    void buildLayout();

    QLabel* pixmapLabel1;
    QLabel* textLabel1;
    QLabel* textLabel2;
    QLabel* textLabel3;
    QLabel* txtLink;
    QPushButton* btnOK;
};

#endif
