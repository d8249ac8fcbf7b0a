#include "rpc2packet.h"

#include <algorithm>
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

// Walks over the whole data attributes from p on: where they end (the end,
// an attribute that does not fit, or a control attribute). A loop of its
// own, without calls, so that the compiler keeps it all in registers.
const char* data_run(const char* p, const char* end, std::size_t& values)
{
    std::size_t n = 0;
    for (std::ptrdiff_t left; (left = end - p) >= 4;) {
        const unsigned size = (unsigned(static_cast<unsigned char>(p[2])) << 8) | static_cast<unsigned char>(p[3]);
        // Below the head's own 4 bytes (wrapping round) or past the end.
        if (size - 4 > static_cast<unsigned>(left) - 4 || static_cast<unsigned char>(p[0]) != ra_data)
            break;
        ++n;
        // Most values are 32- or 64-bit numbers: stepping over one by a
        // constant lets the processor go on to the next attribute while this
        // one's size is still being read, instead of waiting for it. The
        // empty asm keeps the compiler from merging the steps into a
        // conditional move, which would wait for the size again.
        if (size == 8) {
            p += 8;
        } else if (size == 12) {
            p += 12;
            asm("" : "+r"(p));
        } else {
            p += size;
        }
    }
    values += n;
    return p;
}

} // namespace

RPC2Packet::RPC2Packet()
    : view(nullptr), view_len(0), from_wire(false), cursor(nullptr), unread(0), total(4), hdr{0, 0, 0}, fragmented(false),
      header_sent(false)
{
}

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

const RPC2Packet::Control* RPC2Packet::control(int code) const
{
    for (const Control& c : controls)
        if (c.code == static_cast<ui8>(code))
            return &c;
    return nullptr;
}

int RPC2Packet::file_control(int code, const char* payload, int len) noexcept
{
    // Kept in code order, as they are written; the first of a code wins.
    auto at = controls.begin();
    while (at != controls.end() && at->code < static_cast<ui8>(code))
        ++at;
    if (at != controls.end() && at->code == static_cast<ui8>(code))
        return 0;
    const Control c{controls_bytes.size(), static_cast<ui16>(len + 4), static_cast<ui8>(code)};
    try {
        controls_bytes.insert(controls_bytes.end(), payload, payload + len);
        controls.insert(at, c);
    } catch (const std::bad_alloc&) {
        controls_bytes.resize(c.off);
        return -1;
    }
    total += c.size;
    return 1;
}

// Throws int 22 for a length no attribute can have, bad_alloc.
void RPC2Packet::add_data(const char* data, int len)
{
    if (len < 0 || len > rpc2_max_packet - 4)
        throw int(ec_inval);
    own();
    const int size = len + 4;
    const char head[4] = {static_cast<char>(ra_data), 0, static_cast<char>(size >> 8), static_cast<char>(size & 0xFF)};
    make_room(static_cast<std::size_t>(size));
    bytes.insert(bytes.end(), head, head + 4);
    bytes.insert(bytes.end(), data, data + len);
    total += size;
    // Building does not move the read cursor: a value put after everything
    // was read is never read; only parsing adds readable values.
    if (unread)
        ++unread;
}

void RPC2Packet::store(__rpc2_attr* a)
{
    std::unique_ptr<__rpc2_attr> owned(a);
    const char* payload = reinterpret_cast<const char*>(a->vbase.data());
    const int len = static_cast<int>(a->vbase.size());
    if (a->code != ra_data) {
        if (file_control(a->code, payload, len) < 0)
            throw int(ec_nomem);
        return;
    }
    try {
        own();
        const std::size_t at = bytes.size();
        const bool was_read = unread == 0;
        add_data(payload, len);
        // Parsed values are readable: the cursor moves onto this one when
        // everything before it was read.
        if (was_read) {
            unread = 1;
            cursor_at(at);
        }
    } catch (const std::bad_alloc&) {
        throw int(ec_nomem);
    }
}

