// The socket record of a server connection.
#ifndef TAV_SOCKBUF_H
#define TAV_SOCKBUF_H

#include <cstdint>

typedef struct sockbuf {
  int32_t sb_sd;  // socket descriptor; non-blocking once the connection is ready
  void *sb_ssl;   // owned cell holding the toolkit's secure-connection handle, or null
  // Read-ahead: one read (of the socket, or of the toolkit on a secure
  // connection) takes up to 64 KB, and the element reader is served from
  // here.  Touched only by the connection's one reader (under its read
  // lock); allocated on first use, freed with the socket.
  char *sb_rbuf;
  uint32_t sb_rpos;  // next byte to hand out
  uint32_t sb_rlen;  // bytes held
  // Batching of long runs of search entries (reader only, like the above):
  // entries and references read in a row, and whether the socket's receive
  // low-water mark is raised.
  uint32_t sb_streak;
  uint32_t sb_gathering;
} Sockbuf;

#endif
