// The built zel5ctl against an in-process simulator, throw-away folders and a bus that leads nowhere.
#ifndef ZEL5_TESTS_CTLRUN_H
#define ZEL5_TESTS_CTLRUN_H

#include "billingsim.h"
#include "childprocess.h"
#include "config.h"
#include "filefinder.h"

#include <QJsonDocument>
#include <QString>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

namespace zel5test {

using namespace std::chrono_literals;

inline const char* const login = "carol";

struct PathFinder : FileFinder {
    explicit PathFinder(std::string p) : path(std::move(p)) {}
    std::string findFile(fileType) override { return path; }
    std::string path;
};

// JSON written again compactly, so that a difference shows as text.
inline std::string compact(const std::string& json)
{
    const QJsonDocument d = QJsonDocument::fromJson(QByteArray::fromStdString(json));
    return d.isNull() ? "(not JSON) " + json : d.toJson(QJsonDocument::Compact).toStdString();
}

struct CtlRun {
    int code = -1; // -1: no end within the bound, or a signal
    std::string out, err;
    std::chrono::milliseconds took{0};
};

class CtlTest : public ::testing::Test {
protected:
    static constexpr std::chrono::seconds runBound{20}; // only a hang reaches it

    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        configHome = dir.filePath("config").toStdString();
        dataHome = dir.filePath("data").toStdString();
        // The settings and store this process reads; before any simulator thread runs.
        qputenv("XDG_CONFIG_HOME", configHome.c_str());
        qputenv("XDG_DATA_HOME", dataHome.c_str());
        const auto now = static_cast<std::int32_t>(std::time(nullptr));
        messageTimes = {now - 2 * 86400, now - 86400};
        sim = std::make_unique<zel5sim::BillingSim>(zel5sim::Options{.port = 0, .withDemoAccount = false});
        // Placeholders in names, sizes over 32 bits, negative ids, UTF-8.
        sim->putAccount({.login = login, .password = "c@rol-pass", .balance = 42.5, .internetStatus = 1,
            .services = {{"Mail & Web %4", {{1, "Day", 536870912}},
                          {{1, "Day", 21474836480LL}, {-2, "Night (\xc3\xbc)", 1}}, {{3, "Local", 1572864}}},
                         {"TV", {}, {}, {{7, "%1 %2", 10485760}}}},
            .messages = {{messageTimes[0], "Maintenance", "<p>Works &amp; repairs on <b>Saturday</b>.</p><p>Sorry!</p>"},
                         {messageTimes[1], "New tariffs", "<ul><li>Home 100</li><li>Home 500</li></ul>"}}});
        ASSERT_EQ(0, sim->start());
        ASSERT_NO_FATAL_FAILURE(writeSettings([](Config<QString>&) {}));
    }

    void TearDown() override { sim->stop(); }

    // Complete settings for the simulator's account, altered by `change`.
    template <class Change> void writeSettings(Change change)
    {
        Config<QString> settings;
        settings.address = settings.webServerAddress = QStringLiteral("127.0.0.1");
        settings.port = sim->port();
        settings.login = QString::fromLatin1(login);
        settings.password = QStringLiteral("c@rol-pass");
        change(settings);
        ASSERT_TRUE(settings._save(true)) << "cannot write the settings";
    }

    std::string storePath() const { return dataHome + "/zel5_tray/messages"; }

    virtual std::vector<std::string> environment() const
    {
        // LC_ALL=C: message dates in the form this process makes them.
        return {"XDG_CONFIG_HOME=" + configHome, "XDG_DATA_HOME=" + dataHome,
                "DBUS_SESSION_BUS_ADDRESS=unix:path=/nonexistent", "LC_ALL=C"};
    }

    virtual std::vector<std::string> command(const std::vector<std::string>& args) const
    {
        std::vector<std::string> argv{ZEL5CTL_EXECUTABLE};
        argv.insert(argv.end(), args.begin(), args.end());
        return argv;
    }

    CtlRun run(const std::vector<std::string>& args)
    {
        const auto start = std::chrono::steady_clock::now();
        ChildProcess child(command(args), environment(), ChildProcess::CaptureBoth);
        EXPECT_TRUE(child.started()) << child.startError();
        const auto exit = child.waitExit(runBound);
        EXPECT_TRUE(exit) << "zel5ctl " << (args.empty() ? "" : args[0]) << " to end";
        return {exit ? exit->code() : -1, child.takeStdout(), child.stderrText(),
                std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)};
    }

    QTemporaryDir dir;
    std::string configHome, dataHome;
    std::vector<std::int32_t> messageTimes;
    std::unique_ptr<zel5sim::BillingSim> sim;
};

// A failed run: its code and one line on standard error that begins with the program's name.
inline ::testing::AssertionResult failedWith(int code, const CtlRun& r)
{
    if (r.code == code && r.err.rfind("zel5ctl: ", 0) == 0 && r.err.find('\n') == r.err.size() - 1)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "code " << r.code << ", \"" << r.err << "\"";
}

} // namespace zel5test

#endif
