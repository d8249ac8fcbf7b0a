#include "handclient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>

#include <algorithm>

namespace wire {

bool HandClient::connectTo(int port)
{
    ch.fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(std::uint16_t(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (ch.fd < 0 || ::connect(ch.fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
        return false;
    const int one = 1;
    return ::setsockopt(ch.fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) == 0;
}

bool HandClient::sendRequest(const std::string& user, const std::string& password, int ssl)
{
    const int size = ch.readPacket(buf.data());
    int keyLen = 0, chLen = 0;
    const char* key = size ? findAttr(buf.data(), size, atKey, keyLen) : nullptr;
    const char* challenge = key ? findAttr(buf.data(), size, atChallenge, chLen) : nullptr;
    if (!key || keyLen != 16 || std::uint8_t(buf[0]) != pkInit)
        return false;
    const std::string c = challenge && chLen == 16 ? std::string(challenge, 16) : std::string(key, 16);
    // CHAP: MD5 over the challenge and the password.
    const std::string input = c + password;
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned n = 0;
    if (EVP_Digest(input.data(), input.size(), digest, &n, EVP_md5(), nullptr) != 1 || n != 16)
        return false;
    // Control attributes in the order of their codes, as the client writes them.
    return ch.write(packet(pkRequest, attr(atUserName, user) + attr(atChallenge, c)
                                          + attr(atResponse, std::string(reinterpret_cast<char*>(digest), 16))
                                          + attr(atSslRequest, be32(std::uint32_t(ssl)))));
}

bool HandClient::login(const std::string& user, const std::string& password, int ssl, SSL_CTX* ctx)
{
    if (!sendRequest(user, password, ssl))
        return false;
    const int size = ch.readPacket(buf.data());
    int len = 0;
    const char* grant = size ? findAttr(buf.data(), size, atSslRequest, len) : nullptr;
    if (std::uint8_t(buf[0]) != pkAccept || !grant || len != 4)
        return false;
    return be32At(grant) == 0 || ch.secure(ctx, true);
}

bool HandClient::callIntDouble(int fn, int& i, double& d)
{
    if (!ch.write(callPacket(fn)))
        return false;
    int len = 0;
    int size = ch.readPacket(buf.data());
    if (!size || std::uint8_t(buf[0]) != pkData || !findAttr(buf.data(), size, atCall, len))
        return false;
    size = ch.readPacket(buf.data());
    if (!size || !findAttr(buf.data(), size, atTermination, len))
        return false;
    // The two data values, in order.
    AttrWalk walk{buf.data(), size};
    const char* values[2] = {nullptr, nullptr};
    int lens[2] = {0, 0}, count = 0, code = 0;
    const char* p = nullptr;
    while (count < 2 && walk.next(code, p, len))
        if (code == atData)
            values[count] = p, lens[count++] = len;
    if (count != 2 || lens[0] != 4 || lens[1] != 8)
        return false;
    i = int(be32At(values[0]));
    const std::uint64_t bits = (std::uint64_t(be32At(values[1])) << 32) | be32At(values[1] + 4);
    std::memcpy(&d, &bits, sizeof d);
    return true;
}

bool HandClient::callRaw(int fn, std::size_t replyBytes)
{
    if (!ch.write(callPacket(fn)))
        return false;
    while (replyBytes > 0) {
        const long r = ch.readSome(buf.data(), std::min(buf.size(), replyBytes));
        if (r <= 0)
            return false;
        replyBytes -= std::size_t(r);
    }
    return true;
}

void HandClient::leave()
{
    if (ch.fd >= 0)
        ch.write(packet(pkTerm, attr(atTermination, be32(termDrop))));
    ch.close();
}

} // namespace wire
