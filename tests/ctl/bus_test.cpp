// zel5ctl and the running tray together on a private session bus. The built
// tray runs offscreen with throw-away folders against the in-process billing
// simulator; this process calls the tray's D-Bus interface, watches its
// PropertiesChanged signal and runs the built zel5ctl, which must answer
// through the tray and never open a second session with the server.
#include "ctlrun.h"

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDateTime>
#include <QEventLoop>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>
#include <QTimer>
#include <QVariantMap>

#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

using namespace std::chrono_literals;

namespace zel5test {
namespace {

using Clock = std::chrono::steady_clock;

const QString trayService = QStringLiteral("net.orvane.Zel5Tray");
const QString trayPath = QStringLiteral("/net/orvane/Zel5Tray");
const QString accountInterface = QStringLiteral("net.orvane.Zel5Tray.Account");
const QString propertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");

// Far above what a local exchange takes; only a hang reaches them.
constexpr auto bound = 10s;      // the bus, the tray, a signal, a line, a command
constexpr int callBoundMs = 5000; // one method call on the bus
// The tray's methods hand their work to its event loop and return.
constexpr long long atOnceMs = 200;
// A second signal for the same refresh would go out within milliseconds.
constexpr auto quietWindow = 500ms;

// The program runs itself with this first argument to become one of the
// test's children: it execs the real program, which then dies with this
// process however that one ends.
const char* const childArgument = "--as-child-of";

int runAsChild(char** argv)
{
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != std::atol(argv[2]))
        return 127;
    ::execvp(argv[3], argv + 3);
    std::fprintf(stderr, "cannot run %s: %s\n", argv[3], std::strerror(errno));
    return 127;
}

std::vector<std::string> asChild(const std::vector<std::string>& argv)
{
    char self[4096];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    std::vector<std::string> all{n > 0 ? std::string(self, static_cast<std::size_t>(n)) : std::string(), childArgument,
                                 std::to_string(::getpid())};
    all.insert(all.end(), argv.begin(), argv.end());
    return all;
}

long long msSince(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

std::string compact(const QJsonDocument& document)
{
    return document.toJson(QJsonDocument::Compact).toStdString();
}

// Parsed and written again, so that a difference shows as text.
std::string compact(const std::string& json)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(json), &error);
    if (error.error != QJsonParseError::NoError)
        return "(not JSON: " + error.errorString().toStdString() + ") " + json;
    return compact(document);
}

std::string compact(const QString& json) { return compact(json.toStdString()); }

// The PropertiesChanged signals of the account's interface, in order.
class ChangeLog : public QObject {
    Q_OBJECT
public:
    std::vector<QStringList> changes; // the names in each signal, sorted
    std::vector<QVariantMap> values;

public slots:
    void propertiesChanged(const QString& interfaceName, const QVariantMap& changed, const QStringList& invalidated)
    {
        if (interfaceName != accountInterface)
            return;
        QStringList names = changed.keys() + invalidated;
        names.sort();
        changes.push_back(names);
        values.push_back(changed);
    }
};

// A private session bus, the simulator's account (CtlTest) and the built
// tray logged in to it.
class TrayBusTest : public CtlTest {
protected:
    void SetUp() override
    {
        testStart = QDateTime::currentSecsSinceEpoch();
        ASSERT_NO_FATAL_FAILURE(CtlTest::SetUp());
        runtimeDir = dir.filePath(QStringLiteral("run")).toStdString();
        ASSERT_EQ(0, ::mkdir(runtimeDir.c_str(), 0700)) << std::strerror(errno);
        ASSERT_NO_FATAL_FAILURE(startBus());
        tray = std::make_unique<ChildProcess>(asChild({ZEL5_TRAY_EXECUTABLE}), childEnvironment(),
                                              ChildProcess::CaptureStderr);
        ASSERT_TRUE(tray->started()) << tray->startError();
        ASSERT_TRUE(until([&] { return getAll().value(QStringLiteral("Online")).toBool(); },
                          "the tray to own net.orvane.Zel5Tray and report Online"));
        ASSERT_TRUE(bus().connect(trayService, trayPath, propertiesInterface, QStringLiteral("PropertiesChanged"), &log,
                                  SLOT(propertiesChanged(QString, QVariantMap, QStringList))));
    }

