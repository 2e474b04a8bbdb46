// Moving whole BER elements over non-blocking sockets: reading one LDAP
// message element in stages that survive a socket without data between calls,
// flushing an encoded element as far as the socket takes it, and waiting for
// readability.
#include <errno.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "fber-fdset.h"
#include "fber-stream.h"
#include "lber-int.h"
#include "ldap-debug.h"
#include "ldap-utils.h"
#include "sockbuf.h"

namespace {

constexpr int kWouldBlock = 11;  // what readers report when the socket has no data
constexpr size_t kMaxPlainWrite = 65535;
constexpr uint32_t kReadAhead = 64 * 1024;
constexpr ber_len_t kFirstContents = 64 * 1024;

// Hands out up to `count` bytes already read ahead; how many.
int take_ahead(Sockbuf *sb, char *dest, int count) {
  const uint32_t held = sb->sb_rlen - sb->sb_rpos;
  const uint32_t n = held < (uint32_t)count ? held : (uint32_t)count;
  memcpy(dest, sb->sb_rbuf + sb->sb_rpos, n);
  sb->sb_rpos += n;
  return (int)n;
}

// The socket record's read-ahead buffer, made on first use; false without memory.
bool have_read_ahead(Sockbuf *sb) {
  return sb->sb_rbuf != nullptr || (sb->sb_rbuf = static_cast<char *>(olx_malloc(kReadAhead))) != nullptr;
}

}  // namespace

extern "C" {

// The secure path (sb_ssl set) goes through the security toolkit, which is
// bound at run time by the SSL layer; until a toolkit is bound such a socket
// cannot be read or written.
int (*fber_ssl_read_hook)(void *ssl, char *buf, int count, int *read) = nullptr;
int (*fber_ssl_write_hook)(void *ssl, const char *buf, int count, int *written) = nullptr;
const char *(*fber_ssl_strerror_hook)(int code) = nullptr;

int fber_socket_read_nb(Sockbuf *sb, char *dest, int count, int *would_block) {
  long result;
  if (sb->sb_rpos < sb->sb_rlen) return take_ahead(sb, dest, count);
  // Small reads (headers, short elements) fill the read-ahead instead, on
  // either kind of socket; what the element reader does not take now is
  // served from memory to its next calls.
  const bool ahead = (uint32_t)count < kReadAhead && have_read_ahead(sb);
  if (sb->sb_ssl != nullptr) {
    if (fber_ssl_read_hook == nullptr) return -1;
    int got = 0;
    int rc = ahead ? fber_ssl_read_hook(sb->sb_ssl, sb->sb_rbuf, (int)kReadAhead, &got)
                   : fber_ssl_read_hook(sb->sb_ssl, dest, count, &got);
    if (rc == 502) {
      *would_block = kWouldBlock;
      return 0;
    }
    if (rc == 406) return -1;
    if (rc != 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "Error - fber_socket_read_nb: tav_secure_soc_read() rc=%d %s\n", rc,
               fber_ssl_strerror_hook ? fber_ssl_strerror_hook(rc) : "");
      return -1;
    }
    if (ahead && got > 0) {
      sb->sb_rpos = 0;
      sb->sb_rlen = (uint32_t)got;
      return take_ahead(sb, dest, count);
    }
    result = got;
  } else if (ahead) {
    result = read(sb->sb_sd, sb->sb_rbuf, kReadAhead);
    if (result > 0) {
      sb->sb_rpos = 0;
      sb->sb_rlen = (uint32_t)result;
      return take_ahead(sb, dest, count);
    }
  } else {
    // Large contents go straight to their element (or no buffer could be had).
    result = read(sb->sb_sd, dest, (size_t)count);
  }
  if (result == -1) {
    int err = errno;
    LDAP_LOG(LDAP_LOG_BER, "fber_socket_read_nb: sd=%d errno=%d EWOULDBLOCK=%d EAGAIN=%d\n", sb->sb_sd, err,
             EWOULDBLOCK, EAGAIN);
    if (err == EAGAIN || err == EWOULDBLOCK || err == 0) {
      *would_block = kWouldBlock;
      return 0;
    }
    return -1;
  }
  return result < 0 ? -1 : (int)result;
}

int fber_fill_ahead(Sockbuf *sb) {
  if (sb->sb_rpos < sb->sb_rlen) return 1;
  if (!have_read_ahead(sb)) return -2;
  // A one-byte read with the buffer present fills the read-ahead; the byte
  // handed out is put back.
  char first;
  int would_block = 0;
  const int n = fber_socket_read_nb(sb, &first, 1, &would_block);
  if (would_block) return 0;
  if (n <= 0) return -1;
  --sb->sb_rpos;
  return 1;
}

