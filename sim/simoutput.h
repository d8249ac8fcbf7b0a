// Sends the output of one stage of a connection (greeting, login answer or
// call reply) with that stage's fault applied: cut after a byte count,
// stall, a wrong first code or version byte, or garbage in place of packets.
#ifndef ZEL5_SIM_SIMOUTPUT_H
#define ZEL5_SIM_SIMOUTPUT_H

#include "billingsim.h"

#include <vector>

namespace ZEL {
class RPC2Stream;
}

namespace zel5sim {

class SimState;

class SimOutput {
public:
    SimOutput(ZEL::RPC2Stream& stream, const SimState& state, const Fault& fault);

    // Sends the next piece of the stage's output. false when the connection
    // must close now: the fault said so or the peer is gone.
    bool send(std::vector<char> bytes);

private:
    bool write(const char* data, int len);

    ZEL::RPC2Stream& stream;
    const SimState& state;
    const Fault fault;
    int sent = 0;
    bool first = true;
};

} // namespace zel5sim

#endif
