// The billing simulator: the server side of the billing protocol with an
// account model, used by the demo and by every integration test. Runs its
// own threads; all public methods are safe to call from any thread.
#ifndef ZEL5_SIM_BILLINGSIM_H
#define ZEL5_SIM_BILLINGSIM_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace zel5sim {

struct TrafficClass {
    int id = 0;
    std::string name;
    long long size = 0; // bytes
};

struct Service {
    std::string name;
    std::vector<TrafficClass> oldPrepaid;
    std::vector<TrafficClass> prepaid;
    std::vector<TrafficClass> downloaded;
};

struct Message {
    std::int32_t time = 0; // seconds since the epoch
    std::string subject;   // UTF-8
    std::string body;      // UTF-8 HTML
};

struct Account {
    std::string login;
    std::string password;
    double balance = 0.0;
    int internetStatus = 0; // 0 off, 1 on; the switch toggles it
    int sizeDivisor = 1048576;
    std::vector<Service> services;
    std::vector<Message> messages;

    // The built-in demo account: login "demo", password "demo".
    static Account demo();
};

enum class TlsMode {
    Asked, // grant the protection the client asked for
    None,  // grant none
    Fail,  // grant what was asked, then fail the handshake
};

// One scripted misbehaviour. A fault applies to the next `times` matching
// events (-1: all of them) and then is used up.
struct Fault {
    enum class Stage {
        Greeting,    // the packet sent on a new connection
        LoginAnswer, // the answer to the login request
        Call,        // the reply to a call (acknowledgement, data, termination)
    };
    enum class Kind {
        None,
        CutAfter,     // close the connection after `bytes` bytes of the stage's output
        Stall,        // send nothing; close after `stallMs` (0: when the simulator stops)
        WrongCode,    // the first packet of the stage carries `code` instead
        WrongVersion, // the first packet of the stage carries version byte `code`
        Garbage,      // send `bytes` bytes that parse as no packet, then close
        NoKey,        // Greeting only: no ra_key attribute
        ShortChallenge, // Greeting only: an 8-byte ra_chap_challenge
        WrongSize,    // Call only: the first data value is sent one byte longer
        HugeCount,    // Call only (-16424): a message count of 0xFFFFFFFF, then close
    };
    Stage stage = Stage::Call;
    Kind kind = Kind::None;
    int function = 0; // Call stage: the function number it applies to; 0 any
    int bytes = 0;
    int code = 0;
    int stallMs = 0;
    int times = 1;
};

struct Options {
    std::string listenAddress = "127.0.0.1";
    int port = 11758; // 0: an ephemeral port, read back with port()
    TlsMode tls = TlsMode::Asked;
    std::string serverVersion = "5.1.9";
    int demoActivitySeconds = 0; // 0: no demo activity
    bool withDemoAccount = true;
    int maxConnections = 64; // further clients are refused until one leaves
    // A client that owes its login request or a call's arguments and sends
    // nothing for this long is disconnected; 0: no limit.
    int inputTimeoutMs = 30000;
};

class BillingSim {
public:
    explicit BillingSim(const Options& options = Options());
    ~BillingSim(); // stops
    BillingSim(const BillingSim&) = delete;
    BillingSim& operator=(const BillingSim&) = delete;

    // Binds, listens and starts serving. 0, or an errno value.
    int start();
    // Closes every connection and joins every thread. Idempotent.
    void stop();
    std::uint16_t port() const;

    // Accounts: added or replaced by login.
    void putAccount(const Account& account);
    bool getAccount(const std::string& login, Account& out) const;
    // Runs fn on the stored account under the simulator's lock.
    bool withAccount(const std::string& login, const std::function<void(Account&)>& fn);
    // Loads accounts from a file (format in docs/simulator.md). false with a
    // one-line reason in error.
    bool loadAccounts(const std::string& path, std::string& error);

    void addFault(const Fault& fault);
    void clearFaults();

    // Observations for tests.
    int connectionsAccepted() const;
    int activeConnections() const;
    // Last function argument received per function number (0 if none yet).
    long long lastArgument(int function) const;
    // Termination code of the most recent 203 packet from a client (0 if none).
    int lastTermination() const;
    // The session keys the simulator issued, as 32 hex digits, newest last.
    std::vector<std::string> issuedKeys() const;
    // Raw bytes of the most recent login request packet.
    std::vector<unsigned char> lastLoginRequest() const;
    // Waits (bounded) until pred() holds; true when it did.
    bool waitFor(const std::function<bool()>& pred, int timeoutMs = 5000) const;

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};

} // namespace zel5sim

#endif
