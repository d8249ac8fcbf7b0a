// The process-wide SSL/TLS contexts of the protocol: one slot for channel
// type 1 and one for type 2, filled once per process for the client or for
// the server role.
#ifndef ZEL_RPCCTX_H
#define ZEL_RPCCTX_H

typedef struct ssl_ctx_st SSL_CTX;
typedef struct evp_pkey_st EVP_PKEY;

namespace ZEL {

class RPCCtx {
public:
    // Mode 0 makes the client contexts, mode 1 the server contexts; only the
    // first construction in a process does anything.
    explicit RPCCtx(int mode);

    static void ssl_ctx_client_init();
    static void ssl_ctx_server_init();
    static void ssl_ctx_client_tls1_init();
    static void ssl_ctx_client_ssl3_null_init();
    static void ssl_ctx_client_ssl3_init();
    static void ssl_ctx_server_tls1_init();
    static void ssl_ctx_server_ssl3_null_init();
    static void ssl_ctx_server_ssl3_init();

    // Frees the TLS library's state of the calling thread (its error queue).
    // A thread that used the library calls it before it ends: the library's
    // own clean-up at thread exit may come after the process has moved on.
    static void thread_end();

    static SSL_CTX* tls1() { return ctx_tls1; }
    static SSL_CTX* ssl3() { return ctx_ssl3; }

    static int gen_callback(int p, int n, void* arg);

    // Fixed safe-prime groups with generator 2, as DH parameter keys; null on
    // failure. The caller frees them.
    static EVP_PKEY* get_dh1024();
    static EVP_PKEY* get_dh2048();

    // Fresh contexts that do not touch the process-wide slots, so that a
    // server can run beside a client in one process. The caller frees them.
    // type is 1 (TLS 1.0) or 2 (SSL 3.0 where the library has it, else TLS 1.0).
    static SSL_CTX* new_client_adh_ctx(int type);
    static SSL_CTX* new_client_rsa_ctx(int type);
    static SSL_CTX* new_server_adh_ctx(int type);
    static SSL_CTX* new_server_rsa_ctx(int type);

    // True when the linked library still offers SSL 3.0.
    static bool has_ssl3();

private:
    static bool initialized;
    static SSL_CTX* ctx_tls1;
    static SSL_CTX* ctx_ssl3;
};

} // namespace ZEL

#endif
