#include "config.h"
#include "scramble.h"
#include "scratchhome.h"

#include <QDir>
#include <QMap>

#include <sys/stat.h>

#include <functional>
#include <string>

namespace {

typedef QMap<QString, QMap<QString, QString>> Ini;

QString scrambled(const char* plain)
{
    std::string p(plain);
    return QString::fromStdString(encrypt(p));
}

// A complete, valid file as a subscriber's settings would leave it.
Ini goodFile()
{
    Ini ini;
    ini["network"] = {{"address", "billing.example.net"}, {"login", "ivan"},
                      {"password", scrambled("secret")}, {"port", "11759"},
                      {"web_server_address", "web.example.net:8443"}};
    ini["other"] = {{"refresh_rate", "300"}, {"switch_internet_on_start", "1"},
                    {"switch_internet_on_exit", "0"}, {"start_on_login", "1"}};
    ini["messages"] = {{"last_message_check", "1000"}};
    return ini;
}

QByteArray render(const Ini& ini)
{
    QByteArray text;
    for (auto g = ini.begin(); g != ini.end(); ++g) {
        text += "[" + g.key().toUtf8() + "]\n";
        for (auto k = g.value().begin(); k != g.value().end(); ++k)
            text += k.key().toUtf8() + "=" + k.value().toUtf8() + "\n";
        text += "\n";
    }
    return text;
}

class ConfigTest : public ScratchHome {
protected:
    void writeConfig(const Ini& ini) { writeAll(configFile(), render(ini)); }
};

} // namespace

TEST_F(ConfigTest, LoadsACompleteFile)
{
    writeConfig(goodFile());
    Config<QString> cfg;
    ASSERT_TRUE(cfg._load());
    EXPECT_EQ(cfg.address, "billing.example.net");
    EXPECT_EQ(cfg.login, "ivan");
    EXPECT_EQ(cfg.password, "secret");
    EXPECT_EQ(cfg.port, 11759);
    EXPECT_EQ(cfg.webServerAddress, "web.example.net:8443");
    EXPECT_EQ(cfg.refreshRate, 300);
    EXPECT_TRUE(cfg.switchInternetOnStart);
    EXPECT_FALSE(cfg.switchInternetOnExit);
    EXPECT_TRUE(cfg.startOnLogin);
    EXPECT_EQ(cfg.lastMessageCheck, 1000);
    EXPECT_FALSE(cfg.loaded); // the caller decides that
    EXPECT_TRUE(cfg.saveSettings);
}

