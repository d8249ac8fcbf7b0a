// Simulator test helpers: a started simulator, a logged-in client and reads that fail the test on error.
#ifndef ZEL5_TESTS_SIMTESTCLIENT_H
#define ZEL5_TESTS_SIMTESTCLIENT_H

#include "billingsim.h"
#include "rpc2stream.h"
#include "rpcclient.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace simtest {

inline std::unique_ptr<zel5sim::BillingSim> startSim(zel5sim::Options o = {})
{
    o.port = 0;
    auto sim = std::make_unique<zel5sim::BillingSim>(o);
    EXPECT_EQ(0, sim->start());
    return sim;
}

inline std::unique_ptr<ZEL::RPCClient> login(std::uint16_t port, const char* user = "demo", const char* pass = "demo")
{
    auto c = std::make_unique<ZEL::RPCClient>();
    c->addr("127.0.0.1", static_cast<short>(port));
    c->set_auth(user, pass);
    EXPECT_EQ(0, c->open_session(0));
    return c;
}

// The server's version text (-69): proof that a session still works.
inline std::string version(ZEL::RPCClient& c)
{
    char* data = nullptr;
    int len = 0;
    EXPECT_EQ(0, c._call(-69));
    EXPECT_EQ(0, c.rpcstream().data_get_new(data, len));
    const std::unique_ptr<char[]> owned(data);
    EXPECT_EQ(0, c.end_call());
    return data ? std::string(data, static_cast<std::size_t>(len)) : std::string();
}

} // namespace simtest

#endif
