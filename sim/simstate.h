// The simulator's shared, locked model: accounts, sessions, scripted faults,
// observations for tests, and the stop signal every waiting thread watches.
#ifndef ZEL5_SIM_SIMSTATE_H
#define ZEL5_SIM_SIMSTATE_H

#include "billingsim.h"

#include <array>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace zel5sim {

typedef std::array<unsigned char, 16> SessionKey;

std::string keyToHex(const SessionKey& key);

class SimState {
public:
    explicit SimState(const Options& options);

    const Options& options() const { return opts; }

    // Accounts.
    void putAccount(const Account& account);
    bool getAccount(const std::string& login, Account& out) const;
    bool withAccount(const std::string& login, const std::function<void(Account&)>& fn);
    void forEachAccount(const std::function<void(Account&)>& fn);

    // Sessions: a key becomes restorable once its login was accepted.
    void keyIssued(const SessionKey& key);
    void sessionAccepted(const SessionKey& key, const std::string& login);
    bool sessionLogin(const SessionKey& key, std::string& login) const;

    // Faults: the first stored fault matching the event, used up by one.
    void addFault(const Fault& fault);
    void clearFaults();
    Fault takeFault(Fault::Stage stage, int function);

    // Observations.
    void connectionOpened();
    void connectionClosed();
    int connectionsAccepted() const;
    int activeConnections() const;
    void recordArgument(int function, long long value);
    long long lastArgument(int function) const;
    void recordTermination(int code);
    int lastTermination() const;
    std::vector<std::string> issuedKeys() const;
    void recordLoginRequest(const std::vector<unsigned char>& raw);
    std::vector<unsigned char> lastLoginRequest() const;
    bool waitFor(const std::function<bool()>& pred, int timeoutMs) const;

    // Stop signal. waitStopped waits up to ms (0: without limit) and returns
    // true once stopping.
    void setStopping(bool stopping);
    bool stopping() const;
    bool waitStopped(int ms) const;

    // One line on the server's log (stderr).
    void log(const std::string& line) const;

private:
    void changed(); // with the lock held

    const Options opts;
    mutable std::mutex m;
    mutable std::condition_variable cv;
    std::uint64_t generation = 0; // bumped on every observable change
    bool stopFlag = false;

    std::map<std::string, Account> accounts;
    std::map<SessionKey, std::string> sessions;
    std::vector<std::string> keys;
    std::vector<Fault> faults;
    std::map<int, long long> arguments;
    std::vector<unsigned char> loginRequest;
    int accepted = 0;
    int active = 0;
    int termination = 0;
};

} // namespace zel5sim

#endif
