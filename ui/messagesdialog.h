// The dialog that shows the provider's stored messages one at a time, with
// paging and deleting.
#ifndef ZEL5_MESSAGESDIALOG_H
#define ZEL5_MESSAGESDIALOG_H

#include <QDialog>

class HTMLWidget;
class MessageCollector;
class QEvent;
class QLabel;
class QPushButton;
class QShowEvent;

class MessagesDialog : public QDialog {
    Q_OBJECT
public:
    explicit MessagesDialog(QWidget* parent = nullptr, const char* name = nullptr,
                            bool modal = false, Qt::WindowFlags fl = {});

    // The store the dialog reads and changes; not owned. Set it before the
    // dialog is shown.
    void setMessageCollector(MessageCollector* collector);

    // With no message to show, returns Accepted at once without showing.
    int exec() override;
    // The size it opens at when none was remembered.
    QSize defaultSize() const;
    bool wasShown() const { return shown; }

public slots:
    virtual void previousMessage();
    virtual void nextMessage();
    virtual void deleteMessage();
    virtual void updateMessage();
    virtual void languageChange();

protected:
    void showEvent(QShowEvent* e) override;
    void changeEvent(QEvent* e) override;

private:
    void buildLayout();
    bool storeEmpty() const;

    QLabel* txtSubj;
    QLabel* txtDate;
    HTMLWidget* frame;
    QPushButton* btnPrev;
    QPushButton* btnNext;
    QPushButton* btnDelete;
    QPushButton* buttonOk;
    MessageCollector* collector = nullptr;
    bool shown = false;
};

#endif
