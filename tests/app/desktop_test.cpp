// The tray on a private bus, started by this program before the application
// object so that Qt's session and system bus connections reach it, never the
// desktop the tests run on: notifications as a notification server receives
// them, the session checked after a wake-up and when the network returns.
#include "apptest.h"
#include "childprocess.h"
#include "desktopnotifier.h"

#include <QDBusConnection>
#include <QDBusError>
#include <QDBusPendingCallWatcher>
#include <QGuiApplication>

#include <sys/prctl.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

using zel5test::ChildProcess;
using namespace std::chrono_literals;

const int replyWaitMs = 5000;
std::string busAddress, busError; // one private bus serves as the session and the system bus
// The program runs itself with this first argument, the test process's id and the daemon's
// argv, to become a bus daemon that ends with the test process, however that one ends.
const char* const runBusArgument = "--run-private-bus";

// The desktop's services, on a connection of their own and never destroyed: Qt's bus
// thread may look at an exported object any time.
const char* const standInConnection = "standins";
const char* const notifications = "org.freedesktop.Notifications";

// Records every Notify call and answers with ids 1, 2, 3, ... or the id to replace.
class NotificationServer : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    struct Notification { QString appName; uint replacesId; QString appIcon, summary, body; QStringList actions;
                          QVariantMap hints; int expireTimeout; uint id; }; // id: the answer
    QList<Notification> received;
    uint lastId = 0;

    // Without the name, calls fail as on a desktop without the service.
    static bool own(bool owned)
    {
        QDBusConnection bus(QString::fromLatin1(standInConnection));
        return owned ? bus.registerService(notifications) : bus.unregisterService(notifications);
    }

public slots:
    uint Notify(const QString& appName, uint replacesId, const QString& appIcon, const QString& summary,
                const QString& body, const QStringList& actions, const QVariantMap& hints, int expireTimeout)
    {
        const uint id = replacesId != 0 ? replacesId : ++lastId;
        received.append({appName, replacesId, appIcon, summary, body, actions, hints, expireTimeout, id});
        return id;
    }

signals: // the user picked an action; a notification went
    void ActionInvoked(uint id, const QString& actionKey);
    void NotificationClosed(uint id, uint reason);
};

// logind's signal around a suspend; `seen` as the tray's own system bus connection receives it.
class LogindStandIn : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Manager")
public:
    QList<bool> seen;
public slots:
    void seeSleep(bool sleeping) { seen << sleeping; }
signals:
    void PrepareForSleep(bool start); // false: woken up
};

// NetworkManager's State, told by StateChanged (older versions) or PropertiesChanged.
class NetworkManagerStandIn : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.NetworkManager")
    Q_PROPERTY(uint State MEMBER current)
public:
    uint current = 70; // connected to the internet
    void change(uint to, bool asProperty)
    {
        current = to;
        if (!asProperty)
            return emit StateChanged(to);
        QDBusMessage signal = QDBusMessage::createSignal("/org/freedesktop/NetworkManager",
                                                         "org.freedesktop.DBus.Properties", "PropertiesChanged");
        signal << "org.freedesktop.NetworkManager" << QVariantMap{{"State", to}} << QStringList();
        QDBusConnection(QString::fromLatin1(standInConnection)).send(signal);
    }
signals:
    void StateChanged(uint state);
};

// Counts the notifier's calls: each is watched by a child of the notifier until answered or failed.
class CallCounter : public QObject {
public:
    explicit CallCounter(QObject* notifier) : watched(notifier) { notifier->installEventFilter(this); }
    int made = 0;
    bool answered() const { return watched->findChildren<QDBusPendingCallWatcher*>().isEmpty(); }

protected:
    bool eventFilter(QObject*, QEvent* event) override { return made += event->type() == QEvent::ChildAdded, false; }

private:
    QObject* watched;
};

using Notification = NotificationServer::Notification;

// The urgency hint, a byte; -1 when absent or of another type.
int urgency(const Notification& n)
{
    const QVariant u = n.hints.value(QStringLiteral("urgency"));
    return u.metaType().id() == QMetaType::UChar ? u.value<uchar>() : -1;
}

NotificationServer* server;
LogindStandIn* logind;
NetworkManagerStandIn* networkManager;

