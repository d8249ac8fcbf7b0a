// The stream's secure channel: after a login that granted protection, the
// same socket carries an SSL/TLS connection.
#include "rpc2stream.h"
#include "rpc2bio.h"
#include "rpcctx.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

namespace ZEL {

int RPC2Stream::ssl_connect(int type)
{
    if (__ssl_init(type) != 0)
        return ec_inval;
    return __ssl_connect();
}

int RPC2Stream::__ssl_init(int type)
{
    if (type != rsr_ssl_tls1 && type != rsr_ssl_ssl3)
        return ec_inval;
    RPCCtx ready(0);
    SSL_CTX* ctx = type == rsr_ssl_tls1 ? RPCCtx::tls1() : RPCCtx::ssl3();
    if (!ctx)
        return ec_inval;
    return __ssl_bind(ctx, type);
}

int RPC2Stream::__ssl_bind(SSL_CTX* ctx, int type)
{
    if (ssl_sock)
        SSL_free(ssl_sock);
    // No cached session is reused: every connection negotiates afresh.
    ssl_sock = SSL_new(ctx);
    BIO* bio = ssl_sock ? new_socket_bio(sc) : nullptr;
    if (!bio) {
        SSL_free(ssl_sock);
        ssl_sock = nullptr;
        return ec_inval;
    }
    conn_type = type;
    SSL_set_mode(ssl_sock, SSL_MODE_AUTO_RETRY);
    // Our socket BIO: a write to a peer that has gone fails, no SIGPIPE.
    SSL_set_bio(ssl_sock, bio, bio);
    return 0;
}

int RPC2Stream::__ssl_connect()
{
    return ssl_handshake(true);
}

int RPC2Stream::__ssl_accept(SSL_CTX* ctx, int type)
{
    if (!ctx || __ssl_bind(ctx, type) != 0)
        return ec_inval;
    return ssl_handshake(false);
}

int RPC2Stream::ssl_handshake(bool client)
{
    if (!ssl_sock)
        return ec_inval;
    // A blocking socket finishes the handshake in one call; a bounded
    // stream waits for the socket between steps until its deadline.
    for (;;) {
        ERR_clear_error();
        const int r = client ? SSL_connect(ssl_sock) : SSL_accept(ssl_sock);
        const int e = SSL_get_error(ssl_sock, r);
        if (e == SSL_ERROR_NONE)
            return 0;
        if (ssl_wait(e) != 0)
            return ec_access;
    }
}

int RPC2Stream::ssl_shutdown()
{
    return __ssl_shutdown();
}

int RPC2Stream::__ssl_shutdown()
{
    if (!ssl_sock)
        return -1;
    // Quiet: no closing alert is sent or awaited, so this never waits.
    SSL_set_quiet_shutdown(ssl_sock, 1);
    int r = SSL_shutdown(ssl_sock);
    if (r == 0)
        r = SSL_shutdown(ssl_sock);
    return r;
}

} // namespace ZEL