int FBerReadDirect_nb(Sockbuf *sb, char *dest, int count, int *left) {
  if (count <= 0) return -1;
  int remaining = count;
  for (;;) {
    int would_block = 0;
    int n = fber_socket_read_nb(sb, dest, remaining, &would_block);
    if (would_block) {
      *left = remaining;
      return kWouldBlock;
    }
    if (n <= 0) return -1;  // error, or the peer closed the connection
    remaining -= n;
    if (remaining == 0) return 0;
    dest += n;
  }
}

ber_tag_t fber_get_next_nb(Sockbuf *sb, BerElement *ber, uint32_t *state) {
  if (sb == nullptr || ber == nullptr || state == nullptr) return LBER_ERROR;
  LDAP_LOG(LDAP_LOG_BER, "fber_get_next_nb: length=%d\n", (int)*state);

  if (*state == 0) {
    // Tag and first length octet.
    unsigned char head[2];
    const bool tag_known = ber->ber_tag != LBER_DEFAULT;
    if (tag_known) head[0] = (unsigned char)ber->ber_tag;
    int want = tag_known ? 1 : 2;
    int left = want;
    int rc = FBerReadDirect_nb(sb, (char *)head + (tag_known ? 1 : 0), want, &left);
    if (rc != 0) {
      LDAP_LOG(LDAP_LOG_BER, "fber_get_next_nb->BFerReadDirect_nb:1 rc=%d\n", rc);
      if (rc != kWouldBlock) return LBER_ERROR;
      if (!tag_known && left == 1) ber->ber_tag = head[0];
      return kWouldBlock;
    }
    if ((head[0] & 0x1F) == 0x1F) return LBER_ERROR;  // high-tag-number form
    ber->ber_rwptr = nullptr;
    ber->ber_tag = head[0];
    ber->ber_len = head[1];
    *state = 2;
    ber->ber_buf = ber->ber_ptr = ber->ber_end = nullptr;
  }

  if (ber->ber_ptr == nullptr) {
    // Long-form length octets, gathered right-aligned in ber_lenbuf.
    if (ber->ber_len & 0x80) {
      const int n = (int)(ber->ber_len & 0x7F);
      if (n > 8) return LBER_ERROR;
      int left = n - ber->ber_lenread;
      int rc = FBerReadDirect_nb(sb, (char *)ber->ber_lenbuf + (8 - n) + ber->ber_lenread, n - ber->ber_lenread, &left);
      if (rc == kWouldBlock) {
        ber->ber_lenread = n - left;
        return kWouldBlock;
      }
      if (rc != 0) {
        LDAP_LOG(LDAP_LOG_BER, "fber_get_next_nb->FBerReadDirect_nb:2 rc=%d, %d bytes to read\n", rc, left);
        return LBER_ERROR;
      }
      ber_len_t len = 0;
      for (int i = 0; i < 8; ++i) len = (len << 8) | ber->ber_lenbuf[i];
      ber->ber_len = len;
      memset(ber->ber_lenbuf, 0, sizeof ber->ber_lenbuf);
      ber->ber_lenread = 0;
    }
    if (ber->ber_len >= 0x7FFFFFFF) return LBER_ERROR;
    // The buffer grows as the contents arrive: an announced length is only a
    // claim, and a few header bytes must not make the reader allocate it all.
    const ber_len_t first = ber->ber_len < kFirstContents ? ber->ber_len : kFirstContents;
    char *buf = static_cast<char *>(olx_calloc(first + 1, 1));
    if (buf == nullptr) {
      LDAP_LOG(LDAP_LOG_ERROR, "fber_get_next_nb: calloc failed, ber->ber_len=%d\n", (int)ber->ber_len);
      return LBER_ERROR;
    }
    ber->ber_buf = ber->ber_ptr = buf;
    ber->ber_end = buf + ber->ber_len;
    ber->ber_rwptr = buf + first;  // end of the space held so far
    *state = (uint32_t)ber->ber_len;
  }

  // Contents: the state word counts the bytes still missing.
  for (;;) {
    char *at = ber->ber_end - *state;
    if (at == ber->ber_rwptr) {
      const ber_len_t have = (ber_len_t)(ber->ber_rwptr - ber->ber_buf);
      const ber_len_t grown = have * 2 < ber->ber_len ? have * 2 : ber->ber_len;
      char *buf = static_cast<char *>(olx_realloc(ber->ber_buf, grown + 1));
      if (buf == nullptr) {
        LDAP_LOG(LDAP_LOG_ERROR, "fber_get_next_nb: calloc failed, ber->ber_len=%d\n", (int)ber->ber_len);
        return LBER_ERROR;
      }
      buf[grown] = '\0';
      ber->ber_buf = ber->ber_ptr = buf;
      ber->ber_end = buf + ber->ber_len;
      ber->ber_rwptr = buf + grown;
      at = ber->ber_end - *state;
    }
    const int room = (int)(ber->ber_rwptr - at);
    int left = room;
    int rc = FBerReadDirect_nb(sb, at, room, &left);
    if (rc == kWouldBlock) {
      *state -= (uint32_t)(room - left);
      LDAP_LOG(LDAP_LOG_BER, "fber_get_next_nb->FBerReadDirect_nb rc=%d: %d bytes left to read\n", rc, (int)*state);
      return kWouldBlock;
    }
    if (rc != 0) {
      LDAP_LOG(LDAP_LOG_BER, "fber_get_next_nb->FBerReadDirect_nb:3 rc=%d\n", rc);
      return LBER_ERROR;
    }
    *state -= (uint32_t)room;
    if (*state == 0) break;
  }
  ber->ber_rwptr = nullptr;
  ber->ber_ptr = ber->ber_buf;
  *state = 0;
  if (ldap_trace_enabled(LDAP_LOG_BER)) {
    ldap_log(LDAP_LOG_BER, "fber_get_next_nb: tag 0x%lx len=%ld contents:\n", (unsigned long)ber->ber_tag,
             (long)ber->ber_len);
    fber_dump_with_fd(ber, 1, sb->sb_sd);
  }
  return ber->ber_tag;
}

