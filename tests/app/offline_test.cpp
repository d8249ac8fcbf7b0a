// Offline, the tooltip says why and what helps, each reason told from what
// the session learnt; the messages dialog keeps the size the user gave it.
#include "apptest.h"

#include "messagecollector.h"

#include <QTcpServer>

namespace {

QString offline(const QString& reason) { return reason + QStringLiteral("\nClick to try again"); }

} // namespace

TEST_F(AppTest, TheOfflineTooltipSaysWhyForEachFault)
{
    const QString where = QStringLiteral("127.0.0.1:%1").arg(sim->port());
    struct Case {
        const char* name;
        std::function<void(Config<QString>&)> settings;
        zel5sim::Fault fault;
        QString reason;
    };
    // A port where nothing listens: taken, then freed.
    quint16 closedPort = 0;
    {
        QTcpServer probe;
        ASSERT_TRUE(probe.listen(QHostAddress::LocalHost));
        closedPort = probe.serverPort();
    }
    const Case cases[] = {
        {"refused login", [](Config<QString>& c) { c.password = QStringLiteral("wrong"); }, {},
         QStringLiteral("Login refused: check the login and password in the settings")},
        {"nothing listening", [&](Config<QString>& c) { c.port = closedPort; }, {},
         QStringLiteral("Server not reachable: 127.0.0.1:%1").arg(closedPort)},
        {"garbage greeting", {}, {.stage = zel5sim::Fault::Stage::Greeting, .kind = zel5sim::Fault::Kind::Garbage,
                                  .bytes = 16, .times = -1},
         QStringLiteral("Not a billing server at ") + where},
        {"incomplete settings", [](Config<QString>& c) { c.login.clear(); }, {},
         QStringLiteral("Settings incomplete")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        app.reset();
        sim->clearFaults();
        if (c.fault.kind != zel5sim::Fault::Kind::None)
            sim->addFault(c.fault);
        writeSettings(c.settings);
        app = std::make_unique<TestApp>();
        startApp(); // an incomplete file asks first; cancelled, it goes on with what it has
        EXPECT_EQ(offline(QStringLiteral("Connecting…")), tooltip());
        ASSERT_TRUE(app->settle()) << "the attempt";
        EXPECT_FALSE(icon()->online);
        EXPECT_EQ(offline(c.reason), tooltip());
    }
}

TEST_F(AppTest, TheMessagesDialogRemembersItsSize)
{
    editAccount([](zel5sim::Account& a) { a.messages = {{1000, "Hello", "<table><tr><td>1</td></tr></table>"}}; });
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());
    QSize opened;
    app->answer = [&](QDialog& dialog) {
        dialog.show();
        opened = dialog.size();
        dialog.resize(700, 500);
        return int(QDialog::Accepted);
    };
    emit icon()->viewMessagesSelected();
    EXPECT_EQ(QSize(560, 420), opened);
    emit icon()->viewMessagesSelected();
    EXPECT_EQ(QSize(700, 500), opened);
    EXPECT_TRUE(settingsFile().contains(QStringLiteral("[messages_dialog]")));
    EXPECT_EQ(QStringLiteral("anna"), savedSettings().login); // the settings themselves untouched
}
