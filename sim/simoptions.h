// The simulator's command line.
#ifndef ZEL5_SIM_SIMOPTIONS_H
#define ZEL5_SIM_SIMOPTIONS_H

#include "billingsim.h"

#include <string>
#include <vector>

namespace zel5sim {

class SimOptions {
public:
    // Exit codes of the executable.
    enum ExitCode {
        exitOk = 0,          // stopped by SIGINT or SIGTERM, or --help
        exitUsage = 1,       // bad command line
        exitListen = 2,      // cannot listen on the address
        exitAccounts = 3,    // the accounts file cannot be read or is invalid
    };

    Options options;
    std::string accountsFile;
    std::vector<Fault> faults; // applied to every call
    bool help = false;

    // false with a one-line reason in error.
    bool parse(const std::vector<std::string>& args, std::string& error);

    static std::string usage();

private:
    bool take(const std::string& name, const std::string& value, std::string& error);
    bool takeFault(const std::string& name, const std::string& value, std::string& error);
};

} // namespace zel5sim

#endif
