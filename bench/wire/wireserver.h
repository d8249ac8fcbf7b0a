// A scripted billing server for the wire benchmarks: on a loopback port, one
// connection at a time, served by one thread pinned to the benchmark's CPU so
// that client and server take turns on that CPU as they would on a busy one.
// It greets, accepts any login (granting the configured protection), and
// answers each call with the bytes scripted for its function number.
#ifndef ZEL5_BENCH_WIRESERVER_H
#define ZEL5_BENCH_WIRESERVER_H

#include <openssl/ssl.h>
#include <pthread.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>

namespace wire {

// The first CPU the calling thread may run on; it is pinned there.
int pinCallerToFirstCpu();
bool pinThread(pthread_t thread, int cpu);

class WireServer {
public:
    // grant: the protection granted to every login (0 plain, 1 TLS, which
    // needs tls, a server context the caller keeps alive).
    WireServer(int grant, SSL_CTX* tls, int cpu);
    ~WireServer();
    WireServer(const WireServer&) = delete;
    WireServer& operator=(const WireServer&) = delete;

    // Before start: the acknowledgement and the rest of the reply to fn,
    // written with one write each.
    void script(int fn, std::string ack, std::string rest);
    // Listens and starts serving; false when the port could not be opened.
    bool start();
    int port() const { return listenPort; }

private:
    struct Reply {
        std::string ack, rest;
    };
    void run();
    void serve(int fd);

    const int grant;
    SSL_CTX* const tls;
    const int cpu;
    std::map<int, Reply> replies;
    int listenFd = -1;
    int listenPort = 0;
    std::atomic<int> active{-1}; // the connection being served, for stop
    std::thread worker;
};

} // namespace wire

#endif