// Serves the stand-ins once for the whole run; empty, or why that failed.
QString serveStandIns()
{
    static const QString error = [] {
        server = new NotificationServer;
        logind = new LogindStandIn;
        networkManager = new NetworkManagerStandIn;
        QDBusConnection bus = QDBusConnection::connectToBus(QString::fromStdString(busAddress), standInConnection);
        const auto serve = [&bus](QObject* object, const QString& service) {
            return bus.registerObject("/" + QString(service).replace('.', '/'), object,
                                      QDBusConnection::ExportAllContents)
                   && bus.registerService(service);
        };
        if (bus.isConnected() && serve(server, notifications) && serve(logind, "org.freedesktop.login1")
            && serve(networkManager, "org.freedesktop.NetworkManager")
            && QDBusConnection::systemBus().connect("org.freedesktop.login1", "/org/freedesktop/login1",
                                                    "org.freedesktop.login1.Manager", "PrepareForSleep", logind,
                                                    SLOT(seeSleep(bool))))
            return QString();
        return "the stand-in services: " + bus.lastError().message();
    }();
    return error;
}

// Messages dated after any time stamp the server hands out in the test.
const std::int32_t future = static_cast<std::int32_t>(std::time(nullptr)) + 100000;

class DesktopTest : public AppTest {
protected:
    void SetUp() override
    {
        AppTest::SetUp();
        if (HasFatalFailure())
            return;
        ASSERT_FALSE(busAddress.empty()) << "no private bus: " << busError;
        ASSERT_EQ(QString(), serveStandIns());
        server->received.clear();
        server->lastId = 0;
        ASSERT_TRUE(NotificationServer::own(true)) << "the notification service's name";
        logind->seen.clear();
        networkManager->current = 70;
        QGuiApplication::setApplicationDisplayName(QStringLiteral("Orvane ZEL5 Tray"));
        QGuiApplication::setDesktopFileName(QStringLiteral("zel5_tray"));
        app = std::make_unique<TestApp>();
        app->noTrayNoticeMs = 3600 * 1000; // the offscreen platform has no tray: no notice of that
    }
    void TearDown() override { calls.reset(), AppTest::TearDown(); }
    void start() { startApp(), calls = std::make_unique<CallCounter>(app->notifier); }
    const QList<Notification>& received() const { return server->received; }

    // How many notifications the server has once it has `count` and every call made is answered.
    qsizetype notified(qsizetype n) { return (void)QTest::qWaitFor([&] { return received().size() >= n && calls->answered(); }, replyWaitMs), received().size(); }
    // The server accepted n connections and the attempt on the last one ended.
    bool attemptsEnded(int n) { return QTest::qWaitFor([&] { return sim->connectionsAccepted() >= n && !app->worker()->busy(); }, 10000); }
    void setBalance(double balance) { editAccount([&](zel5sim::Account& a) { a.balance = balance; }); }
    void addMessage(std::int32_t t, const char* subject) { editAccount([&](zel5sim::Account& a) { a.messages.push_back({t, subject, "<p>1</p>"}); }); }

    std::unique_ptr<CallCounter> calls;
};

TEST_F(DesktopTest, NewMessagesMakeOneNotificationWhoseShowActionOpensThemUntilItIsClosed)
{
    addMessage(future + 1, "Invoice for May");
    addMessage(future + 2, "Planned outage");
    addMessage(future + 3, "New tariffs");
    writeSettings();
    start();
    ASSERT_TRUE(waitOnline());
    ASSERT_EQ(1, notified(1)) << "notifications";
    const Notification first = received()[0]; // the newest subject; the icon and entry the package installs
    EXPECT_EQ(QStringList({first.appName, first.appIcon, first.summary, first.body, first.actions.join(u','),
                           first.hints.value(QStringLiteral("desktop-entry")).toString()}),
              QStringList({"Orvane ZEL5 Tray", "zel5_tray", "New tariffs", "3 new messages", "default,Show,show,Show",
                           "zel5_tray"}));
    EXPECT_TRUE(first.replacesId == 0 && urgency(first) == 1 && first.expireTimeout == -1);

    tick(); // nothing new
    EXPECT_EQ(1, notified(1));
    addMessage(future + 10, "Payment received");
    tick();
    ASSERT_EQ(2, notified(2));
    EXPECT_EQ(QStringLiteral("Payment received"), received()[1].summary);
    EXPECT_EQ(QString(), received()[1].body);
    EXPECT_EQ(first.id, received()[1].replacesId) << "one notification on screen, not a stack";

    // Signals arrive in the order sent: by the time the dialog opens the ones before were handled.
    emit server->ActionInvoked(first.id + 41, QStringLiteral("show")); // another program's
    emit server->ActionInvoked(first.id, QStringLiteral("dismiss"));    // a key never offered
    emit server->ActionInvoked(first.id, QStringLiteral("show"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !app->dialogs.isEmpty(); }, replyWaitMs)) << "the messages dialog";
    EXPECT_EQ(QStringList{QStringLiteral("MessagesDialog")}, app->dialogs);
    EXPECT_FALSE(icon()->notify) << "seen, as after a click on the icon";

    // Dismissed: a "Show" on it opens nothing, and the next messages get a notification of their own.
    emit server->NotificationClosed(first.id, 2);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !app->notifier->idOf(DesktopNotifier::NewMessages); }, replyWaitMs)) << "closed";
    emit server->ActionInvoked(first.id, QStringLiteral("show"));
    addMessage(future + 20, "Planned works");
    tick(); // its answer comes after the signals sent before it
    ASSERT_EQ(3, notified(3));
    EXPECT_EQ(0u, received()[2].replacesId);
    EXPECT_EQ(1, app->dialogs.size());
}

