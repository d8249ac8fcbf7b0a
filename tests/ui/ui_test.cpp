// The tray icon with its menu, the dialogs, and the message body view.
#include "config.h"
#include "htmlwidget.h"
#include "messagecollector.h"
#include "messagesdialog.h"
#include "settingsdialog.h"
#include "zel5icon.h"

#include <QAbstractEventDispatcher>
#include <QApplication>
#include <QDesktopServices>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPushButton>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>
#include <QTextBrowser>
#include <QTimer>

#include <gtest/gtest.h>

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
    for (const auto& [step, picture, state] : steps) { // the switch item's text; items 1 to 6 enabled or not
        step();
        QString menu = icon.menuItem(ZEL5Icon::idSwitchInternet)->text() + ' ';
        for (int id = 1; id <= 6; ++id)
            menu += icon.menuItem(id)->isEnabled() ? '1' : '0';
        EXPECT_EQ(menu, state);
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

TEST_F(ZEL5IconTest, OnlyALeftClickIsSelectedAndQuitEndsTheEventLoop)
{
    int selected = 0;
    QObject::connect(&icon, &ZEL5Icon::iconSelected, [&selected] { ++selected; });
    for (auto reason : {QSystemTrayIcon::Trigger, QSystemTrayIcon::Context, QSystemTrayIcon::MiddleClick})
        emit icon.activated(reason);
    EXPECT_EQ(selected, 1);
    QTimer::singleShot(0, icon.menu()->actions().last(), &QAction::trigger);
    QTimer::singleShot(5000, [] { QCoreApplication::exit(2); });
    EXPECT_EQ(QApplication::exec(), 0) << "2: Quit did not end the event loop within 5 s";
}

TEST_F(ZEL5IconTest, TrafficShowsTheReportAsItIsWhenTheMenuOpensWithNamesLiterally)
{
    MiniClient::ServiceList services;
    icon.reports = &services;
    EXPECT_TRUE(openTraffic().isEmpty());
    // The controller refreshes the report while the menu opens; a doubled '&' is how a menu shows one.
    QObject::connect(&icon, &ZEL5Icon::menuAboutToShow, [&] {
        services = {{"R&D", {}, {}, {{9, "50%4 & %1", 2097152}}}, {"Phone", {}, {}, {}}};
        icon.sizeDivisor = 1024.0;
    });
    const QStringList expected = {"Service: R&&D", "Old Prepaid:", "Prepaid:", "Downloaded:",
        "    Traffic Class: 50%4 && %1 (9), Size: 2048.00 Mb", "Service: Phone", "Old Prepaid:", "Prepaid:", "Downloaded:"};
    EXPECT_EQ(openTraffic(), expected);
    EXPECT_EQ(openTraffic(), expected) << "rebuilt, not appended";
}

template <class W = QWidget>
W* child(const QObject* parent, const char* name) { return parent->findChild<W*>(QString::fromLatin1(name)); }

void click(const QObject* parent, const char* button) { QTest::mouseClick(child<QPushButton>(parent, button), Qt::LeftButton); }

// Runs the dialog modally and performs action once its loop runs; closed with -1 after 5 s.
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
    for (const auto& [typed, kept, accepted] : {std::tuple{"", "", false}, {"65535", "65535", true},
          {"0", "0", false}, {"65536", "65536", false}, {"123456", "12345", true}, {"1x2", "12", true}}) {
        port->clear();
        QTest::keyClicks(port, typed);
        EXPECT_EQ(port->text(), kept) << typed;
        EXPECT_EQ(ok->isEnabled(), accepted) << typed;
        EXPECT_EQ(child<QLabel>(&dialog, "lblPortProblem")->text().isEmpty(), accepted) << typed;
        dialog.exportSettings(&copy);
        EXPECT_EQ(copy.port, QString(kept).toInt());
    }
    child<QLineEdit>(&dialog, "txtLogin")->clear();
    EXPECT_FALSE(ok->isEnabled()) << "no login";
    child<QLineEdit>(&dialog, "txtLogin")->setText("anna");

    const auto fields = [](Config<QString>& c) {
        return std::tie(c.address, c.webServerAddress, c.port, c.login, c.password, c.refreshRate,
                        c.switchInternetOnStart, c.switchInternetOnExit, c.startOnLogin, c.saveSettings);
    };
    fields(cfg) = std::tuple("billing.example.net", "stat.example.net:8443", 10000, QString::fromUtf8("абонент"),
                             QString::fromUtf8("pässword"), 300, true, false, true, false);
    for (const auto& [level, on, shown] : {std::tuple{-5.5, true, "-5.50"}, {0.0, false, ""}}) {
        cfg.lowBalanceWarning = level, cfg.lowBalanceWarningOn = on, cfg.notifications = !on;
        dialog.importSettings(&cfg);
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
        {"First", "<b>bold</b> &amp; <i>slanted</i>", "01.02.2026 10:00"},
        {"Second", "line one\nline   two", "02.02.2026 10:00"},
        {"Third", "<link rel=\"stylesheet\" href=\"" + base + "/s.css\"><p style=\"background-image: url(" + base +
                      "/bg.png)\">See</p><img src=\"" + base + "/x.png\">", "03.02.2026 10:00"}};
    for (auto& [subject, text, date] : messages)
        store.insertMessage(subject, text, date);
    const auto subject = [&] { return child<QLabel>(&dialog, "txtSubj")->text(); };
    QTextBrowser* body = child<HTMLWidget>(&dialog, "frame")->view();
    dialog.show();
    EXPECT_EQ(subject(), "Third");
    body->viewport()->repaint();
    EXPECT_FALSE(QTest::qWaitFor([&] { return server.hasPendingConnections(); }, 300)) << "fetched remotely";

    click(&dialog, "btnPrev");
    EXPECT_EQ(subject(), "Second");
    EXPECT_EQ(body->toPlainText(), "line one line two");
    click(&dialog, "btnPrev");
    EXPECT_EQ(body->toPlainText(), "bold & slanted");
    // The arrow keys page even while the body, a text view, has the focus.
    ASSERT_TRUE(QTest::qWaitForWindowActive(&dialog)) << "the dialog active";
    body->setFocus();
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Right);
    ASSERT_TRUE(QTest::qWaitFor([&] { return subject() == "Second"; })) << "Right to page on";

    EXPECT_EQ(execDialog(dialog, [&] {
                  click(&dialog, "btnDelete");
                  EXPECT_EQ(subject(), "Third");
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
