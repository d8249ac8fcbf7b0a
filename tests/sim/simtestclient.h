// Helpers of the simulator tests: a started simulator, a logged-in client,
// typed reads that fail the test on error, accounts as text, raw sockets.
#ifndef ZEL5_TESTS_SIMTESTCLIENT_H
#define ZEL5_TESTS_SIMTESTCLIENT_H

#include "billingsim.h"
#include "rpc2stream.h"
#include "rpcclient.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <sstream>
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
    const std::string s = data ? std::string(data, static_cast<std::size_t>(len)) : std::string();
    delete[] data;
    return s;
}

// The server's version text (-69): proof that a session still works.
inline std::string version(ZEL::RPCClient& c)
{
    EXPECT_EQ(0, c._call(-69));
    const std::string v = getText(c);
    EXPECT_EQ(0, c.end_call());
    return v;
}

// The account as text: its own fields, its service lists, traffic classes and messages, a line each.
inline std::string image(const zel5sim::Account& a)
{
    std::ostringstream s;
    s << a.login << " " << a.password << " " << a.balance << " " << a.internetStatus << " " << a.sizeDivisor << "\n";
    for (const zel5sim::Service& service : a.services)
        for (const auto* list : {&service.oldPrepaid, &service.prepaid, &service.downloaded}) {
            s << service.name << ":\n";
            for (const zel5sim::TrafficClass& t : *list)
                s << t.id << " " << t.name << " " << t.size << "\n";
        }
    for (const zel5sim::Message& m : a.messages)
        s << m.time << " " << m.subject << " " << m.body << "\n";
    return s.str();
}

// A plain connected socket, or -1.
inline int rawConnect(std::uint16_t port)
{
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(port);
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    return ::connect(fd, reinterpret_cast<sockaddr*>(&sin), sizeof sin) == 0 ? fd : (::close(fd), -1);
}

// Reads a socket or pipe until the peer closes it; false when nothing came
// for timeoutMs first. received gets the bytes.
inline bool readUntilClosed(int fd, std::string& received, int timeoutMs = 5000)
{
    char buf[4096];
    for (pollfd p = {fd, POLLIN, 0}; ::poll(&p, 1, timeoutMs) > 0;) {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n <= 0)
            return true;
        received.append(buf, static_cast<std::size_t>(n));
    }
    return false;
}

} // namespace simtest

#endif
