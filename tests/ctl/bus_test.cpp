// The built tray, offscreen against the simulator on a private session bus: its D-Bus interface and zel5ctl through it.
#include "ctlrun.h"

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDateTime>
#include <QEventLoop>
#include <QFile>
#include <QJsonObject>
#include <QTimer>
#include <QVariantMap>

#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>

namespace zel5test {
namespace {

using Clock = std::chrono::steady_clock;

const QString trayService = "net.orvane.Zel5Tray", trayPath = "/net/orvane/Zel5Tray";
const QString accountInterface = "net.orvane.Zel5Tray.Account", propertiesInterface = "org.freedesktop.DBus.Properties";

constexpr auto bound = 10s; // only a hang reaches it
constexpr long long atOnceMs = 200; // the tray's methods hand their work to its event loop

// With this first argument the test program execs the real one, which then dies with the test.
const char* const childArgument = "--as-child-of";

int runAsChild(char** argv)
{
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && ::getppid() == std::atol(argv[2]))
        ::execvp(argv[3], argv + 3);
    std::fprintf(stderr, "cannot run %s: %s\n", argv[3], std::strerror(errno));
    return 127;
}

std::vector<std::string> asChild(const std::vector<std::string>& argv)
{
    char self[4096];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    std::vector<std::string> all{std::string(self, n > 0 ? n : 0), childArgument, std::to_string(::getpid())};
    all.insert(all.end(), argv.begin(), argv.end());
    return all;
}

// The account interface's PropertiesChanged signals, in order.
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
        changes.push_back(changed.keys() + invalidated);
        changes.back().sort();
        values.push_back(changed);
    }
};

