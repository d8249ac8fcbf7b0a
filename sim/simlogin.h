// Decides a login request of one connection: a fresh login checked against
// the accounts, or the restore of a session accepted earlier, both with the
// challenge-response check against the challenges this connection offered.
#ifndef ZEL5_SIM_SIMLOGIN_H
#define ZEL5_SIM_SIMLOGIN_H

#include "simstate.h"

#include <string>

namespace ZEL {
class RPC2Packet;
}

namespace zel5sim {

class SimLogin {
public:
    // What the greeting offered: the session key (when sent) and the
    // challenge (challengeLen bytes of it were sent).
    SimLogin(const SimState& state, const SessionKey& key, bool keySent, const SessionKey& challenge, int challengeLen);

    // Decides the request; user() must be non-empty (checked by the caller).
    bool decide(const ZEL::RPC2Packet& request);

    const std::string& user() const { return login; }
    // Channel protection to grant: 0 none, 1 or 2.
    int grant() const { return granted; }
    // The key of the accepted session: the greeting's, or the restored one.
    const SessionKey& sessionKey() const { return key; }
    bool restored() const { return isRestore; }
    const std::string& reason() const { return why; }

    // The login name of a request; false when it has none.
    static bool userName(const ZEL::RPC2Packet& request, std::string& name);

private:
    bool refuse(const std::string& reason);
    bool checkRestore(const ZEL::RPC2Packet& request);
    bool checkProtection(const ZEL::RPC2Packet& request);
    bool checkResponse(const ZEL::RPC2Packet& request, const std::string& password);

    const SimState& state;
    const SessionKey greetingKey;
    SessionKey key;
    const bool keySent;
    const SessionKey challenge;
    const int challengeLen;
    std::string login;
    std::string why;
    int granted = 0;
    bool isRestore = false;
};

} // namespace zel5sim

#endif
