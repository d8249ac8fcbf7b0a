#include "rpc2bio.h"

#include <cerrno>
#include <new>
#include <openssl/bio.h>
#include <sys/socket.h>

namespace ZEL {

namespace {

struct SocketState {
    int fd;
    bool nowait;
};

SocketState* state(BIO* b)
{
    return static_cast<SocketState*>(BIO_get_data(b));
}

// Results and retry flags as OpenSSL's socket BIO sets them.
int socket_read(BIO* b, char* out, int len)
{
    SocketState* s = state(b);
    errno = 0;
    const int r = static_cast<int>(::recv(s->fd, out, static_cast<size_t>(len), s->nowait ? MSG_DONTWAIT : 0));
    BIO_clear_retry_flags(b);
    if (r <= 0) {
        if (BIO_sock_should_retry(r))
            BIO_set_retry_read(b);
        else if (r == 0)
            BIO_set_flags(b, BIO_FLAGS_IN_EOF);
    }
    return r;
}

int socket_write(BIO* b, const char* in, int len)
{
    errno = 0;
    const int r = static_cast<int>(::send(state(b)->fd, in, static_cast<size_t>(len), MSG_NOSIGNAL));
    BIO_clear_retry_flags(b);
    if (r <= 0 && BIO_sock_should_retry(r))
        BIO_set_retry_write(b);
    return r;
}

long socket_ctrl(BIO* b, int cmd, long, void* ptr)
{
    switch (cmd) {
    case BIO_C_GET_FD:
        if (ptr)
            *static_cast<int*>(ptr) = state(b)->fd;
        return state(b)->fd;
    case BIO_CTRL_GET_CLOSE:
        return BIO_NOCLOSE;
    case BIO_CTRL_EOF:
        return BIO_test_flags(b, BIO_FLAGS_IN_EOF) != 0;
    case BIO_CTRL_SET_CLOSE:
    case BIO_CTRL_FLUSH:
    case BIO_CTRL_DUP:
        return 1;
    default:
        return 0;
    }
}

int socket_destroy(BIO* b)
{
    delete state(b);
    BIO_set_data(b, nullptr);
    return 1;
}

BIO_METHOD* make_method()
{
    const int type = BIO_get_new_index();
    BIO_METHOD* m = type < 0 ? nullptr : BIO_meth_new(type | BIO_TYPE_SOURCE_SINK | BIO_TYPE_DESCRIPTOR, "zel socket");
    if (m
        && (BIO_meth_set_read(m, socket_read) != 1 || BIO_meth_set_write(m, socket_write) != 1
            || BIO_meth_set_ctrl(m, socket_ctrl) != 1 || BIO_meth_set_destroy(m, socket_destroy) != 1)) {
        BIO_meth_free(m);
        m = nullptr;
    }
    return m;
}

} // namespace

BIO* new_socket_bio(int fd)
{
    // One method for the process, made on first use.
    static BIO_METHOD* const method = make_method();
    if (!method)
        return nullptr;
    BIO* b = BIO_new(method);
    if (!b)
        return nullptr;
    SocketState* s = new (std::nothrow) SocketState{fd, false};
    if (!s) {
        BIO_free(b);
        return nullptr;
    }
    BIO_set_data(b, s);
    BIO_set_init(b, 1);
    return b;
}

void socket_bio_nowait(BIO* bio, bool on)
{
    state(bio)->nowait = on;
}

} // namespace ZEL