    void TearDown() override
    {
        tray.reset(); // killed and reaped
        if (!busName.isEmpty())
            QDBusConnection::disconnectFromBus(busName);
        daemon.reset();
        CtlTest::TearDown();
    }

    // A dbus-daemon of the session type that activates no services, so that
    // nothing it could start outlives the test.
    void startBus()
    {
        const QString config = dir.filePath(QStringLiteral("bus.conf"));
        QFile file(config);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
                   " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                   "<busconfig><type>session</type><listen>unix:dir="
                   + QByteArray::fromStdString(runtimeDir)
                   + "</listen><auth>EXTERNAL</auth>"
                     "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
                     "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n");
        file.close();
        daemon = std::make_unique<ChildProcess>(asChild({"dbus-daemon", "--config-file=" + config.toStdString(),
                                                         "--nofork", "--print-address=1"}),
                                                std::vector<std::string>{}, ChildProcess::CaptureBoth);
        ASSERT_TRUE(daemon->started()) << daemon->startError();
        ASSERT_TRUE(lineFrom(*daemon, address, "dbus-daemon to print its address"));
        ASSERT_EQ(0u, address.rfind("unix:", 0)) << address;
        static int buses = 0;
        busName = QStringLiteral("zel5-bus-test-%1").arg(++buses);
        ASSERT_TRUE(QDBusConnection::connectToBus(QString::fromStdString(address), busName).isConnected())
            << "cannot connect to " << address;
    }

    QDBusConnection bus() const { return QDBusConnection(busName); }

    std::vector<std::string> childEnvironment() const
    {
        // LC_ALL=C: message dates as this process makes them.
        return {"QT_QPA_PLATFORM=offscreen", "XDG_CONFIG_HOME=" + configHome, "XDG_DATA_HOME=" + dataHome,
                "XDG_RUNTIME_DIR=" + runtimeDir, "DBUS_SESSION_BUS_ADDRESS=" + address,
                "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + runtimeDir + "/no-bus", "LC_ALL=C"};
    }

    // Waits for done() while the tray runs and this thread's events (the
    // bus's signals) are delivered; fails when the tray ends or `within` passes.
    ::testing::AssertionResult until(const std::function<bool()>& done, const std::string& what,
                                     std::chrono::milliseconds within = bound)
    {
        const auto start = Clock::now();
        for (;;) {
            QCoreApplication::processEvents();
            if (done())
                return ::testing::AssertionSuccess();
            if (const auto ended = tray->waitExit(1ms))
                return ::testing::AssertionFailure() << "the tray ended while waiting for " << what << ": "
                                                     << ended->describe() << "\n" << tray->stderrText();
            if (Clock::now() - start >= within)
                return ::testing::AssertionFailure() << "waited " << within.count() << " ms for " << what << "\n"
                                                     << tray->stderrText();
            deliverEventsFor(10ms);
        }
    }

    // The next line `child` prints, within the bound.
    static ::testing::AssertionResult lineFrom(ChildProcess& child, std::string& line, const std::string& what)
    {
        switch (child.readLine(line, bound)) {
        case ChildProcess::Read::Line:
            return ::testing::AssertionSuccess();
        case ChildProcess::Read::Timeout:
            return ::testing::AssertionFailure() << "waited " << bound.count() << " s for " << what << "\n"
                                                 << child.stderrText();
        case ChildProcess::Read::End:
            break;
        }
        return ::testing::AssertionFailure() << "the output ended before " << what << "\n" << child.stderrText();
    }

    // Runs this thread's event loop for a while: the bus's signals arrive.
    static void deliverEventsFor(std::chrono::milliseconds time)
    {
        QEventLoop loop;
        QTimer::singleShot(time, &loop, &QEventLoop::quit);
        loop.exec();
    }

    // Calls a method of the tray; `tookMs` is how long the answer took.
    QDBusMessage call(const QString& interface, const QString& method, const QVariantList& args = {},
                      long long* tookMs = nullptr)
    {
        QDBusMessage message = QDBusMessage::createMethodCall(trayService, trayPath, interface, method);
        message.setArguments(args);
        const auto start = Clock::now();
        const QDBusMessage reply = bus().call(message, QDBus::Block, callBoundMs);
        if (tookMs)
            *tookMs = msSince(start);
        return reply;
    }

    static ::testing::AssertionResult answered(const QDBusMessage& reply)
    {
        if (reply.type() == QDBusMessage::ReplyMessage)
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << reply.errorName().toStdString() << ": "
                                             << reply.errorMessage().toStdString();
    }

    // The account's properties; empty while the tray does not answer.
    QVariantMap getAll()
    {
        const QDBusMessage reply = call(propertiesInterface, QStringLiteral("GetAll"), {accountInterface});
        if (reply.type() != QDBusMessage::ReplyMessage)
            return {};
        return qdbus_cast<QVariantMap>(reply.arguments().value(0));
    }

    // Signals already sent are in the log, which is then emptied: a call
    // answered after them, then their delivery.
    void settle()
    {
        getAll();
        QCoreApplication::processEvents();
        log.changes.clear();
        log.values.clear();
    }

    // LastRefresh counts seconds: only a refresh in a later second moves it.
    ::testing::AssertionResult clockPastLastRefresh()
    {
        const qlonglong last = getAll().value(QStringLiteral("LastRefresh")).toLongLong();
        return until([&] { return QDateTime::currentSecsSinceEpoch() > last; }, "the clock to pass LastRefresh", 2s);
    }

    std::string shownChanges() const
    {
        std::string s = std::to_string(log.changes.size()) + " signal(s):";
        for (const QStringList& names : log.changes)
            s += " [" + names.join(' ').toStdString() + "]";
        return s;
    }

    // Refresh() answered at once, then the signals that follow it.
    void refreshAndCollect()
    {
        settle();
        long long tookMs = 0;
        ASSERT_TRUE(answered(call(accountInterface, QStringLiteral("Refresh"), {}, &tookMs)));
        std::printf("[ timing   ] Refresh() answered after %lld ms\n", tookMs);
        EXPECT_LT(tookMs, atOnceMs) << "Refresh() waited for the refresh";
        ASSERT_TRUE(until([&] { return !log.changes.empty(); }, "PropertiesChanged after Refresh()"));
        deliverEventsFor(quietWindow);
    }

    CtlRun ctl(const std::vector<std::string>& args)
    {
        CtlRun r;
        const auto start = Clock::now();
        ChildProcess child(asChild(command(args)), childEnvironment(), ChildProcess::CaptureBoth);
        EXPECT_TRUE(child.started()) << child.startError();
        const auto exit = child.waitExit(bound);
        EXPECT_TRUE(exit) << "waited " << bound.count() << " s for " << shown(args) << " to end";
        r.took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
        std::printf("[ timing   ] %s took %lld ms\n", shown(args).c_str(), static_cast<long long>(r.took.count()));
        if (exit)
            r.code = exit->code();
        r.out = child.takeStdout();
        r.err = child.stderrText();
        return r;
    }

    zel5sim::Account serverAccount() const
    {
        zel5sim::Account a;
        EXPECT_TRUE(sim->getAccount(login, a));
        return a;
    }

    // The report's JSON as the tray and zel5ctl give it, from the server's account.
    static std::string expectedReport(const zel5sim::Account& a)
    {
        const auto classes = [](const std::vector<zel5sim::TrafficClass>& list) {
            QJsonArray array;
            for (const zel5sim::TrafficClass& c : list)
                array.append(QJsonObject{{"id", c.id}, {"name", QString::fromStdString(c.name)},
                                         {"bytes", static_cast<qint64>(c.size)}});
            return array;
        };
        QJsonArray services;
        for (const zel5sim::Service& s : a.services)
            services.append(QJsonObject{{"name", QString::fromStdString(s.name)}, {"oldPrepaid", classes(s.oldPrepaid)},
                                        {"prepaid", classes(s.prepaid)}, {"downloaded", classes(s.downloaded)}});
        return compact(QJsonDocument(QJsonObject{{"sizeDivisor", a.sizeDivisor}, {"services", services}}));
    }

    // The store's JSON, oldest first, from the server's account.
    static std::string expectedMessages(const zel5sim::Account& a)
    {
        QJsonArray list;
        for (const zel5sim::Message& m : a.messages)
            list.append(QJsonObject{{"date", QString::fromStdString(localDate(m.time))},
                                    {"subject", QString::fromStdString(m.subject)},
                                    {"text", QString::fromStdString(m.body)}});
        return compact(QJsonDocument(list));
    }

    qlonglong testStart = 0;
    std::string runtimeDir;
    std::string address;
    QString busName;
    std::unique_ptr<ChildProcess> daemon;
    std::unique_ptr<ChildProcess> tray;
    ChangeLog log;
};

