// The executable: its command line, the line that tells the port, serving
// until SIGTERM, and the exit codes of failed starts.
#include "simoptions.h"
#include "simtestclient.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <thread>

using namespace simtest;
using zel5sim::Fault;
using zel5sim::SimOptions;

namespace {

struct Child {
    pid_t pid = -1;
    int out = -1; // its standard output
};

Child spawn(const std::vector<std::string>& args)
{
    std::vector<char*> argv;
    std::string program = SIM_EXECUTABLE;
    argv.push_back(program.data());
    std::vector<std::string> copy = args;
    for (std::string& a : copy)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    int pipeFds[2];
    Child c;
    if (::pipe(pipeFds) != 0)
        return c;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
    if (posix_spawn(&c.pid, program.c_str(), &actions, nullptr, argv.data(), environ) != 0)
        c.pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    c.out = pipeFds[0];
    return c;
}

// The exit code, or -1 when the child did not end within the bound.
int exitCode(const Child& c, int timeoutMs = 10000)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int status = 0;
    while (::waitpid(c.pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(c.pid, SIGKILL);
            ::waitpid(c.pid, &status, 0);
            ::close(c.out);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ::close(c.out);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int run(const std::vector<std::string>& args)
{
    return exitCode(spawn(args));
}

std::string readLine(int fd, int timeoutMs = 10000)
{
    std::string line;
    char ch = 0;
    struct pollfd p = {fd, POLLIN, 0};
    while (::poll(&p, 1, timeoutMs) > 0 && ::read(fd, &ch, 1) == 1 && ch != '\n')
        line += ch;
    return line;
}

TEST(ExecutableTest, ServesUntilTerminatedAndReportsFailedStarts)
{
    Child sim = spawn({"--listen", "127.0.0.1:0", "--server-version", "9.9"});
    ASSERT_GT(sim.pid, 0);
    const std::string line = readLine(sim.out);
    ASSERT_EQ(0u, line.find("listening on 127.0.0.1:")) << line;
    const std::string port = line.substr(line.rfind(':') + 1);

    ZEL::RPCClient c;
    c.addr("127.0.0.1", static_cast<short>(std::stoi(port)));
    c.set_auth("demo", "demo");
    ASSERT_EQ(0, c.open_session(0));
    ASSERT_EQ(0, c._call(-69));
    EXPECT_EQ("9.9", getText(c));
    EXPECT_EQ(0, c.end_call());

    EXPECT_EQ(SimOptions::exitListen, run({"--listen", "127.0.0.1:" + port}));
    // Stops with a client still connected.
    ::kill(sim.pid, SIGTERM);
    EXPECT_EQ(SimOptions::exitOk, exitCode(sim));

    EXPECT_EQ(SimOptions::exitOk, run({"--help"}));
    EXPECT_EQ(SimOptions::exitUsage, run({"--tls", "maybe"}));
    EXPECT_EQ(SimOptions::exitAccounts, run({"--listen", "127.0.0.1:0", "--accounts", "/nonexistent/a.json"}));
}

TEST(ExecutableTest, CommandLine)
{
    SimOptions o;
    std::string error;
    ASSERT_TRUE(o.parse({"--listen=0.0.0.0:0", "--tls", "fail", "--demo-activity", "30", "--fault-cut-after", "5",
                         "--fault-function", "-69", "--no-demo-account"},
                        error))
        << error;
    EXPECT_EQ("0.0.0.0", o.options.listenAddress);
    EXPECT_EQ(0, o.options.port);
    EXPECT_EQ(zel5sim::TlsMode::Fail, o.options.tls);
    EXPECT_EQ(30, o.options.demoActivitySeconds);
    EXPECT_FALSE(o.options.withDemoAccount);
    ASSERT_EQ(1u, o.faults.size());
    EXPECT_EQ(Fault::Kind::CutAfter, o.faults[0].kind);
    EXPECT_EQ(5, o.faults[0].bytes);
    EXPECT_EQ(-69, o.faults[0].function);
    EXPECT_EQ(-1, o.faults[0].times);

    const std::vector<std::vector<std::string>> bad = {
        {"--listen", "localhost:1"}, {"--listen", "127.0.0.1:65536"}, {"--listen", "127.0.0.1"},
        {"--demo-activity", "0"},    {"--fault-stall-ms", "-1"},      {"--accounts"},
        {"--help=yes"},              {"--fault-garbage", "--fault-stall-ms", "5"}, {"extra"},
    };
    for (const auto& args : bad) {
        SimOptions b;
        EXPECT_FALSE(b.parse(args, error)) << args[0];
        EXPECT_FALSE(error.empty());
    }
}

} // namespace
