// The floors of the wire benchmarks: a billing session done by hand with
// plain sockets and OpenSSL, exchanging the same packets as the tray's
// client and doing nothing else (no bounds, no checks beyond the packets').
#ifndef ZEL5_BENCH_HANDCLIENT_H
#define ZEL5_BENCH_HANDCLIENT_H

#include "channel.h"

#include <openssl/ssl.h>

#include <string>
#include <vector>

namespace wire {

class HandClient {
public:
    HandClient() : buf(65536) {}

    // TCP connect to the loopback port, no delay on small writes.
    bool connectTo(int port);
    // Greeting, the signed request asking for protection ssl, the answer,
    // and the TLS handshake with ctx when the server granted it.
    bool login(const std::string& user, const std::string& password, int ssl, SSL_CTX* ctx);
    // Call fn; the acknowledgement; one data packet of an int and a double.
    bool callIntDouble(int fn, int& i, double& d);
    // Call fn and receive replyBytes bytes, whatever they are.
    bool callRaw(int fn, std::size_t replyBytes);
    // The termination packet, then a quiet close.
    void leave();

private:
    bool sendRequest(const std::string& user, const std::string& password, int ssl);

    Channel ch;
    std::vector<char> buf;
};

} // namespace wire

#endif