// Each command asks the tray to refresh and waits for the signal that
// follows; they run back to back, as scripts do, so several refreshes fall
// within one second.
TEST_F(TrayBusTest, Zel5ctlAnswersThroughTheTrayWithTheAccountsValuesAndNoSessionOfItsOwn)
{
    const zel5sim::Account account = serverAccount();

    const CtlRun status = ctl({"status", "--json"});
    ASSERT_EQ(0, status.code) << status.err;
    EXPECT_EQ(R"({"balance":42.5,"internet":true,"messages":2,"online":true})", compact(status.out));

    const CtlRun report = ctl({"report", "--json"});
    ASSERT_EQ(0, report.code) << report.err;
    EXPECT_EQ(expectedReport(account), compact(report.out));

    const CtlRun messages = ctl({"messages", "--json"});
    ASSERT_EQ(0, messages.code) << messages.err;
    EXPECT_EQ(expectedMessages(account), compact(messages.out));

    const CtlRun switched = ctl({"switch-internet"});
    ASSERT_EQ(0, switched.code) << switched.err;
    EXPECT_EQ("Internet: off\n", switched.out);
    EXPECT_EQ(0, serverAccount().internetStatus) << "the server's switch did not move";

    const CtlRun text = ctl({"status"});
    ASSERT_EQ(0, text.code) << text.err;
    EXPECT_EQ("Internet: off\nBalance: 42.50\nMessages: 2\n", text.out);
    EXPECT_EQ("", text.err);

    EXPECT_EQ(1, sim->connectionsAccepted()) << "a session besides the tray's was opened";
}

