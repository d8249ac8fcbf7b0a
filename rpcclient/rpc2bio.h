// Private to the protocol library: the socket underneath a stream's TLS
// connection. Like OpenSSL's own socket BIO, except that its writes never
// raise SIGPIPE (a peer that has gone fails the write instead of ending the
// program, with no signal mask to juggle around every transfer), and that a
// read can be told not to wait, so that the stream can look for input
// without a poll on a blocking socket.
#ifndef ZEL_RPC2BIO_H
#define ZEL_RPC2BIO_H

typedef struct bio_st BIO;

namespace ZEL {

// A BIO on fd, which it never closes; null when none could be made.
BIO* new_socket_bio(int fd);
// While on, a read that would wait fails as "try again" instead.
void socket_bio_nowait(BIO* bio, bool on);

} // namespace ZEL

#endif
