#include "rpc2packet.h"

#include <cerrno>
#include <cstring>
#include <new>

namespace ZEL {

namespace {

void put_be16(char* p, unsigned v)
{
    p[0] = static_cast<char>((v >> 8) & 0xFF);
    p[1] = static_cast<char>(v & 0xFF);
}

unsigned get_be16(const unsigned char* p)
{
    return (unsigned(p[0]) << 8) | p[1];
}

ui32 get_be32(const unsigned char* p)
{
    return (ui32(p[0]) << 24) | (ui32(p[1]) << 16) | (ui32(p[2]) << 8) | ui32(p[3]);
}

int be32_value(int value)
{
    const ui32 v = static_cast<ui32>(value);
    unsigned char b[4] = {static_cast<unsigned char>(v >> 24), static_cast<unsigned char>(v >> 16),
                          static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
    int out;
    std::memcpy(&out, b, 4);
    return out;
}

} // namespace

RPC2Packet::RPC2Packet()
    : data_iter(data_attr.end()), hdr{0, 0, 0}, fragmented(false), header_sent(false)
{
}

RPC2Packet::~RPC2Packet()
{
    clear();
}

// ---- building -------------------------------------------------------------

RPC2Packet::__rpc2_attr* RPC2Packet::fill_r2a(int code, const char* data, int len) const
{
    if (len < 0 || len > rpc2_max_packet - 4)
        throw int(ec_inval);
    __rpc2_attr* a = new (std::nothrow) __rpc2_attr;
    if (!a)
        throw int(ec_nomem);
    try {
        a->vbase.assign(reinterpret_cast<const unsigned char*>(data),
                        reinterpret_cast<const unsigned char*>(data) + len);
    } catch (const std::bad_alloc&) {
        delete a;
        throw int(ec_nomem);
    }
    a->code = static_cast<ui8>(code);
    a->reserved = 0;
    a->size = static_cast<ui16>(len + 4);
    return a;
}

RPC2Packet::__rpc2_attr* RPC2Packet::fill_r2a(int code, int value) const
{
    return fill_r2a(code, reinterpret_cast<const char*>(&value), 4);
}

void RPC2Packet::store(__rpc2_attr* a)
{
    if (a->code == ra_data) {
        try {
            data_attr.push_back(__rpc2_ptr{a});
        } catch (const std::bad_alloc&) {
            delete a;
            throw int(ec_nomem);
        }
        if (data_iter == data_attr.end())
            data_iter = std::prev(data_attr.end());
        return;
    }
    // The first occurrence of a control attribute wins.
    if (!attr.emplace(a->code, a).second)
        delete a;
}

void RPC2Packet::put_attr(int code, const char* data, int len)
{
    if (attr.count(static_cast<ui8>(code)))
        throw int(ec_inval);
    __rpc2_attr* a = fill_r2a(code, data, len);
    attr[a->code] = a;
}

void RPC2Packet::put_attr(int code, int value)
{
    const int be = be32_value(value);
    put_attr(code, reinterpret_cast<const char*>(&be), 4);
}

int RPC2Packet::put_data(const char* data, int len)
{
    try {
        __rpc2_attr* a = fill_r2a(ra_data, data, len);
        // Building does not move the read cursor; only parsing does.
        const bool at_end = data_iter == data_attr.end();
        data_attr.push_back(__rpc2_ptr{a});
        if (at_end)
            data_iter = data_attr.end();
        return ec_ok;
    } catch (int e) {
        return e;
    } catch (const std::bad_alloc&) {
        return ec_nomem;
    }
}

int RPC2Packet::put_data(int value)
{
    return put_data(reinterpret_cast<const char*>(&value), 4);
}

int RPC2Packet::put(int code, int value)
{
    if (code == ra_data)
        return put_data(value);
    try {
        put_attr(code, value);
        return ec_ok;
    } catch (int e) {
        return e;
    } catch (const std::bad_alloc&) {
        return ec_nomem;
    }
}

int RPC2Packet::put(int code, const char* data, int len)
{
    if (code == ra_data)
        return put_data(data, len);
    try {
        put_attr(code, data, len);
        return ec_ok;
    } catch (int e) {
        return e;
    } catch (const std::bad_alloc&) {
        return ec_nomem;
    }
}

void RPC2Packet::code(int c)
{
    hdr.code = static_cast<ui8>(c);
}

int RPC2Packet::code() const
{
    return hdr.code;
}

int RPC2Packet::version() const
{
    return hdr.version;
}

int RPC2Packet::size() const
{
    return hdr.size;
}

bool RPC2Packet::fragment() const
{
    return fragmented;
}

// ---- querying -------------------------------------------------------------

bool RPC2Packet::find(int code) const
{
    if (code == ra_data)
        return data_iter != data_attr.end();
    return attr.count(static_cast<ui8>(code)) != 0;
}

int RPC2Packet::get_data(int& value)
{
    if (data_iter == data_attr.end())
        return ec_noent;
    const __rpc2_attr* a = data_iter->base;
    if (a->vbase.size() != 4)
        return ec_inval;
    std::memcpy(&value, a->vbase.data(), 4);
    ++data_iter;
    return ec_ok;
}

int RPC2Packet::get_attr(int code, int& value) const
{
    auto it = attr.find(static_cast<ui8>(code));
    if (it == attr.end())
        return ec_noent;
    if (it->second->vbase.size() != 4)
        return ec_inval;
    value = static_cast<int>(get_be32(it->second->vbase.data()));
    return ec_ok;
}

int RPC2Packet::get(int code, int& value)
{
    return code == ra_data ? get_data(value) : get_attr(code, value);
}

int RPC2Packet::get_data(char* buf, int& len)
{
    if (data_iter == data_attr.end())
        return ec_noent;
    const __rpc2_attr* a = data_iter->base;
    const int cap = len;
    len = static_cast<int>(a->vbase.size());
    if (!buf || len > cap)
        return ec_inval;
    if (len)
        std::memcpy(buf, a->vbase.data(), len);
    ++data_iter;
    return ec_ok;
}

int RPC2Packet::get_attr(int code, char* buf, int& len) const
{
    auto it = attr.find(static_cast<ui8>(code));
    if (it == attr.end())
        return ec_noent;
    const int cap = len;
    len = static_cast<int>(it->second->vbase.size());
    if (!buf || len > cap)
        return ec_inval;
    if (len)
        std::memcpy(buf, it->second->vbase.data(), len);
    return ec_ok;
}

int RPC2Packet::get(int code, char* buf, int& len)
{
    return code == ra_data ? get_data(buf, len) : get_attr(code, buf, len);
}

int RPC2Packet::packet_size() const
{
    int n = 4;
    for (const auto& kv : attr)
        n += kv.second->size;
    for (const auto& p : data_attr)
        n += p.base->size;
    return n;
}

void RPC2Packet::clear()
{
    for (auto& kv : attr)
        delete kv.second;
    attr.clear();
    for (auto& p : data_attr)
        delete p.base;
    data_attr.clear();
    data_iter = data_attr.end();
    hdr = rpc2_header{0, 0, 0};
    fragmented = false;
    header_sent = false;
}

// ---- serialising ----------------------------------------------------------

int RPC2Packet::dump_header(char* buf) const
{
    buf[0] = static_cast<char>(hdr.code);
    buf[1] = static_cast<char>(rpc2_version);
    const int n = packet_size();
    put_be16(buf + 2, fragmented || n > rpc2_max_packet ? 0 : static_cast<unsigned>(n));
    return 4;
}

int RPC2Packet::dump_attr(char* buf, const __rpc2_attr* a) const
{
    buf[0] = static_cast<char>(a->code);
    buf[1] = 0;
    put_be16(buf + 2, a->size);
    if (!a->vbase.empty())
        std::memcpy(buf + 4, a->vbase.data(), a->vbase.size());
    return a->size;
}

int RPC2Packet::dump(char* buf, int cap) const
{
    const int n = packet_size();
    if (n > cap)
        return ec_nomem;
    // A packet without a code is written without its header, yet n still
    // counts those 4 bytes; callers always set a code first.
    char* p = buf;
    if (hdr.code != 0)
        p += dump_header(p);
    for (const auto& kv : attr)
        p += dump_attr(p, kv.second);
    for (const auto& d : data_attr)
        p += dump_attr(p, d.base);
    return n;
}

// ---- parsing --------------------------------------------------------------

int RPC2Packet::parse_header(const char* buf, int /*len*/)
{
    const unsigned char* p = reinterpret_cast<const unsigned char*>(buf);
    hdr.code = p[0];
    hdr.version = p[1];
    hdr.size = static_cast<ui16>(get_be16(p + 2));
    return 4;
}

RPC2Packet::__rpc2_attr* RPC2Packet::parse_attr(const unsigned char* p, int len) const
{
    if (!p || len < 4 || len > rpc2_max_attr_region)
        throw int(ec_inval);
    const int size = static_cast<int>(get_be16(p + 2));
    // Sizes 1 to 3 would leave a negative payload.
    if (size < 4 || size > len)
        throw int(ec_inval);
    return fill_r2a(p[0], reinterpret_cast<const char*>(p + 4), size - 4);
}

int RPC2Packet::parse_attr(const char* p, int len)
{
    int used = 0;
    while (used < len) {
        try {
            __rpc2_attr* a = parse_attr(reinterpret_cast<const unsigned char*>(p + used), len - used);
            const int size = a->size; // store() may free a repeated attribute
            store(a);
            used += size;
        } catch (int) {
            break;
        }
    }
    return used;
}

int RPC2Packet::parse(const char* buf, int len)
{
    try {
        clear();
        if (!buf || len < 4)
            return ec_badmsg;
        parse_header(buf, len);
        if (hdr.size == 0 || hdr.size > len)
            return ec_badmsg;
        if (hdr.size < 4)
            return ec_badmsg;
        return 4 + parse_attr(buf + 4, hdr.size - 4);
    } catch (int e) {
        return e;
    } catch (...) {
        return ec_badmsg;
    }
}

} // namespace ZEL
