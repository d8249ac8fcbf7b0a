#include "simlogin.h"

#include "rpc2packet.h"
#include "rpc2proto.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstring>

namespace zel5sim {

// A control attribute's payload; false when absent.
static bool attrBytes(const ZEL::RPC2Packet& p, int code, std::string& out)
{
    if (!p.find(code))
        return false;
    int len = 0;
    p.get_attr(code, nullptr, len);
    out.assign(static_cast<std::size_t>(len), '\0');
    return len == 0 || p.get_attr(code, out.data(), len) == 0;
}

SimLogin::SimLogin(const SimState& s, const SessionKey& k, bool sent, const SessionKey& ch, int chLen)
    : state(s), greetingKey(k), key(k), keySent(sent), challenge(ch), challengeLen(chLen)
{
}

bool SimLogin::userName(const ZEL::RPC2Packet& request, std::string& name)
{
    return attrBytes(request, ZEL::ra_user_name, name) && !name.empty();
}

bool SimLogin::refuse(const std::string& reason)
{
    why = reason;
    return false;
}

bool SimLogin::decide(const ZEL::RPC2Packet& request)
{
    userName(request, login);
    isRestore = request.find(ZEL::ra_key);
    if (isRestore ? !checkRestore(request) : !checkProtection(request))
        return false;
    Account account;
    if (!state.getAccount(login, account))
        return refuse("no such account");
    return checkResponse(request, account.password);
}

bool SimLogin::checkRestore(const ZEL::RPC2Packet& request)
{
    std::string bytes;
    attrBytes(request, ZEL::ra_key, bytes);
    if (bytes.size() != 16)
        return refuse("session key of " + std::to_string(bytes.size()) + " bytes");
    SessionKey asked;
    std::memcpy(asked.data(), bytes.data(), 16);
    std::string owner;
    if (!state.sessionLogin(asked, owner) || owner != login)
        return refuse("unknown session key");
    // A restored session keeps its key; its channel stays plain.
    key = asked;
    granted = 0;
    return true;
}

bool SimLogin::checkProtection(const ZEL::RPC2Packet& request)
{
    int asked = 0;
    if (request.find(ZEL::ra_ssl_request) && request.get_attr(ZEL::ra_ssl_request, asked) != 0)
        return refuse("malformed channel protection request");
    if (asked < ZEL::rsr_ssl_none || asked > ZEL::rsr_ssl_ssl3)
        return refuse("unknown channel protection " + std::to_string(asked));
    granted = state.options().tls == TlsMode::None ? 0 : asked;
    return true;
}

bool SimLogin::checkResponse(const ZEL::RPC2Packet& request, const std::string& password)
{
    std::string ch, response;
    if (!attrBytes(request, ZEL::ra_chap_challenge, ch) || !attrBytes(request, ZEL::ra_chap_response, response))
        return refuse("no challenge response");
    if (ch.size() != 16 || response.size() != 16)
        return refuse("challenge response of wrong size");
    // Only a challenge this connection offered counts, else an old
    // response could be replayed. A client uses the key when the
    // challenge is not a full 16 bytes.
    const bool offered = (challengeLen == 16 && std::memcmp(ch.data(), challenge.data(), 16) == 0) ||
                         (keySent && std::memcmp(ch.data(), greetingKey.data(), 16) == 0);
    if (!offered)
        return refuse("challenge not offered on this connection");

    std::string input = ch + password;
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLen = 0;
    if (EVP_Digest(input.data(), input.size(), digest, &digestLen, EVP_md5(), nullptr) != 1 || digestLen != 16)
        return refuse("cannot compute MD5");
    if (CRYPTO_memcmp(digest, response.data(), 16) != 0)
        return refuse("wrong password");
    return true;
}

} // namespace zel5sim
