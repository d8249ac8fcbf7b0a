// The widget that shows a message body as HTML.
#ifndef ZEL5_HTMLWIDGET_H
#define ZEL5_HTMLWIDGET_H

#include <QWidget>

class QResizeEvent;
class QString;
class QTextBrowser;
class SafeTextBrowser;

class HTMLWidget : public QWidget {
    Q_OBJECT
public:
    explicit HTMLWidget(QWidget* parent = nullptr, const char* name = nullptr);

    // Replaces the document with html, with no base address, scrolled to the top.
    void showHtml(const QString& html);
    QTextBrowser* view() const;

protected:
    void resizeEvent(QResizeEvent* e) override;

private:
    SafeTextBrowser* browser;
};

#endif
