// Enumerations, wire structures and shared types of the billing server's
// packet protocol, version 2.3.
#ifndef ZEL_RPC2PROTO_H
#define ZEL_RPC2PROTO_H

#include <cstdint>
#include <string>

namespace ZEL {

typedef std::uint8_t ui8;
typedef std::uint16_t ui16;
typedef std::uint32_t ui32;
typedef std::uint64_t ui64;

typedef int sock_t;

enum rpc2_version_t {
    rpc2_version_major = 2,
    rpc2_version_minor = 3,
    rpc2_version = 35,
};

enum rpc2_codes {
    rc_session_init = 192,
    rc_init = rc_session_init,
    rc_access_request = 193,
    rc_request = rc_access_request,
    rc_access_accept = 194,
    rc_accept = rc_access_accept,
    rc_access_reject = 195,
    rc_reject = rc_access_reject,
    rc_session_data = 200,
    rc_data = rc_session_data,
    rc_session_call = 201,
    rc_call = rc_session_call,
    rc_session_termination = 203,
    rc_term = rc_session_termination,
    // A byte with both top bits set starts a packet header; attribute codes never do.
    rc_hdr_mask = 192,
    rc_attr_mask = 79,
};

enum rpc2_attr_codes {
    ra_user_type = 1,
    ra_user_name = 2,
    ra_call = 3,
    ra_termination = 4,
    ra_data = 5,
    ra_key = 6,
    ra_client_ip = 7,
    ra_chap_challenge = 8,
    ra_chap_response = 9,
    ra_ssl_request = 10,
    ra_version = 10,
};

enum rpc2_termination_codes {
    rtc_user = 1,
    rtc_password = 2,
    rtc_nofunc = 3,
    rtc_eof = 4,
    rtc_sign = 5,
    rtc_drop = 6,
    rtc_access = 7,
    rtc_ssl_err = 8,
};

enum rpc2_user_type_codes {
    rut_user = 0,
    rut_service = 1,
    rut_card_user = 2,
};

enum rpc2_ssl_request_codes {
    rsr_ssl_none = 0,
    rsr_ssl_tls1 = 1,
    rsr_ssl_ssl3 = 2,
};

// Results of the protocol library, with the meanings of the errno names.
enum error_codes {
    ec_ok = 0,
    ec_noent = 2,
    ec_again = 12,
    ec_nomem = 12,
    ec_access = 13,
    ec_busy = 16,
    ec_nodev = 19,
    ec_inval = 22,
    ec_pipe = 32,
    ec_badmsg = 74,
    ec_timedout = 110,
};

// Packet header: 4 bytes on the wire (code, version, big-endian total size).
// In memory the size is kept in host order.
struct rpc2_header {
    ui8 code;
    ui8 version;
    ui16 size;
};

// Largest packet, header included, that the 16-bit size field can announce.
constexpr int rpc2_max_packet = 65535;
// Largest attribute region the parser accepts in one packet.
constexpr int rpc2_max_attr_region = 32768;

namespace RPC2 {

// Attribute header: 4 bytes on the wire (code, reserved, big-endian size
// counting these 4 bytes), followed by size - 4 payload bytes.
struct rpc2_attr {
    ui8 code;
    ui8 reserved;
    ui16 size;
};

union __rpc2_i64_struct {
    ui64 __ui64_1;
    struct {
        ui32 i1;
        ui32 i2;
    };
};

// The 16-byte session key.
struct key128_t {
    unsigned char key[16];

    key128_t();
    key128_t(const unsigned char* bytes);
    key128_t& operator=(const unsigned char* bytes);
    key128_t& operator=(const key128_t& other) = default;
    key128_t(const key128_t& other) = default;
    operator unsigned char*();
    operator const unsigned char*() const;
    bool operator==(const key128_t& other) const;
};

} // namespace RPC2

// Text values of data attributes: the raw bytes, no terminator on the wire.
class zel_text_t : public std::string {
public:
    zel_text_t() = default;
    zel_text_t(const char* s) : std::string(s ? s : "") {}
    zel_text_t(const char* s, std::size_t n) : std::string(s, n) {}
    zel_text_t(const std::string& s) : std::string(s) {}
    zel_text_t(const zel_text_t&) = default;
    ~zel_text_t() = default;
    zel_text_t& operator=(const zel_text_t&) = default;
    zel_text_t& operator=(const std::string& s)
    {
        std::string::operator=(s);
        return *this;
    }
};

} // namespace ZEL

#endif
