// The socket record of a server connection.
#ifndef TAV_SOCKBUF_H
#define TAV_SOCKBUF_H

#include <cstdint>

typedef struct sockbuf {
  int32_t sb_sd;  // socket descriptor; non-blocking once the connection is ready
  void *sb_ssl;   // owned cell holding the toolkit's secure-connection handle, or null
} Sockbuf;

#endif
