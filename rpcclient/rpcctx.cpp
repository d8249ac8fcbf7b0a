#include "rpcctx.h"

#include <cstdio>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/crypto.h>
#include <openssl/ssl.h>

namespace ZEL {

namespace {

#include "rpcctxcert.inc"

// Anonymous Diffie-Hellman needs no certificate on either side. The RC4
// suite comes first for servers that still require it; today's libraries
// offer only the AES and Camellia ones.
const char* const adh_ciphers =
    "ADH-RC4-MD5:ADH-AES128-SHA:ADH-AES256-SHA:ADH-CAMELLIA128-SHA:ADH-CAMELLIA256-SHA:@SECLEVEL=0";
const char* const rsa_ciphers = "RSA:@SECLEVEL=0";

int protocol_version(int type)
{
    return type == 2 && RPCCtx::has_ssl3() ? SSL3_VERSION : TLS1_VERSION;
}

SSL_CTX* base_ctx(const SSL_METHOD* method, int type, const char* ciphers)
{
    SSL_CTX* ctx = SSL_CTX_new(method);
    if (!ctx)
        return nullptr;
    // The protocol's anonymous and legacy suites exist only at level 0.
    SSL_CTX_set_security_level(ctx, 0);
    const int v = protocol_version(type);
    SSL_CTX_set_min_proto_version(ctx, v);
    SSL_CTX_set_max_proto_version(ctx, v);
    SSL_CTX_set_cipher_list(ctx, ciphers);
    SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_OFF);
    return ctx;
}

EVP_PKEY* dh_params(BIGNUM* p)
{
    EVP_PKEY* pkey = nullptr;
    BIGNUM* g = BN_new();
    OSSL_PARAM_BLD* bld = OSSL_PARAM_BLD_new();
    OSSL_PARAM* params = nullptr;
    EVP_PKEY_CTX* pctx = nullptr;
    if (p && g && bld && BN_set_word(g, 2) && OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_FFC_P, p)
        && OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_FFC_G, g)
        && (params = OSSL_PARAM_BLD_to_param(bld)) != nullptr
        && (pctx = EVP_PKEY_CTX_new_from_name(nullptr, "DH", nullptr)) != nullptr
        && EVP_PKEY_fromdata_init(pctx) == 1) {
        if (EVP_PKEY_fromdata(pctx, &pkey, EVP_PKEY_KEY_PARAMETERS, params) != 1)
            pkey = nullptr;
    }
    EVP_PKEY_CTX_free(pctx);
    OSSL_PARAM_free(params);
    OSSL_PARAM_BLD_free(bld);
    BN_free(g);
    BN_free(p);
    return pkey;
}

} // namespace

bool RPCCtx::initialized = false;
SSL_CTX* RPCCtx::ctx_tls1 = nullptr;
SSL_CTX* RPCCtx::ctx_ssl3 = nullptr;

RPCCtx::RPCCtx(int mode)
{
    if (initialized)
        return;
    if (mode == 0)
        ssl_ctx_client_init();
    else if (mode == 1)
        ssl_ctx_server_init();
    initialized = true;
}

bool RPCCtx::has_ssl3()
{
#ifdef OPENSSL_NO_SSL3
    return false;
#else
    return true;
#endif
}

void RPCCtx::ssl_ctx_client_init()
{
    OPENSSL_init_ssl(0, nullptr);
    ssl_ctx_client_tls1_init();
    ssl_ctx_client_ssl3_null_init();
}

void RPCCtx::ssl_ctx_server_init()
{
    OPENSSL_init_ssl(0, nullptr);
    ssl_ctx_server_tls1_init();
    ssl_ctx_server_ssl3_null_init();
}

void RPCCtx::ssl_ctx_client_tls1_init()
{
    ctx_tls1 = new_client_adh_ctx(1);
}

void RPCCtx::ssl_ctx_client_ssl3_null_init()
{
    ctx_ssl3 = new_client_adh_ctx(2);
}

void RPCCtx::ssl_ctx_client_ssl3_init()
{
    ctx_ssl3 = new_client_rsa_ctx(2);
}

void RPCCtx::ssl_ctx_server_tls1_init()
{
    ctx_tls1 = new_server_adh_ctx(1);
}

void RPCCtx::ssl_ctx_server_ssl3_null_init()
{
    ctx_ssl3 = new_server_adh_ctx(2);
}

void RPCCtx::ssl_ctx_server_ssl3_init()
{
    ctx_ssl3 = new_server_rsa_ctx(2);
}

int RPCCtx::gen_callback(int p, int n, void*)
{
    std::printf("Callback: %d:%d\n", p, n);
    return 1;
}

EVP_PKEY* RPCCtx::get_dh1024()
{
    return dh_params(BN_get_rfc2409_prime_1024(nullptr));
}

EVP_PKEY* RPCCtx::get_dh2048()
{
    return dh_params(BN_get_rfc3526_prime_2048(nullptr));
}

SSL_CTX* RPCCtx::new_client_adh_ctx(int type)
{
    return base_ctx(TLS_client_method(), type, adh_ciphers);
}

SSL_CTX* RPCCtx::new_client_rsa_ctx(int type)
{
    return base_ctx(TLS_client_method(), type, rsa_ciphers);
}

SSL_CTX* RPCCtx::new_server_adh_ctx(int type)
{
    SSL_CTX* ctx = base_ctx(TLS_server_method(), type, adh_ciphers);
    if (!ctx)
        return nullptr;
    // The 1024-bit group serves type 1, the 2048-bit one type 2.
    EVP_PKEY* dh = type == 1 ? get_dh1024() : get_dh2048();
    if (dh && SSL_CTX_set0_tmp_dh_pkey(ctx, dh) != 1)
        EVP_PKEY_free(dh);
    return ctx;
}

SSL_CTX* RPCCtx::new_server_rsa_ctx(int type)
{
    SSL_CTX* ctx = base_ctx(TLS_server_method(), type, rsa_ciphers);
    if (!ctx)
        return nullptr;
    SSL_CTX_use_certificate_ASN1(ctx, static_cast<int>(sizeof rpc2_server_cert_der), rpc2_server_cert_der);
    SSL_CTX_use_PrivateKey_ASN1(EVP_PKEY_RSA, ctx, rpc2_server_key_der, sizeof rpc2_server_key_der);
    SSL_CTX_check_private_key(ctx);
    ERR_print_errors_fp(stderr);
    return ctx;
}

void RPCCtx::thread_end()
{
    OPENSSL_thread_stop();
}

} // namespace ZEL
