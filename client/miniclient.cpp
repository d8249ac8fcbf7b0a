#include "miniclient.h"

#include "messagecollector.h"
#include "rpcclient.h"

#include <ctime>
#include <exception>
#include <memory>

using ZEL::RPC2Stream;

namespace {

// Inside a billing call every failed step raises its protocol error as an
// int; runCall turns it into the call's failure.
void check(int rc)
{
    if (rc != 0)
        throw rc;
}

template <class T> T readValue(RPC2Stream& s)
{
    T value{};
    check(s.data_get(value));
    return value;
}

// A byte block with its received length, built straight from the reply.
std::string readBlock(RPC2Stream& s)
{
    std::string block;
    check(s.data_get(block));
    return block;
}

// One list of a service: records while the marker is 1; any other marker
// ends the list and is consumed. Each record is built in place; a failed
// read leaves a partial one, but a failed report is dropped as a whole.
void readClasses(RPC2Stream& s, std::vector<MiniClient::TClassReport>& list)
{
    while (readValue<int>(s) == 1) {
        MiniClient::TClassReport& tclass = list.emplace_back();
        check(s.data_get(tclass.id));
        check(s.data_get(tclass.name));
        check(s.data_get(tclass.size));
    }
}

// A service's name and its three lists. A list tends to be as long as the
// one before it, so room for that many is made first: a length that bytes
// already received back, which at most doubles what the report holds.
void readService(RPC2Stream& s, MiniClient::ServiceReport& service, std::size_t& lastList)
{
    check(s.data_get(service.name));
    for (auto* list : {&service.oldPrepaid, &service.prepaid, &service.downloaded}) {
        list->reserve(lastList);
        readClasses(s, *list);
        lastList = list->size();
    }
}

// The common discipline of a billing call: call, arguments and results in
// body, then the rest of the reply. A failure closes the session; whatever
// body stored before it stays stored.
template <class Body> int runCall(MiniClient& mc, int function, Body body)
{
    if (!mc.connected)
        return MiniClient::rcNotConnected;
    try {
        check(mc.client->_call(function));
        body(mc.client->rpcstream());
        mc.client->end_call();
        return MiniClient::rcOk;
    } catch (int) {
    } catch (const std::exception&) {
        // Out of memory while keeping a reply: the call failed like any other.
    }
    mc.client->end_call();
    mc.disconnect();
    return MiniClient::rcCallFailed;
}

} // namespace

MiniClient::MiniClient() : services(new ServiceList)
{
}

MiniClient::~MiniClient()
{
    disconnect();
    delete client; // what a failed connection attempt left
    delete services;
}

int MiniClient::connect()
{
    if (address.empty() || login.empty() || password.empty() || port == 0)
        return rcIncompleteSettings;
    // A session object left by a failed attempt is not reused: it may hold a
    // half-open connection, and a secure channel cannot be set up twice on it.
    disconnect();
    delete client;
    client = new ZEL::RPCClient();
    client->set_auth(login.c_str(), password.c_str());
    lastError = 0;
    if (const int r = client->addr(address.c_str(), static_cast<short>(port))) {
        lastError = r;
        return rcBadAddress;
    }
    client->ssl_ssl3();
    client->set_connect_timeout(connectTimeoutMs);
    client->set_timeout(loginTimeoutMs);
    client->set_call_timeout(callTimeoutMs);
    // A server that vanished is noticed between refreshes.
    client->set_keepalive(60, 10, 3);
    client->set_cancel(&cancelRequested);
    if (client->open_session(0) != 0) {
        lastError = client->last_error();
        return rcSessionFailed;
    }
    connected = true;
    return rcOk;
}

void MiniClient::disconnect()
{
    if (!connected)
        return;
    client->drop_session();
    delete client;
    client = nullptr;
    connected = false;
}

bool MiniClient::retrieveVersion()
{
    return runCall(*this, fnVersion, [this](RPC2Stream& s) {
               // The version is text: it ends at the first zero byte.
               serverVersion = readBlock(s).c_str();
           })
        == rcOk;
}

bool MiniClient::checkVersion()
{
    return retrieveVersion() && serverVersion == requiredVersion;
}

int MiniClient::changeInternetStatus()
{
    // The server decides the new state; the caller reads it back with
    // refreshInternetStatus.
    return runCall(*this, fnChangeInternetStatus, [this](RPC2Stream& s) {
        check(s.data_put<int>(0));
        client->end_output();
    });
}

int MiniClient::refreshInternetStatus()
{
    return runCall(*this, fnInternetStatus, [this](RPC2Stream& s) {
        check(s.data_get(internetStatus));
        check(s.data_get(balance));
    });
}

int MiniClient::refreshPrepaid()
{
    if (!connected) {
        delete services;
        services = new ServiceList;
        return rcNotConnected;
    }
    auto fresh = std::make_unique<ServiceList>();
    const int rc = runCall(*this, fnPrepaid, [this, &fresh](RPC2Stream& s) {
        check(s.data_get(sizeDivisor));
        std::size_t lastList = 0;
        while (readValue<int>(s) != 0)
            readService(s, fresh->emplace_back(), lastList);
    });
    // A failed read publishes nothing: the previous report stays.
    if (rc == rcOk) {
        delete services;
        services = fresh.release();
    }
    return rc;
}

int MiniClient::readMessages(long& lastCheck, unsigned int& count,
                             std::vector<MessageCollector::ZELMessage>* keep)
{
    return runCall(*this, fnMessages, [&](RPC2Stream& s) {
        // Messages from the second after the last check.
        check(s.data_put<long>(lastCheck + 1));
        client->end_output();
        check(s.data_get(lastCheck));
        check(s.data_get(count));
        // Read one by one: the count is the server's word, not a size to trust.
        for (unsigned int i = 0; i < count; ++i) {
            MessageCollector::ZELMessage m;
            const int time = readValue<int>(s);
            readValue<int>(s); // a second number the client has no use for
            m.subject = readBlock(s);
            m.text = readBlock(s);
            m.date = convertTimeToString(time);
            if (keep)
                keep->push_back(std::move(m));
            else if (messageCollector)
                messageCollector->insertMessage(m.subject, m.text, m.date);
        }
    });
}

int MiniClient::refreshMessages(long& lastCheck, bool& gotNew)
{
    gotNew = false;
    unsigned int count = 0;
    if (const int rc = readMessages(lastCheck, count, nullptr))
        return rc;
    gotNew = count != 0;
    // The store writes itself after every completed retrieval, so deletions
    // made in the dialog reach the file too.
    if (messageCollector)
        messageCollector->synchronize(true);
    return rcOk;
}

int MiniClient::fetchMessages(long& lastCheck, std::vector<MessageCollector::ZELMessage>& received)
{
    long newCheck = lastCheck;
    unsigned int count = 0;
    std::vector<MessageCollector::ZELMessage> got;
    if (const int rc = readMessages(newCheck, count, &got))
        return rc;
    lastCheck = newCheck;
    received = std::move(got);
    return rcOk;
}

std::string MiniClient::convertTimeToString(long time)
{
    const std::time_t t = static_cast<std::time_t>(time);
    std::tm local{};
    if (!localtime_r(&t, &local))
        return std::string();
    char buf[256];
    const std::size_t n = std::strftime(buf, sizeof buf, "%d.%m.%Y %X", &local);
    return std::string(buf, n);
}

void MiniClient::setMessageCollector(MessageCollector* collector)
{
    messageCollector = collector;
}

bool MiniClient::setCoreDisconnectHook(bool)
{
    // Deliberately inert: switching the access off on exit is left to the
    // server; the answer only tells whether a session is open.
    return !connected;
}
