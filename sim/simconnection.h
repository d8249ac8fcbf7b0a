// One client connection of the simulator: greeting, login, optional TLS,
// then calls until the client ends the session or misbehaves. Runs on its
// own thread; bad input ends only this connection, with one log line.
#ifndef ZEL5_SIM_SIMCONNECTION_H
#define ZEL5_SIM_SIMCONNECTION_H

#include "simstate.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

typedef struct ssl_ctx_st SSL_CTX;

namespace ZEL {
class RPC2Packet;
class RPC2Stream;
}

namespace zel5sim {

class SimFunctions;

class SimConnection {
public:
    // Takes over the connected socket fd. The contexts may be null: that
    // protection is then not granted.
    SimConnection(SimState& state, const SimFunctions& functions, SSL_CTX* tls1, SSL_CTX* ssl3, int fd,
                  const std::string& peer);
    ~SimConnection();
    SimConnection(const SimConnection&) = delete;
    SimConnection& operator=(const SimConnection&) = delete;

    // The connection thread's body; closes the socket when done.
    void run();
    // From any thread: makes blocked reads and writes return.
    void shutdownSocket();

private:
    enum class Read { Ok, Closed, Bad };

    bool greet();
    bool login();
    bool secure();
    void serveCalls();
    bool serveCall(int function);
    void recordTermination(const ZEL::RPC2Packet& p);
    bool readArguments(int count, std::vector<std::int32_t>& args);
    bool inputArrives();
    Read readPacket(ZEL::RPC2Packet& p);
    // One packet; false (logged when bad) on failure. owed names what the
    // client must send within the input time-out; null for none.
    bool receive(ZEL::RPC2Packet& p, const char* owed);
    bool checkAttributes(int size);
    void waitForHello();
    void closeSocket();
    void log(const std::string& line) const;

    SimState& state;
    const SimFunctions& functions;
    SSL_CTX* const ctxTls1;
    SSL_CTX* const ctxSsl3;
    const std::string peer;

    std::mutex fdMutex; // guards fd against a shutdown racing the close
    int fd;
    std::unique_ptr<ZEL::RPC2Stream> stream;
    std::vector<char> buf;  // one whole incoming packet
    int packetSize = 0;     // of the packet in buf
    std::string readError;  // why the last read was bad

    SessionKey key{};
    SessionKey challenge{};
    bool keySent = false;
    int challengeLen = 0;
    std::string user;
    int granted = 0;
};

} // namespace zel5sim

#endif
