// One call in progress as a function handler sees it: who calls, with which
// arguments, and the reply the handler fills.
#ifndef ZEL5_SIM_SIMCALL_H
#define ZEL5_SIM_SIMCALL_H

#include "billingsim.h"
#include "simreply.h"

#include <cstdint>
#include <string>
#include <vector>

namespace zel5sim {

class SimState;

struct SimCall {
    SimCall(SimState& s, int fn, const std::string& who) : state(s), function(fn), login(who) {}

    SimState& state;
    int function;
    std::string login;              // the account of the session
    std::vector<std::int32_t> args; // as many as the handler declared
    Fault fault;                    // the call-stage fault in force, if any
    SimReply reply;
};

} // namespace zel5sim

#endif