TEST_F(DesktopTest, LowBalanceIsToldOncePerFallAndCriticallyBelowZero)
{
    setBalance(20);
    writeSettings([](Config<QString>& cfg) {
        cfg.lowBalanceWarningOn = true;
        cfg.lowBalanceWarning = 10;
    });
    start();
    ASSERT_TRUE(waitOnline());
    for (const auto& [balance, count] : {std::pair{5.0, 1}, {4.0, 1}, {15.0, 1}, {-2.0, 2}}) { // told once per fall
        setBalance(balance);
        tick();
        ASSERT_EQ(count, notified(count)) << "at " << balance;
    }
    EXPECT_EQ(QStringList({received()[0].summary, received()[0].body, received()[1].body}),
              QStringList({"Low balance", "Balance: 5.00", "Balance: -2.00"}));
    EXPECT_EQ(std::pair(1, 2), std::pair(urgency(received()[0]), urgency(received()[1]))) << "critical below zero";
    EXPECT_EQ(received()[0].id, received()[1].replacesId);
}

TEST_F(DesktopTest, TwoWakeUpsWithinTwoSecondsMakeOneCheck)
{
    // Every session refused: each check is one connection; no retry in between.
    sim->addFault({.stage = zel5sim::Fault::Stage::Greeting, .kind = zel5sim::Fault::Kind::CutAfter, .times = -1});
    writeSettings();
    app->firstRetryMs = 3600 * 1000;
    start();
    ASSERT_TRUE(attemptsEnded(1)) << "the first attempt to end";
    emit logind->PrepareForSleep(false);
    emit logind->PrepareForSleep(false);
    ASSERT_TRUE(QTest::qWaitFor([&] { return logind->seen.size() == 2; }, replyWaitMs)) << "both on the tray's connection";
    ASSERT_TRUE(attemptsEnded(2)) << "the check after the wake-up to end";
    EXPECT_EQ(2, sim->connectionsAccepted());
}

TEST_F(DesktopTest, AfterAWakeUpASessionTheServerForgotIsReplacedWithinFiveSeconds)
{
    writeSettings();
    start();
    ASSERT_TRUE(waitOnline());
    ASSERT_TRUE(app->settle());
    // The server restarted while the machine slept: the tray's session is gone with it.
    const int port = sim->port();
    sim->stop();
    sim = std::make_unique<zel5sim::BillingSim>(zel5sim::Options{.port = port, .withDemoAccount = false});
    ASSERT_EQ(0, sim->start()) << "the new server on port " << port;
    addAccount("anna", "secret", 7.5);
    emit logind->PrepareForSleep(true);
    emit logind->PrepareForSleep(false);
    EXPECT_TRUE(QTest::qWaitFor([&] { return app->connected() && tooltip() == "Balance: 7.50"; }, 5000)) << "a new session";
    ASSERT_TRUE(app->settle());
    EXPECT_EQ(1, sim->connectionsAccepted());
}

