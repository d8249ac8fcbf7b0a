// Loopback peers for client tests: an own port, a full listener, a scripted server; and a watchdog.
#ifndef ZEL5_TESTS_LOOPBACK_H
#define ZEL5_TESTS_LOOPBACK_H

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

namespace zel5test {

// In a helper thread: true once ms have passed, false as soon as it is asked to stop.
inline bool delayPassed(std::stop_token stop, int ms)
{
    std::mutex m;
    std::unique_lock<std::mutex> lock(m);
    std::condition_variable_any cv;
    cv.wait_for(lock, stop, std::chrono::milliseconds(ms), [] { return false; });
    return !stop.stop_requested();
}

// A test still waiting after ms fails, and rescue ends its wait; destroying the watchdog dismisses it.
class Watchdog {
public:
    Watchdog(int ms, std::string what, std::function<void()> rescue)
        : thread([ms, what = std::move(what), rescue = std::move(rescue)](std::stop_token stop) {
              if (!delayPassed(stop, ms))
                  return;
              ADD_FAILURE() << "still waiting for " << what << " after " << ms << " ms";
              rescue();
          }) {}

private:
    std::jthread thread;
};

// A loopback port of its own, listening with the backlog, or refusing connects (-1).
struct LoopbackPort {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    int port = 0;
    explicit LoopbackPort(int backlog)
    {
        socklen_t n = sizeof addr;
        ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &n);
        port = ntohs(addr.sin_port);
        if (backlog >= 0)
            ::listen(fd, backlog);
    }
    ~LoopbackPort() { ::close(fd); }
};

// A listener whose queue is full: the system drops further connection requests, so a connect hangs.
struct FullListener : LoopbackPort {
    std::vector<int> queued;
    bool full = false;
    FullListener() : LoopbackPort(0)
    {
        for (int i = 0; i < 8 && !full; ++i) { // until a connect gets no answer
            queued.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
            ::connect(queued.back(), reinterpret_cast<sockaddr*>(&addr), sizeof addr);
            pollfd p{queued.back(), POLLOUT, 0};
            full = ::poll(&p, 1, 300) == 0;
        }
    }
    ~FullListener() { std::for_each(queued.begin(), queued.end(), ::close); }
};

// Plays a script to one client in its own thread, then holds the connection; cuts it after 5 s.
class ScriptedServer : public LoopbackPort {
public:
    explicit ScriptedServer(std::function<void(ScriptedServer&)> script) : LoopbackPort(1)
    {
        player = std::jthread([this, script](std::stop_token st) {
            stop = st;
            if ((conn = ::accept(fd, nullptr, nullptr)) < 0)
                return;
            const timeval bound{5, 0}; // for each read
            ::setsockopt(conn, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
            script(*this);
            pause(10000);
        });
    }
    ~ScriptedServer()
    {
        player.request_stop();
        ::shutdown(fd, SHUT_RDWR); // ends the wait in accept
        cut();
        player.join();
        ::close(conn);
    }
    bool pause(int ms) { return delayPassed(stop, ms); }
    template <class Bytes> void send(const Bytes& b) { ::send(conn, b.data(), b.size(), MSG_NOSIGNAL); }
    void cut() { ::shutdown(conn, SHUT_RDWR); }
    // The code of the client's next packet; -1 when none came whole.
    int readPacket()
    {
        unsigned char head[4];
        if (::recv(conn, head, 4, MSG_WAITALL) != 4 || (head[2] << 8 | head[3]) < 4)
            return -1;
        std::vector<unsigned char> body(static_cast<std::size_t>((head[2] << 8 | head[3]) - 4));
        return ::recv(conn, body.data(), body.size(), MSG_WAITALL) == ssize_t(body.size()) ? head[0] : -1;
    }

private:
    std::atomic<int> conn{-1};
    std::stop_token stop;
    std::jthread player;
    Watchdog dog{5000, "the scripted server's client", [this] { cut(); }};
};

} // namespace zel5test

#endif
