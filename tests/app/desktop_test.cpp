// The tray on a desktop of private buses: its notifications of new messages,
// of a low balance and of a missing system tray as a notification server
// receives them, the "Show" action, the session checked after a wake-up, and
// a desktop without a notification service.
#include "apptest.h"
#include "desktopnotifier.h"
#include "desktopstandins.h"
#include "privatebuses.h"

#include <QDBusPendingCallWatcher>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QSystemTrayIcon>
#include <QTimer>

#include <cstdio>
#include <ctime>

namespace {

using Notification = NotificationServer::Notification;

const int replyWaitMs = 5000;

// Counts the notifier's calls to the notification service: each is watched
// by a child object of the notifier until its answer, or its failure, is in.
class CallCounter : public QObject {
public:
    explicit CallCounter(QObject* notifier) : watched(notifier) { notifier->installEventFilter(this); }
    int made = 0;
    // Every call made so far has its answer.
    bool answered() const { return watched->findChildren<QDBusPendingCallWatcher*>().isEmpty(); }

protected:
    bool eventFilter(QObject*, QEvent* event) override
    {
        made += event->type() == QEvent::ChildAdded;
        return false;
    }

private:
    QObject* watched;
};

bool offers(const Notification& n, const QString& key, const QString& label)
{
    for (qsizetype i = 0; i + 1 < n.actions.size(); i += 2) {
        if (n.actions[i] == key && n.actions[i + 1] == label)
            return true;
    }
    return false;
}

// The urgency hint, a byte as the protocol has it; -1 when absent or of
// another type.
int urgency(const Notification& n)
{
    const QVariant u = n.hints.value(QStringLiteral("urgency"));
    return u.metaType().id() == QMetaType::UChar ? u.value<uchar>() : -1;
}

std::string describe(const QList<Notification>& list)
{
    std::string text;
    for (const Notification& n : list)
        text += "\n  #" + std::to_string(n.id) + " replaces " + std::to_string(n.replacesId) + ": "
                + n.summary.toStdString() + " / " + n.body.toStdString();
    return text.empty() ? " none" : text;
}

// The stand-ins, made once and kept for the whole run: their connections
// belong to Qt's bus thread, and an exported object destroyed while that
// thread may still look at it is a race of its own. Each test starts them
// afresh with reset().
struct StandIns {
    NotificationServer* server = nullptr;
    LogindStandIn* logind = nullptr;
    SleepSignals* sleepSignals = nullptr; // as the tray's system bus connection sees them
    QString error;
};

const StandIns& standIns()
{
    static const StandIns made = [] {
        StandIns s;
        auto* server = new NotificationServer(QString::fromStdString(privateBuses().session));
        auto* logind = new LogindStandIn(QString::fromStdString(privateBuses().system));
        if (server->start(&s.error) && logind->start(&s.error)) {
            s.server = server;
            s.logind = logind;
            s.sleepSignals = new SleepSignals;
        }
        return s;
    }();
    return made;
}

class DesktopTest : public AppTest {
protected:
    void SetUp() override
    {
        AppTest::SetUp();
        if (HasFatalFailure())
            return;
        ASSERT_FALSE(privateBuses().session.empty()) << "no private buses: " << privateBuses().error;
        ASSERT_TRUE(standIns().server) << standIns().error.toStdString();
        server = standIns().server;
        logind = standIns().logind;
        ASSERT_TRUE(server->reset()) << "the notification service's name owned again";
        standIns().sleepSignals->seen.clear();
        QGuiApplication::setApplicationDisplayName(QStringLiteral("Orvane ZEL5 Tray"));
        QGuiApplication::setDesktopFileName(QStringLiteral("zel5_tray"));
        app = std::make_unique<TestApp>();
        // The notice of a missing tray only where a test asks for it.
        app->noTrayNoticeMs = 3600 * 1000;
    }

    void TearDown() override
    {
        calls.reset();
        app.reset();
        if (sim)
            sim->stop();
    }

    void start()
    {
        startApp();
        // No call can have been made yet: they all start from the event loop.
        calls = std::make_unique<CallCounter>(app->notifier);
    }

    const QList<Notification>& received() const { return server->received(); }

    // Waits until the server has `count` notifications and every call made
    // is answered; false if it did not come to that.
    bool waitNotifications(qsizetype count)
    {
        return QTest::qWaitFor([&] { return received().size() >= count && calls->answered(); }, replyWaitMs)
               && received().size() == count;
    }

