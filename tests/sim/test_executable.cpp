// The executable: the line that tells the port, serving until SIGTERM, and
// the exit codes of --help, a bad command line and failed starts.
#include "simoptions.h"
#include "simtestclient.h"

#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstring>

using zel5sim::SimOptions;

namespace {

// Starts the executable with arguments given as shell words, killed if it
// still runs after 10 seconds.
FILE* start(const std::string& args)
{
    return ::popen(("exec timeout 10 '" SIM_EXECUTABLE "' " + args).c_str(), "r");
}

// Reads the output to its end; the exit code.
int finish(FILE* f, std::string* output = nullptr)
{
    char buf[4096];
    for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;)
        if (output)
            output->append(buf, n);
    const int status = ::pclose(f);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(ExecutableTest, ServesUntilTerminatedAndReportsFailedStarts)
{
    // The shell tells its process id before it becomes the bounded executable.
    FILE* sim = ::popen("echo $$; exec timeout 10 '" SIM_EXECUTABLE "' --listen=127.0.0.1:0 --server-version 9.9", "r");
    int pid = 0;
    char line[128] = "";
    ASSERT_EQ(1, std::fscanf(sim, "%d\n", &pid));
    ASSERT_TRUE(std::fgets(line, sizeof line, sim));
    ASSERT_EQ(0u, std::string(line).find("listening on 127.0.0.1:")) << line;
    const int port = std::stoi(std::strrchr(line, ':') + 1);
    auto c = simtest::login(static_cast<std::uint16_t>(port));
    EXPECT_EQ("9.9", simtest::version(*c));

    EXPECT_EQ(SimOptions::exitListen, finish(start("--listen 127.0.0.1:" + std::to_string(port))));
    // Stops with a client still connected.
    ::kill(pid, SIGTERM);
    EXPECT_EQ(SimOptions::exitOk, finish(sim));

    std::string help;
    EXPECT_EQ(SimOptions::exitOk, finish(start("--help"), &help));
    EXPECT_EQ(0u, help.find("Usage: ")) << help;
    EXPECT_EQ(SimOptions::exitAccounts, finish(start("--listen 127.0.0.1:0 --accounts /nonexistent/a.json")));
    for (const char* args : {"--listen localhost:1", "--listen 127.0.0.1:65536", "--listen 127.0.0.1", "--tls maybe",
                             "--demo-activity 0", "--fault-stall-ms -1", "--accounts", "--help=yes",
                             "--fault-garbage --fault-stall-ms 5", "extra"})
        EXPECT_EQ(SimOptions::exitUsage, finish(start(args))) << args;
}

} // namespace
