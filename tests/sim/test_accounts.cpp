// The accounts file: a good file serves its accounts; every kind of bad file
// is refused whole with a line that names the file and the problem.
#include "simtestclient.h"

#include <QTemporaryDir>

#include <fstream>

using zel5sim::Account;
using simtest::image;

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
    std::unique_ptr<zel5sim::BillingSim> sim = simtest::startSim();
    std::string error;
};

TEST_F(AccountsFileTest, GoodFileAddsAndReplacesAccounts)
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
    EXPECT_EQ("alice wonderland 42.75 1 1000\nInternet:\n1 Day 1024\nInternet:\nInternet:\n"
              "2 Night \xc3\xbc" "ber 6000000000\n" // UTF-8 on the wire
              "Empty:\nEmpty:\nEmpty:\n1700000000 Hello <b>Hi</b>\n",
              image(a));
    EXPECT_TRUE(simtest::login(sim->port(), "alice", "wonderland")->connected());
    // Defaults of a minimal account; the demo login is replaced.
    ASSERT_TRUE(sim->getAccount("demo", a));
    EXPECT_EQ("demo other 0 0 1048576\n", image(a));
}

TEST_F(AccountsFileTest, BadFilesAreRefusedWhole)
{
    const std::string ab = R"([{"login": "a", "password": "b")", sv = ab + R"(, "services": [{"name": "s", )";
    const std::pair<std::string, const char*> cases[] = {
        {"", "not valid JSON at line 1"},
        {"[\n{\"login\": \"a\",\n \"password\" \"x\"}]", "not valid JSON at line 3"},
        {ab.substr(1) + "}", "list of accounts"},
        {R"([{"password": "b"}])", "account 1: missing \"login\""},
        {R"([{"login": "", "password": "b"}])", "\"login\" is empty"},
        {R"([{"login": "a"}])", "account 1 (\"a\"): missing \"password\""},
        {ab + R"(, "ballance": 1}])", "unknown key \"ballance\""},
        {ab + R"(, "balance": "1"}])", "\"balance\" must be a number"},
        {ab + R"(, "internet": 2}])", "\"internet\" must be a whole number"},
        {ab + R"(, "divisor": 0}])", "\"divisor\" must be a whole number"},
        {ab + R"(}, {"login": "a", "password": "c"}])", "account 2: login \"a\" appears twice"},
        {ab + R"(, "services": [{"prepaid": []}]}])", "services[0]: missing \"name\""},
        {sv + R"("prepaid": [{"id": 1, "name": "n", "size": -1}]}]}])", "prepaid[0]: \"size\" must be a whole number"},
        {sv + R"("downloaded": [{"id": 1.5, "name": "n", "size": 1}]}]}])", "\"id\" must be a whole number"},
        {ab + R"(, "messages": [{"time": "now", "subject": "s", "body": "b"}]}])",
         "messages[0]: \"time\" must be a whole number"},
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

    for (const std::string& path : {dir.filePath("missing.json").toStdString(), dir.path().toStdString()}) {
        EXPECT_FALSE(sim->loadAccounts(path, error));
        EXPECT_EQ(0u, error.find(path + ": cannot read")) << error;
    }
}

} // namespace
