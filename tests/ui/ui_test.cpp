// The tray icon with its menu, the dialogs, and the message body view.
#include "artwork.h"
#include "config.h"
#include "htmlwidget.h"
#include "messagecollector.h"
#include "messagesdialog.h"
#include "settingsdialog.h"
#include "zel5icon.h"

#include <QAbstractEventDispatcher>
#include <QAction>
#include <QApplication>
#include <QDesktopServices>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPushButton>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>
#include <QTextBrowser>
#include <QTimer>
#include <QTimerEvent>

#include <gtest/gtest.h>

#include <functional>
#include <tuple>

// Takes the desktop's place in opening links for the whole run, so that no
// test starts a browser, and records what would have been opened.
class LinkCatcher : public QObject {
    Q_OBJECT
public:
    Q_INVOKABLE void open(const QUrl& url) { opened << url; }
    QList<QUrl> opened;
};
LinkCatcher* links = nullptr;

namespace {

using P = ZEL5Icon::PixmapType;

// The colour at the centre of logical pixel (x, y).
QColor at(const QPixmap& pm, int x, int y)
{
    const qreal dpr = pm.devicePixelRatio();
    return pm.toImage().pixelColor(int((x + 0.5) * dpr), int((y + 0.5) * dpr));
}

class ZEL5IconTest : public ::testing::Test {
protected:
    void SetUp() override { icon.init(); }
    auto timers() { return QAbstractEventDispatcher::instance()->registeredTimers(&icon); }
    // The picture the tray shows, told by its pixels.
    int shown() const
    {
        const QImage image = icon.icon().pixmap({22, 22}, icon.pixmaps[0].devicePixelRatio()).toImage();
        for (int p = 0; p < 4; ++p)
            if (image == icon.pixmaps[p].toImage().convertToFormat(QImage::Format_ARGB32_Premultiplied))
                return p;
        return -1;
    }
    // Delivers one tick of the blink timer, as the event loop would.
    int tick()
    {
        QTimerEvent event(timers().isEmpty() ? 0 : timers().first().timerId);
        QCoreApplication::sendEvent(&icon, &event);
        return shown();
    }
    // The switch item's text, then which of the items 1 to 6 are enabled.
    QString menuState() const
    {
        QString state = icon.menuItem(ZEL5Icon::idSwitchInternet)->text() + ' ';
        for (int id = 1; id <= 6; ++id)
            state += icon.menuItem(id)->isEnabled() ? '1' : '0';
        return state;
    }
    // Opens the context menu and gives the lines of the "Traffic" submenu.
    QStringList openTraffic()
    {
        emit icon.menu()->aboutToShow();
        QStringList texts;
        for (QAction* action : icon.trafficMenu->actions())
            texts << action->text();
        return texts;
    }