    // Every call made is answered and the server has `count`: none was
    // made since.
    void expectNotifications(qsizetype count)
    {
        ASSERT_TRUE(QTest::qWaitFor([&] { return calls->answered(); }, replyWaitMs))
            << "the answers to the notifier's calls";
        EXPECT_EQ(count, received().size()) << describe(received());
    }

    void setBalance(double balance)
    {
        editAccount([&](zel5sim::Account& a) { a.balance = balance; });
    }

    // A new simulator on the same port with the same subscriber: a server
    // restarted while the machine slept.
    void restartServer(double balance)
    {
        const int port = sim->port();
        sim->stop();
        sim = std::make_unique<zel5sim::BillingSim>(zel5sim::Options{.port = port, .withDemoAccount = false});
        ASSERT_EQ(0, sim->start()) << "the new server on port " << port;
        addAccount("anna", "secret", balance);
    }

    // Emits the signals and waits until the tray's connection delivered them.
    void wakeUps(std::initializer_list<bool> states)
    {
        const QList<bool>& seen = standIns().sleepSignals->seen;
        const qsizetype before = seen.size();
        for (bool sleeping : states)
            logind->prepareForSleep(sleeping);
        ASSERT_TRUE(QTest::qWaitFor([&] { return seen.size() >= before + qsizetype(states.size()); }, replyWaitMs))
            << "PrepareForSleep on the tray's system bus connection";
        SleepSignals::deliverQueued();
    }

    NotificationServer* server = nullptr;
    LogindStandIn* logind = nullptr;
    std::unique_ptr<CallCounter> calls;
};

// Messages dated after any time stamp the server hands out in the test.
const std::int32_t future = static_cast<std::int32_t>(std::time(nullptr)) + 100000;

TEST_F(DesktopTest, NewMessagesMakeOneNotificationThatTheNextRetrievalReplaces)
{
    editAccount([](zel5sim::Account& a) {
        a.messages = {{future + 1, "Invoice for May", "<p>1</p>"},
                      {future + 2, "Planned outage", "<p>2</p>"},
                      {future + 3, "New tariffs", "<p>3</p>"}};
    });
    writeSettings();
    start();
    ASSERT_TRUE(waitOnline());
    ASSERT_TRUE(waitNotifications(1)) << describe(received());
    const Notification first = received()[0];
    EXPECT_EQ(QStringLiteral("New tariffs"), first.summary); // the newest
    EXPECT_EQ(QStringLiteral("3 new messages"), first.body);
    EXPECT_EQ(0u, first.replacesId);
    EXPECT_TRUE(offers(first, QStringLiteral("show"), QStringLiteral("Show"))) << first.actions.join(u',').toStdString();
    EXPECT_EQ(QStringLiteral("zel5_tray"), first.hints.value(QStringLiteral("desktop-entry")).toString());
    EXPECT_EQ(1, urgency(first));
    EXPECT_EQ(QStringLiteral("Orvane ZEL5 Tray"), first.appName);
    EXPECT_EQ(QStringLiteral("zel5_tray"), first.appIcon); // the icon the package installs
    EXPECT_EQ(-1, first.expireTimeout);
    EXPECT_EQ(first.id, app->notifier->idOf(DesktopNotifier::NewMessages));

    tick(); // nothing new
    expectNotifications(1);

    editAccount([](zel5sim::Account& a) { a.messages.push_back({future + 10, "Payment received", "<p>4</p>"}); });
    tick();
    ASSERT_TRUE(waitNotifications(2)) << describe(received());
    const Notification second = received()[1];
    EXPECT_EQ(QStringLiteral("Payment received"), second.summary);
    EXPECT_TRUE(second.body.isEmpty()) << second.body.toStdString();
    // One notification on screen, not a stack.
    EXPECT_EQ(first.id, second.replacesId);
    EXPECT_EQ(first.id, app->notifier->idOf(DesktopNotifier::NewMessages));
    EXPECT_TRUE(app->dialogs.isEmpty());
}

TEST_F(DesktopTest, ShowOnOurNotificationOpensTheMessagesOtherIdsAndClosedOnesDoNothing)
{
    editAccount([](zel5sim::Account& a) { a.messages = {{future + 1, "Invoice for May", "<p>1</p>"}}; });
    writeSettings();
    start();
    ASSERT_TRUE(waitOnline());
    ASSERT_TRUE(waitNotifications(1)) << describe(received());
    const uint ours = received()[0].id;
    EXPECT_TRUE(icon()->notify);

    // Signals arrive in the order sent: by the time the dialog opens the
    // ones before were handled.
    server->invokeAction(ours + 41, QStringLiteral("show")); // another program's
    server->invokeAction(ours, QStringLiteral("dismiss"));    // a key we never offered
    server->invokeAction(ours, QStringLiteral("show"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !app->dialogs.isEmpty(); }, replyWaitMs)) << "the messages dialog";
    EXPECT_EQ(QStringList{QStringLiteral("MessagesDialog")}, app->dialogs);
    EXPECT_FALSE(icon()->notify); // seen, as after a click on the icon

