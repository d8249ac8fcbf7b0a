// The simulator program: its port line, serving until SIGTERM, and its exit codes.
#include "childprocess.h"
#include "simoptions.h"
#include "simtestclient.h"

#include <signal.h>

using namespace std::chrono_literals;
using zel5sim::SimOptions;
using zel5test::ChildProcess;

namespace {

// Far above a start or a stop, also sanitized on a loaded machine; only a hang reaches it.
constexpr auto bound = 20s;

struct Outcome {
    int code = -1; // -1: not started, not ended in time, or a signal
    std::string out, err;
};

Outcome run(std::vector<std::string> args)
{
    args.insert(args.begin(), SIM_EXECUTABLE);
    ChildProcess sim(args, {}, ChildProcess::CaptureBoth);
    EXPECT_TRUE(sim.started()) << sim.startError();
    const auto exit = sim.waitExit(bound);
    EXPECT_TRUE(exit) << "the simulator " << args[1] << " to end";
    return {exit ? exit->code() : -1, sim.takeStdout(), sim.stderrText()};
}

TEST(ExecutableTest, TellsItsPortAndServesUntilTerminated)
{
    ChildProcess sim({SIM_EXECUTABLE, "--listen=127.0.0.1:0", "--server-version", "9.9"});
    ASSERT_TRUE(sim.started()) << sim.startError();
    std::string line;
    ASSERT_EQ(ChildProcess::Read::Line, sim.readLine(line, bound)) << "the line that tells the port";
    ASSERT_EQ(0u, line.find("listening on 127.0.0.1:")) << line;
    const int port = std::stoi(line.substr(line.rfind(':') + 1));
    ASSERT_GT(port, 0) << line;
    const auto c = simtest::login(static_cast<std::uint16_t>(port)); // still connected at the stop
    EXPECT_EQ("9.9", simtest::version(*c));

    // A second one on the same port cannot listen.
    EXPECT_EQ(SimOptions::exitListen, run({"--listen", "127.0.0.1:" + std::to_string(port)}).code);

    // Stops with a client still connected, and says nothing more.
    ASSERT_TRUE(sim.signal(SIGTERM));
    const auto exit = sim.waitExit(bound);
    ASSERT_TRUE(exit) << "the simulator to end after SIGTERM";
    EXPECT_EQ(SimOptions::exitOk, exit->code()) << exit->describe();
    EXPECT_EQ(ChildProcess::Read::End, sim.readLine(line, 0ms)) << line;
}

TEST(ExecutableTest, ExitCodesOfHelpBadCommandLinesAndFailedStarts)
{
    const Outcome help = run({"--help"});
    EXPECT_EQ(SimOptions::exitOk, help.code);
    EXPECT_EQ(0u, help.out.find("Usage: ")) << help.out;

    const Outcome accounts = run({"--listen", "127.0.0.1:0", "--accounts", "/nonexistent/a.json"});
    EXPECT_EQ(SimOptions::exitAccounts, accounts.code) << accounts.err;
    EXPECT_EQ("", accounts.out) << "a failed start tells no port";

    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"--listen", "127.0.0.1:65536"}, {"--accounts"}, {"--fault-garbage", "--fault-stall-ms", "5"}}) {
        const Outcome r = run(args);
        EXPECT_EQ(SimOptions::exitUsage, r.code) << args[0] << "\n" << r.err;
        EXPECT_EQ("", r.out) << args[0];
    }
}

} // namespace
