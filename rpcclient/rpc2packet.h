// One packet of the billing protocol: header, control attributes held by
// code, data attributes held in order with a read cursor. Turns memory into
// packets and back; the direct socket helpers are thin wrappers over that.
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

    // Read-only views for callers that walk a packet (the simulator, tests).
    const std::map<ui8, __rpc2_attr*>& control_attrs() const { return attr; }
    const std::list<__rpc2_ptr>& data_attrs() const { return data_attr; }

private:
    void store(__rpc2_attr* a);

    std::map<ui8, __rpc2_attr*> attr;
    std::list<__rpc2_ptr> data_attr;
    std::list<__rpc2_ptr>::iterator data_iter;
    rpc2_header hdr;
    bool fragmented;
    bool header_sent;
};

} // namespace ZEL

#endif
