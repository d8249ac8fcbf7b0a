// The billing functions the tray client calls: server version, internet
// switch and status, account report and messages.
#ifndef ZEL5_SIM_SIMBILLING_H
#define ZEL5_SIM_SIMBILLING_H

namespace zel5sim {

class SimFunctions;
struct SimCall;

class SimBilling {
public:
    enum Function {
        fnVersion = -69,
        fnSwitchInternet = -16391,
        fnInternetStatus = -16422,
        fnReport = -16423,
        fnMessages = -16424,
    };

    static void registerAll(SimFunctions& functions);

    static bool version(SimCall& call);
    static bool switchInternet(SimCall& call);
    static bool internetStatus(SimCall& call);
    static bool report(SimCall& call);
    static bool messages(SimCall& call);
};

} // namespace zel5sim

#endif
