// The demo account and the demo activity: new messages and a moving balance
// for every account, so that a demo shows the tray changing.
#ifndef ZEL5_SIM_SIMDEMO_H
#define ZEL5_SIM_SIMDEMO_H

namespace zel5sim {

class SimState;

class SimDemo {
public:
    // One round of activity; tick counts the rounds from 1.
    static void activity(SimState& state, int tick);
};

} // namespace zel5sim

#endif
