#include "rpc2packet.h"

#include <cerrno>
#include <cstring>
#include <memory>
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

RPC2Packet::RPC2Packet() : cursor(0), total(4), hdr{0, 0, 0}, fragmented(false), header_sent(false) {}

RPC2Packet::~RPC2Packet()
{
    drop_views();
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

const RPC2Packet::Slot* RPC2Packet::control(int code) const
{
    for (const Slot& s : controls)
        if (s.code == static_cast<ui8>(code))
            return &s;
    return nullptr;
}

bool RPC2Packet::file(const Slot& s)
{
    if (s.code == ra_data) {
        datas.push_back(s);
    } else {
        // Kept in code order, as they are written; the first of a code wins.
        auto at = controls.begin();
        while (at != controls.end() && at->code < s.code)
            ++at;
        if (at != controls.end() && at->code == s.code)
            return false;
        controls.insert(at, s);
    }
    total += s.size;
    return true;
}

// Throws int 22 for a length no attribute can have, 12 out of memory.
void RPC2Packet::add_data(const char* data, int len)
{
    if (len < 0 || len > rpc2_max_packet - 4)
        throw int(ec_inval);
    const Slot s{static_cast<ui32>(bytes.size()), static_cast<ui16>(len + 4), static_cast<ui8>(ra_data)};
    // Building does not move the read cursor: a value put behind the last
    // unread one is never read; only parsing adds readable values.
    const bool at_end = cursor == datas.size();
    bytes.insert(bytes.end(), data, data + len);
    file(s);
    if (at_end)
        cursor = datas.size();
}

void RPC2Packet::add_control(int code, const char* data, int len)
{
    if (control(code) || len < 0 || len > rpc2_max_packet - 4)
        throw int(ec_inval);
    const Slot s{static_cast<ui32>(bytes.size()), static_cast<ui16>(len + 4), static_cast<ui8>(code)};
    bytes.insert(bytes.end(), data, data + len);
    file(s);
}

void RPC2Packet::store(__rpc2_attr* a)
{
    std::unique_ptr<__rpc2_attr> owned(a);
    const Slot s{static_cast<ui32>(bytes.size()), a->size, a->code};
    try {
        bytes.insert(bytes.end(), a->vbase.begin(), a->vbase.end());
        file(s);
    } catch (const std::bad_alloc&) {
        throw int(ec_nomem);
    }
}

void RPC2Packet::put_attr(int code, const char* data, int len)
{
    try {
        add_control(code, data, len);
    } catch (const std::bad_alloc&) {
        throw int(ec_nomem);
    }
}

void RPC2Packet::put_attr(int code, int value)
{
    const int be = be32_value(value);
    put_attr(code, reinterpret_cast<const char*>(&be), 4);
}

int RPC2Packet::put_data(const char* data, int len)
{
    try {
        add_data(data, len);
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
        return cursor != datas.size();
    return control(code) != nullptr;
}

int RPC2Packet::get_data(int& value)
{
    int len = 0;
    const char* p = peek_data(len);
    if (!p)
        return ec_noent;
    if (len != 4)
        return ec_inval;
    std::memcpy(&value, p, 4);
    skip_data();
    return ec_ok;
}

int RPC2Packet::get_attr(int code, int& value) const
{
    const Slot* s = control(code);
    if (!s)
        return ec_noent;
    if (s->size != 8)
        return ec_inval;
    value = static_cast<int>(get_be32(reinterpret_cast<const unsigned char*>(bytes.data() + s->off)));
    return ec_ok;
}

int RPC2Packet::get(int code, int& value)
{
    return code == ra_data ? get_data(value) : get_attr(code, value);
}

int RPC2Packet::get_data(char* buf, int& len)
{
    int n = 0;
    const char* p = peek_data(n);
    if (!p)
        return ec_noent;
    const int cap = len;
    len = n;
    if (!buf || len > cap)
        return ec_inval;
    if (len)
        std::memcpy(buf, p, len);
    skip_data();
    return ec_ok;
}

int RPC2Packet::get_attr(int code, char* buf, int& len) const
{
    const Slot* s = control(code);
    if (!s)
        return ec_noent;
    const int cap = len;
    len = s->size - 4;
    if (!buf || len > cap)
        return ec_inval;
    if (len)
        std::memcpy(buf, bytes.data() + s->off, len);
    return ec_ok;
}

int RPC2Packet::get(int code, char* buf, int& len)
{
    return code == ra_data ? get_data(buf, len) : get_attr(code, buf, len);
}

int RPC2Packet::packet_size() const
{
    return total;
}

void RPC2Packet::clear()
{
    // The buffers keep their capacity for the next packet.
    bytes.clear();
    controls.clear();
    datas.clear();
    cursor = 0;
    total = 4;
    drop_views();
    hdr = rpc2_header{0, 0, 0};
    fragmented = false;
    header_sent = false;
}

// ---- views ----------------------------------------------------------------

void RPC2Packet::drop_views() const
{
    for (auto& kv : attr_view)
        delete kv.second;
    attr_view.clear();
    for (auto& p : data_view)
        delete p.base;
    data_view.clear();
}

const std::map<ui8, RPC2Packet::__rpc2_attr*>& RPC2Packet::control_attrs() const
{
    for (auto& kv : attr_view)
        delete kv.second;
    attr_view.clear();
    for (const Slot& s : controls) {
        std::unique_ptr<__rpc2_attr> a(fill_r2a(s.code, bytes.data() + s.off, s.size - 4));
        attr_view.emplace(s.code, a.get());
        a.release();
    }
    return attr_view;
}

const std::list<RPC2Packet::__rpc2_ptr>& RPC2Packet::data_attrs() const
{
    for (auto& p : data_view)
        delete p.base;
    data_view.clear();
    for (const Slot& s : datas) {
        std::unique_ptr<__rpc2_attr> a(fill_r2a(s.code, bytes.data() + s.off, s.size - 4));
        data_view.push_back(__rpc2_ptr{a.get()});
        a.release();
    }
    return data_view;
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

int RPC2Packet::dump_slot(char* buf, const Slot& s) const
{
    buf[0] = static_cast<char>(s.code);
    buf[1] = 0;
    put_be16(buf + 2, s.size);
    if (s.size > 4)
        std::memcpy(buf + 4, bytes.data() + s.off, s.size - 4);
    return s.size;
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
    for (const Slot& s : controls)
        p += dump_slot(p, s);
    for (const Slot& s : datas)
        p += dump_slot(p, s);
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
    // Whole attributes up to the first that does not fit, each checked
    // against what is left of the region: a region over the limit yields
    // none. Their bytes are copied in one piece behind what the packet holds.
    const unsigned char* u = reinterpret_cast<const unsigned char*>(p);
    int used = 0;
    while (len - used >= 4 && len - used <= rpc2_max_attr_region) {
        const int size = static_cast<int>(get_be16(u + used + 2));
        if (size < 4 || size > len - used)
            break;
        used += size;
    }
    if (used == 0)
        return 0;
    const std::size_t base = bytes.size();
    int at = 0;
    try {
        bytes.insert(bytes.end(), p, p + used);
        while (at < used) {
            const Slot s{static_cast<ui32>(base + at + 4), static_cast<ui16>(get_be16(u + at + 2)), u[at]};
            file(s);
            at += s.size;
        }
    } catch (const std::bad_alloc&) {
        // Out of memory ends the packet where it stands, like a bad attribute.
    }
    return at;
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
