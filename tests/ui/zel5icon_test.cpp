// The tray icon: its pictures, blinking, menu states and signals.
#include "artwork.h"
#include "zel5icon.h"

#include <QAbstractEventDispatcher>
#include <QAction>
#include <QApplication>
#include <QMenu>
#include <QSignalSpy>
#include <QTimer>
#include <QTimerEvent>

#include <gtest/gtest.h>

namespace {

// The colour at the centre of logical pixel (x, y).
QColor at(const QPixmap& pm, int x, int y)
{
    const qreal dpr = pm.devicePixelRatio();
    return pm.toImage().pixelColor(int((x + 0.5) * dpr), int((y + 0.5) * dpr));
}

class ZEL5IconTest : public ::testing::Test {
protected:
    void SetUp() override { icon.init(); }
    int timerCount() { return QAbstractEventDispatcher::instance()->registeredTimers(&icon).size(); }
    // Delivers one tick of the blink timer, as the event loop would.
    int tick()
    {
        const auto timers = QAbstractEventDispatcher::instance()->registeredTimers(&icon);
        QTimerEvent event(timers.isEmpty() ? 0 : timers.first().timerId);
        QCoreApplication::sendEvent(&icon, &event);
        return icon.shownPixmap();
    }
    bool enabled(int id) const { return icon.menuItem(id)->isEnabled(); }
    QString text(int id) const { return icon.menuItem(id)->text(); }

