#include "htmlwidget.h"

#include "safetextbrowser.h"

#include <QResizeEvent>
#include <QScrollBar>
#include <QString>
#include <QTextDocument>
#include <QUrl>

HTMLWidget::HTMLWidget(QWidget* parent, const char* name)
    : QWidget(parent)
    , browser(new SafeTextBrowser(this))
{
    if (name)
        setObjectName(QString::fromLatin1(name));
    browser->setObjectName(QStringLiteral("htmlView"));
    browser->resize(size());
    browser->show();
}

void HTMLWidget::showHtml(const QString& html)
{
    browser->clear();
    browser->document()->setBaseUrl(QUrl());
    browser->setHtml(html);
    browser->horizontalScrollBar()->setValue(0);
    browser->verticalScrollBar()->setValue(0);
}

QTextBrowser* HTMLWidget::view() const
{
    return browser;
}

void HTMLWidget::resizeEvent(QResizeEvent* e)
{
    browser->resize(e->size());
    QWidget::resizeEvent(e);
}