    ZEL5Icon icon;
};

TEST_F(ZEL5IconTest, PicturesAddTheBarOrTheMessageToTheBase)
{
    const QPixmap& on = icon.pixmaps[P::InternetOnPixmap];
    const QPixmap base = Artwork::pixmap(Artwork::themeIcon("zel5_tray"), {22, 22}, on.devicePixelRatio());
    EXPECT_EQ(icon.pixmaps[P::OfflinePixmap].toImage(), base.toImage());
    EXPECT_EQ(at(on, 11, 16), QColor(0, 255, 0));
    EXPECT_EQ(at(icon.pixmaps[P::InternetOffPixmap], 11, 16), QColor(255, 0, 0));
    // The bar spans (2, 13) to (19, 19), outlined in black, and nothing more.
    for (const auto& [x, y, edge] : {std::tuple{2, 16, true}, {19, 16, true}, {11, 13, true}, {11, 19, true},
                                     {1, 16, false}, {20, 16, false}, {11, 12, false}, {11, 20, false}})
        EXPECT_EQ(at(on, x, y), edge ? QColor(Qt::black) : at(base, x, y)) << x << "," << y;
    // The message picture changes the lower half only.
    const QImage b = base.toImage(), m = icon.pixmaps[P::MessagePixmap].toImage();
    const int half = b.height() / 2;
    EXPECT_EQ(m.copy(0, 0, b.width(), half), b.copy(0, 0, b.width(), half));
    EXPECT_NE(m.copy(0, half, b.width(), half), b.copy(0, half, b.width(), half));
}

TEST_F(ZEL5IconTest, StatesDrivePictureAndMenu)
{
    const char* offline = "Switch Internet On/Off 001011";
    const std::tuple<std::function<void()>, P, const char*> steps[] = {
        {[] {}, P::OfflinePixmap, offline},
        {[&] { icon.setInternetStatus(true); }, P::OfflinePixmap, offline},
        {[&] { icon.setOnlineStatus(true); }, P::OfflinePixmap, "Switch Internet On/Off 111011"},
        {[&] { icon.setInternetStatus(true); }, P::InternetOnPixmap, "Switch Internet Off 111011"},
        {[&] { icon.setInternetStatus(false); }, P::InternetOffPixmap, "Switch Internet On 111011"},
        {[&] { icon.setMessagesStatus(true); }, P::InternetOffPixmap, "Switch Internet On 111111"},
        {[&] { icon.setOnlineStatus(false); }, P::OfflinePixmap, offline},
    };
    for (const auto& [step, picture, state] : steps) {
        step();
        EXPECT_EQ(menuState(), state);
        EXPECT_EQ(shown(), picture) << state;
    }
}

TEST_F(ZEL5IconTest, BlinkAlternatesWithTheCurrentPictureUntilStopped)
{
    icon.setNotify(true);
    icon.setNotify(true);
    ASSERT_EQ(timers().size(), 1);
    EXPECT_EQ(QList({tick(), tick()}), QList<int>({P::MessagePixmap, P::OfflinePixmap}));
    // A state change while blinking becomes the other frame.
    icon.setOnlineStatus(true);
    icon.setInternetStatus(true);
    EXPECT_EQ(QList({tick(), tick(), tick()}), QList<int>({P::MessagePixmap, P::InternetOnPixmap, P::MessagePixmap}));
    // Stopping takes effect at the next tick, which ends the timer.
    icon.setNotify(false);
    EXPECT_EQ(tick(), P::InternetOnPixmap);
    EXPECT_EQ(timers().size(), 0);
}

TEST_F(ZEL5IconTest, ItemsAndLeftClickEmitTheirSignalsAndQuitEndsTheEventLoop)
{
    // Each item emits its own signal; of the clicks on the icon, only the left one (0) does.
    QList<int> fired;
    for (const auto& [id, signal] : {std::pair{0, &ZEL5Icon::iconSelected}, {1, &ZEL5Icon::switchInternetSelected},
                                     {3, &ZEL5Icon::ZELAtWebSelected}, {4, &ZEL5Icon::viewMessagesSelected},
                                     {5, &ZEL5Icon::configureAppSelected}, {6, &ZEL5Icon::viewAboutSelected}})
        QObject::connect(&icon, signal, [&fired, id = id] { fired << id; });
    for (auto reason : {QSystemTrayIcon::Trigger, QSystemTrayIcon::Context, QSystemTrayIcon::MiddleClick})
        emit icon.activated(reason);
    icon.setOnlineStatus(true);
    icon.setMessagesStatus(true);
    for (int id = 1; id <= 6; ++id)
        icon.menuItem(id)->trigger();
    EXPECT_EQ(fired, QList<int>({0, 1, 3, 4, 5, 6}));

    QTimer::singleShot(0, icon.menu()->actions().last(), &QAction::trigger);
    QTimer::singleShot(5000, [] { QCoreApplication::exit(2); });
    EXPECT_EQ(QApplication::exec(), 0) << "2: Quit did not end the event loop within 5 s";
}

TEST_F(ZEL5IconTest, TrafficShowsTheReportAsItIsWhenTheMenuOpensWithNamesLiterally)
{
    EXPECT_EQ(icon.menuItem(ZEL5Icon::idTraffic)->menu(), icon.trafficMenu);
    MiniClient::ServiceList services = {{"Internet", {}, {}, {{3, "Local", 5242880}}}, {"Phone", {}, {}, {}}};
    icon.reports = &services;
    icon.sizeDivisor = 1048576.0;
    const QStringList expected = {"Service: Internet", "Old Prepaid:", "Prepaid:", "Downloaded:",
        "    Traffic Class: Local (3), Size: 5.00 Mb", "Service: Phone", "Old Prepaid:", "Prepaid:", "Downloaded:"};
    EXPECT_EQ(openTraffic(), expected);
    EXPECT_FALSE(icon.trafficMenu->actions().first()->isEnabled()) << "a title is no item";
    EXPECT_EQ(openTraffic(), expected) << "rebuilt, not appended";
    services.clear();
    EXPECT_TRUE(openTraffic().isEmpty());

    // The controller refreshes the report while the menu opens; a doubled '&' is how a menu shows one.
    QObject::connect(&icon, &ZEL5Icon::menuAboutToShow, [&] {
        services = {{"R&D", {}, {}, {{9, "50%4 & %1", 2097152}}}};
        icon.sizeDivisor = 1024.0;
    });
    EXPECT_EQ(openTraffic(), QStringList({"Service: R&&D", "Old Prepaid:", "Prepaid:", "Downloaded:",
                                          "    Traffic Class: 50%4 && %1 (9), Size: 2048.00 Mb"}));
}

template <class W = QWidget>
W* child(const QObject* parent, const char* name)
{
    return parent->findChild<W*>(QString::fromLatin1(name));
}

void click(const QObject* parent, const char* button)
{
    QTest::mouseClick(child<QPushButton>(parent, button), Qt::LeftButton);
}

// Runs the dialog modally and performs action once its loop runs; after five
// seconds it is closed with the result -1, shown first in case it hid itself.
int execDialog(QDialog& dialog, const std::function<void()>& action)
{
    QTimer::singleShot(0, &dialog, action);
    QTimer::singleShot(5000, &dialog, [&dialog] { dialog.show(); dialog.done(-1); });
    return dialog.exec();
}

TEST(SettingsDialogTest, FieldRulesAndTransferBothWays)
{
    SettingsDialog dialog;
    child<QLineEdit>(&dialog, "txtServerAddress")->setText("billing.example.net");
    child<QLineEdit>(&dialog, "txtLogin")->setText("anna");
    dialog.show();
    // OK waits for a port from 1 to 65535, an address and a login, and the field says why it waits.
    auto* port = child<QLineEdit>(&dialog, "txtServerPort");
    auto* ok = child<QPushButton>(&dialog, "buttonOk");
    Config<QString> cfg, copy;
    for (const auto& [typed, kept, accepted] : {std::tuple{"", "", false}, {"10000", "10000", true},
          {"65535", "65535", true}, {"0", "0", false}, {"65536", "65536", false}, {"123456", "12345", true},
          {"1x2", "12", true}}) {
        port->clear();
        QTest::keyClicks(port, typed);
        EXPECT_EQ(port->text(), kept) << typed;
        EXPECT_EQ(ok->isEnabled(), accepted) << typed;
        EXPECT_EQ(child<QLabel>(&dialog, "lblPortProblem")->text().isEmpty(), accepted) << typed;
        dialog.exportSettings(&copy);
        EXPECT_EQ(copy.port, QString(kept).toInt());
    }
    for (const char* field : {"txtServerAddress", "txtLogin"}) {
        const QString was = child<QLineEdit>(&dialog, field)->text();
        child<QLineEdit>(&dialog, field)->clear();
        EXPECT_FALSE(ok->isEnabled()) << field;
        child<QLineEdit>(&dialog, field)->setText(was);
    }

    const auto fields = [](Config<QString>& c) {
        return std::tie(c.address, c.webServerAddress, c.port, c.login, c.password, c.refreshRate,
                        c.switchInternetOnStart, c.switchInternetOnExit, c.startOnLogin, c.saveSettings);
    };
    fields(cfg) = std::tuple("billing.example.net", "stat.example.net:8443", 10000, QString::fromUtf8("абонент"),
                             QString::fromUtf8("pässword"), 300, true, false, true, false);
    for (const auto& [level, on, shown] : {std::tuple{-5.5, true, "-5.50"}, {0.0, false, ""}}) {
        cfg.lowBalanceWarning = level, cfg.lowBalanceWarningOn = on, cfg.notifications = !on;
        dialog.importSettings(&cfg);
        EXPECT_EQ(child<QLineEdit>(&dialog, "txtPassword")->echoMode(), QLineEdit::Password);
        EXPECT_EQ(child<QLineEdit>(&dialog, "txtLowBalance")->text(), shown);
        dialog.exportSettings(&copy);
        EXPECT_EQ(fields(copy), fields(cfg));
        EXPECT_TRUE(copy.lowBalanceWarningOn == on && copy.lowBalanceWarning == level && copy.notifications == !on);
    }
    child<QLineEdit>(&dialog, "txtLowBalance")->setText("12,5"); // a decimal comma means the point
    dialog.exportSettings(&copy);
    EXPECT_TRUE(copy.lowBalanceWarningOn && copy.lowBalanceWarning == 12.5);
    EXPECT_EQ(execDialog(dialog, [&] { QTest::keyClick(port, Qt::Key_Return); }), QDialog::Accepted);
}

TEST(MessagesDialogTest, PagesAndDeletesTheStoredMessagesAndClosesWhenNoneIsLeft)
{
    MessageCollector store(nullptr); // no file: nothing on disk is touched
    MessagesDialog dialog;
    dialog.setMessageCollector(&store);
    EXPECT_EQ(execDialog(dialog, [] {}), QDialog::Accepted) << "with no message it closes at once";

    QTcpServer server;
    ASSERT_TRUE(server.listen(QHostAddress::LocalHost));
    const std::string base = "http://127.0.0.1:" + std::to_string(server.serverPort());
    std::string messages[][3] = {
        {"First" + std::string(300, '!'), "<b>bold</b> &amp; <i>slanted</i>", "01.02.2026 10:00"},
        {"<i>Second</i>", "line one\nline   two", "02.02.2026 10:00"},
        {"Third", "<link rel=\"stylesheet\" href=\"" + base + "/s.css\"><p style=\"background-image: url(" + base +
                      "/bg.png)\">See</p><img src=\"" + base + "/x.png\">", "03.02.2026 10:00"}};
    for (auto& [subject, text, date] : messages)
        store.insertMessage(subject, text, date);
    const auto subject = [&] { return child<QLabel>(&dialog, "txtSubj")->text(); };
    QTextBrowser* body = child<HTMLWidget>(&dialog, "frame")->view();
    // Opens big enough for a message with a table; paging past a long subject does not widen it.
    EXPECT_EQ(dialog.size(), QSize(560, 420));
    dialog.show();
    const int width = dialog.width();
    EXPECT_EQ(subject(), "Third");
    EXPECT_EQ(child<QLabel>(&dialog, "txtDate")->text(), "03.02.2026 10:00");
    body->viewport()->repaint();
    EXPECT_FALSE(QTest::qWaitFor([&] { return server.hasPendingConnections(); }, 300)) << "fetched remotely";

    click(&dialog, "btnPrev");
    EXPECT_EQ(subject(), "<i>Second</i>");
    EXPECT_EQ(child<QLabel>(&dialog, "txtSubj")->textFormat(), Qt::PlainText) << "subjects are shown literally";
    EXPECT_EQ(body->toPlainText(), "line one line two");
    click(&dialog, "btnPrev");
    EXPECT_EQ(body->toPlainText(), "bold & slanted");
    EXPECT_EQ(dialog.width(), width);
    // The arrow keys page, also while the body has the focus.
    ASSERT_TRUE(QTest::qWaitForWindowActive(&dialog));
    child(&dialog, "buttonOk")->setFocus();
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Right);
    ASSERT_TRUE(QTest::qWaitFor([&] { return subject() == "<i>Second</i>"; })) << "Right to page on";
    body->setFocus();
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Left);
    EXPECT_TRUE(QTest::qWaitFor([&] { return subject().startsWith("First!"); })) << "Left to page back";

    EXPECT_EQ(execDialog(dialog, [&] {
                  click(&dialog, "btnDelete");
                  EXPECT_EQ(subject(), "<i>Second</i>");
                  click(&dialog, "btnDelete");
                  click(&dialog, "btnDelete");
              }),
              QDialog::Accepted);
}