void fber_sockbuf_release(Sockbuf *sb) {
  free(sb->sb_rbuf);
  sb->sb_rbuf = nullptr;
  sb->sb_rpos = sb->sb_rlen = 0;
  sb->sb_streak = sb->sb_gathering = 0;
}

long BerWrite(Sockbuf *sb, const char *bytes, long count) {
  if (sb->sb_ssl != nullptr) {
    if (fber_ssl_write_hook == nullptr) return -1;
    int written = 0;
    int rc = fber_ssl_write_hook(sb->sb_ssl, bytes, (int)count, &written);
    if (rc != 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "BerWrite() tav_secure_soc_write() rc=%d %s\n", rc,
               fber_ssl_strerror_hook ? fber_ssl_strerror_hook(rc) : "");
      return rc == 502 ? -kWouldBlock : -1;
    }
    return written;
  }
  long n = count < (long)kMaxPlainWrite ? count : (long)kMaxPlainWrite;
  if (n <= 0) return 0;
  // Never SIGPIPE: a server that has gone away must not end the program.
  // (Local-domain sockets take send too.)
  ssize_t w = send(sb->sb_sd, bytes, (size_t)n, MSG_NOSIGNAL);
  if (w < 0) return (errno == EAGAIN || errno == EWOULDBLOCK || errno == 0) ? -kWouldBlock : -1;
  return (long)w;
}

int fber_flush_nb(Sockbuf *sb, BerElement *ber) {
  if (sb == nullptr || ber == nullptr) return -1;
  if (ber->ber_rwptr == nullptr) ber->ber_rwptr = ber->ber_buf;
  long towrite = ber->ber_ptr - ber->ber_rwptr;
  if (ldap_trace_enabled(LDAP_LOG_BER)) {
    ldap_log(LDAP_LOG_BER, "fber_flush_nb: %ld bytes to sd=%d%s\n", towrite, sb->sb_sd,
             ber->ber_rwptr != ber->ber_buf ? " (re-flush)" : "");
    fber_log_contents(ber->ber_rwptr, (ber_len_t)towrite);
  }
  while (towrite > 0) {
    long n = BerWrite(sb, ber->ber_rwptr, towrite);
    if (n <= 0) return (int)n;
    ber->ber_rwptr += n;
    towrite -= n;
  }
  return 0;
}

int fber_select(Sockbuf *sb, struct timeval *timeout) {
  if (sb == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "fber_select: Bad params sb(%p)\n", (void *)sb);
    return -1;
  }
  if (sb->sb_rpos < sb->sb_rlen) return 1;  // read ahead already
  if (sb->sb_ssl != nullptr && fber_ssl_read_hook != nullptr) {
    // The toolkit may hold decrypted data the socket no longer shows.
    int count = -1;
    int rc = fber_ssl_read_hook(sb->sb_ssl, nullptr, 1, &count);
    LDAP_LOG(LDAP_LOG_TRACE, "fber_select: nLengthRead = %d, rc = %d, errno=%d\n", count, rc, errno);
    if (count > 0) return 1;
  }
  FberFdSet readers;
  if (!readers.add(sb->sb_sd)) {
    errno = EBADF;
    LDAP_LOG(LDAP_LOG_ERROR, "fber_select: returning %d\n", -1);
    return -1;
  }
  int rc = select(sb->sb_sd + 1, readers.get(), nullptr, nullptr, timeout);
  if (rc < 0) LDAP_LOG(LDAP_LOG_ERROR, "fber_select: returning %d\n", rc);
  return rc;
}
}
