// The application's one client of the billing server: a facade over the
// protocol session that performs the subscriber's calls and keeps their
// results in public fields.
#ifndef ZEL5_MINICLIENT_H
#define ZEL5_MINICLIENT_H

#include <list>
#include <string>
#include <vector>

namespace ZEL {
class RPCClient;
}
class MessageCollector;

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
    std::string convertTimeToString(long time);
    void setMessageCollector(MessageCollector* collector);
    bool setCoreDisconnectHook(bool switchOffOnExit);

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
};

#endif