TEST_F(ConfigTest, EachMissingOrInvalidRequiredValueFailsTheLoad)
{
    struct Case {
        const char* what;
        std::function<void(Ini&)> damage;
    };
    const Case cases[] = {
        {"no file at all", [](Ini& ini) { ini.clear(); }},
        {"no network group", [](Ini& ini) { ini.remove("network"); }},
        {"no other group", [](Ini& ini) { ini.remove("other"); }},
        {"no messages group", [](Ini& ini) { ini.remove("messages"); }},
        {"empty address", [](Ini& ini) { ini["network"]["address"] = ""; }},
        {"no login", [](Ini& ini) { ini["network"].remove("login"); }},
        {"empty password", [](Ini& ini) { ini["network"]["password"] = ""; }},
        {"negative port", [](Ini& ini) { ini["network"]["port"] = "-5"; }},
        {"port not a number", [](Ini& ini) { ini["network"]["port"] = "http"; }},
        {"no refresh rate", [](Ini& ini) { ini["other"].remove("refresh_rate"); }},
        {"refresh rate not a number", [](Ini& ini) { ini["other"]["refresh_rate"] = "often"; }},
        {"no switch on start", [](Ini& ini) { ini["other"].remove("switch_internet_on_start"); }},
        {"no switch on exit", [](Ini& ini) { ini["other"].remove("switch_internet_on_exit"); }},
        {"no start on login", [](Ini& ini) { ini["other"].remove("start_on_login"); }},
        {"switch written as a word", [](Ini& ini) { ini["other"]["start_on_login"] = "true"; }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Ini ini = goodFile();
        c.damage(ini);
        QFile::remove(configFile());
        if (!ini.isEmpty())
            writeConfig(ini);
        Config<QString> cfg;
        EXPECT_FALSE(cfg._load());
    }
}

TEST_F(ConfigTest, AFailedLoadKeepsWhatWasReadBeforeTheFailure)
{
    Ini ini = goodFile();
    ini.remove("messages");
    writeConfig(ini);
    Config<QString> cfg;
    ASSERT_FALSE(cfg._load());
    EXPECT_TRUE(cfg.address.isEmpty()); // a missing group stops before any member

    ini = goodFile();
    ini["other"].remove("switch_internet_on_exit");
    writeConfig(ini);
    ASSERT_FALSE(cfg._load());
    EXPECT_EQ(cfg.address, "billing.example.net");
    EXPECT_EQ(cfg.port, 11759);
    EXPECT_EQ(cfg.refreshRate, 300);
    EXPECT_TRUE(cfg.switchInternetOnStart);
    EXPECT_FALSE(cfg.startOnLogin); // not reached: the default stays
    EXPECT_EQ(cfg.lastMessageCheck, 0);
}

TEST_F(ConfigTest, ValuesAreClampedCopiedOrTakenAsTheyStand)
{
    struct Case {
        const char* key;
        const char* value;
        std::function<void(const Config<QString>&)> check;
    };
    const Case cases[] = {
        {"refresh_rate", "30", [](const Config<QString>& c) { EXPECT_EQ(c.refreshRate, 120); }},
        {"refresh_rate", "5000", [](const Config<QString>& c) { EXPECT_EQ(c.refreshRate, 1000); }},
        {"port", "0", [](const Config<QString>& c) { EXPECT_EQ(c.port, 0); }},
        {"port", "70000", [](const Config<QString>& c) { EXPECT_EQ(c.port, 70000); }},
        {"web_server_address", "",
         [](const Config<QString>& c) { EXPECT_EQ(c.webServerAddress, "billing.example.net"); }},
        {"password", "bebeb", [](const Config<QString>& c) { EXPECT_EQ(c.password, "(none)"); }},
        {"last_message_check", "", [](const Config<QString>& c) { EXPECT_EQ(c.lastMessageCheck, 0); }},
        {"last_message_check", "yesterday",
         [](const Config<QString>& c) { EXPECT_EQ(c.lastMessageCheck, 0); }},
        {"switch_internet_on_exit", "7",
         [](const Config<QString>& c) { EXPECT_TRUE(c.switchInternetOnExit); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.key) + "=" + c.value);
        Ini ini = goodFile();
        for (auto g = ini.begin(); g != ini.end(); ++g) {
            if (g.value().contains(c.key))
                g.value()[c.key] = c.value;
        }
        writeConfig(ini);
        Config<QString> cfg;
        ASSERT_TRUE(cfg._load());
        c.check(cfg);
    }
}

TEST_F(ConfigTest, SaveThenLoadGivesEverythingBack)
{
    Config<QString> out;
    out.address = "10.0.0.1";
    out.webServerAddress = "stats.example.net, 2nd floor"; // comma and blank survive
    out.port = 4000;
    out.login = QString::fromUtf8("иван_petrov");
    out.password = QString::fromUtf8("пароль € \"x\" ;#=");
    out.lastMessageCheck = 1234567890;
    out.switchInternetOnStart = true;
    out.switchInternetOnExit = true;
    out.startOnLogin = false;
    out.refreshRate = 600;
    ASSERT_TRUE(out._save(true));

    Config<QString> in;
    ASSERT_TRUE(in._load());
    EXPECT_EQ(in.address, out.address);
    EXPECT_EQ(in.webServerAddress, out.webServerAddress);
    EXPECT_EQ(in.port, 4000);
    EXPECT_EQ(in.login, out.login);
    EXPECT_EQ(in.password, out.password);
    EXPECT_EQ(in.lastMessageCheck, 1234567890);
    EXPECT_TRUE(in.switchInternetOnStart);
    EXPECT_TRUE(in.switchInternetOnExit);
    EXPECT_FALSE(in.startOnLogin);
    EXPECT_EQ(in.refreshRate, 600);

    // The file keeps the stored forms: plain integers, switches as 0/1, the
    // password only scrambled, the keys unmangled.
    const QByteArray text = readAll(configFile());
    std::string plain = out.password.toUtf8().toStdString();
    EXPECT_TRUE(text.contains("\npassword=" + QByteArray::fromStdString(encrypt(plain)) + "\n")) << text.constData();
    EXPECT_FALSE(text.contains(out.password.toUtf8()));
    for (const char* line : {"\nport=4000\n", "\nrefresh_rate=600\n", "\nswitch_internet_on_start=1\n",
                             "\nswitch_internet_on_exit=1\n", "\nstart_on_login=0\n",
                             "\nlast_message_check=1234567890\n", "[network]", "[other]", "[messages]"})
        EXPECT_TRUE(text.contains(line)) << line << " in\n" << text.constData();
}

TEST_F(ConfigTest, SavingOnlyTheMessageTimeLeavesTheRestOfTheFile)
{
    writeConfig(goodFile());
    Config<QString> cfg;
    cfg.address = "other.example.net";
    cfg.refreshRate = 999;
    cfg.lastMessageCheck = 2000;
    ASSERT_TRUE(cfg._save(false));

    Config<QString> in;
    ASSERT_TRUE(in._load());
    EXPECT_EQ(in.address, "billing.example.net");
    EXPECT_EQ(in.password, "secret");
    EXPECT_EQ(in.refreshRate, 300);
    EXPECT_EQ(in.lastMessageCheck, 2000);

    // Without a file, only the message time is written: the load still fails.
    QFile::remove(configFile());
    ASSERT_TRUE(cfg._save(false));
    EXPECT_FALSE(in._load());
    EXPECT_TRUE(readAll(configFile()).contains("last_message_check=2000"));
    EXPECT_FALSE(readAll(configFile()).contains("address"));
}

TEST_F(ConfigTest, TheFileIsPrivateToItsOwner)
{
    Config<QString> cfg;
    cfg.password = "secret";
    ASSERT_TRUE(cfg._save(true)); // the configuration directory does not exist yet
    EXPECT_EQ(mode(configFile()), 0600);

    ASSERT_EQ(::chmod(QFile::encodeName(configFile()).constData(), 0644), 0);
    ASSERT_TRUE(cfg._save(false));
    EXPECT_EQ(mode(configFile()), 0600);

    ASSERT_EQ(::chmod(QFile::encodeName(configFile()).constData(), 0664), 0);
    ASSERT_TRUE(cfg._save(true));
    EXPECT_EQ(mode(configFile()), 0600);
}

TEST_F(ConfigTest, AnUnwritableLocationIsReportedNotFatal)
{
    // The configuration directory is taken by a plain file.
    writeAll(dir.filePath("config"), "not a directory");
    Config<QString> cfg;
    cfg.address = "a";
    EXPECT_FALSE(cfg._save(true));
    EXPECT_FALSE(cfg._load());
    EXPECT_EQ(cfg.address, "a");
}