TEST_F(DesktopTest, NotificationsSentBeforeTheServiceAnsweredReplaceInsteadOfStacking)
{
    DesktopNotifier notifier(nullptr);
    CallCounter counter(&notifier);
    for (int i = 1; i <= 3; ++i)
        notifier.notify(DesktopNotifier::LowBalance, QStringLiteral("Balance %1").arg(i), QString(),
                        DesktopNotifier::Normal);
    (void)QTest::qWaitFor([&] { return received().size() >= 2 && counter.answered(); }, replyWaitMs);
    // The first goes out at once; the newest waits for its id; the middle one never goes.
    ASSERT_EQ(2, received().size()) << "notifications";
    EXPECT_EQ(0u, received()[0].replacesId);
    EXPECT_EQ(received()[0].id, received()[1].replacesId);
    EXPECT_EQ(QStringLiteral("Balance 3"), received()[1].summary);
    EXPECT_EQ(received()[0].id, notifier.idOf(DesktopNotifier::LowBalance));
}

TEST_F(DesktopTest, TheNetworkGoingIsShownAndItsReturnTriesTheServerAtOnce)
{
    // The server out of reach, the next retry an hour away: each return of the network makes one try.
    app->sessionCheckGapMs = 0;
    sim->addFault({.stage = zel5sim::Fault::Stage::Greeting, .kind = zel5sim::Fault::Kind::CutAfter, .times = -1});
    writeSettings();
    app->firstRetryMs = 3600 * 1000;
    start();
    ASSERT_TRUE(attemptsEnded(1)) << "the first attempt to end";
    for (const bool asProperty : {false, true}) {
        SCOPED_TRACE(asProperty ? "PropertiesChanged" : "StateChanged");
        networkManager->change(20, asProperty); // disconnected
        ASSERT_TRUE(QTest::qWaitFor([&] { return tooltip().startsWith("No network"); }, replyWaitMs)) << "No network";
        const int before = sim->connectionsAccepted();
        if (asProperty)
            sim->clearFaults();
        networkManager->change(70, asProperty);
        ASSERT_TRUE(attemptsEnded(before + 1)) << "a try when the network came back";
    }
    EXPECT_TRUE(waitOnline());
}

TEST_F(DesktopTest, WithoutANotificationServiceTheTrayRunsOnAndLaterNotificationsStartAfresh)
{
    ASSERT_TRUE(NotificationServer::own(false));
    addMessage(future + 1, "Invoice for May");
    writeSettings();
    start();
    ASSERT_TRUE(waitOnline());
    ASSERT_TRUE(QTest::qWaitFor([&] { return calls->made == 1 && calls->answered(); }, replyWaitMs)) << "the call's failure";
    tick();
    EXPECT_TRUE(app->connected());

    ASSERT_TRUE(NotificationServer::own(true)); // the service appears: the next notification is a new one
    addMessage(future + 5, "Payment received");
    tick();
    ASSERT_EQ(1, notified(1));
    EXPECT_EQ(0u, received()[0].replacesId);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc >= 4 && std::strcmp(argv[1], runBusArgument) == 0) { // the bus daemon, see runBusArgument
        if (::prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || ::getppid() != std::atol(argv[2]))
            return 1;
        ::execvp(argv[3], argv + 3);
        return std::fprintf(stderr, "cannot run %s: %s\n", argv[3], std::strerror(errno)), 127;
    }
    std::unique_ptr<ChildProcess> bus;
    std::string line;
    if (std::any_of(argv + 1, argv + argc, [](const char* a) { return !std::strcmp(a, "--gtest_list_tests"); }))
        busError = "only listing the tests";
    else if (bus = std::make_unique<ChildProcess>(std::vector<std::string>{"/proc/self/exe", runBusArgument,
                 std::to_string(::getpid()), "dbus-daemon", "--session", "--nofork", "--print-address=1",
                 "--address=unix:tmpdir=/tmp"}); !bus->started())
        busError = bus->startError();
    else if (bus->readLine(line, 10s) != ChildProcess::Read::Line || line.rfind("unix:", 0) != 0)
        busError = "no address within 10 s: " + line;
    else
        busAddress = line;
    // Without a private bus the environment names one that does not exist, never the user's own.
    const std::string address = busAddress.empty() ? "unix:path=/nonexistent/zel5-tests-no-bus" : busAddress;
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    const int result = runAppTests(argc, argv); // the bus connections are gone before the daemon
    if (bus && bus->signal(SIGTERM) && !bus->waitExit(5s))
        std::fprintf(stderr, "the private bus did not end within 5 s of SIGTERM; killed\n");
    return result;
}

#include "desktop_test.moc"
