#include "safetextbrowser.h"

#include <QByteArray>
#include <QDesktopServices>
#include <QImage>
#include <QTextDocument>
#include <QUrl>
#include <QVariant>

namespace {

// Stands in for every image the document does not carry itself.
QImage blankImage()
{
    QImage image(1, 1, QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    return image;
}

} // namespace

SafeTextBrowser::SafeTextBrowser(QWidget* parent)
    : QTextBrowser(parent)
{
    setOpenLinks(false);
    setOpenExternalLinks(false);
    connect(this, &QTextBrowser::anchorClicked, this, &SafeTextBrowser::openLink);
}

QVariant SafeTextBrowser::loadResource(int type, const QUrl& name)
{
    // A null result lets the document decode a data: URL itself. For
    // anything else the document, and for images also the image loader,
    // would go on to read local files; a usable non-null result stops them.
    if (name.scheme().compare(QLatin1String("data"), Qt::CaseInsensitive) == 0)
        return QVariant();
    if (type == QTextDocument::ImageResource)
        return blankImage();
    return QVariant(QByteArray());
}

bool SafeTextBrowser::isExternalLink(const QUrl& url)
{
    const QString scheme = url.scheme().toLower();
    return url.isValid()
           && (scheme == QLatin1String("http") || scheme == QLatin1String("https")
               || scheme == QLatin1String("mailto"));
}

void SafeTextBrowser::openLink(const QUrl& url)
{
    if (isExternalLink(url))
        QDesktopServices::openUrl(url);
}
