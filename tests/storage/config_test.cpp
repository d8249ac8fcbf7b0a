#include "config.h"
#include "scramble.h"
#include "scratchhome.h"

#include <QMap>

namespace {

typedef QMap<QString, QMap<QString, QString>> Ini;

// A complete file as a subscriber's settings would leave it.
Ini goodFile()
{
    std::string secret = "secret";
    return {{"network", {{"address", "billing.example.net"}, {"login", "ivan"},
                         {"password", QString::fromStdString(encrypt(secret))}, {"port", "11759"},
                         {"web_server_address", "web.example.net:8443"}}},
            {"other", {{"refresh_rate", "300"}, {"switch_internet_on_start", "1"},
                       {"switch_internet_on_exit", "0"}, {"start_on_login", "1"}}},
            {"messages", {{"last_message_check", "1000"}}}};
}

class ConfigTest : public ScratchHome {
protected:
    QString file() const { return dir.filePath("config/zel5_trayrc"); }
    void writeConfig(const Ini& ini)
    {
        QByteArray text;
        for (auto g = ini.begin(); g != ini.end(); ++g) {
            text += "[" + g.key().toUtf8() + "]\n";
            for (auto k = g->begin(); k != g->end(); ++k)
                text += k.key().toUtf8() + "=" + k->toUtf8() + "\n";
        }
        write(file(), text);
    }
    // Loads the good file with one value replaced ("-" removes it).
    bool loadWith(const QString& group, const QString& key, const QString& value, Config<QString>& cfg)
    {
        Ini ini = goodFile();
        value == "-" ? void(ini[group].remove(key)) : void(ini[group][key] = value);
        writeConfig(ini);
        return cfg._load();
    }
};

} // namespace

TEST_F(ConfigTest, EachMissingOrInvalidValueFailsTheLoadWhereItIsRead)
{
    const char* failing[][3] = {
        {"network", "address", ""}, {"network", "login", "-"}, {"network", "password", ""},
        {"network", "port", "-5"}, {"network", "port", "http"}, {"other", "refresh_rate", "-"},
        {"other", "refresh_rate", "often"}, {"other", "switch_internet_on_start", "-"},
        {"other", "switch_internet_on_exit", "-"}, {"other", "start_on_login", "true"}};
    for (auto& f : failing) {
        Config<QString> cfg;
        EXPECT_FALSE(loadWith(f[0], f[1], f[2], cfg)) << f[1] << "=" << f[2];
        // Read up to the failure; the invalid value itself is not taken.
        const bool rateRead = QString(f[0]) == "other" && QString(f[1]) != "refresh_rate";
        EXPECT_EQ(cfg.refreshRate, rateRead ? 300 : 120);
        EXPECT_EQ(cfg.port, QString(f[0]) == "other" ? 11759 : 11758);
        EXPECT_EQ(cfg.lastMessageCheck, 0);
    }
    for (const char* group : {"network", "other", "messages"}) {
        Ini ini = goodFile();
        ini.remove(group);
        writeConfig(ini);
        Config<QString> cfg;
        EXPECT_FALSE(cfg._load()) << group;
        EXPECT_TRUE(cfg.address.isEmpty()); // a missing group stops before any member
    }
}

TEST_F(ConfigTest, ValuesAreClampedCopiedOrTakenAsTheyStand)
{
    Config<QString> cfg;
    ASSERT_TRUE(loadWith("other", "refresh_rate", "30", cfg));
    EXPECT_EQ(cfg.refreshRate, 120);
    EXPECT_TRUE(cfg.switchInternetOnStart && !cfg.switchInternetOnExit && cfg.startOnLogin);
    EXPECT_EQ(cfg.password, "secret");
    ASSERT_TRUE(loadWith("other", "refresh_rate", "5000", cfg));
    EXPECT_EQ(cfg.refreshRate, 1000);
    ASSERT_TRUE(loadWith("network", "port", "70000", cfg));
    EXPECT_EQ(cfg.port, 70000);
    ASSERT_TRUE(loadWith("network", "web_server_address", "", cfg));
    EXPECT_EQ(cfg.webServerAddress, "billing.example.net");
    ASSERT_TRUE(loadWith("network", "password", "bebeb", cfg));
    EXPECT_EQ(cfg.password, "(none)");
    ASSERT_TRUE(loadWith("messages", "last_message_check", "yesterday", cfg));
    EXPECT_EQ(cfg.lastMessageCheck, 0);
}

TEST_F(ConfigTest, SaveThenLoadGivesEverythingBackInTheStoredForms)
{
    Config<QString> out;
    out.address = "10.0.0.1";
    out.webServerAddress = "stats.example.net, 2nd floor";
    out.port = 4000;
    out.login = QString::fromUtf8("иван_petrov");
    out.password = QString::fromUtf8("пароль € \"x\" ;#=");
    out.lastMessageCheck = 1234567890;
    out.switchInternetOnExit = true;
    out.refreshRate = 600;
    ASSERT_TRUE(out._save(true)); // the configuration directory does not exist yet
    EXPECT_EQ(mode(file()), 0600);

    Config<QString> in;
    ASSERT_TRUE(in._load());
    EXPECT_EQ(QStringList({in.address, in.webServerAddress, in.login, in.password}),
              QStringList({out.address, out.webServerAddress, out.login, out.password}));
    EXPECT_TRUE(in.port == 4000 && in.lastMessageCheck == 1234567890 && in.refreshRate == 600);
    EXPECT_TRUE(!in.switchInternetOnStart && in.switchInternetOnExit && !in.startOnLogin);

    const QByteArray text = read(file());
    std::string plain = out.password.toUtf8().toStdString();
    for (QByteArray line : {"port=4000", "refresh_rate=600", "switch_internet_on_start=0",
                            "switch_internet_on_exit=1", "start_on_login=0", "last_message_check=1234567890"})
        EXPECT_TRUE(text.contains("\n" + line + "\n")) << line.constData() << " in\n" << text.constData();
    EXPECT_TRUE(text.contains("\npassword=" + QByteArray::fromStdString(encrypt(plain)) + "\n"));
}

TEST_F(ConfigTest, SavingOnlyTheMessageTimeLeavesTheRestAndTheFileStaysPrivate)
{
    writeConfig(goodFile());
    ASSERT_EQ(::chmod(QFile::encodeName(file()).constData(), 0644), 0);
    Config<QString> cfg;
    cfg.address = "other.example.net";
    cfg.lastMessageCheck = 2000;
    ASSERT_TRUE(cfg._save(false));
    EXPECT_EQ(mode(file()), 0600);
    ASSERT_TRUE(cfg._load());
    EXPECT_TRUE(cfg.address == "billing.example.net" && cfg.refreshRate == 300 && cfg.lastMessageCheck == 2000);

    // A configuration directory taken by a plain file: reported, not fatal.
    QDir(dir.filePath("config")).removeRecursively();
    write(dir.filePath("config"), "not a directory");
    EXPECT_FALSE(cfg._save(true));
    EXPECT_FALSE(cfg._load());
}
