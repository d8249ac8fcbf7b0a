// The accounts file: a good file serves its accounts; every kind of bad file
// is refused whole with a line that names the file and the problem.
#include "simtestclient.h"

#include <QTemporaryDir>

#include <fstream>

using zel5sim::Account;
using zel5sim::BillingSim;

namespace {

class AccountsFileTest : public ::testing::Test {
protected:
    std::string write(const std::string& content)
    {
        const std::string path = dir.filePath("accounts.json").toStdString();
        std::ofstream(path, std::ios::trunc) << content;
        return path;
    }

    QTemporaryDir dir;
    BillingSim sim;
};

const char* const goodFile = R"([
  {
    "login": "alice", "password": "wonderland", "balance": 42.75, "internet": true,
    "divisor": 1000,
    "services": [
      { "name": "Internet",
        "oldPrepaid": [ { "id": 1, "name": "Day", "size": 1024 } ],
        "prepaid": [],
        "downloaded": [ { "id": 2, "name": "Night \u00fcber", "size": 6000000000 } ] },
      { "name": "Empty" }
    ],
    "messages": [ { "time": 1700000000, "subject": "Hello", "body": "<b>Hi</b>" } ]
  },
  { "login": "demo", "password": "other" }
])";

TEST_F(AccountsFileTest, GoodFileAddsAndReplacesAccounts)
{
    std::string error;
    ASSERT_TRUE(sim.loadAccounts(write(goodFile), error)) << error;

    Account a;
    ASSERT_TRUE(sim.getAccount("alice", a));
    EXPECT_EQ("wonderland", a.password);
    EXPECT_EQ(42.75, a.balance);
    EXPECT_EQ(1, a.internetStatus);
    EXPECT_EQ(1000, a.sizeDivisor);
    ASSERT_EQ(2u, a.services.size());
    ASSERT_EQ(1u, a.services[0].downloaded.size());
    EXPECT_EQ("Night \xc3\xbc" "ber", a.services[0].downloaded[0].name); // UTF-8 on the wire
    EXPECT_EQ(6000000000LL, a.services[0].downloaded[0].size);
    EXPECT_EQ(1024, a.services[0].oldPrepaid[0].size);
    EXPECT_TRUE(a.services[1].prepaid.empty());
    ASSERT_EQ(1u, a.messages.size());
    EXPECT_EQ(1700000000, a.messages[0].time);

    // Defaults of a minimal account; the demo login is replaced.
    Account demo;
    ASSERT_TRUE(sim.getAccount("demo", demo));
    EXPECT_EQ("other", demo.password);
    EXPECT_EQ(0, demo.internetStatus);
    EXPECT_EQ(1048576, demo.sizeDivisor);
    EXPECT_TRUE(demo.services.empty());

    zel5sim::Options o;
    o.port = 0;
    BillingSim server(o);
    ASSERT_TRUE(server.loadAccounts(write(goodFile), error));
    ASSERT_EQ(0, server.start());
    auto c = simtest::login(server, "alice", "wonderland");
    EXPECT_TRUE(c->connected());
}

TEST_F(AccountsFileTest, BadFilesAreRefusedWhole)
{
    const struct {
        const char* content;
        const char* problem;
    } cases[] = {
        {"", "not valid JSON at line 1"},
        {"[\n{\"login\": \"a\",\n \"password\" \"x\"}]", "not valid JSON at line 3"},
        {R"({"login": "a", "password": "b"})", "list of accounts"},
        {R"([{"password": "b"}])", "account 1: missing \"login\""},
        {R"([{"login": "", "password": "b"}])", "\"login\" is empty"},
        {R"([{"login": "a"}])", "account 1 (\"a\"): missing \"password\""},
        {R"([{"login": "a", "password": "b", "ballance": 1}])", "unknown key \"ballance\""},
        {R"([{"login": "a", "password": "b", "balance": "1"}])", "\"balance\" must be a number"},
        {R"([{"login": "a", "password": "b", "internet": 2}])", "\"internet\" must be a whole number"},
        {R"([{"login": "a", "password": "b", "divisor": 0}])", "\"divisor\" must be a whole number"},
        {R"([{"login": "a", "password": "b"}, {"login": "a", "password": "c"}])", "account 2: login \"a\" appears twice"},
        {R"([{"login": "a", "password": "b", "services": [{"prepaid": []}]}])", "services[0]: missing \"name\""},
        {R"([{"login": "a", "password": "b", "services": [{"name": "s", "prepaid": [{"id": 1, "name": "n", "size": -1}]}]}])",
         "services[0].prepaid[0]: \"size\" must be a whole number"},
        {R"([{"login": "a", "password": "b", "services": [{"name": "s", "downloaded": [{"id": 1.5, "name": "n", "size": 1}]}]}])",
         "\"id\" must be a whole number"},
        {R"([{"login": "a", "password": "b", "messages": [{"time": "now", "subject": "s", "body": "b"}]}])",
         "messages[0]: \"time\" must be a whole number"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content);
        const std::string path = write(c.content);
        std::string error;
        EXPECT_FALSE(sim.loadAccounts(path, error));
        EXPECT_EQ(0u, error.find(path + ": ")) << error;
        EXPECT_NE(std::string::npos, error.find(c.problem)) << error;
        EXPECT_EQ(std::string::npos, error.find('\n'));
    }
    // A good account before the bad part is not loaded either.
    std::string error;
    EXPECT_FALSE(sim.loadAccounts(write(R"([{"login": "x", "password": "y"}, {"login": "z"}])"), error));
    Account unused;
    EXPECT_FALSE(sim.getAccount("x", unused));

    const std::string missing = dir.filePath("missing.json").toStdString();
    EXPECT_FALSE(sim.loadAccounts(missing, error));
    EXPECT_NE(std::string::npos, error.find(missing + ": cannot read")) << error;
    EXPECT_FALSE(sim.loadAccounts(dir.path().toStdString(), error));

    // Texts no packet could carry are refused, not cut.
    const std::string longBody(40000, 'x');
    EXPECT_FALSE(sim.loadAccounts(write(R"([{"login": "a", "password": "b", "messages": [{"time": 1, "subject": "s", "body": ")" +
                                        longBody + "\"}]}]"),
                                  error));
    EXPECT_NE(std::string::npos, error.find("\"body\" is longer than")) << error;
}

} // namespace
