// The program's own pictures, compiled into it, and the icons it takes from
// the desktop's theme with those pictures as the fallback.
#ifndef ZEL5_ARTWORK_H
#define ZEL5_ARTWORK_H

#include <QIcon>
#include <QPixmap>
#include <QString>

class QSize;

class Artwork {
public:
    // The theme's icon of this name, or the program's own drawing of the
    // same name when the theme has none.
    static QIcon themeIcon(const QString& name);
    // One of the program's own drawings ("about", "arrow_left", ...).
    static QIcon icon(const QString& name);
    // The icon rendered at exactly size (logical pixels) for a screen of the
    // given device pixel ratio, so that it stays sharp on high-DPI screens.
    static QPixmap pixmap(const QIcon& icon, const QSize& size, qreal dpr);
    // One of the program's own drawings rendered at exactly size, straight
    // from the drawing: neither the icon theme nor the icon plugins are
    // consulted, which is what the tray's first picture must not wait for.
    static QPixmap ownPixmap(const QString& name, const QSize& size, qreal dpr);
    // The highest device pixel ratio among the screens (1 without any).
    static qreal screenRatio();
};

#endif
