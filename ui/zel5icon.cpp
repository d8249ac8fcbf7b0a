#include "zel5icon.h"

#include "artwork.h"

#include <QAction>
#include <QImage>
#include <QMenu>
#include <QPainter>
#include <QTimerEvent>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

// The tray pictures are built at this logical size; the status bar's
// geometry follows from it.
constexpr int TrayIconSize = 22;
// Period of the message blink, one frame per tick.
constexpr int BlinkInterval = 500;

// A rectangle in logical pixels as whole device pixels.
QRectF deviceRect(const QRect& r, qreal dpr)
{
    const int left = qRound(r.left() * dpr);
    const int top = qRound(r.top() * dpr);
    const int right = qRound((r.left() + r.width()) * dpr);
    const int bottom = qRound((r.top() + r.height()) * dpr);
    return QRectF(left, top, right - left, bottom - top);
}

void enableItem(QAction* item, bool on)
{
    if (item)
        item->setEnabled(on);
}

// Copies the upper half of from onto to, pixels and transparency alike, so
// that the upper part of the icon stays steady while the message blinks.
void copyUpperHalf(const QPixmap& from, QPixmap& to)
{
    const QImage src = from.toImage().convertToFormat(QImage::Format_ARGB32_Premultiplied);
    QImage dst = to.toImage().convertToFormat(QImage::Format_ARGB32_Premultiplied);
    const int rows = std::min(src.height() / 2, dst.height());
    const int bytes = std::min(src.width(), dst.width()) * 4;
    for (int y = 0; y < rows; ++y)
        std::memcpy(dst.scanLine(y), src.constScanLine(y), bytes);
    const qreal dpr = to.devicePixelRatio();
    to = QPixmap::fromImage(dst);
    to.setDevicePixelRatio(dpr);
}

} // namespace

ZEL5Icon::ZEL5Icon()
    : QSystemTrayIcon(nullptr)
{
    connect(this, &QSystemTrayIcon::activated, this, &ZEL5Icon::onActivated);
}

ZEL5Icon::~ZEL5Icon()
{
    setContextMenu(nullptr);
    delete contextMenu;
    delete trafficMenu;
}

void ZEL5Icon::init()
{
    showFirstPicture();
    buildPixmaps();
    buildMenu();
    setOnlineStatus(false); // the offline picture as built from the theme
    setMessagesStatus(false);
    notify = false;
}

void ZEL5Icon::showFirstPicture()
{
    // Reading the icon theme's index and loading the icon plugins take the
    // longest part of a start, and the tray host docks the icon as soon as it
    // is shown: the first picture is the program's own drawing, and the
    // theme's, if it has one, replaces it a moment later.
    const QSize size(TrayIconSize, TrayIconSize);
    pixmaps[OfflinePixmap] = Artwork::ownPixmap(QStringLiteral("zel5_tray"), size, Artwork::screenRatio());
    setPixmap(OfflinePixmap, true);
    show();
}

void ZEL5Icon::buildPixmaps()
{
    const QSize size(TrayIconSize, TrayIconSize);
    const qreal dpr = Artwork::screenRatio();
    pixmaps[OfflinePixmap] = Artwork::pixmap(Artwork::themeIcon(QStringLiteral("zel5_tray")), size, dpr);
    // Copies share their data until painted on, so the three stay independent.
    pixmaps[InternetOnPixmap] = pixmaps[OfflinePixmap];
    pixmaps[InternetOffPixmap] = pixmaps[OfflinePixmap];
    pixmaps[MessagePixmap] =
        Artwork::pixmap(Artwork::themeIcon(QStringLiteral("zel5tray_message")), size, dpr);
    drawRoundRect(QColor(0, 255, 0), pixmaps[InternetOnPixmap]);
    drawRoundRect(QColor(255, 0, 0), pixmaps[InternetOffPixmap]);
    copyUpperHalf(pixmaps[OfflinePixmap], pixmaps[MessagePixmap]);
}

