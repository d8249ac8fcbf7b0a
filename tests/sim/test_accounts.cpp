// The simulator's accounts file: a good one serves its accounts, a bad one is
// refused whole with a line that names the file and the problem.
#include "simtestclient.h"

#include <QTemporaryDir>

#include <fstream>
#include <sstream>

using namespace simtest;
using zel5sim::Account;

namespace {

// The account as text: its own fields, its service lists, traffic classes and messages, a line each.
std::string image(const Account& a)
{
    std::ostringstream s;
    s << a.login << " " << a.password << " " << a.balance << " " << a.internetStatus << " " << a.sizeDivisor << "\n";
    for (const zel5sim::Service& service : a.services)
        for (const auto* list : {&service.oldPrepaid, &service.prepaid, &service.downloaded}) {
            s << service.name << ":\n";
            for (const zel5sim::TrafficClass& t : *list)
                s << t.id << " " << t.name << " " << t.size << "\n";
        }
    for (const zel5sim::Message& m : a.messages)
        s << m.time << " " << m.subject << " " << m.body << "\n";
    return s.str();
}

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
    EXPECT_EQ("alice wonderland 42.75 1 1000\nInternet:\n1 Day 1024\nInternet:\nInternet:\n"
              "2 Night \xc3\xbc" "ber 6000000000\n" // UTF-8 on the wire
              "Empty:\nEmpty:\nEmpty:\n1700000000 Hello <b>Hi</b>\n",
              image(a));
    EXPECT_TRUE(login(sim->port(), "alice", "wonderland")->connected());
    // Defaults of a minimal account; the demo login is replaced.
    ASSERT_TRUE(sim->getAccount("demo", a));
    EXPECT_EQ("demo other 0 0 1048576\n", image(a));
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
