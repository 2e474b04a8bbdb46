// Stream I/O of whole BER elements over non-blocking sockets.
#ifndef TAV_FBER_STREAM_H
#define TAV_FBER_STREAM_H

#include <sys/time.h>

#include "lber-int.h"
#include "sockbuf.h"

extern "C" {
// The element's tag when complete; 11 = call again when readable; LBER_ERROR.
TAV_INTERNAL ber_tag_t fber_get_next_nb(Sockbuf *sb, BerElement *ber, uint32_t *state);
// 0 = all sent; -11 = would block, call again when writable; -1 = failure.
TAV_INTERNAL int fber_flush_nb(Sockbuf *sb, BerElement *ber);
TAV_INTERNAL int fber_select(Sockbuf *sb, struct timeval *timeout);
TAV_INTERNAL int FBerReadDirect_nb(Sockbuf *sb, char *dest, int count, int *left);
TAV_INTERNAL int fber_socket_read_nb(Sockbuf *sb, char *dest, int count, int *would_block);
// Makes sure the read-ahead holds bytes, reading once if it is empty: 1 = it
// does, 0 = the socket had none, -1 = failure or the peer closed, -2 = no
// read-ahead buffer could be had (nothing was read).
TAV_INTERNAL int fber_fill_ahead(Sockbuf *sb);
TAV_INTERNAL long BerWrite(Sockbuf *sb, const char *bytes, long count);
// Frees the socket record's read-ahead buffer and forgets what it held.
TAV_INTERNAL void fber_sockbuf_release(Sockbuf *sb);

// The security toolkit's read, write and message functions, set when a
// toolkit is bound; a secure socket cannot be used without them.
TAV_INTERNAL extern int (*fber_ssl_read_hook)(void *ssl, char *buf, int count, int *read);
TAV_INTERNAL extern int (*fber_ssl_write_hook)(void *ssl, const char *buf, int count, int *written);
TAV_INTERNAL extern const char *(*fber_ssl_strerror_hook)(int code);
}

#endif
