// Helpers of the simulator tests: a logged-in protocol client, typed reads
// that fail the test on error, and a raw socket for misbehaving clients.
#ifndef ZEL5_TESTS_SIMTESTCLIENT_H
#define ZEL5_TESTS_SIMTESTCLIENT_H

#include "billingsim.h"
#include "rpc2stream.h"
#include "rpcclient.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

namespace simtest {

inline std::unique_ptr<ZEL::RPCClient> login(const zel5sim::BillingSim& sim, const char* user = "demo",
                                             const char* pass = "demo")
{
    auto c = std::make_unique<ZEL::RPCClient>();
    c->addr("127.0.0.1", static_cast<short>(sim.port()));
    c->set_auth(user, pass);
    EXPECT_EQ(0, c->open_session(0));
    return c;
}

template <typename T> T get(ZEL::RPCClient& c)
{
    T value{};
    EXPECT_EQ(0, c.rpcstream().data_get(value));
    return value;
}

inline std::string getText(ZEL::RPCClient& c)
{
    char* data = nullptr;
    int len = 0;
    EXPECT_EQ(0, c.rpcstream().data_get_new(data, len));
    std::string s(data ? data : "", data ? static_cast<std::size_t>(len) : 0);
    delete[] data;
    return s;
}

// A plain connected socket, or -1.
inline int rawConnect(std::uint16_t port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sin;
    std::memset(&sin, 0, sizeof sin);
    sin.sin_family = AF_INET;
    sin.sin_port = htons(port);
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&sin), sizeof sin) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Reads what arrives within timeoutMs until the peer closes; true when it
// closed. received gets the bytes.
inline bool readUntilClosed(int fd, std::string& received, int timeoutMs = 5000)
{
    char buf[4096];
    for (;;) {
        struct pollfd p = {fd, POLLIN, 0};
        if (::poll(&p, 1, timeoutMs) <= 0)
            return false;
        const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n <= 0)
            return true;
        received.append(buf, static_cast<std::size_t>(n));
    }
}

} // namespace simtest

#endif