    // Dismissed: the id is no longer ours, and the next messages get a
    // notification of their own.
    server->closed(ours, 2);
    ASSERT_TRUE(QTest::qWaitFor([&] { return app->notifier->idOf(DesktopNotifier::NewMessages) == 0; }, replyWaitMs))
        << "NotificationClosed taken";
    server->invokeAction(ours, QStringLiteral("show"));
    editAccount([](zel5sim::Account& a) { a.messages.push_back({future + 5, "Planned outage", "<p>2</p>"}); });
    tick();
    // The answer to this call comes after the action sent before it.
    ASSERT_TRUE(waitNotifications(2)) << describe(received());
    EXPECT_EQ(0u, received()[1].replacesId);
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
    expectNotifications(0);

    setBalance(5);
    tick();
    ASSERT_TRUE(waitNotifications(1)) << describe(received());
    const Notification low = received()[0];
    EXPECT_EQ(QStringLiteral("Low balance"), low.summary);
    EXPECT_EQ(QStringLiteral("Balance: 5.00"), low.body);
    EXPECT_EQ(1, urgency(low));

    setBalance(4); // still below: told already
    tick();
    expectNotifications(1);

    setBalance(15); // back above: the next fall is told again
    tick();
    expectNotifications(1);
    setBalance(-2);
    tick();
    ASSERT_TRUE(waitNotifications(2)) << describe(received());
    const Notification negative = received()[1];
    EXPECT_EQ(QStringLiteral("Balance: -2.00"), negative.body);
    EXPECT_EQ(2, urgency(negative)); // critical
    EXPECT_EQ(low.id, negative.replacesId);
}

TEST_F(DesktopTest, NotificationsOffTellNothingAndNoLevelMeansNoWarning)
{
    const struct {
        const char* name;
        bool notifications;
        bool level;
        const char* subject;
        std::int32_t dated;
    } cases[] = {{"notifications off", false, true, "Invoice for May", future + 1},
                 {"no low balance level", true, false, "Invoice for June", future + 2}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (app->worker()) { // the case before ran it
            calls.reset();
            app.reset();
            app = std::make_unique<TestApp>();
            app->noTrayNoticeMs = 3600 * 1000;
        }
        const qsizetype before = received().size();
        setBalance(20);
        editAccount([&](zel5sim::Account& a) { a.messages.push_back({c.dated, c.subject, "<p>1</p>"}); });
        writeSettings([&](Config<QString>& cfg) {
            cfg.notifications = c.notifications;
            cfg.lowBalanceWarningOn = c.level;
            cfg.lowBalanceWarning = 10;
        });
        start();
        ASSERT_TRUE(waitOnline());
        setBalance(-5);
        tick();
        if (c.notifications) {
            // The messages are told; without a level the balance is not.
            ASSERT_TRUE(waitNotifications(before + 1)) << describe(received());
            EXPECT_EQ(QString::fromLatin1(c.subject), received().back().summary);
        } else {
            expectNotifications(before);
            EXPECT_EQ(0, calls->made);
        }
        EXPECT_TRUE(icon()->notify); // the icon shows the messages all the same
    }
}

TEST_F(DesktopTest, WithoutASystemTrayOneNoticeIsGiven)
{
    ASSERT_FALSE(QSystemTrayIcon::isSystemTrayAvailable()) << "this test needs a platform without a system tray";
    writeSettings();
    app->noTrayNoticeMs = 300;
    start();
    ASSERT_TRUE(waitOnline());
    QTimer* watch = nullptr; // looks for a tray host every 300 ms here
    for (QTimer* t : app->findChildren<QTimer*>()) {
        if (t->isActive() && !t->isSingleShot() && t->interval() == 300)
            watch = t;
    }
    ASSERT_NE(nullptr, watch) << "the tray watch";
    int looks = 0;
    QObject counting;
    QObject::connect(watch, &QTimer::timeout, &counting, [&] { ++looks; });

    ASSERT_TRUE(waitNotifications(1)) << describe(received());
    const Notification notice = received()[0];
    EXPECT_EQ(QStringLiteral("The tray icon needs a system tray"), notice.summary);
    EXPECT_TRUE(notice.body.contains(QStringLiteral("system tray"))) << notice.body.toStdString();
    EXPECT_EQ(1, urgency(notice));

    const int after = looks;
    ASSERT_TRUE(QTest::qWaitFor([&] { return looks >= after + 2; }, replyWaitMs)) << "two more looks for a tray";
    expectNotifications(1);
    EXPECT_EQ(1, calls->made);
}

