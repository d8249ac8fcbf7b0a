// zel5-billing-sim: runs the billing simulator until SIGINT or SIGTERM.
#include "billingsim.h"
#include "simoptions.h"

#include <signal.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

using zel5sim::SimOptions;

static int usageError(const std::string& error)
{
    std::fprintf(stderr, "zel5-billing-sim: %s\nTry 'zel5-billing-sim --help'.\n", error.c_str());
    return SimOptions::exitUsage;
}

int main(int argc, char** argv)
{
    SimOptions cmd;
    std::string error;
    if (!cmd.parse(std::vector<std::string>(argv + 1, argv + argc), error))
        return usageError(error);
    if (cmd.help) {
        std::fputs(SimOptions::usage().c_str(), stdout);
        return SimOptions::exitOk;
    }

    // The signals are taken by sigwait below; every thread started from here
    // on inherits the mask. A vanished client must not end the process.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    zel5sim::BillingSim sim(cmd.options);
    if (!cmd.accountsFile.empty() && !sim.loadAccounts(cmd.accountsFile, error)) {
        std::fprintf(stderr, "zel5-billing-sim: %s\n", error.c_str());
        return SimOptions::exitAccounts;
    }
    for (const zel5sim::Fault& f : cmd.faults)
        sim.addFault(f);
    if (const int e = sim.start()) {
        std::fprintf(stderr, "zel5-billing-sim: cannot listen on %s:%d: %s\n", cmd.options.listenAddress.c_str(),
                     cmd.options.port, std::strerror(e));
        return SimOptions::exitListen;
    }
    std::printf("listening on %s:%u\n", cmd.options.listenAddress.c_str(), static_cast<unsigned>(sim.port()));
    std::fflush(stdout);

    int sig = 0;
    while (sigwait(&stopSignals, &sig) != 0) {
    }
    sim.stop();
    return SimOptions::exitOk;
}
