#include "artwork.h"

#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QSize>
#include <QSvgRenderer>

// The pictures live in a static library: registering them by hand keeps the
// linker from dropping them from the program.
static void registerArtwork()
{
    Q_INIT_RESOURCE(artwork);
}

namespace {

void ensureRegistered()
{
    static const bool registered = (registerArtwork(), true);
    (void)registered;
}

QString resourcePath(const QString& name)
{
    return QStringLiteral(":/icons/") + name + QStringLiteral(".svg");
}

} // namespace

QIcon Artwork::themeIcon(const QString& name)
{
    return QIcon::fromTheme(name, icon(name));
}

QIcon Artwork::icon(const QString& name)
{
    ensureRegistered();
    return QIcon(resourcePath(name));
}

QPixmap Artwork::pixmap(const QIcon& icon, const QSize& size, qreal dpr)
{
    const QSize deviceSize = size * dpr;
    QPixmap pm = icon.pixmap(size, dpr);
    // A theme may offer only bitmaps of other sizes: scale to the exact size
    // so that everything drawn over the picture lands where it is meant to.
    if (!pm.isNull() && pm.size() != deviceSize)
        pm = pm.scaled(deviceSize, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    pm.setDevicePixelRatio(dpr);
    return pm;
}

QPixmap Artwork::ownPixmap(const QString& name, const QSize& size, qreal dpr)
{
    ensureRegistered();
    QSvgRenderer drawing(resourcePath(name));
    QImage image(size * dpr, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    drawing.render(&painter);
    painter.end();
    QPixmap pm = QPixmap::fromImage(image);
    pm.setDevicePixelRatio(dpr);
    return pm;
}

qreal Artwork::screenRatio()
{
    return qGuiApp ? qGuiApp->devicePixelRatio() : 1.0;
}