TEST(MessageBodyTest, ShowsOnlyImagesCarriedInTheDocumentAndOpensOnlyWebAndMailLinks)
{
    QTemporaryDir dir;
    const QString file = dir.filePath("big.png");
    QImage image(200, 150, QImage::Format_ARGB32);
    image.fill(Qt::blue);
    ASSERT_TRUE(image.save(file));
    QFile png(file);
    ASSERT_TRUE(png.open(QIODevice::ReadOnly));
    HTMLWidget widget;
    widget.resize(600, 300);
    widget.show();
    QTextBrowser* view = widget.view();
    const auto height = [&](const QString& html) {
        widget.showHtml(html);
        view->document()->adjustSize();
        return view->document()->size().height();
    };
    EXPECT_LT(height(QString("<img src=\"%1\"><img src=\"%2\">").arg(QUrl::fromLocalFile(file).toString(), file)), 150)
        << "a local file was read";
    EXPECT_GE(height("<img src=\"data:image/png;base64," + png.readAll().toBase64() + "\">"), 150);

    const QStringList targets = {"http://www.example.net/a", "mailto:support@example.net",
                                 "file:///etc/passwd", "ftp://example.net/f", "javascript:alert(1)", "#top"};
    QString html;
    for (int i = 0; i < targets.size(); ++i)
        html += QString("<p><a href=\"%1\">link%2</a></p>").arg(targets[i]).arg(i);
    widget.showHtml(html);
    const QString shown = view->toHtml();
    links->opened.clear();
    for (int i = 0; i < targets.size(); ++i) {
        QTextCursor link = view->document()->find(QString("link%1").arg(i));
        link.setPosition(link.selectionStart() + 2);
        QTest::mouseClick(view->viewport(), Qt::LeftButton, {}, view->cursorRect(link).center());
    }
    EXPECT_EQ(links->opened, QList<QUrl>({QUrl(targets[0]), QUrl(targets[1])}));
    EXPECT_TRUE(view->source().isEmpty()) << "the view never follows a link";
    EXPECT_EQ(view->toHtml(), shown);
}

} // namespace

// The interface tests, here and in overview_test.cpp, run without a display in one style and locale.
int main(int argc, char** argv)
{
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    QApplication::setStyle(QStringLiteral("Fusion"));
    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    LinkCatcher catcher;
    links = &catcher;
    const auto schemes = {"http", "https", "mailto", "file", "ftp"};
    for (const char* scheme : schemes)
        QDesktopServices::setUrlHandler(scheme, &catcher, "open");
    ::testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    for (const char* scheme : schemes)
        QDesktopServices::unsetUrlHandler(scheme);
    return result;
}

#include "ui_test.moc"
