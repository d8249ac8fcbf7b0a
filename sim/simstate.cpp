#include "simstate.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace zel5sim {

std::string keyToHex(const SessionKey& key)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned char b : key) {
        text += digits[b >> 4];
        text += digits[b & 15];
    }
    return text;
}

SimState::SimState(const Options& options) : opts(options)
{
    if (opts.withDemoAccount)
        accounts[Account::demo().login] = Account::demo();
}

void SimState::changed()
{
    ++generation;
    cv.notify_all();
}

void SimState::putAccount(const Account& account)
{
    std::lock_guard<std::mutex> lock(m);
    accounts[account.login] = account;
    changed();
}

bool SimState::getAccount(const std::string& login, Account& out) const
{
    std::lock_guard<std::mutex> lock(m);
    auto it = accounts.find(login);
    if (it == accounts.end())
        return false;
    out = it->second;
    return true;
}

bool SimState::withAccount(const std::string& login, const std::function<void(Account&)>& fn)
{
    std::lock_guard<std::mutex> lock(m);
    auto it = accounts.find(login);
    if (it == accounts.end())
        return false;
    fn(it->second);
    changed();
    return true;
}

void SimState::forEachAccount(const std::function<void(Account&)>& fn)
{
    std::lock_guard<std::mutex> lock(m);
    for (auto& entry : accounts)
        fn(entry.second);
    changed();
}

void SimState::keyIssued(const SessionKey& key)
{
    std::lock_guard<std::mutex> lock(m);
    keys.push_back(keyToHex(key));
    changed();
}

void SimState::sessionAccepted(const SessionKey& key, const std::string& login)
{
    std::lock_guard<std::mutex> lock(m);
    sessions[key] = login;
    changed();
}

bool SimState::sessionLogin(const SessionKey& key, std::string& login) const
{
    std::lock_guard<std::mutex> lock(m);
    auto it = sessions.find(key);
    if (it == sessions.end())
        return false;
    login = it->second;
    return true;
}

void SimState::addFault(const Fault& fault)
{
    std::lock_guard<std::mutex> lock(m);
    if (fault.kind != Fault::Kind::None && fault.times != 0)
        faults.push_back(fault);
}

void SimState::clearFaults()
{
    std::lock_guard<std::mutex> lock(m);
    faults.clear();
}

static bool faultMatches(const Fault& f, Fault::Stage stage, int function)
{
    if (f.stage != stage)
        return false;
    if (stage != Fault::Stage::Call)
        return true;
    // A huge message count only makes sense in the messages reply.
    if (f.kind == Fault::Kind::HugeCount)
        return function == -16424 && (f.function == 0 || f.function == function);
    return f.function == 0 || f.function == function;
}

Fault SimState::takeFault(Fault::Stage stage, int function)
{
    std::lock_guard<std::mutex> lock(m);
    for (auto it = faults.begin(); it != faults.end(); ++it) {
        if (!faultMatches(*it, stage, function))
            continue;
        Fault f = *it;
        if (it->times > 0 && --it->times == 0)
            faults.erase(it);
        return f;
    }
    return Fault();
}

void SimState::connectionOpened()
{
    std::lock_guard<std::mutex> lock(m);
    ++accepted;
    ++active;
    changed();
}

void SimState::connectionClosed()
{
    std::lock_guard<std::mutex> lock(m);
    --active;
    changed();
}

int SimState::connectionsAccepted() const
{
    std::lock_guard<std::mutex> lock(m);
    return accepted;
}

int SimState::activeConnections() const
{
    std::lock_guard<std::mutex> lock(m);
    return active;
}

void SimState::recordArgument(int function, long long value)
{
    std::lock_guard<std::mutex> lock(m);
    arguments[function] = value;
    changed();
}

long long SimState::lastArgument(int function) const
{
    std::lock_guard<std::mutex> lock(m);
    auto it = arguments.find(function);
    return it == arguments.end() ? 0 : it->second;
}

void SimState::recordTermination(int code)
{
    std::lock_guard<std::mutex> lock(m);
    termination = code;
    changed();
}

int SimState::lastTermination() const
{
    std::lock_guard<std::mutex> lock(m);
    return termination;
}

std::vector<std::string> SimState::issuedKeys() const
{
    std::lock_guard<std::mutex> lock(m);
    return keys;
}

void SimState::recordLoginRequest(const std::vector<unsigned char>& raw)
{
    std::lock_guard<std::mutex> lock(m);
    loginRequest = raw;
    changed();
}

std::vector<unsigned char> SimState::lastLoginRequest() const
{
    std::lock_guard<std::mutex> lock(m);
    return loginRequest;
}

bool SimState::waitFor(const std::function<bool()>& pred, int timeoutMs) const
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        std::uint64_t seen;
        {
            std::lock_guard<std::mutex> lock(m);
            seen = generation;
        }
        // The predicate calls the observers, which take the lock themselves.
        if (pred())
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        // Woken by every change of the simulator; the short slice also lets
        // predicates over state outside the simulator be seen.
        const auto slice = std::min(deadline, std::chrono::steady_clock::now() + std::chrono::milliseconds(20));
        std::unique_lock<std::mutex> lock(m);
        cv.wait_until(lock, slice, [&] { return generation != seen; });
    }
}

void SimState::setStopping(bool stopping)
{
    std::lock_guard<std::mutex> lock(m);
    stopFlag = stopping;
    changed();
}

bool SimState::stopping() const
{
    std::lock_guard<std::mutex> lock(m);
    return stopFlag;
}

bool SimState::waitStopped(int ms) const
{
    std::unique_lock<std::mutex> lock(m);
    if (ms <= 0) {
        cv.wait(lock, [&] { return stopFlag; });
        return true;
    }
    return cv.wait_for(lock, std::chrono::milliseconds(ms), [&] { return stopFlag; });
}

void SimState::log(const std::string& line) const
{
    // One write per line so that lines of several connections do not mix.
    std::string text = "zel5-billing-sim: " + line + "\n";
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

} // namespace zel5sim
