// The built zel5ctl run against an in-process billing simulator with
// throw-away settings and data folders and a session bus address that leads
// nowhere, so that no tray is found and the user's own files are never
// touched. Every run has a bound; a child left by a failing test is killed.
#ifndef ZEL5_TESTS_CTLRUN_H
#define ZEL5_TESTS_CTLRUN_H

#include "billingsim.h"
#include "childprocess.h"
#include "config.h"
#include "reportformat.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
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
inline const char* const password = "c@rol-pass";

// The fixture account's traffic report as zel5ctl and the tray's menu show it:
// placeholders in names stay, sizes over 32 bits, negative ids, UTF-8.
inline const char* const reportText = "Service: Mail & Web %4\n"
                                      "Old Prepaid:\n"
                                      "    Traffic Class: Day (1), Size: 512.00 Mb\n"
                                      "Prepaid:\n"
                                      "    Traffic Class: Day (1), Size: 20480.00 Mb\n"
                                      "    Traffic Class: Night (\u00fc) (-2), Size: 0.00 Mb\n"
                                      "Downloaded:\n"
                                      "    Traffic Class: Local (3), Size: 1.50 Mb\n"
                                      "Service: TV\n"
                                      "Old Prepaid:\n"
                                      "Prepaid:\n"
                                      "Downloaded:\n"
                                      "    Traffic Class: %1 %2 (7), Size: 10.00 Mb\n";

// JSON parsed and written again, so that a difference shows as text.
inline std::string compact(const std::string& json)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(json), &error);
    if (error.error != QJsonParseError::NoError)
        return "(not JSON: " + error.errorString().toStdString() + ") " + json;
    return document.toJson(QJsonDocument::Compact).toStdString();
}

// A report's JSON read back and shown as text.
inline std::string reportTextOf(const std::string& json)
{
    MiniClient::ServiceList report;
    int divisor = 0;
    QString error;
    if (!reportFromJson(QJsonDocument::fromJson(QByteArray::fromStdString(json)).object(), report, divisor, error))
        return "(no report: " + error.toStdString() + ") " + json;
    return reportLines(report, divisor).join('\n').toStdString() + "\n";
}

// How one run of zel5ctl ended.
struct CtlRun {
    int code = -1; // -1: did not end within the bound, or a signal ended it
    std::string out;
    std::string err;
    std::chrono::milliseconds took{0};
};

class CtlTest : public ::testing::Test {
protected:
    // Far above what a run against a local server takes; only a hang reaches it.
    static constexpr std::chrono::seconds runBound{20};

    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        configHome = dir.filePath("config").toStdString();
        dataHome = dir.filePath("data").toStdString();
        // For the settings and the store read and written here; before any simulator thread runs.
        qputenv("XDG_CONFIG_HOME", configHome.c_str());
        qputenv("XDG_DATA_HOME", dataHome.c_str());
        const auto now = static_cast<std::int32_t>(std::time(nullptr));
        messageTimes = {now - 2 * 86400, now - 86400};
        sim = std::make_unique<zel5sim::BillingSim>(zel5sim::Options{.port = 0, .withDemoAccount = false});
        account.login = login;
        account.password = password;
        account.balance = 42.5;
        account.internetStatus = 1;
        account.sizeDivisor = 1048576;
        account.services = {{"Mail & Web %4", {{1, "Day", 536870912}},
                             {{1, "Day", 21474836480LL}, {-2, "Night (\xc3\xbc)", 1}}, {{3, "Local", 1572864}}},
                            {"TV", {}, {}, {{7, "%1 %2", 10485760}}}};
        account.messages = {
            {messageTimes[0], "Maintenance", "<p>Works &amp; repairs on <b>Saturday</b>.</p><p>Sorry!</p>"},
            {messageTimes[1], "New tariffs", "<ul><li>Home 100</li><li>Home 500</li></ul>"}};
        sim->putAccount(account);
        ASSERT_EQ(0, sim->start());
        ASSERT_NO_FATAL_FAILURE(writeSettings());
    }

    void TearDown() override { sim->stop(); }

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

    virtual std::vector<std::string> environment() const
    {
        // LC_ALL=C: the dates of the messages in the form this process makes them.
        return {"XDG_CONFIG_HOME=" + configHome, "XDG_DATA_HOME=" + dataHome,
                "DBUS_SESSION_BUS_ADDRESS=unix:path=/nonexistent", "LC_ALL=C"};
    }

    // The command line a child is started with.
    virtual std::vector<std::string> command(const std::vector<std::string>& args) const
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

    // The fixture account's messages as zel5ctl and the tray give them in JSON, oldest first.
    std::string messagesJson() const
    {
        QJsonArray list;
        for (const zel5sim::Message& m : account.messages)
            list.append(QJsonObject{{"date", QString::fromStdString(localDate(m.time))},
                                    {"subject", QString::fromStdString(m.subject)},
                                    {"text", QString::fromStdString(m.body)}});
        return QJsonDocument(list).toJson(QJsonDocument::Compact).toStdString();
    }

    QTemporaryDir dir;
    std::string configHome;
    std::string dataHome;
    std::vector<std::int32_t> messageTimes;
    zel5sim::Account account;
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
