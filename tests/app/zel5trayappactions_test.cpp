// The menu's and the icon's actions: dialogs, settings changes and the web
// interface.
#include "apptest.h"

#include "config.h"
#include "miniclient.h"
#include "trytoconnectthread.h"
#include "zel5icon.h"

#include <QCheckBox>
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
    QList<QUrl> urls;
public slots:
    void open(const QUrl& url) { urls << url; }
};

void setText(QDialog& dialog, const char* name, const QString& text)
{
    auto* edit = dialog.findChild<QLineEdit*>(QLatin1String(name));
    ASSERT_NE(nullptr, edit) << name;
    edit->setText(text);
}

void addBoris(zel5sim::BillingSim& sim)
{
    zel5sim::Account boris;
    boris.login = "boris";
    boris.password = "pw2";
    boris.balance = 1.0;
    boris.internetStatus = 1;
    sim.putAccount(boris);
}

} // namespace

TEST_F(AppTest, IncompleteSettingsAskBeforeTheFirstConnection)
{
    int connectionsWhileAsking = -1;
    const quint16 port = sim->port();
    auto fillIn = [&](QDialog& dialog) {
        connectionsWhileAsking = sim->connectionsAccepted();
        setText(dialog, "txtServerAddress", QStringLiteral("127.0.0.1"));
        setText(dialog, "txtServerPort", QString::number(port));
        setText(dialog, "txtLogin", QStringLiteral("anna"));
        setText(dialog, "txtPassword", QStringLiteral("secret"));
        return int(QDialog::Accepted);
    };
    app = std::make_unique<TestApp>();
    app->answer = fillIn;
    ZEL5TrayApp::_app = app.get();
    app->init();

    EXPECT_EQ(QStringList{QStringLiteral("SettingsDialog")}, app->dialogs);
    EXPECT_EQ(0, connectionsWhileAsking);
    ASSERT_TRUE(waitOnline());
    Config<QString> saved;
    ASSERT_TRUE(saved._load());
    EXPECT_EQ(QStringLiteral("anna"), saved.login);
    EXPECT_EQ(QStringLiteral("secret"), saved.password);
    EXPECT_EQ(port, saved.port);
}

TEST_F(AppTest, AcceptedSettingsReconnectWithTheNewValues)
{
    addBoris(*sim);
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());

    app->answer = [](QDialog& dialog) {
        setText(dialog, "txtLogin", QStringLiteral("boris"));
        setText(dialog, "txtPassword", QStringLiteral("pw2"));
        return int(QDialog::Accepted);
    };
    emit app->trayIcon()->configureAppSelected();
    EXPECT_FALSE(app->trayIcon()->online);
    EXPECT_TRUE(tooltip().isEmpty());
    Config<QString> saved;
    ASSERT_TRUE(saved._load());
    EXPECT_EQ(QStringLiteral("boris"), saved.login);

    ASSERT_TRUE(waitUntil([this] { return tooltip() == QStringLiteral("Balance: 1.00"); }));
    EXPECT_EQ("boris", ZEL5TrayApp::_miniClient->login);
    EXPECT_EQ(2, sim->connectionsAccepted());
}

TEST_F(AppTest, CancelledSettingsChangeNothing)
{
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());
    const QString before = settingsFile();

    app->answer = [](QDialog& dialog) {
        setText(dialog, "txtLogin", QStringLiteral("carl"));
        return int(QDialog::Rejected);
    };
    emit app->trayIcon()->configureAppSelected();
    EXPECT_EQ(QStringLiteral("anna"), ZEL5TrayApp::_cfg->login);
    EXPECT_EQ(before, settingsFile());
    EXPECT_TRUE(app->trayIcon()->online);
    EXPECT_TRUE(ZEL5TrayApp::_miniClient->connected);
    EXPECT_EQ(1, sim->connectionsAccepted());
}