void RPC2Packet::put_attr(int code, const char* data, int len)
{
    if (control(code) || len < 0 || len > rpc2_max_packet - 4)
        throw int(ec_inval);
    if (file_control(code, data, len) < 0)
        throw int(ec_nomem);
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

void RPC2Packet::seek_data()
{
    while (static_cast<unsigned char>(*cursor) != ra_data)
        cursor += attr_size(cursor);
}

bool RPC2Packet::find(int code) const
{
    if (code == ra_data)
        return unread != 0;
    return control(code) != nullptr;
}

int RPC2Packet::get_data(int& value)
{
    const char* a = next_data();
    if (!a)
        return ec_noent;
    if (attr_size(a) != 8)
        return ec_inval;
    std::memcpy(&value, a + 4, 4);
    skip_data(a);
    return ec_ok;
}

int RPC2Packet::get_attr(int code, int& value) const
{
    const Control* c = control(code);
    if (!c)
        return ec_noent;
    if (c->size != 8)
        return ec_inval;
    value = static_cast<int>(get_be32(reinterpret_cast<const unsigned char*>(controls_bytes.data() + c->off)));
    return ec_ok;
}

int RPC2Packet::get(int code, int& value)
{
    return code == ra_data ? get_data(value) : get_attr(code, value);
}

int RPC2Packet::get_data(char* buf, int& len)
{
    const char* a = next_data();
    if (!a)
        return ec_noent;
    const int cap = len;
    len = attr_size(a) - 4;
    if (!buf || len > cap)
        return ec_inval;
    if (len)
        std::memcpy(buf, a + 4, len);
    skip_data(a);
    return ec_ok;
}

int RPC2Packet::get_attr(int code, char* buf, int& len) const
{
    const Control* c = control(code);
    if (!c)
        return ec_noent;
    const int cap = len;
    len = c->size - 4;
    if (!buf || len > cap)
        return ec_inval;
    if (len)
        std::memcpy(buf, controls_bytes.data() + c->off, len);
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
    controls_bytes.clear();
    controls.clear();
    from_wire = false;
    cursor = nullptr;
    unread = 0;
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
    for (const Control& c : controls) {
        std::unique_ptr<__rpc2_attr> a(fill_r2a(c.code, controls_bytes.data() + c.off, c.size - 4));
        attr_view.emplace(c.code, a.get());
        a.release();
    }
    return attr_view;
}

const std::list<RPC2Packet::__rpc2_ptr>& RPC2Packet::data_attrs() const
{
    for (auto& p : data_view)
        delete p.base;
    data_view.clear();
    const char* r = region();
    for (std::size_t at = 0; at < region_size(); at += attr_size(r + at)) {
        if (static_cast<unsigned char>(r[at]) != ra_data)
            continue;
        std::unique_ptr<__rpc2_attr> a(fill_r2a(ra_data, r + at + 4, attr_size(r + at) - 4));
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
    for (const Control& c : controls) {
        p[0] = static_cast<char>(c.code);
        p[1] = 0;
        put_be16(p + 2, c.size);
        if (c.size > 4)
            std::memcpy(p + 4, controls_bytes.data() + c.off, c.size - 4);
        p += c.size;
    }
    // The data attributes as they are held, in one piece unless they came
    // from the wire: then control attributes among them are left out and
    // reserved bytes written as 0.
    const char* r = region();
    if (!from_wire) {
        if (region_size())
            std::memcpy(p, r, region_size());
        return n;
    }
    for (std::size_t at = 0; at < region_size(); at += attr_size(r + at)) {
        if (static_cast<unsigned char>(r[at]) != ra_data)
            continue;
        const int size = attr_size(r + at);
        std::memcpy(p, r + at, size);
        p[1] = 0;
        p += size;
    }
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

int RPC2Packet::scan(const char* u, int len, std::size_t at)
{
    // Whole attributes up to the first that does not fit, each checked
    // against what is left of the region: a region over the limit yields
    // none.
    if (len > rpc2_max_attr_region)
        return 0;
    const char* p = u;
    const char* const end = u + len;
    std::size_t values = 0;
    int controls_seen = 0; // bytes of control attributes, filed or not
    for (;;) {
        p = data_run(p, end, values);
        // The end, an attribute that does not fit, or a control attribute.
        const std::ptrdiff_t left = end - p;
        if (left < 4)
            break;
        const unsigned size = static_cast<unsigned>(attr_size(p));
        if (size - 4 > static_cast<unsigned>(left) - 4)
            break;
        if (file_control(static_cast<unsigned char>(p[0]), p + 4, static_cast<int>(size) - 4) < 0)
            break; // out of memory ends the packet here, like a bad attribute
        controls_seen += static_cast<int>(size);
        p += size;
    }
    const int used = static_cast<int>(p - u);
    total += used - controls_seen;
    if (used)
        from_wire = true;
    if (values) {
        // Parsed values are readable: the cursor moves onto the first when
        // everything before them was read. The region must already have
        // room for these bytes where they go.
        if (!unread)
            cursor = region() + at;
        unread += values;
    }
    return used;
}

int RPC2Packet::parse_attr(const char* p, int len)
{
    // Checked where it lies, then what holds whole attributes is copied
    // behind what the packet holds.
    if (len < 4)
        return 0;
    std::size_t at = 0;
    try {
        own();
        at = bytes.size();
        make_room(static_cast<std::size_t>(len));
    } catch (const std::bad_alloc&) {
        return 0;
    }
    const int used = scan(p, len, at);
    bytes.insert(bytes.end(), p, p + used); // fits the reserve: no throw
    if (unread)
        seek_data();
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
    view = buf + 4;
    view_len = scan(view, hdr.size - 4, 0);
    if (unread)
        seek_data();
    return 4 + view_len;
}

void RPC2Packet::own()
{
    if (!view)
        return;
    const std::size_t at = cursor_offset();
    bytes.assign(view, view + view_len);
    view = nullptr;
    cursor_at(at);
}

void RPC2Packet::make_room(std::size_t n)
{
    if (bytes.capacity() - bytes.size() >= n)
        return;
    // Doubling, as the vector would, but with the cursor taken along.
    const std::size_t at = cursor_offset();
    bytes.reserve(std::max(bytes.capacity() * 2, bytes.size() + n));
    cursor_at(at);
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
