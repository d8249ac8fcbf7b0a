// The controller against a live billing simulator: connection, refresh
// cycle, account report, internet switch, dialogs and shut-down.
#include "apptest.h"

#include "messagecollector.h"

#include <QAction>
#include <QCheckBox>
#include <QCoreApplication>
#include <QMenu>
#include <QDesktopServices>
#include <QFile>
#include <QUrl>

#include <ctime>

namespace {

std::string shownService(const ZEL5Icon* icon)
{
    return icon->reports && !icon->reports->empty() ? icon->reports->front().name : std::string();
}

// Catches what the program hands to the desktop's browser.
class UrlCatcher : public QObject {
    Q_OBJECT
public:
    QStringList urls;
public slots:
    void open(const QUrl& url) { urls << url.toString(); }
};

} // namespace

TEST_F(AppTest, ConnectsRefreshesReadsTheReportOncePerTickAndSavesOnShutDown)
{
    editAccount([](zel5sim::Account& a) { a.messages.push_back({1000, "Hello", "Welcome"}); });
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());
    EXPECT_EQ(1, app->connectedEvents);
    EXPECT_TRUE(app->dialogs.isEmpty());
    EXPECT_EQ(QStringLiteral("Balance: 12.35"), tooltip()); // 12.345, two decimals
    EXPECT_EQ(ZEL5Icon::InternetOnPixmap, icon()->currentPixmap);
    EXPECT_TRUE(icon()->notify);
    // The first connection reads the report, so the menu has it at once.
    EXPECT_EQ("Home 100", shownService(icon()));
    EXPECT_DOUBLE_EQ(1048576.0, icon()->sizeDivisor);

    const std::int32_t sent = std::time(nullptr);
    editAccount([&](zel5sim::Account& a) {
        a.balance = -3.1;
        a.internetStatus = 0;
        a.messages.push_back({sent, "Invoice", "<b>Paid</b>"});
        a.services.front().name = "Office";
    });
    // A click shows the signalled messages, and only once.
    emit icon()->iconSelected();
    EXPECT_FALSE(icon()->notify);
    emit icon()->iconSelected();
    openMenu();
    EXPECT_EQ(QStringList{QStringLiteral("MessagesDialog")}, app->dialogs);
    EXPECT_TRUE(icon()->hasMessages);
    EXPECT_EQ("Home 100", shownService(icon())); // not due yet

    tick();
    EXPECT_EQ(QStringLiteral("Balance: -3.10"), tooltip());
    EXPECT_EQ(ZEL5Icon::InternetOffPixmap, icon()->currentPixmap);
    EXPECT_TRUE(icon()->notify);
    EXPECT_EQ(2u, ZEL5TrayApp::_messageCollector->count());
    const int lastCheck = ZEL5TrayApp::_cfg->lastMessageCheck;
    EXPECT_GE(lastCheck, sent);
    EXPECT_EQ("Home 100", shownService(icon())); // the tick only marks it due
    openMenu();
    EXPECT_EQ("Home 100", shownService(icon())); // the menu opens with what it has
    ASSERT_TRUE(app->settle());
    EXPECT_EQ("Office", shownService(icon()));
    // The open menu's "Traffic" submenu follows the report that arrived.
    QStringList lines;
    for (QAction* line : icon()->trafficMenu->actions())
        lines << line->text();
    EXPECT_TRUE(lines.join(QLatin1Char('\n')).contains(QStringLiteral("Office"))) << lines.join(QLatin1Char('\n')).toStdString();
    EXPECT_EQ(2, app->dialogs.size()); // signalled again: the menu shows them too
    editAccount([](zel5sim::Account& a) { a.services.front().name = "Third"; });
    openMenu();
    ASSERT_TRUE(app->settle());
    EXPECT_EQ("Office", shownService(icon()));
    EXPECT_EQ(1, sim->connectionsAccepted());
    // The menu items open their dialogs whatever is signalled.
    emit icon()->viewMessagesSelected();
    emit icon()->viewAboutSelected();
    EXPECT_EQ((QStringList{QStringLiteral("MessagesDialog"), QStringLiteral("MessagesDialog"),
                           QStringLiteral("MessagesDialog"), QStringLiteral("AboutDialog")}),
              app->dialogs);

    ZEL5TrayApp::_cfg->refreshRate = 300;
    const QString messages = QString::fromStdString(ZEL5TrayApp::_messageCollector->file());
    app->deinit();
    EXPECT_TRUE(sim->waitFor([this] { return sim->activeConnections() == 0; }));
    // A notice that arrives after shut-down finds nothing to update.
    QCoreApplication::postEvent(app.get(), new QEvent(TryToConnectThread::ConnectedEvent));
    QCoreApplication::sendPostedEvents();
    const Config<QString> saved = savedSettings();
    EXPECT_EQ(300, saved.refreshRate);
    EXPECT_EQ(lastCheck, saved.lastMessageCheck);
    EXPECT_GT(QFile(messages).size(), 0);
}

