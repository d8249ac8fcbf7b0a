// The registry of server functions: function number to handler, with the
// number of int32 arguments the handler reads.
#ifndef ZEL5_SIM_SIMFUNCTIONS_H
#define ZEL5_SIM_SIMFUNCTIONS_H

#include <functional>
#include <map>

namespace zel5sim {

struct SimCall;

class SimFunctions {
public:
    // false: the session's account is gone; the call is refused.
    typedef std::function<bool(SimCall&)> Run;
    struct Handler {
        int argCount = 0;
        Run run;
    };

    // Adds or replaces the handler of a function number.
    void add(int function, int argCount, Run run);
    // Null for an unknown function.
    const Handler* find(int function) const;

private:
    std::map<int, Handler> handlers;
};

} // namespace zel5sim

#endif
