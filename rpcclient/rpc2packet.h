// One packet of the billing protocol: header, control attributes held by
// code, data attributes held in order with a read cursor. Turns memory into
// packets and back; the direct socket helpers are thin wrappers over that.
//
// Data attributes stay as they are on the wire, heads included, one after
// the other in a byte region; reading one walks on to the next. Parsing a
// packet therefore only checks that its attributes fill it and files the
// few control attributes, whose payloads are kept apart by code. The region
// is a buffer that clear() empties but keeps, so a packet that is reused
// (the stream's, the session's) allocates nothing once it has seen its
// largest contents. The stream's input packet is parsed where it was
// received instead, in the stream's buffer, and copies its bytes over only
// when that buffer is about to be used again while it still holds them.
#ifndef ZEL_RPC2PACKET_H
#define ZEL_RPC2PACKET_H

#include "rpc2proto.h"

#include <list>
#include <map>
#include <vector>

namespace ZEL {

class RPC2Packet {
public:
    struct __rpc2_attr : public RPC2::rpc2_attr {
        std::vector<unsigned char> vbase; // payload, always size - 4 bytes
    };
    struct __rpc2_ptr {
        __rpc2_attr* base;
    };

    RPC2Packet();
    ~RPC2Packet();
    RPC2Packet(const RPC2Packet&) = delete;
    RPC2Packet& operator=(const RPC2Packet&) = delete;

    // Building. Code 5 appends a data attribute, any other code stores a
    // control attribute. 0, 22 when the control code is taken, 12 out of memory.
    int put(int code, int value);
    int put(int code, const char* data, int len);
    int put_data(int value);
    int put_data(const char* data, int len);
    void put_attr(int code, int value);                   // throws int 22 / 12
    void put_attr(int code, const char* data, int len);   // throws int 22 / 12
    __rpc2_attr* fill_r2a(int code, const char* data, int len) const; // throws int 12
    __rpc2_attr* fill_r2a(int code, int value) const;

    void code(int c);
    int code() const;
    int version() const;
    int size() const;
    bool fragment() const;

    // Querying.
    bool find(int code) const;
    int get(int code, int& value);
    int get(int code, char* buf, int& len);
    int get_data(int& value);
    int get_data(char* buf, int& len);
    int get_attr(int code, int& value) const;
    int get_attr(int code, char* buf, int& len) const;
    int packet_size() const;
    void clear();

    // Serialising to memory.
    int dump(char* buf, int cap) const;
    int dump_header(char* buf) const;
    int dump_attr(char* buf, const __rpc2_attr* a) const;

    // Parsing from memory.
    int parse_header(const char* buf, int len);
    __rpc2_attr* parse_attr(const unsigned char* p, int len) const; // throws int
    int parse_attr(const char* p, int len);
    int parse(const char* buf, int len);

    // Direct socket input and output over a plain descriptor; they throw
    // errno (or 22, 12, 74) as a bare int.
    void send_header(int fd) const;
    void send_attr(int fd, const __rpc2_attr* a) const;
    void recv_header(int fd);
    bool recv_header_check(int fd) const;
    __rpc2_attr* recv_attr(int fd) const;
    void recv_attr(int fd, int len);
    void recv_attr_cont(int fd);
    bool recv_ready(int fd) const;

    // Read-only views for callers that walk a packet (the simulator, tests):
    // copies of the attributes, made when asked for and valid until the
    // packet changes or the same view is asked for again.
    const std::map<ui8, __rpc2_attr*>& control_attrs() const;
    const std::list<__rpc2_ptr>& data_attrs() const;

private:
    // The stream reads data values straight from the region.
    friend class RPC2Stream;

    // A control attribute: its payload at controls_bytes[off].
    struct Control {
        std::size_t off;
        ui16 size; // as on the wire, the 4-byte head included
        ui8 code;
    };

    // The region: data attributes (and, when parsed, the control attributes
    // among them) as on the wire.
    const char* region() const { return view ? view : bytes.data(); }
    std::size_t region_size() const { return view ? static_cast<std::size_t>(view_len) : bytes.size(); }
    static int attr_size(const char* a)
    {
        return (static_cast<unsigned char>(a[2]) << 8) | static_cast<unsigned char>(a[3]);
    }

    // The head of the data attribute under the read cursor, or null.
    const char* next_data() const { return unread ? cursor : nullptr; }
    // Moves the cursor past the data attribute a it returned.
    void skip_data(const char* a)
    {
        cursor = a + attr_size(a);
        if (--unread && static_cast<unsigned char>(*cursor) != ra_data)
            seek_data();
    }
    // Moves the cursor over control attributes to the next data attribute.
    void seek_data();
    // Where in the region the cursor is, to find it again once the region
    // has moved (own(), growth).
    std::size_t cursor_offset() const { return unread ? static_cast<std::size_t>(cursor - region()) : 0; }
    void cursor_at(std::size_t off) { cursor = unread ? region() + off : nullptr; }

    // Like parse(), but the packet keeps pointing into buf, which must stay
    // unchanged until detach() or clear().
    int parse_in_place(const char* buf, int len);
    // Takes over the bytes of a packet parsed in place (or, out of memory,
    // drops them), so that their buffer may be reused.
    void detach();
    // Before the packet changes: the region becomes its own. Throws bad_alloc.
    void own();
    // Room for n more bytes in the region the packet holds, the cursor kept
    // on its attribute. Throws bad_alloc.
    void make_room(std::size_t n);
    // Checks the attributes of a region of len bytes at u, which lies (or
    // will lie) at offset at of the region, and files them: the count of
    // bytes that hold whole attributes.
    int scan(const char* u, int len, std::size_t at);

    const Control* control(int code) const;
    // A control attribute unless its code is taken: 1 filed, 0 taken, -1
    // out of memory.
    int file_control(int code, const char* payload, int len) noexcept;
    void add_data(const char* data, int len);
    void store(__rpc2_attr* a);
    void drop_views() const;

    std::vector<char> bytes;   // the region when the packet holds it
    const char* view;          // the region parsed in place, or null
    int view_len;
    std::vector<char> controls_bytes;
    std::vector<Control> controls; // ordered by code, one per code
    bool from_wire;            // the region holds parsed attributes, controls among them
    const char* cursor;        // the next unread data attribute, while there is one
    std::size_t unread;        // data attributes not yet read
    int total;                 // packet_size(): 4 plus every attribute's size
    rpc2_header hdr;
    bool fragmented;
    bool header_sent;
    mutable std::map<ui8, __rpc2_attr*> attr_view;
    mutable std::list<__rpc2_ptr> data_view;
};

} // namespace ZEL

#endif