TEST_F(TrayBusTest, TheInterfaceTellsTheAccountAndSignalsEachRefreshOnceWithWhatChanged)
{
    const zel5sim::Account account = serverAccount();
    const QVariantMap all = getAll();
    // The names and the types the interface declares: b, b, d, u, b, s, x.
    EXPECT_EQ("Balance InternetOn LastRefresh MessageCount NewMessages Online Report",
              all.keys().join(' ').toStdString());
    const auto type = [&](const char* name) { return all.value(QString::fromLatin1(name)).metaType().id(); };
    EXPECT_EQ(QMetaType::Bool, type("Online"));
    EXPECT_EQ(QMetaType::Bool, type("InternetOn"));
    EXPECT_EQ(QMetaType::Double, type("Balance"));
    EXPECT_EQ(QMetaType::UInt, type("MessageCount"));
    EXPECT_EQ(QMetaType::Bool, type("NewMessages"));
    EXPECT_EQ(QMetaType::QString, type("Report"));
    EXPECT_EQ(QMetaType::LongLong, type("LastRefresh"));

    EXPECT_TRUE(all.value("Online").toBool());
    EXPECT_TRUE(all.value("InternetOn").toBool());
    EXPECT_EQ(42.5, all.value("Balance").toDouble());
    EXPECT_EQ(2u, all.value("MessageCount").toUInt());
    EXPECT_TRUE(all.value("NewMessages").toBool()) << "both messages were new to the store";
    EXPECT_EQ(expectedReport(account), compact(all.value("Report").toString()));
    const qlonglong firstRefresh = all.value("LastRefresh").toLongLong();
    EXPECT_GE(firstRefresh, testStart);
    EXPECT_LE(firstRefresh, QDateTime::currentSecsSinceEpoch());

    const QDBusMessage messages = call(accountInterface, QStringLiteral("Messages"));
    ASSERT_TRUE(answered(messages));
    EXPECT_EQ(expectedMessages(account), compact(messages.arguments().value(0).toString()));

    // The balance moves at the server.
    ASSERT_TRUE(clockPastLastRefresh());
    ASSERT_TRUE(sim->withAccount(login, [](zel5sim::Account& a) { a.balance = 17.25; }));
    ASSERT_NO_FATAL_FAILURE(refreshAndCollect());
    ASSERT_EQ(1u, log.changes.size()) << shownChanges();
    EXPECT_TRUE(log.changes[0].contains("Balance") && log.changes[0].contains("LastRefresh")) << shownChanges();
    EXPECT_EQ(17.25, log.values[0].value("Balance").toDouble());
    const qlonglong secondRefresh = log.values[0].value("LastRefresh").toLongLong();
    EXPECT_GT(secondRefresh, firstRefresh);
    EXPECT_EQ(17.25, getAll().value("Balance").toDouble());

    // Nothing but the time.
    ASSERT_TRUE(clockPastLastRefresh());
    ASSERT_NO_FATAL_FAILURE(refreshAndCollect());
    ASSERT_EQ(1u, log.changes.size()) << shownChanges();
    EXPECT_EQ("LastRefresh", log.changes[0].join(' ').toStdString());
    EXPECT_GT(log.values[0].value("LastRefresh").toLongLong(), secondRefresh);
    EXPECT_EQ(1, sim->connectionsAccepted());
}

