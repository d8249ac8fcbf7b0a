// test_desktop's entry: two dbus-daemons of its own, started before the
// application object so that Qt's session and system bus connections reach
// them, stopped after the tests. The tray under test then talks to the
// tests' stand-in services only, never to the desktop the tests run on.
#include "apptest.h"
#include "childprocess.h"
#include "privatebuses.h"

#include <sys/prctl.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

using zel5test::ChildProcess;
using namespace std::chrono_literals;

PrivateBuses buses;

// The program runs itself with this first argument to become a bus daemon
// that ends with the test process, whatever ends that one.
const char* const runBusArgument = "--run-private-bus";
// What the environment names when there are no private buses.
const char* const noBus = "unix:path=/nonexistent/zel5-tests-no-bus";

// argv: program, runBusArgument, the test process's id, the daemon's argv.
int runBus(char** argv)
{
    // A test process that is killed or aborts (a sanitizer halting on an
    // error) takes its daemons with it; the daemon keeps this across exec.
    if (::prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || ::getppid() != std::atol(argv[2]))
        return 1;
    ::execvp(argv[3], argv + 3);
    std::fprintf(stderr, "cannot run %s: %s\n", argv[3], std::strerror(errno));
    return 127;
}

std::string self()
{
    char path[4096];
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
    return n > 0 ? std::string(path, static_cast<std::size_t>(n)) : std::string();
}

// Starts one daemon and reads the address it prints; null with the reason
// in `error`.
std::unique_ptr<ChildProcess> startBus(const char* role, std::string& address, std::string& error)
{
    auto bus = std::make_unique<ChildProcess>(std::vector<std::string>{
        self(), runBusArgument, std::to_string(::getpid()), "dbus-daemon", "--session", "--nofork",
        "--print-address=1", "--address=unix:tmpdir=/tmp"});
    if (!bus->started()) {
        error = std::string("the ") + role + " bus: " + bus->startError();
        return nullptr;
    }
    std::string line;
    switch (bus->readLine(line, 10s)) {
    case ChildProcess::Read::Line:
        if (line.rfind("unix:", 0) == 0) {
            address = line;
            return bus;
        }
        error = std::string("the ") + role + " bus printed no address but: " + line;
        break;
    case ChildProcess::Read::Timeout:
        error = std::string("the ") + role + " bus printed no address within 10 s";
        break;
    case ChildProcess::Read::End:
        error = std::string("the ") + role + " bus daemon ended before it printed its address";
        break;
    }
    return nullptr; // the object kills and reaps what it started
}

void stopBus(std::unique_ptr<ChildProcess>& bus, const char* role)
{
    if (!bus)
        return;
    bus->signal(SIGTERM);
    if (const auto exit = bus->waitExit(5s)) {
        if (exit->code() != 0 && exit->signal() != SIGTERM)
            std::fprintf(stderr, "the private %s bus %s\n", role, exit->describe().c_str());
    } else {
        std::fprintf(stderr, "the private %s bus did not end within 5 s of SIGTERM; killed\n", role);
    }
    bus.reset(); // kills and reaps it if it still runs
}

bool onlyListing(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--gtest_list_tests") == 0)
            return true;
    }
    return false;
}

} // namespace

const PrivateBuses& privateBuses()
{
    return buses;
}

int main(int argc, char** argv)
{
    if (argc >= 4 && std::strcmp(argv[1], runBusArgument) == 0)
        return runBus(argv);

    std::unique_ptr<ChildProcess> session, system;
    if (onlyListing(argc, argv)) {
        buses.error = "only listing the tests";
    } else {
        session = startBus("session", buses.session, buses.error);
        if (session)
            system = startBus("system", buses.system, buses.error);
    }
    if (!session || !system) {
        stopBus(session, "session");
        buses.session.clear();
        buses.system.clear();
    }
    ::setenv("DBUS_SESSION_BUS_ADDRESS", session ? buses.session.c_str() : noBus, 1);
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", system ? buses.system.c_str() : noBus, 1);

    // The application object and its bus connections are gone before the
    // daemons are stopped.
    const int result = runAppTests(argc, argv);
    stopBus(system, "system");
    stopBus(session, "session");
    return result;
}