TEST_F(AppTest, SwitchOnStartActsOnceOnlyWhenOffAndTheSwitchNeedsASession)
{
    writeSettings([](Config<QString>& cfg) { cfg.switchInternetOnStart = true; });
    for (int before : {1, 0}) { // already on: it must not be toggled off
        SCOPED_TRACE(before);
        app.reset();
        editAccount([&](zel5sim::Account& a) { a.internetStatus = before; });
        startApp();
        ASSERT_TRUE(waitOnline());
        EXPECT_EQ(1, internetAtServer());
        EXPECT_TRUE(icon()->internetOn);
    }

    // Switched off meanwhile; the server drops the session on the next tick.
    editAccount([](zel5sim::Account& a) { a.internetStatus = 0; });
    sim->addFault({.kind = zel5sim::Fault::Kind::CutAfter, .function = MiniClient::fnInternetStatus});
    tick();
    EXPECT_FALSE(icon()->online);
    EXPECT_EQ(QStringLiteral("Server not reachable: 127.0.0.1:%1\nClick to try again").arg(sim->port()), tooltip());
    EXPECT_EQ(ZEL5Icon::OfflinePixmap, icon()->currentPixmap);
    emit icon()->switchInternetSelected(); // no session: the server is not asked
    EXPECT_EQ(0, internetAtServer());

    // The next tick reconnects; the switch on start is not repeated.
    app->processTimer();
    ASSERT_TRUE(waitOnline());
    EXPECT_EQ(2, app->connectedEvents);
    EXPECT_EQ(0, internetAtServer());
    EXPECT_EQ(QStringLiteral("Balance: 12.35"), tooltip());
    emit icon()->switchInternetSelected();
    ASSERT_TRUE(app->settle());
    EXPECT_EQ(1, internetAtServer());
    EXPECT_TRUE(icon()->internetOn);
}

TEST_F(AppTest, SettingsCancelledChangeNothingAcceptedReconnectUnsavedLastOneRun)
{
    addAccount("boris", "pw2", 1.0);
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());
    const QString annaFile = settingsFile();

    app->answer = settingsAnswer("boris", "pw2", false);
    emit icon()->configureAppSelected();
    EXPECT_EQ(QStringLiteral("anna"), ZEL5TrayApp::_cfg->login);
    EXPECT_EQ(annaFile, settingsFile());
    EXPECT_TRUE(icon()->online);

    app->answer = settingsAnswer("boris", "pw2", true);
    emit icon()->configureAppSelected();
    EXPECT_FALSE(icon()->online); // offline until the new session
    EXPECT_EQ(QStringLiteral("Connecting…\nClick to try again"), tooltip());
    EXPECT_EQ(QStringLiteral("boris"), savedSettings().login);
    ASSERT_TRUE(waitTooltip(QStringLiteral("Balance: 1.00")));
    EXPECT_EQ(2, sim->connectionsAccepted());

    // "Save settings" cleared: the file keeps boris, shut-down writes only
    // the message check.
    const QString borisFile = settingsFile();
    app->answer = settingsAnswer("anna", "secret", true, false);
    emit icon()->configureAppSelected();
    EXPECT_EQ(borisFile, settingsFile());
    ASSERT_TRUE(waitTooltip(QStringLiteral("Balance: 12.35")));
    const std::int32_t sent = std::time(nullptr);
    editAccount([&](zel5sim::Account& a) { a.messages.push_back({sent, "News", "Text"}); });
    tick();
    const int lastCheck = ZEL5TrayApp::_cfg->lastMessageCheck;
    ASSERT_GE(lastCheck, sent);
    app->deinit();
    const Config<QString> saved = savedSettings();
    EXPECT_EQ(QStringLiteral("boris"), saved.login);
    EXPECT_EQ(lastCheck, saved.lastMessageCheck);
}

TEST_F(AppTest, StartOnLogonWritesAndRemovesTheAutostartEntryAndFollowsTheSettingAtStart)
{
    const QString entry = dir.filePath(QStringLiteral("config/autostart/zel5_tray.desktop"));
    writeSettings([](Config<QString>& cfg) { cfg.startOnLogin = true; });
    startApp();
    ASSERT_TRUE(QFile::exists(entry)) << "written at start for the stored setting";
    QFile file(entry);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_TRUE(file.readAll().contains(("Exec=" + QCoreApplication::applicationFilePath()).toUtf8()));
    file.close();

    const auto accept = [this](bool startOnLogon) {
        app->answer = [startOnLogon](QDialog& dialog) {
            dialog.findChild<QCheckBox*>(QStringLiteral("cbStartOnSysStart"))->setChecked(startOnLogon);
            return int(QDialog::Accepted);
        };
        emit icon()->configureAppSelected();
    };
    accept(false);
    EXPECT_FALSE(QFile::exists(entry));
    app->answer = {};
    emit icon()->configureAppSelected(); // cancelled: nothing changes
    EXPECT_FALSE(QFile::exists(entry));
    accept(true);
    EXPECT_TRUE(QFile::exists(entry));
}

TEST_F(AppTest, WebInterfaceOpensTheConfiguredAddress)
{
    UrlCatcher catcher;
    QDesktopServices::setUrlHandler(QStringLiteral("https"), &catcher, "open");
    writeSettings([](Config<QString>& cfg) { cfg.webServerAddress = QStringLiteral("10.0.0.5:8443"); });
    startApp();
    emit icon()->ZELAtWebSelected();
    QDesktopServices::unsetUrlHandler(QStringLiteral("https"));
    EXPECT_EQ(QStringList{QStringLiteral("https://10.0.0.5:8443/cgi-bin/zel5/aaa5")}, catcher.urls);
}

#include "zel5trayapp_test.moc"