TEST_F(TrayBusTest, WaybarPrintsALineAtStartAndAnotherWhenTheTrayTellsANewBalance)
{
    ChildProcess waybar(asChild(command({"waybar"})), childEnvironment(), ChildProcess::CaptureBoth);
    ASSERT_TRUE(waybar.started()) << waybar.startError();
    std::string line;
    ASSERT_TRUE(lineFrom(waybar, line, "the first line of zel5ctl waybar"));
    QJsonObject shown = QJsonDocument::fromJson(QByteArray::fromStdString(line)).object();
    EXPECT_EQ("42.50", shown.value("text").toString().toStdString()) << line;
    EXPECT_EQ("internet-on", shown.value("alt").toString().toStdString()) << line;

    ASSERT_TRUE(sim->withAccount(login, [](zel5sim::Account& a) { a.balance = 3.5; }));
    ASSERT_TRUE(answered(call(accountInterface, QStringLiteral("Refresh"))));
    ASSERT_TRUE(lineFrom(waybar, line, "a line with the new balance"));
    shown = QJsonDocument::fromJson(QByteArray::fromStdString(line)).object();
    EXPECT_EQ("3.50", shown.value("text").toString().toStdString()) << line;
    EXPECT_EQ("internet-on", shown.value("alt").toString().toStdString()) << line;

    ASSERT_TRUE(waybar.signal(SIGTERM));
    const auto exit = waybar.waitExit(bound);
    ASSERT_TRUE(exit) << "waited " << bound.count() << " s for zel5ctl waybar to end after SIGTERM";
    EXPECT_EQ("", waybar.stderrText());
    EXPECT_EQ(1, sim->connectionsAccepted()) << "a session besides the tray's was opened";
}

// The windows cannot be seen offscreen; the calls must not wait for them,
// and a tray with the messages dialog open still answers and refreshes.
TEST_F(TrayBusTest, ShowAccountAndShowMessagesReturnAtOnceAndTheTrayKeepsAnswering)
{
    for (const char* method : {"ShowAccount", "ShowMessages"}) {
        SCOPED_TRACE(method);
        long long tookMs = 0;
        ASSERT_TRUE(answered(call(accountInterface, QString::fromLatin1(method), {}, &tookMs)));
        std::printf("[ timing   ] %s() answered after %lld ms\n", method, tookMs);
        EXPECT_LT(tookMs, atOnceMs) << method << "() waited for its window";
        const QVariantMap all = getAll();
        EXPECT_TRUE(all.value("Online").toBool()) << "GetAll after " << method << "(): "
                                                  << (all.isEmpty() ? "no answer" : "offline");
    }
    ASSERT_TRUE(sim->withAccount(login, [](zel5sim::Account& a) { a.balance = 8.0; }));
    ASSERT_TRUE(answered(call(accountInterface, QStringLiteral("Refresh"))));
    ASSERT_TRUE(until([&] { return getAll().value("Balance").toDouble() == 8.0; },
                      "the new balance with the messages dialog open"));
    const QDBusMessage messages = call(accountInterface, QStringLiteral("Messages"));
    ASSERT_TRUE(answered(messages));
    EXPECT_EQ(expectedMessages(serverAccount()), compact(messages.arguments().value(0).toString()));
}

} // namespace
} // namespace zel5test

int main(int argc, char** argv)
{
    if (argc >= 4 && std::strcmp(argv[1], zel5test::childArgument) == 0)
        return zel5test::runAsChild(argv);
    QCoreApplication app(argc, argv);
    // Message dates as the children (LC_ALL=C) write them.
    std::setlocale(LC_ALL, "C");
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

#include "bus_test.moc"
