// The built zel5ctl run against an in-process billing simulator with
// throw-away settings and data directories and a session bus address that
// leads nowhere, so that no tray is found and the user's own files are never
// touched. Every run has a bound; the child is killed and reaped when a test
// fails.
#ifndef ZEL5_TESTS_CTLRUN_H
#define ZEL5_TESTS_CTLRUN_H

#include "billingsim.h"
#include "childprocess.h"
#include "config.h"

#include <QString>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

namespace zel5test {

// The account every test starts from.
inline const char* const login = "carol";
inline const char* const password = "c@rol-pass";

// How one run of zel5ctl ended.
struct CtlRun {
    int code = -1; // -1: did not end within the bound, or a signal ended it
    std::string out;
    std::string err;
    std::chrono::milliseconds took{0};
};

class CtlTest : public ::testing::Test {
protected:
    // Far above what a run against a local server takes; only a hanging
    // program reaches it.
    static constexpr std::chrono::seconds runBound{20};

    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        configHome = dir.filePath("config").toStdString();
        dataHome = dir.filePath("data").toStdString();
        // For the settings and the store read and written here; before any
        // simulator thread runs.
        qputenv("XDG_CONFIG_HOME", configHome.c_str());
        qputenv("XDG_DATA_HOME", dataHome.c_str());
        messageTimes = {static_cast<std::int32_t>(std::time(nullptr)) - 2 * 86400,
                        static_cast<std::int32_t>(std::time(nullptr)) - 86400};
        zel5sim::Options options;
        options.port = 0;
        options.withDemoAccount = false;
        sim = std::make_unique<zel5sim::BillingSim>(options);
        sim->putAccount(account());
        ASSERT_EQ(0, sim->start());
        ASSERT_NO_FATAL_FAILURE(writeSettings());
    }

    void TearDown() override { sim->stop(); }

    zel5sim::Account account() const
    {
        zel5sim::Account a;
        a.login = login;
        a.password = password;
        a.balance = 42.5;
        a.internetStatus = 1;
        a.sizeDivisor = 1048576;
        a.services = {{"Mail & Web", {{1, "Day", 536870912}}, {{1, "Day", 1073741824}, {2, "Night", 0}},
                       {{3, "Local", 1572864}}},
                      {"TV", {}, {}, {{7, "Television", 10485760}}}};
        a.messages = {{messageTimes[0], "Maintenance", "<p>Works &amp; repairs on <b>Saturday</b>.</p><p>Sorry!</p>"},
                      {messageTimes[1], "New tariffs", "<ul><li>Home 100</li><li>Home 500</li></ul>"}};
        return a;
    }

    // Complete settings for the simulator's account; `change` alters them first.
    template <class Change> void writeSettings(Change change)
    {
        Config<QString> settings;
        settings.address = settings.webServerAddress = QStringLiteral("127.0.0.1");
        settings.port = sim->port();
        settings.login = QString::fromLatin1(login);
        settings.password = QString::fromLatin1(password);
        change(settings);
        ASSERT_TRUE(settings._save(true)) << "cannot write the settings file";
    }
    void writeSettings()
    {
        writeSettings([](Config<QString>&) {});
    }

    std::string storePath() const { return dataHome + "/zel5_tray/messages"; }
    std::string settingsPath() const { return configHome + "/zel5_trayrc"; }

    std::vector<std::string> environment() const
    {
        // LC_ALL=C: the dates of the messages in the form this process makes them.
        return {"XDG_CONFIG_HOME=" + configHome, "XDG_DATA_HOME=" + dataHome,
                "DBUS_SESSION_BUS_ADDRESS=unix:path=/nonexistent", "LC_ALL=C"};
    }

    std::vector<std::string> command(const std::vector<std::string>& args) const
    {
        std::vector<std::string> argv{ZEL5CTL_EXECUTABLE};
        argv.insert(argv.end(), args.begin(), args.end());
        return argv;
    }

    static std::string shown(const std::vector<std::string>& args)
    {
        std::string s = "zel5ctl";
        for (const std::string& a : args)
            s += " " + a;
        return s;
    }

    CtlRun run(const std::vector<std::string>& args)
    {
        CtlRun r;
        const auto start = std::chrono::steady_clock::now();
        ChildProcess child(command(args), environment(), ChildProcess::CaptureBoth);
        EXPECT_TRUE(child.started()) << child.startError();
        const auto exit = child.waitExit(runBound);
        EXPECT_TRUE(exit) << "waited " << runBound.count() << " s for " << shown(args) << " to end";
        r.took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
        if (exit)
            r.code = exit->code();
        r.out = child.takeStdout();
        r.err = child.stderrText();
        return r;
    }

    // A message time as the tray and zel5ctl show it (local time, C locale).
    static std::string localDate(std::int32_t time)
    {
        const std::time_t t = time;
        std::tm local{};
        char buf[64];
        if (!localtime_r(&t, &local))
            return std::string();
        return std::string(buf, std::strftime(buf, sizeof buf, "%d.%m.%Y %X", &local));
    }

    QTemporaryDir dir;
    std::string configHome;
    std::string dataHome;
    std::vector<std::int32_t> messageTimes;
    std::unique_ptr<zel5sim::BillingSim> sim;
};

// What a failed run must look like: its code, one line on standard error
// that begins with the program's name.
inline ::testing::AssertionResult failedWith(int code, const CtlRun& r)
{
    const bool oneLine = r.err.rfind("zel5ctl: ", 0) == 0 && r.err.find('\n') == r.err.size() - 1;
    if (r.code == code && oneLine)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "expected exit code " << code << " and one line on standard error; got "
                                         << r.code << " and \"" << r.err << "\"";
}

} // namespace zel5test

#endif
