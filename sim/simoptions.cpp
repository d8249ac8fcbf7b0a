#include "simoptions.h"

#include <arpa/inet.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <set>

namespace zel5sim {

namespace {

bool number(const std::string& text, long lo, long hi, long& out)
{
    if (text.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < lo || v > hi)
        return false;
    out = v;
    return true;
}

// ADDR:PORT with a dotted IPv4 address.
bool listenAddress(const std::string& text, std::string& address, int& port)
{
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos)
        return false;
    address = text.substr(0, colon);
    in_addr a;
    long p = 0;
    if (inet_pton(AF_INET, address.c_str(), &a) != 1 || !number(text.substr(colon + 1), 0, 65535, p))
        return false;
    port = static_cast<int>(p);
    return true;
}

const std::set<std::string> valued = {
    "--listen",           "--accounts",          "--tls",           "--server-version", "--demo-activity",
    "--max-connections",  "--fault-cut-after",   "--fault-stall-ms", "--fault-wrong-code", "--fault-function",
};
const std::set<std::string> flags = {"--help", "--no-demo-account", "--fault-garbage"};

} // namespace

bool SimOptions::parse(const std::vector<std::string>& args, std::string& error)
{
    int faultFunction = 0;
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string name = args[i], value;
        const std::size_t eq = name.find('=');
        const bool inlineValue = eq != std::string::npos && name.compare(0, 2, "--") == 0;
        if (inlineValue) {
            value = name.substr(eq + 1);
            name.resize(eq);
        }
        if (flags.count(name)) {
            if (inlineValue) {
                error = name + " takes no value";
                return false;
            }
        } else if (valued.count(name)) {
            if (!inlineValue) {
                if (i + 1 == args.size()) {
                    error = name + " needs a value";
                    return false;
                }
                value = args[++i];
            }
        } else {
            error = "unknown option " + name;
            return false;
        }
        if (name == "--fault-function") {
            long f = 0;
            if (!number(value, INT_MIN, INT_MAX, f)) {
                error = "--fault-function needs a function number";
                return false;
            }
            faultFunction = static_cast<int>(f);
        } else if (!take(name, value, error)) {
            return false;
        }
    }
    if (faults.size() > 1) {
        error = "give at most one --fault option";
        return false;
    }
    for (Fault& f : faults)
        f.function = faultFunction;
    return true;
}

bool SimOptions::take(const std::string& name, const std::string& value, std::string& error)
{
    long n = 0;
    if (name == "--help") {
        help = true;
    } else if (name == "--no-demo-account") {
        options.withDemoAccount = false;
    } else if (name == "--listen") {
        if (!listenAddress(value, options.listenAddress, options.port)) {
            error = "--listen needs ADDR:PORT with an IPv4 address and a port from 0 to 65535, not \"" + value + "\"";
            return false;
        }
    } else if (name == "--accounts") {
        accountsFile = value;
    } else if (name == "--tls") {
        if (value == "asked")
            options.tls = TlsMode::Asked;
        else if (value == "none")
            options.tls = TlsMode::None;
        else if (value == "fail")
            options.tls = TlsMode::Fail;
        else {
            error = "--tls needs asked, none or fail, not \"" + value + "\"";
            return false;
        }
    } else if (name == "--server-version") {
        options.serverVersion = value;
    } else if (name == "--demo-activity") {
        if (!number(value, 1, 86400, n)) {
            error = "--demo-activity needs seconds from 1 to 86400";
            return false;
        }
        options.demoActivitySeconds = static_cast<int>(n);
    } else if (name == "--max-connections") {
        if (!number(value, 1, 1000, n)) {
            error = "--max-connections needs a number from 1 to 1000";
            return false;
        }
        options.maxConnections = static_cast<int>(n);
    } else {
        return takeFault(name, value, error);
    }
    return true;
}

bool SimOptions::takeFault(const std::string& name, const std::string& value, std::string& error)
{
    Fault f;
    f.stage = Fault::Stage::Call;
    f.times = -1;
    long n = 0;
    if (name == "--fault-garbage") {
        f.kind = Fault::Kind::Garbage;
        f.bytes = 16;
    } else if (name == "--fault-cut-after") {
        if (!number(value, 0, INT_MAX, n)) {
            error = "--fault-cut-after needs a byte count";
            return false;
        }
        f.kind = Fault::Kind::CutAfter;
        f.bytes = static_cast<int>(n);
    } else if (name == "--fault-stall-ms") {
        if (!number(value, 0, INT_MAX, n)) {
            error = "--fault-stall-ms needs milliseconds (0: until the simulator stops)";
            return false;
        }
        f.kind = Fault::Kind::Stall;
        f.stallMs = static_cast<int>(n);
    } else if (name == "--fault-wrong-code") {
        if (!number(value, 0, 255, n)) {
            error = "--fault-wrong-code needs a packet code from 0 to 255";
            return false;
        }
        f.kind = Fault::Kind::WrongCode;
        f.code = static_cast<int>(n);
    }
    faults.push_back(f);
    return true;
}

std::string SimOptions::usage()
{
    return "Usage: zel5-billing-sim [OPTION]...\n"
           "A billing server for trying out and testing the ZEL5 tray client.\n"
           "\n"
           "  --listen ADDR:PORT      listen there (default 127.0.0.1:11758; port 0: any free port)\n"
           "  --accounts FILE         add the accounts of a JSON file\n"
           "  --no-demo-account       leave out the built-in account demo/demo\n"
           "  --tls asked|none|fail   grant the channel protection asked for (default), none,\n"
           "                          or grant it and then fail the handshake\n"
           "  --server-version TEXT   version text the server reports (default 5.1.9)\n"
           "  --demo-activity SECS    every SECS seconds a new message for every account and\n"
           "                          a change of balance\n"
           "  --max-connections N     serve at most N clients at once (default 64)\n"
           "  --fault-cut-after N     close the connection after N bytes of every call's reply\n"
           "  --fault-stall-ms N      answer no call; close after N ms (0: when stopping)\n"
           "  --fault-garbage         answer every call with bytes that are no packet\n"
           "  --fault-wrong-code C    acknowledge every call with packet code C\n"
           "  --fault-function F      apply the fault only to function number F\n"
           "  --help                  show this help\n"
           "\n"
           "Prints \"listening on ADDR:PORT\" once it listens; stops on SIGINT or SIGTERM.\n"
           "Exit codes: 0 stopped, 1 bad usage, 2 cannot listen, 3 bad accounts file.\n";
}

} // namespace zel5sim
