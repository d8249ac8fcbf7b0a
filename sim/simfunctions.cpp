#include "simfunctions.h"

#include <utility>

namespace zel5sim {

void SimFunctions::add(int function, int argCount, Run run)
{
    Handler h;
    h.argCount = argCount;
    h.run = std::move(run);
    handlers[function] = std::move(h);
}

const SimFunctions::Handler* SimFunctions::find(int function) const
{
    auto it = handlers.find(function);
    return it == handlers.end() ? nullptr : &it->second;
}

} // namespace zel5sim