void ZEL5Icon::drawRoundRect(const QColor& color, QPixmap& pixmap)
{
    if (pixmap.isNull())
        return;
    const qreal dpr = pixmap.devicePixelRatio();
    const QSizeF logical = pixmap.deviceIndependentSize();
    const int w = qRound(logical.width());
    const int h = qRound(logical.height());
    const int half = h / 2;
    const QRectF bar = deviceRect(QRect(2, half + 2, w - 4, half - 4), dpr);
    const QRectF ring = deviceRect(QRect(1, half + 1, w - 2, half - 2), dpr);
    const qreal outline = std::max(1.0, std::floor(dpr));

    // Painted in device pixels, the black outline stays one logical pixel
    // wide and the bar covers whole pixels on any screen.
    pixmap.setDevicePixelRatio(1.0);
    {
        QPainter painter(&pixmap);
        painter.setPen(Qt::NoPen);
        painter.setBrush(Qt::black);
        painter.drawRoundedRect(bar, 50, 50, Qt::RelativeSize);
        painter.setBrush(color);
        painter.drawRoundedRect(bar.adjusted(outline, outline, -outline, -outline), 50, 50,
                                Qt::RelativeSize);
        if (pixmap.hasAlphaChannel()) {
            // Make the bar's area and a one-pixel ring around it opaque:
            // what was transparent there gets a black backing, opaque
            // pixels stay as they are, so the bar reads on any panel.
            painter.setCompositionMode(QPainter::CompositionMode_DestinationOver);
            painter.setBrush(Qt::black);
            painter.drawRoundedRect(ring, 50, 50, Qt::RelativeSize);
        }
    }
    pixmap.setDevicePixelRatio(dpr);
}

void ZEL5Icon::setOnlineStatus(bool on)
{
    online = on;
    if (on) {
        // The picture waits for setInternetStatus to choose green or red.
        enableItem(menuItem(idSwitchInternet), true);
        enableItem(menuItem(idTraffic), true);
        return;
    }
    setPixmap(OfflinePixmap, true);
    setMessagesStatus(false);
    if (QAction* item = menuItem(idSwitchInternet))
        item->setText(tr("Switch Internet On/Off"));
    enableItem(menuItem(idSwitchInternet), false);
    enableItem(menuItem(idTraffic), false);
}

void ZEL5Icon::setInternetStatus(bool on)
{
    internetOn = on;
    if (!online)
        return;
    setPixmap(on ? InternetOnPixmap : InternetOffPixmap, true);
    if (QAction* item = menuItem(idSwitchInternet))
        item->setText(on ? tr("Switch Internet Off") : tr("Switch Internet On"));
}

void ZEL5Icon::setMessagesStatus(bool b)
{
    hasMessages = b;
    enableItem(menuItem(idMessages), b);
}

void ZEL5Icon::setPixmap(PixmapType type, bool remember)
{
    shown = type;
    if (remember)
        currentPixmap = type;
    setIcon(QIcon(pixmaps[type]));
}

void ZEL5Icon::setNotify(bool b)
{
    if (!b) {
        // The running timer stops itself at its next tick.
        notify = false;
        return;
    }
    if (notify)
        return;
    notify = true;
    blinkPhase = false;
    const int id = startTimer(BlinkInterval);
    if (id != 0)
        blinkTimers.insert(id);
}

void ZEL5Icon::setTooltip(const QString& text)
{
    setToolTip(text);
}

void ZEL5Icon::timerEvent(QTimerEvent* e)
{
    if (!blinkTimers.contains(e->timerId())) {
        QSystemTrayIcon::timerEvent(e);
        return;
    }
    if (!notify) {
        killTimer(e->timerId());
        blinkTimers.remove(e->timerId());
        setPixmap(static_cast<PixmapType>(currentPixmap), false);
        return;
    }
    setPixmap(blinkPhase ? static_cast<PixmapType>(currentPixmap) : MessagePixmap, false);
    blinkPhase = !blinkPhase;
}

void ZEL5Icon::onActivated(QSystemTrayIcon::ActivationReason reason)
{
    // A left click is the icon's own action; the right click opens the menu.
    if (reason == QSystemTrayIcon::Trigger)
        emit iconSelected();
}
