// One packet of the billing protocol: header, control attributes held by
// code, data attributes held in order with a read cursor. Turns memory into
// packets and back; the direct socket helpers are thin wrappers over that.
//
// All payloads live in one byte buffer that clear() empties but keeps, so a
// packet that is reused (the stream's, the session's) allocates nothing once
// it has seen its largest contents; the attributes are small slots pointing
// into that buffer. The stream's input packet is parsed where it was
// received instead, in the stream's buffer, and copies its bytes over only
// when that buffer is about to be used again while it still holds them.
#ifndef ZEL_RPC2PACKET_H
#define ZEL_RPC2PACKET_H

#include "rpc2proto.h"

#include <list>
#include <map>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace ZEL {

namespace detail {

// An allocator whose resize() leaves new elements of a trivial type
// uninitialised: the parser makes room for as many attributes as a region
// could hold and writes only those it finds.
template <class T> struct uninit_allocator : std::allocator<T> {
    template <class U> struct rebind {
        using other = uninit_allocator<U>;
    };
    uninit_allocator() = default;
    template <class U> uninit_allocator(const uninit_allocator<U>&) noexcept {}
    template <class U> void construct(U* p) noexcept { ::new (static_cast<void*>(p)) U; }
    template <class U, class... A> void construct(U* p, A&&... a)
    {
        ::new (static_cast<void*>(p)) U(std::forward<A>(a)...);
    }
};

} // namespace detail

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
    // The stream reads data values straight from the buffer.
    friend class RPC2Stream;

    // One attribute: its payload at base()[off], size - 4 bytes long.
    struct Slot {
        ui32 off;
        ui16 size; // as on the wire, the 4-byte head included
        ui16 code; // a byte, held wider: stores of bytes may alias anything,
                   // which would keep the parser's state out of registers
    };

    // The data value under the read cursor, or null.
    const Slot* next_data() const { return cursor < datas.size() ? &datas[cursor] : nullptr; }
    const char* payload(const Slot& s) const { return base() + s.off; }
    void skip_data() { ++cursor; }

    // Like parse(), but the packet keeps pointing into buf, which must stay
    // unchanged until detach() or clear().
    int parse_in_place(const char* buf, int len);
    // Takes over the bytes of a packet parsed in place (or, out of memory,
    // drops them), so that their buffer may be reused.
    void detach();
    // The bytes the slots point into.
    const char* base() const { return view ? view : bytes.data(); }
    // Before the packet changes: its bytes become its own. Throws bad_alloc.
    void own();
    // Files the attributes of a region at u whose bytes are (or will be) at
    // offset at of base(); the count of bytes filed.
    int index(const unsigned char* u, int len, std::size_t at);

    const Slot* control(int code) const;
    // Files a slot whose payload is already in bytes: a data value at the
    // end of the list, a control attribute unless its code is taken (false).
    bool file(const Slot& s);
    // 1 filed, 0 its code taken, -1 out of memory.
    int file_control(Slot s) noexcept;
    void add_data(const char* data, int len);
    void add_control(int code, const char* data, int len);
    void store(__rpc2_attr* a);
    void drop_views() const;
    int dump_slot(char* buf, const Slot& s) const;

    std::vector<char> bytes;
    const char* view;           // the bytes parsed in place, or null
    int view_len;
    std::vector<Slot> controls; // ordered by code, one per code
    std::vector<Slot, detail::uninit_allocator<Slot>> datas; // in arrival order
    std::size_t cursor;         // next data value to read; datas.size() when none
    int total;                  // packet_size(): 4 plus every attribute's size
    rpc2_header hdr;
    bool fragmented;
    bool header_sent;
    mutable std::map<ui8, __rpc2_attr*> attr_view;
    mutable std::list<__rpc2_ptr> data_view;
};

} // namespace ZEL

#endif