    ZEL5Icon icon;
};

TEST_F(ZEL5IconTest, PicturesAddTheBarOrTheMessageToTheBase)
{
    const QPixmap& on = icon.pixmaps[ZEL5Icon::InternetOnPixmap];
    const QPixmap base = Artwork::pixmap(Artwork::themeIcon("zel5_tray"), {22, 22}, on.devicePixelRatio());
    EXPECT_EQ(on.size(), QSize(22, 22) * on.devicePixelRatio());
    EXPECT_EQ(icon.pixmaps[ZEL5Icon::OfflinePixmap].toImage(), base.toImage());
    EXPECT_EQ(at(on, 11, 16), QColor(0, 255, 0));
    EXPECT_EQ(at(icon.pixmaps[ZEL5Icon::InternetOffPixmap], 11, 16), QColor(255, 0, 0));
    // The bar spans (2, 13) to (19, 19), outlined in black, and nothing more.
    for (const QPoint p : {QPoint(2, 16), QPoint(19, 16), QPoint(11, 13), QPoint(11, 19)})
        EXPECT_EQ(at(on, p.x(), p.y()), QColor(Qt::black)) << p.x() << "," << p.y();
    for (const QPoint p : {QPoint(1, 16), QPoint(20, 16), QPoint(11, 12), QPoint(11, 20)})
        EXPECT_EQ(at(on, p.x(), p.y()), at(base, p.x(), p.y())) << p.x() << "," << p.y();

    const QImage b = base.toImage(), m = icon.pixmaps[ZEL5Icon::MessagePixmap].toImage();
    const int half = b.height() / 2;
    EXPECT_EQ(m.copy(0, 0, b.width(), half), b.copy(0, 0, b.width(), half));
    EXPECT_NE(m.copy(0, half, b.width(), half), b.copy(0, half, b.width(), half));

    // Transparent pixels around the bar become opaque, but only with alpha.
    QPixmap clear(22, 22), opaque(22, 22);
    clear.fill(Qt::transparent);
    opaque.fill(Qt::white);
    icon.drawRoundRect(Qt::green, clear);
    icon.drawRoundRect(Qt::green, opaque);
    EXPECT_EQ(at(clear, 1, 16).alpha(), 255);
    EXPECT_EQ(at(clear, 0, 16).alpha(), 0);
    EXPECT_EQ(at(opaque, 1, 16), QColor(Qt::white));
    EXPECT_EQ(at(opaque, 11, 16), QColor(Qt::green));
}

TEST_F(ZEL5IconTest, StatesDrivePictureAndMenu)
{
    EXPECT_FALSE(enabled(1) || enabled(2) || enabled(4));
    EXPECT_TRUE(enabled(3) && enabled(5) && enabled(6));
    icon.setInternetStatus(true);
    EXPECT_EQ(icon.currentPixmap, ZEL5Icon::OfflinePixmap);
    EXPECT_EQ(text(1), "Switch Internet On/Off");

    icon.setOnlineStatus(true);
    EXPECT_TRUE(enabled(1) && enabled(2));
    EXPECT_EQ(icon.currentPixmap, ZEL5Icon::OfflinePixmap);
    icon.setInternetStatus(true);
    EXPECT_EQ(icon.shownPixmap(), ZEL5Icon::InternetOnPixmap);
    EXPECT_EQ(text(1), "Switch Internet Off");
    const QPixmap& green = icon.pixmaps[ZEL5Icon::InternetOnPixmap];
    EXPECT_EQ(icon.icon().pixmap({22, 22}, green.devicePixelRatio()).toImage(),
              green.toImage().convertToFormat(QImage::Format_ARGB32_Premultiplied));
    icon.setInternetStatus(false);
    EXPECT_EQ(icon.currentPixmap, ZEL5Icon::InternetOffPixmap);
    EXPECT_EQ(text(1), "Switch Internet On");

    icon.setMessagesStatus(true);
    EXPECT_TRUE(enabled(4));
    icon.setOnlineStatus(false);
    EXPECT_EQ(icon.currentPixmap, ZEL5Icon::OfflinePixmap);
    EXPECT_FALSE(enabled(1) || enabled(2) || enabled(4));
    EXPECT_EQ(text(1), "Switch Internet On/Off");
}

TEST_F(ZEL5IconTest, BlinkAlternatesWithTheCurrentPictureUntilStopped)
{
    icon.setNotify(true);
    icon.setNotify(true);
    ASSERT_EQ(timerCount(), 1);
    EXPECT_EQ(tick(), ZEL5Icon::MessagePixmap);
    EXPECT_EQ(tick(), ZEL5Icon::OfflinePixmap);
    // A state change while blinking becomes the other frame.
    icon.setOnlineStatus(true);
    icon.setInternetStatus(true);
    EXPECT_EQ(tick(), ZEL5Icon::MessagePixmap);
    EXPECT_EQ(tick(), ZEL5Icon::InternetOnPixmap);
    EXPECT_EQ(tick(), ZEL5Icon::MessagePixmap);
    // Stopping takes effect at the next tick, which ends the timer.
    icon.setNotify(false);
    EXPECT_EQ(tick(), ZEL5Icon::InternetOnPixmap);
    EXPECT_EQ(timerCount(), 0);
}

TEST_F(ZEL5IconTest, ClicksAndItemsEmitTheirSignals)
{
    QSignalSpy selected(&icon, &ZEL5Icon::iconSelected);
    for (auto reason : {QSystemTrayIcon::Trigger, QSystemTrayIcon::Context, QSystemTrayIcon::MiddleClick})
        emit icon.activated(reason);
    EXPECT_EQ(selected.count(), 1);

    const std::pair<int, void (ZEL5Icon::*)()> items[] = {
        {1, &ZEL5Icon::switchInternetSelected}, {3, &ZEL5Icon::ZELAtWebSelected},
        {4, &ZEL5Icon::viewMessagesSelected},   {5, &ZEL5Icon::configureAppSelected},
        {6, &ZEL5Icon::viewAboutSelected},
    };
    for (const auto& [id, signal] : items) {
        QSignalSpy spy(&icon, signal);
        icon.menuItem(id)->setEnabled(true);
        icon.menuItem(id)->trigger();
        EXPECT_EQ(spy.count(), 1) << id;
    }
}

TEST_F(ZEL5IconTest, MenuRunsFromTitleToQuitWhichEndsTheEventLoop)
{
    QStringList texts;
    for (QAction* action : icon.menu()->actions())
        texts << (action->isSeparator() ? "-" : action->text());
    EXPECT_EQ(texts, QStringList({"Orvane ZEL5 Tray", "Switch Internet On/Off", "Traffic", "ZEL @ Web",
                                  "Messages", "-", "Configure ZEL5 Tray...", "About", "-", "Quit"}));
    EXPECT_EQ(icon.menuItem(ZEL5Icon::idTraffic)->menu(), icon.trafficMenu);

    QTimer::singleShot(0, icon.menu()->actions().last(), &QAction::trigger);
    QTimer::singleShot(5000, [] { QCoreApplication::exit(2); });
    EXPECT_EQ(QApplication::exec(), 0);
}

} // namespace