TEST_F(DesktopTest, AfterAWakeUpTheSessionWithARestartedServerIsBackWithinFiveSeconds)
{
    writeSettings();
    start();
    ASSERT_TRUE(waitOnline());
    ASSERT_TRUE(app->settle());
    restartServer(7.5);
    if (HasFatalFailure())
        return;

    wakeUps({true});
    ASSERT_TRUE(app->settle());
    EXPECT_EQ(0, sim->connectionsAccepted()) << "going to sleep asks the server nothing";

    QElapsedTimer sinceWakeUp;
    sinceWakeUp.start();
    logind->prepareForSleep(false);
    // The new balance shows that the session is one with the new server.
    const bool back = QTest::qWaitFor([&] {
        return sim->connectionsAccepted() == 1 && connected() && icon()->online && tooltip() == QStringLiteral("Balance: 7.50");
    }, 5000);
    const qint64 ms = sinceWakeUp.elapsed();
    ASSERT_TRUE(back) << "in session with the new server within 5 s of the wake-up; tooltip \"" << tooltip().toStdString()
                      << "\", " << sim->connectionsAccepted() << " connections";
    std::printf("[ measured ] in session again %lld ms after the wake-up signal\n", static_cast<long long>(ms));
    ASSERT_TRUE(app->settle());
    EXPECT_EQ(1, sim->connectionsAccepted());
}

TEST_F(DesktopTest, TwoWakeUpsWithinTwoSecondsMakeOneCheck)
{
    // Every session is refused: each check is one connection, and no
    // retry comes in between.
    sim->addFault({.stage = zel5sim::Fault::Stage::Greeting, .kind = zel5sim::Fault::Kind::CutAfter, .times = -1});
    writeSettings();
    app->firstRetryMs = 3600 * 1000;
    start();
    ASSERT_TRUE(QTest::qWaitFor([&] { return sim->connectionsAccepted() >= 1 && !app->worker()->busy(); }, 10000))
        << "the first attempt to end";
    ASSERT_EQ(1, sim->connectionsAccepted());
    ASSERT_FALSE(connected());

    wakeUps({false, false});
    ASSERT_TRUE(QTest::qWaitFor([&] { return sim->connectionsAccepted() >= 2 && !app->worker()->busy(); }, 10000))
        << "the check after the wake-up to end";
    EXPECT_EQ(2, sim->connectionsAccepted());
    EXPECT_FALSE(connected());
}

TEST_F(DesktopTest, WithoutANotificationServiceTheTrayRunsOnAndLaterNotificationsStartAfresh)
{
    ASSERT_TRUE(server->release());
    editAccount([](zel5sim::Account& a) {
        a.messages = {{future + 1, "Invoice for May", "<p>1</p>"}, {future + 2, "Planned outage", "<p>2</p>"}};
    });
    writeSettings();
    start();
    ASSERT_TRUE(waitOnline());
    ASSERT_TRUE(QTest::qWaitFor([&] { return calls->made == 1 && calls->answered(); }, replyWaitMs))
        << "the call to the missing service to fail; calls made: " << calls->made;
    EXPECT_TRUE(received().isEmpty());
    EXPECT_EQ(0u, app->notifier->idOf(DesktopNotifier::NewMessages));
    EXPECT_TRUE(icon()->notify);

    tick();
    EXPECT_TRUE(connected());

    // The service appears: the next notification is a new one.
    ASSERT_TRUE(server->claim());
    editAccount([](zel5sim::Account& a) { a.messages.push_back({future + 5, "Payment received", "<p>3</p>"}); });
    tick();
    ASSERT_TRUE(waitNotifications(1)) << describe(received());
    EXPECT_EQ(QStringLiteral("Payment received"), received()[0].summary);
    EXPECT_EQ(0u, received()[0].replacesId);
}

} // namespace
