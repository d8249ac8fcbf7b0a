// The simulator's accounts file: a good one is served, a bad one refused whole with a one-line reason.
#include "simtestclient.h"

#include <QTemporaryDir>

#include <fstream>

using namespace simtest;
using zel5sim::Account;

namespace {

class AccountsTest : public ::testing::Test {
protected:
    std::string write(const std::string& content)
    {
        const std::string path = dir.filePath("accounts.json").toStdString();
        std::ofstream(path, std::ios::trunc) << content;
        return path;
    }

    QTemporaryDir dir;
    std::unique_ptr<zel5sim::BillingSim> sim = startSim();
    std::string error;
};

TEST_F(AccountsTest, GoodFileAddsAndReplacesAccounts)
{
    const std::string path = write(R"([
  {"login": "alice", "password": "wonderland", "balance": 42.75, "internet": true, "divisor": 1000,
   "services": [{"name": "Internet", "oldPrepaid": [{"id": 1, "name": "Day", "size": 1024}], "prepaid": [],
                 "downloaded": [{"id": 2, "name": "Night \u00fcber", "size": 6000000000}]}, {"name": "Empty"}],
   "messages": [{"time": 1700000000, "subject": "Hello", "body": "<b>Hi</b>"}]},
  {"login": "demo", "password": "other"}])");
    ASSERT_TRUE(sim->loadAccounts(path, error)) << error;
    Account a;
    ASSERT_TRUE(sim->getAccount("alice", a));
    ASSERT_EQ(2u, a.services.size());
    EXPECT_EQ("Night \xc3\xbc" "ber", a.services[0].downloaded.at(0).name); // UTF-8 on the wire
    EXPECT_EQ(6000000000LL, a.services[0].downloaded.at(0).size);
    EXPECT_TRUE(a.balance == 42.75 && a.internetStatus == 1 && a.sizeDivisor == 1000 && a.messages.size() == 1);
    EXPECT_TRUE(login(sim->port(), "alice", "wonderland")->connected());
    // Defaults of a minimal account; the demo login is replaced.
    ASSERT_TRUE(sim->getAccount("demo", a));
    EXPECT_TRUE(a.password == "other" && a.balance == 0 && a.sizeDivisor == 1048576 && a.services.empty());
}

TEST_F(AccountsTest, BadFilesAreRefusedWhole)
{
    const std::string ab = R"([{"login": "a", "password": "b")";
    const std::pair<std::string, const char*> cases[] = {
        {"[\n{\"login\": \"a\",\n \"password\" \"x\"}]", "not valid JSON at line 3"},
        {ab + R"(, "balance": "1"}])", "\"balance\" must be a number"},
        {ab + R"(}, {"login": "a", "password": "c"}])", "account 2: login \"a\" appears twice"},
        {ab + R"(, "services": [{"name": "s", "prepaid": [{"id": 1, "name": "n", "size": -1}]}]}])",
         "prepaid[0]: \"size\" must be a whole number"},
        // Texts no packet could carry are refused, not cut.
        {ab + R"(, "messages": [{"time": 1, "subject": "s", "body": ")" + std::string(40000, 'x') + "\"}]}]",
         "\"body\" is longer than"},
        // A good account before the bad part is not loaded either.
        {R"([{"login": "x", "password": "y"}, {"login": "z"}])", "account 2 (\"z\"): missing \"password\""},
    };
    for (const auto& [content, problem] : cases) {
        SCOPED_TRACE(content.substr(0, 120));
        const std::string path = write(content);
        EXPECT_FALSE(sim->loadAccounts(path, error));
        EXPECT_EQ(0u, error.find(path + ": ")) << error;
        EXPECT_NE(std::string::npos, error.find(problem)) << error;
        EXPECT_EQ(std::string::npos, error.find('\n'));
    }
    EXPECT_FALSE(sim->withAccount("x", [](Account&) {}));

    const std::string missing = dir.filePath("missing.json").toStdString();
    EXPECT_FALSE(sim->loadAccounts(missing, error));
    EXPECT_EQ(0u, error.find(missing + ": cannot read")) << error;
}

} // namespace
