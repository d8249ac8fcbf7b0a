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

RPC2Packet::RPC2Packet() : view(nullptr), view_len(0), cursor(0), total(4), hdr{0, 0, 0}, fragmented(false), header_sent(false) {}

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

// Throws bad_alloc.
bool RPC2Packet::file(const Slot& s)
{
    if (s.code != ra_data) {
        const int r = file_control(s);
        if (r < 0)
            throw std::bad_alloc();
        return r > 0;
    }
    datas.push_back(s);
    total += s.size;
    return true;
}

// Out of line: rare beside data values, and kept out of the parser's loop.
[[gnu::noinline]] int RPC2Packet::file_control(Slot s) noexcept
{
    // Kept in code order, as they are written; the first of a code wins.
    auto at = controls.begin();
    while (at != controls.end() && at->code < s.code)
        ++at;
    if (at != controls.end() && at->code == s.code)
        return 0;
    try {
        controls.insert(at, s);
    } catch (const std::bad_alloc&) {
        return -1;
    }
    total += s.size;
    return 1;
}

// Throws int 22 for a length no attribute can have, 12 out of memory.
void RPC2Packet::add_data(const char* data, int len)
{
    if (len < 0 || len > rpc2_max_packet - 4)
        throw int(ec_inval);
    own();
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
    own();
    const Slot s{static_cast<ui32>(bytes.size()), static_cast<ui16>(len + 4), static_cast<ui8>(code)};
    bytes.insert(bytes.end(), data, data + len);
    file(s);
}

void RPC2Packet::store(__rpc2_attr* a)
{
    std::unique_ptr<__rpc2_attr> owned(a);
    try {
        own();
        const Slot s{static_cast<ui32>(bytes.size()), a->size, a->code};
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
    const Slot* s = next_data();
    if (!s)
        return ec_noent;
    if (s->size != 8)
        return ec_inval;
    std::memcpy(&value, payload(*s), 4);
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
    value = static_cast<int>(get_be32(reinterpret_cast<const unsigned char*>(base() + s->off)));
    return ec_ok;
}

int RPC2Packet::get(int code, int& value)
{
    return code == ra_data ? get_data(value) : get_attr(code, value);
}

int RPC2Packet::get_data(char* buf, int& len)
{
    const Slot* s = next_data();
    if (!s)
        return ec_noent;
    const int cap = len;
    len = s->size - 4;
    if (!buf || len > cap)
        return ec_inval;
    if (len)
        std::memcpy(buf, payload(*s), len);
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
        std::memcpy(buf, base() + s->off, len);
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
    view = nullptr;
    view_len = 0;
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
        std::unique_ptr<__rpc2_attr> a(fill_r2a(s.code, base() + s.off, s.size - 4));
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
        std::unique_ptr<__rpc2_attr> a(fill_r2a(s.code, base() + s.off, s.size - 4));
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
        std::memcpy(buf + 4, base() + s.off, s.size - 4);
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

int RPC2Packet::index(const unsigned char* u, int len, std::size_t at)
{
    // Whole attributes up to the first that does not fit, each checked
    // against what is left of the region: a region over the limit yields
    // none.
    if (len > rpc2_max_attr_region)
        return 0;
    // Room for a data value in every 4 bytes, the most the region can hold,
    // so that filing one is a store; cut back to what was found.
    const std::size_t first = datas.size();
    try {
        datas.resize(first + static_cast<std::size_t>(len) / 4);
    } catch (const std::bad_alloc&) {
        return 0;
    }
    Slot* out = datas.data() + first;
    const unsigned char* p = u;
    const unsigned char* const end = u + len;
    int filed = 0;
    while (end - p >= 4) {
        const unsigned size = (unsigned(p[2]) << 8) | p[3];
        // Below the head's own 4 bytes (wrapping round) or past the end.
        if (size - 4 > static_cast<unsigned>(end - p) - 4)
            break;
        const Slot s{static_cast<ui32>(at + (p - u) + 4), static_cast<ui16>(size), p[0]};
        if (s.code != ra_data) {
            if (file_control(s) < 0)
                break; // out of memory ends the packet here, like a bad attribute
            p += size;
            continue;
        }
        *out++ = s;
        filed += static_cast<int>(size);
        // Most values are 32- or 64-bit numbers: stepping over one by a
        // constant lets the processor go on to the next attribute while this
        // one's size is still being read, instead of waiting for it.
        if (size == 8)
            p += 8;
        else if (size == 12)
            p += 12;
        else
            p += size;
    }
    datas.resize(static_cast<std::size_t>(out - datas.data()));
    total += filed;
    return static_cast<int>(p - u);
}

int RPC2Packet::parse_attr(const char* p, int len)
{
    // Copied in one piece behind what the packet holds, then cut back to
    // what was filed.
    if (len < 4 || len > rpc2_max_attr_region)
        return 0;
    std::size_t at = 0;
    try {
        own();
        at = bytes.size();
        bytes.insert(bytes.end(), p, p + len);
    } catch (const std::bad_alloc&) {
        return 0;
    }
    const int used = index(reinterpret_cast<const unsigned char*>(p), len, at);
    bytes.resize(at + used);
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

int RPC2Packet::parse_in_place(const char* buf, int len)
{
    clear();
    if (!buf || len < 4)
        return ec_badmsg;
    parse_header(buf, len);
    if (hdr.size < 4 || hdr.size > len)
        return ec_badmsg;
    view = buf;
    view_len = hdr.size;
    return 4 + index(reinterpret_cast<const unsigned char*>(buf + 4), hdr.size - 4, 4);
}

void RPC2Packet::own()
{
    if (!view)
        return;
    bytes.assign(view, view + view_len);
    view = nullptr;
}

void RPC2Packet::detach()
{
    try {
        own();
    } catch (const std::bad_alloc&) {
        clear();
    }
}

} // namespace ZEL