// A private session bus, the simulator's account (CtlTest) and the built tray logged in to it.
class TrayBusTest : public CtlTest {
protected:
    void SetUp() override
    {
        testStart = QDateTime::currentSecsSinceEpoch();
        ASSERT_NO_FATAL_FAILURE(CtlTest::SetUp());
        runtimeDir = dir.filePath(QStringLiteral("run")).toStdString();
        ASSERT_EQ(0, ::mkdir(runtimeDir.c_str(), 0700)) << std::strerror(errno);
        ASSERT_NO_FATAL_FAILURE(startBus());
        tray = std::make_unique<ChildProcess>(asChild({ZEL5_TRAY_EXECUTABLE}), environment(),
                                              ChildProcess::CaptureStderr);
        ASSERT_TRUE(tray->started()) << tray->startError();
        ASSERT_TRUE(until([&] { return getAll().value(QStringLiteral("Online")).toBool(); }, "the tray online on the bus"));
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

    // A session dbus-daemon that activates no services, so nothing it could start outlives the test.
    void startBus()
    {
        const QString config = dir.filePath("bus.conf");
        QFile file(config);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_TRUE(file.write("<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
                   " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                   "<busconfig><type>session</type><listen>unix:dir="
                   + QByteArray::fromStdString(runtimeDir)
                   + "</listen><auth>EXTERNAL</auth>"
                     "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
                     "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n") > 0 && file.flush());
        daemon = std::make_unique<ChildProcess>(asChild({"dbus-daemon", "--config-file=" + config.toStdString(),
                                                         "--nofork", "--print-address=1"}),
                                                std::vector<std::string>{}, ChildProcess::CaptureBoth);
        ASSERT_TRUE(daemon->started()) << daemon->startError();
        ASSERT_EQ(ChildProcess::Read::Line, daemon->readLine(address, bound)) << "the bus address " << daemon->stderrText();
        ASSERT_EQ(0u, address.rfind("unix:", 0)) << address;
        static int buses = 0;
        busName = QString("zel5-bus-test-%1").arg(++buses);
        ASSERT_TRUE(QDBusConnection::connectToBus(QString::fromStdString(address), busName).isConnected()) << address;
    }

    QDBusConnection bus() const { return QDBusConnection(busName); }

    std::vector<std::string> environment() const override
    {
        return {"QT_QPA_PLATFORM=offscreen", "XDG_CONFIG_HOME=" + configHome, "XDG_DATA_HOME=" + dataHome,
                "XDG_RUNTIME_DIR=" + runtimeDir, "DBUS_SESSION_BUS_ADDRESS=" + address,
                "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + runtimeDir + "/no-bus", "LC_ALL=C"};
    }

    std::vector<std::string> command(const std::vector<std::string>& args) const override { return asChild(CtlTest::command(args)); }

    // Waits for done() while the bus's signals are delivered; fails when the tray ends or `within` passes.
    ::testing::AssertionResult until(const std::function<bool()>& done, const std::string& what,
                                     std::chrono::milliseconds within = bound)
    {
        for (const auto start = Clock::now();;) {
            QCoreApplication::processEvents();
            if (done())
                return ::testing::AssertionSuccess();
            const auto ended = tray->waitExit(1ms);
            if (ended || Clock::now() - start >= within)
                return ::testing::AssertionFailure() << "waited for " << what << (ended ? "; the tray " + ended->describe() : "")
                                                     << "\n" << tray->stderrText();
            deliverEventsFor(10ms);
        }
    }

    static void deliverEventsFor(std::chrono::milliseconds time)
    {
        QEventLoop loop;
        QTimer::singleShot(time, &loop, &QEventLoop::quit), loop.exec();
    }

    // Calls a method of the tray; `tookMs` is how long the answer took.
    QDBusMessage call(const QString& method, long long* tookMs = nullptr, const QString& interface = accountInterface,
                      const QVariantList& args = {})
    {
        QDBusMessage message = QDBusMessage::createMethodCall(trayService, trayPath, interface, method);
        message.setArguments(args);
        const auto start = Clock::now();
        const QDBusMessage reply = bus().call(message, QDBus::Block, 5000);
        if (tookMs)
            *tookMs = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
        return reply;
    }

    static ::testing::AssertionResult answered(const QDBusMessage& reply)
    {
        return reply.type() == QDBusMessage::ReplyMessage ? ::testing::AssertionSuccess()
                                                           : ::testing::AssertionFailure() << reply.errorMessage().toStdString();
    }

    // The account's properties; empty while the tray does not answer.
    QVariantMap getAll()
    {
        const QDBusMessage reply = call("GetAll", nullptr, propertiesInterface, {accountInterface});
        return reply.type() == QDBusMessage::ReplyMessage ? qdbus_cast<QVariantMap>(reply.arguments().value(0))
                                                          : QVariantMap();
    }

    // Refresh() once the clock passed LastRefresh (seconds); the log then holds only what followed it.
    void refreshAndCollect()
    {
        const qlonglong last = getAll().value(QStringLiteral("LastRefresh")).toLongLong();
        ASSERT_TRUE(until([&] { return QDateTime::currentSecsSinceEpoch() > last; }, "the clock to pass LastRefresh", 2s));
        QCoreApplication::processEvents(); // signals sent before the GetAll answer
        log.changes.clear(), log.values.clear();
        long long tookMs = 0;
        ASSERT_TRUE(answered(call("Refresh", &tookMs)));
        EXPECT_LT(tookMs, atOnceMs) << "Refresh() waited for the refresh";
        ASSERT_TRUE(until([&] { return !log.changes.empty(); }, "PropertiesChanged after Refresh()"));
        deliverEventsFor(500ms); // a second signal for the same refresh would come within milliseconds
        ASSERT_EQ(1u, log.changes.size()) << "signals for one refresh";
    }

    qlonglong testStart = 0;
    std::string runtimeDir, address;
    QString busName;
    std::unique_ptr<ChildProcess> daemon, tray;
    ChangeLog log;
};

// zel5ctl through the tray, back to back as scripts run it: the tray's values, no session of its own.
TEST_F(TrayBusTest, Zel5ctlAnswersThroughTheTrayWithoutASessionOfItsOwn)
{
    const QVariantMap all = getAll();
    const CtlRun report = run({"report", "--json"});
    ASSERT_EQ(0, report.code) << report.err;
    EXPECT_EQ(compact(all.value("Report").toString().toStdString()), compact(report.out));
    const CtlRun messages = run({"messages", "--json"});
    ASSERT_EQ(0, messages.code) << messages.err;
    EXPECT_EQ(compact(call("Messages").arguments().value(0).toString().toStdString()), compact(messages.out));
    EXPECT_NE(std::string::npos, messages.out.find("New tariffs")) << messages.out;

    const CtlRun switched = run({"switch-internet"});
    ASSERT_EQ(0, switched.code) << switched.err;
    EXPECT_EQ("Internet: off\n", switched.out);
    zel5sim::Account a;
    ASSERT_TRUE(sim->getAccount(login, a));
    EXPECT_EQ(0, a.internetStatus) << "the server's switch did not move";
    const CtlRun text = run({"status"});
    EXPECT_EQ("Internet: off\nBalance: 42.50\nMessages: 2\n", text.out) << text.err;
    EXPECT_EQ(1, sim->connectionsAccepted()) << "a session besides the tray's";
}

TEST_F(TrayBusTest, TheInterfaceTellsTheAccountAndSignalsEachRefreshOnceWithWhatChanged)
{
    const QVariantMap all = getAll();
    std::string types;
    for (auto it = all.begin(); it != all.end(); ++it)
        types += it.key().toStdString() + ":" + it.value().typeName() + " ";
    EXPECT_EQ("Balance:double InternetOn:bool LastRefresh:qlonglong MessageCount:uint NewMessages:bool Online:bool "
              "Report:QString ",
              types);
    EXPECT_EQ(42.5, all.value("Balance").toDouble());
    EXPECT_EQ(2u, all.value("MessageCount").toUInt());
    EXPECT_TRUE(all.value("NewMessages").toBool()) << "both messages were new to the store";
    const qlonglong firstRefresh = all.value("LastRefresh").toLongLong();
    EXPECT_GE(firstRefresh, testStart);

    ASSERT_TRUE(sim->withAccount(login, [](zel5sim::Account& a) { a.balance = 17.25; }));
    ASSERT_NO_FATAL_FAILURE(refreshAndCollect());
    EXPECT_EQ("Balance LastRefresh", log.changes[0].join(' ').toStdString());
    EXPECT_EQ(17.25, log.values[0].value("Balance").toDouble());
    EXPECT_GT(log.values[0].value("LastRefresh").toLongLong(), firstRefresh);
    // Nothing changed but the time.
    ASSERT_NO_FATAL_FAILURE(refreshAndCollect());
    EXPECT_EQ("LastRefresh", log.changes[0].join(' ').toStdString());
    EXPECT_EQ(1, sim->connectionsAccepted());
}

TEST_F(TrayBusTest, WaybarPrintsALineAtStartAndAnotherWhenTheTrayTellsANewBalance)
{
    ChildProcess waybar(command({"waybar"}), environment(), ChildProcess::CaptureBoth);
    ASSERT_TRUE(waybar.started()) << waybar.startError();
    for (const char* balance : {"42.50", "3.50"}) {
        std::string line;
        ASSERT_EQ(ChildProcess::Read::Line, waybar.readLine(line, bound)) << balance << " " << waybar.stderrText();
        const QJsonObject shown = QJsonDocument::fromJson(QByteArray::fromStdString(line)).object();
        EXPECT_EQ(balance, shown.value("text").toString().toStdString()) << line;
        ASSERT_TRUE(sim->withAccount(login, [](zel5sim::Account& a) { a.balance = 3.5; }));
        ASSERT_TRUE(answered(call("Refresh")));
    }
    ASSERT_TRUE(waybar.signal(SIGTERM));
    ASSERT_TRUE(waybar.waitExit(bound)) << "zel5ctl waybar to end after SIGTERM";
    EXPECT_EQ("", waybar.stderrText());
    EXPECT_EQ(1, sim->connectionsAccepted()) << "a session besides the tray's";
}

} // namespace
} // namespace zel5test

int main(int argc, char** argv)
{
    if (argc >= 4 && std::strcmp(argv[1], zel5test::childArgument) == 0)
        return zel5test::runAsChild(argv);
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

#include "bus_test.moc"
