// The application's one client of the billing server: a facade over the
// protocol session that performs the subscriber's calls and keeps their
// results in public fields.
#ifndef ZEL5_MINICLIENT_H
#define ZEL5_MINICLIENT_H

#include "messagecollector.h"

#include <atomic>
#include <list>
#include <string>
#include <vector>

namespace ZEL {
class RPCClient;
}

class MiniClient {
public:
    struct TClassReport {
        int id = 0;
        std::string name;
        long long size = 0;
    };
    struct ServiceReport {
        std::string name;
        std::vector<TClassReport> oldPrepaid;
        std::vector<TClassReport> prepaid;
        std::vector<TClassReport> downloaded;
    };
    typedef std::list<ServiceReport> ServiceList;

    // Remote function numbers.
    enum Function {
        fnVersion = -69,
        fnChangeInternetStatus = -16391,
        fnInternetStatus = -16422,
        fnPrepaid = -16423,
        fnMessages = -16424,
    };

    // Result codes.
    enum Result {
        rcOk = 0,
        rcNotConnected = 1,
        rcIncompleteSettings = 2,
        rcBadAddress = 3,
        rcSessionFailed = 4,
        rcCallFailed = 7,
    };

    MiniClient();
    ~MiniClient();
    MiniClient(const MiniClient&) = delete;
    MiniClient& operator=(const MiniClient&) = delete;

    int connect();
    void disconnect();
    bool retrieveVersion();
    bool checkVersion();
    int changeInternetStatus();
    int refreshInternetStatus();
    int refreshPrepaid();
    int refreshMessages(long& lastCheck, bool& gotNew);
    // The same retrieval, all or nothing, without touching the store: on
    // success the messages in server order and the server's new last check
    // time; on failure neither argument changes, so the next retrieval asks
    // again from the same time and nothing is lost or received twice.
    int fetchMessages(long& lastCheck, std::vector<MessageCollector::ZELMessage>& received);
    std::string convertTimeToString(long time);
    void setMessageCollector(MessageCollector* collector);
    bool setCoreDisconnectHook(bool switchOffOnExit);

    // Cuts the exchange under way short (within 50 ms) and every later one
    // until clearCancel. Safe from any thread.
    void cancel() { cancelRequested.store(true, std::memory_order_release); }
    void clearCancel() { cancelRequested.store(false, std::memory_order_release); }

    // Bounds of the session's waits, set on every connect: the TCP connect,
    // each wait of the login, and a whole call's reply.
    int connectTimeoutMs = 10000;
    int loginTimeoutMs = 15000;
    int callTimeoutMs = 30000;
    // Why the last connect failed, errno-style (0 after success); with
    // connect's own codes it tells a refused login from a silent server.
    int lastError = 0;

    ZEL::RPCClient* client = nullptr;
    bool connected = false;
    std::string address;
    int port = 0;
    std::string login;
    std::string password;
    int sizeDivisor = 0;
    double balance = 0.0;
    int internetStatus = 0;
    std::string serverVersion;
    std::string requiredVersion;
    ServiceList* services;
    MessageCollector* messageCollector = nullptr;

private:
    int readMessages(long& lastCheck, unsigned int& count, std::vector<MessageCollector::ZELMessage>* keep);

    std::atomic<bool> cancelRequested{false};
};

#endif