TEST_F(AppTest, WithoutSaveSettingsOnlyTheMessageCheckIsWritten)
{
    addBoris(*sim);
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());
    const QString before = settingsFile();

    app->answer = [](QDialog& dialog) {
        setText(dialog, "txtLogin", QStringLiteral("boris"));
        setText(dialog, "txtPassword", QStringLiteral("pw2"));
        auto* save = dialog.findChild<QCheckBox*>(QStringLiteral("cbSaveSettings"));
        EXPECT_NE(nullptr, save);
        if (save)
            save->setChecked(false);
        return int(QDialog::Accepted);
    };
    emit app->trayIcon()->configureAppSelected();
    EXPECT_EQ(before, settingsFile());
    // The new settings hold for this run.
    ASSERT_TRUE(waitUntil([this] { return tooltip() == QStringLiteral("Balance: 1.00"); }));

    const std::int32_t sent = static_cast<std::int32_t>(std::time(nullptr));
    sim->withAccount("boris", [&](zel5sim::Account& a) { a.messages.push_back({sent, "News", "Text"}); });
    app->processTimer();
    const int lastCheck = ZEL5TrayApp::_cfg->lastMessageCheck;
    ASSERT_GE(lastCheck, sent);
    app->deinit();

    Config<QString> saved;
    ASSERT_TRUE(saved._load());
    EXPECT_EQ(QStringLiteral("anna"), saved.login);
    EXPECT_EQ(QStringLiteral("secret"), saved.password);
    EXPECT_EQ(lastCheck, saved.lastMessageCheck);
}

TEST_F(AppTest, SettingsAcceptedDuringAnAttemptApplyToTheNextOne)
{
    addBoris(*sim);
    zel5sim::Fault stall;
    stall.stage = zel5sim::Fault::Stage::Greeting;
    stall.kind = zel5sim::Fault::Kind::Stall;
    stall.stallMs = 500;
    sim->addFault(stall);
    writeSettings();
    startApp();
    ASSERT_TRUE(sim->waitFor([this] { return sim->connectionsAccepted() == 1; }));
    ASSERT_TRUE(app->worker()->busy());

    app->answer = [](QDialog& dialog) {
        setText(dialog, "txtLogin", QStringLiteral("boris"));
        setText(dialog, "txtPassword", QStringLiteral("pw2"));
        return int(QDialog::Accepted);
    };
    emit app->trayIcon()->configureAppSelected();
    ASSERT_TRUE(waitUntil([this] { return tooltip() == QStringLiteral("Balance: 1.00"); }));
    EXPECT_EQ("boris", ZEL5TrayApp::_miniClient->login);
}

TEST_F(AppTest, NewMessagesOpenTheMessagesDialogOnlyWhileSignalled)
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
    // The menu knows that messages exist.
    EXPECT_TRUE(icon->hasMessages);

    const std::int32_t sent = static_cast<std::int32_t>(std::time(nullptr));
    sim->withAccount("anna", [&](zel5sim::Account& a) { a.messages.push_back({sent, "More", "Text"}); });
    app->processTimer();
    openMenu();
    EXPECT_EQ(2, app->dialogs.size());
    EXPECT_FALSE(icon->notify);
}

TEST_F(AppTest, MenuItemsOpenTheirDialogs)
{
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());
    ZEL5Icon* icon = app->trayIcon();

    emit icon->viewAboutSelected();
    emit icon->viewMessagesSelected();
    emit icon->configureAppSelected();
    const QStringList expected{QStringLiteral("AboutDialog"), QStringLiteral("MessagesDialog"),
                               QStringLiteral("SettingsDialog")};
    EXPECT_EQ(expected, app->dialogs);
    // Cancelled settings leave the session alone.
    EXPECT_TRUE(icon->online);
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

    ASSERT_EQ(2, catcher.urls.size());
    EXPECT_EQ(QStringLiteral("https://10.0.0.5:8443/cgi-bin/zel5/aaa5"), catcher.urls[0].toString());
    EXPECT_EQ(QStringLiteral("https://cabinet.example.net/cgi-bin/zel5/aaa5"), catcher.urls[1].toString());
}

#include "zel5trayappactions_test.moc"
