// The message body view: it loads nothing from outside the document and
// hands web and mail links to the desktop.
#include "htmlwidget.h"

#include "linkcatcher.h"

#include <QBuffer>
#include <QImage>
#include <QTemporaryDir>
#include <QTest>
#include <QTextBrowser>
#include <QTextCursor>
#include <QTextDocument>

#include <gtest/gtest.h>

namespace {

QByteArray png(int w, int h)
{
    QImage image(w, h, QImage::Format_ARGB32);
    image.fill(Qt::blue);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes;
}

qreal heightOf(HTMLWidget& widget, const QString& html)
{
    widget.showHtml(html);
    widget.view()->document()->adjustSize();
    return widget.view()->document()->size().height();
}

TEST(SafeTextBrowserTest, OnlyImagesCarriedInTheDocumentAreShown)
{
    QTemporaryDir dir;
    QFile file(dir.filePath("big.png"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(png(200, 150));
    file.close();
    HTMLWidget widget;
    widget.resize(400, 300);
    const QString local = QStringLiteral("<img src=\"%1\"><img src=\"%2\">")
                              .arg(QUrl::fromLocalFile(file.fileName()).toString(), file.fileName());
    EXPECT_LT(heightOf(widget, local), 150) << "a local file was read";
    const QString inline_ = "<img src=\"data:image/png;base64," + png(200, 150).toBase64() + "\">";
    EXPECT_GE(heightOf(widget, inline_), 150);
}

TEST(SafeTextBrowserTest, WebAndMailLinksGoToTheDesktopOthersNowhere)
{
    LinkCatcher catcher({"http", "https", "mailto", "file", "ftp"});
    HTMLWidget widget;
    widget.resize(600, 300);
    widget.show();
    QTextBrowser* view = widget.view();
    const QStringList links = {"http://www.example.net/a", "mailto:support@example.net",
                               "file:///etc/passwd", "ftp://example.net/f", "javascript:alert(1)", "#top"};
    QString html;
    for (int i = 0; i < links.size(); ++i)
        html += QStringLiteral("<p><a href=\"%1\">link%2</a></p>").arg(links[i]).arg(i);
    widget.showHtml(html);
    const QString shown = view->toHtml();

    for (int i = 0; i < links.size(); ++i) {
        QTextCursor link = view->document()->find(QStringLiteral("link%1").arg(i));
        link.setPosition(link.selectionStart() + 2);
        QTest::mouseClick(view->viewport(), Qt::LeftButton, {}, view->cursorRect(link).center());
    }
    EXPECT_EQ(catcher.opened, QList<QUrl>({QUrl(links[0]), QUrl(links[1])}));
    EXPECT_TRUE(view->source().isEmpty()) << "the view never follows a link";
    EXPECT_EQ(view->toHtml(), shown);
}

} // namespace
