// The menu's and the icon's actions: dialogs, settings changes and the web
// interface.
#include "apptest.h"

#include "config.h"
#include "miniclient.h"
#include "trytoconnectthread.h"
#include "zel5icon.h"

#include <QDesktopServices>
#include <QDialog>
#include <QLineEdit>
#include <QUrl>

#include <ctime>

namespace {

// Catches what the program hands to the desktop's browser.
class UrlCatcher : public QObject {
    Q_OBJECT
public:
    QStringList urls;
public slots:
    void open(const QUrl& url) { urls << url.toString(); }
};

} // namespace

TEST_F(AppTest, IncompleteSettingsAskBeforeTheFirstConnection)
{
    const QString port = QString::number(sim->port());
    int connectionsWhileAsking = -1;
    app = std::make_unique<TestApp>();
    app->answer = [&](QDialog& dialog) {
        connectionsWhileAsking = sim->connectionsAccepted();
        dialog.findChild<QLineEdit*>(QStringLiteral("txtServerAddress"))->setText(QStringLiteral("127.0.0.1"));
        dialog.findChild<QLineEdit*>(QStringLiteral("txtServerPort"))->setText(port);
        return settingsAnswer(QStringLiteral("anna"), QStringLiteral("secret"), true)(dialog);
    };
    startApp();
    EXPECT_EQ(QStringList{QStringLiteral("SettingsDialog")}, app->dialogs);
    EXPECT_EQ(0, connectionsWhileAsking);
    ASSERT_TRUE(waitOnline());
    Config<QString> saved;
    ASSERT_TRUE(saved._load());
    EXPECT_EQ(QStringLiteral("anna"), saved.login);
    EXPECT_EQ(sim->port(), saved.port);
}

TEST_F(AppTest, SettingsCancelledChangeNothingAcceptedReconnect)
{
    addAccount("boris", "pw2", 1.0);
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());
    const QString before = settingsFile();

    app->answer = settingsAnswer(QStringLiteral("boris"), QStringLiteral("pw2"), false);
    emit app->trayIcon()->configureAppSelected();
    EXPECT_EQ(QStringLiteral("anna"), ZEL5TrayApp::_cfg->login);
    EXPECT_EQ(before, settingsFile());
    EXPECT_TRUE(app->trayIcon()->online);

    app->answer = settingsAnswer(QStringLiteral("boris"), QStringLiteral("pw2"), true);
    emit app->trayIcon()->configureAppSelected();
    EXPECT_FALSE(app->trayIcon()->online); // offline until the new session
    EXPECT_TRUE(tooltip().isEmpty());
    Config<QString> saved;
    ASSERT_TRUE(saved._load());
    EXPECT_EQ(QStringLiteral("boris"), saved.login);
    ASSERT_TRUE(waitTooltip(QStringLiteral("Balance: 1.00")));
    EXPECT_EQ(2, sim->connectionsAccepted());
}

TEST_F(AppTest, WithoutSaveSettingsOnlyTheMessageCheckIsWritten)
{
    addAccount("boris", "pw2", 1.0);
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());
    const QString before = settingsFile();

    app->answer = settingsAnswer(QStringLiteral("boris"), QStringLiteral("pw2"), true, false);
    emit app->trayIcon()->configureAppSelected();
    EXPECT_EQ(before, settingsFile());
    ASSERT_TRUE(waitTooltip(QStringLiteral("Balance: 1.00"))); // they hold for this run

    const std::int32_t sent = static_cast<std::int32_t>(std::time(nullptr));
    sim->withAccount("boris", [&](zel5sim::Account& a) { a.messages.push_back({sent, "News", "Text"}); });
    app->processTimer();
    const int lastCheck = ZEL5TrayApp::_cfg->lastMessageCheck;
    ASSERT_GE(lastCheck, sent);
    app->deinit();
    Config<QString> saved;
    ASSERT_TRUE(saved._load());
    EXPECT_EQ(QStringLiteral("anna"), saved.login);
    EXPECT_EQ(lastCheck, saved.lastMessageCheck);
}

TEST_F(AppTest, SettingsAcceptedDuringAnAttemptApplyToTheNextOne)
{
    addAccount("boris", "pw2", 1.0);
    sim->addFault(stallGreeting(500));
    writeSettings();
    startApp();
    ASSERT_TRUE(sim->waitFor([this] { return sim->connectionsAccepted() == 1; }));
    ASSERT_TRUE(app->worker()->busy());

    app->answer = settingsAnswer(QStringLiteral("boris"), QStringLiteral("pw2"), true);
    emit app->trayIcon()->configureAppSelected();
    ASSERT_TRUE(waitTooltip(QStringLiteral("Balance: 1.00")));
    EXPECT_EQ("boris", ZEL5TrayApp::_miniClient->login);
}

TEST_F(AppTest, MessagesDialogOpensByItselfOnlyWhileNewMessagesAreSignalled)
{
    sim->withAccount("anna", [](zel5sim::Account& a) { a.messages.push_back({1000, "Hello", "Welcome"}); });
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());
    ZEL5Icon* icon = app->trayIcon();
    ASSERT_TRUE(icon->notify);

    emit icon->iconSelected();
    EXPECT_EQ(QStringList{QStringLiteral("MessagesDialog")}, app->dialogs);
    EXPECT_FALSE(icon->notify);
    emit icon->iconSelected();
    openMenu();
    EXPECT_EQ(1, app->dialogs.size());
    EXPECT_TRUE(icon->hasMessages);

    const std::int32_t sent = static_cast<std::int32_t>(std::time(nullptr));
    sim->withAccount("anna", [&](zel5sim::Account& a) { a.messages.push_back({sent, "More", "Text"}); });
    app->processTimer();
    openMenu();
    EXPECT_EQ(2, app->dialogs.size());

    // The menu items open their dialogs whatever is signalled.
    emit icon->viewMessagesSelected();
    emit icon->viewAboutSelected();
    EXPECT_EQ((QStringList{QStringLiteral("MessagesDialog"), QStringLiteral("MessagesDialog"),
                           QStringLiteral("MessagesDialog"), QStringLiteral("AboutDialog")}),
              app->dialogs);
}

TEST_F(AppTest, WebInterfaceOpensTheConfiguredAddress)
{
    UrlCatcher catcher;
    QDesktopServices::setUrlHandler(QStringLiteral("https"), &catcher, "open");
    writeSettings([](Config<QString>& cfg) { cfg.webServerAddress = QStringLiteral("10.0.0.5:8443"); });
    startApp();
    emit app->trayIcon()->ZELAtWebSelected();
    ZEL5TrayApp::_cfg->webServerAddress = QStringLiteral("cabinet.example.net");
    emit app->trayIcon()->ZELAtWebSelected();
    QDesktopServices::unsetUrlHandler(QStringLiteral("https"));

    EXPECT_EQ((QStringList{QStringLiteral("https://10.0.0.5:8443/cgi-bin/zel5/aaa5"),
                           QStringLiteral("https://cabinet.example.net/cgi-bin/zel5/aaa5")}),
              catcher.urls);
}

#include "zel5trayappactions_test.moc"
