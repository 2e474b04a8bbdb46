// The DNS client's sockets: opening a UDP or TCP socket to a name server,
// sending a query and reading its answer, each step bounded by the request's
// time-out and the call's deadline.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <utility>

#include "ldap-debug.h"
#include "ldap-dns.h"
#include "ldap-engine.h"
#include "ldap-utils.h"

namespace {

// The deadline of one step (connecting, sending a query, reading its
// answer): the request's time-out from now, cut to the call's deadline.
// Computed once per step; whatever the step retries only uses what is left.
int64_t step_deadline(const ldap_dns_state *st) {
  if (st->connection_timeout <= 0) return ldap_call_deadline();
  const struct timeval tv = {st->connection_timeout, 0};
  return ldap_deadline_within_call(&tv);
}

// Waits for `events` on the socket; false once `deadline` has passed, even
// while a peer keeps the socket busy.
bool wait_ready(int sock, short events, int64_t deadline) {
  struct pollfd p = {sock, events, 0};
  for (;;) {
    const int ms = ldap_deadline_left_ms(deadline);
    if (ms == 0) return false;
    const int n = poll(&p, 1, ms);
    if (n > 0) return true;
    if (n < 0 && errno != EINTR) return false;
  }
}

bool same_address(const sockaddr_storage *a, const sockaddr_storage *b) {
  if (a->ss_family != b->ss_family) return false;
  if (a->ss_family == AF_INET) {
    auto x = reinterpret_cast<const sockaddr_in *>(a), y = reinterpret_cast<const sockaddr_in *>(b);
    return x->sin_port == y->sin_port && x->sin_addr.s_addr == y->sin_addr.s_addr;
  }
  auto x = reinterpret_cast<const sockaddr_in6 *>(a), y = reinterpret_cast<const sockaddr_in6 *>(b);
  return x->sin6_port == y->sin6_port && memcmp(&x->sin6_addr, &y->sin6_addr, sizeof x->sin6_addr) == 0;
}

// Exactly `len` bytes from the (non-blocking) TCP socket by `deadline`: a
// server sending a byte at a time does not get a fresh wait per byte.
bool recv_all(const ldap_dns_state *st, unsigned char *buf, size_t len, int64_t deadline) {
  size_t got = 0;
  while (got < len) {
    ssize_t n = recv(st->sock, buf + got, len - got, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (wait_ready(st->sock, POLLIN, deadline)) continue;
      LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: connection has timed out\n");
      return false;
    }
    if (n <= 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: error receiving response: rc = %d\n", n < 0 ? errno : 0);
      return false;
    }
    got += (size_t)n;
  }
  return true;
}

// The whole of [buf, buf+len) to the name server by `deadline` (a datagram
// goes whole or not at all).
bool send_all(const ldap_dns_state *st, const unsigned char *buf, size_t len, int64_t deadline) {
  size_t sent = 0;
  while (sent < len) {
    ssize_t n = st->transport == LDAP_DNS_TRANSPORT_UDP
                    ? sendto(st->sock, buf, len, MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&st->server_addr),
                             st->server_addr_len)
                    : send(st->sock, buf + sent, len - sent, MSG_NOSIGNAL);
    if (n >= 0) {
      sent += (size_t)n;
      continue;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: unable to send query: rc = %d\n", errno);
      return false;
    }
    if (!wait_ready(st->sock, POLLOUT, deadline)) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: connection has timed out\n");
      return false;
    }
  }
  return true;
}

}  // namespace

extern "C" {

int ldap_dns_open(ldap_dns_state *st, const char *address, int transport) {
  st->transport = transport;
  LDAP_LOG(LDAP_LOG_TRACE, "ldapdns: connecting to %s using %s\n", address,
           transport == LDAP_DNS_TRANSPORT_TCP ? "TCP" : "UDP");
  struct addrinfo hints;
  memset(&hints, 0, sizeof hints);
  hints.ai_socktype = transport == LDAP_DNS_TRANSPORT_TCP ? SOCK_STREAM : SOCK_DGRAM;
  // Name servers are given as numeric addresses: never resolve a name here.
  hints.ai_flags = AI_NUMERICHOST;
  struct addrinfo *res = nullptr;
  int gai = getaddrinfo(address, nullptr, &hints, &res);
  if (gai != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: can't open socket: rc = %d\n", gai);
    return LDAP_LOCAL_ERROR;
  }
  struct addrinfo *ai = res;
  while (ai != nullptr && ai->ai_family != AF_INET && ai->ai_family != AF_INET6) ai = ai->ai_next;
  if (ai == nullptr) {
    freeaddrinfo(res);
    LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: no PF_INET or PF_INET6 addr configured\n");
    return LDAP_LOCAL_ERROR;
  }
  memcpy(&st->server_addr, ai->ai_addr, ai->ai_addrlen);
  st->server_addr_len = ai->ai_addrlen;
  int family = ai->ai_family;
  freeaddrinfo(res);
  if (family == AF_INET)
    reinterpret_cast<sockaddr_in *>(&st->server_addr)->sin_port = htons(53);
  else
    reinterpret_cast<sockaddr_in6 *>(&st->server_addr)->sin6_port = htons(53);
  // Non-blocking: every wait is a poll bounded by the step's deadline.
  st->sock = socket(family, (transport == LDAP_DNS_TRANSPORT_TCP ? SOCK_STREAM : SOCK_DGRAM) | SOCK_NONBLOCK, 0);
  if (st->sock < 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: can't open socket: rc = %d\n", errno);
    st->sock = -1;
    return LDAP_LOCAL_ERROR;
  }
  if (transport == LDAP_DNS_TRANSPORT_UDP) {
    struct sockaddr_storage any;
    memset(&any, 0, sizeof any);
    any.ss_family = (sa_family_t)family;
    socklen_t len = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    if (bind(st->sock, reinterpret_cast<sockaddr *>(&any), len) != 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: can't bind socket: rc = %d\n", errno);
      ldap_dns_close(st);
      return LDAP_CONNECT_ERROR;
    }
    return 0;
  }
  if (connect(st->sock, reinterpret_cast<sockaddr *>(&st->server_addr), st->server_addr_len) != 0) {
    if (errno != EINPROGRESS) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: can't connect to server: rc = %d\n", errno);
      ldap_dns_close(st);
      return LDAP_CONNECT_ERROR;
    }
    if (!wait_ready(st->sock, POLLOUT, step_deadline(st))) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: connection has time out\n");
      ldap_dns_close(st);
      return LDAP_CONNECT_ERROR;
    }
    struct sockaddr_storage peer;
    socklen_t plen = sizeof peer;
    if (getpeername(st->sock, reinterpret_cast<sockaddr *>(&peer), &plen) != 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: can't get peer name: rc = %d\n", errno);
      ldap_dns_close(st);
      return LDAP_CONNECT_ERROR;
    }
  }
  return 0;
}

int ldap_dns_close(ldap_dns_state *st) {
  if (st->sock >= 0) close(st->sock);
  st->sock = -1;
  return 0;
}

int ldap_dns_send_query(ldap_dns_state *st, const char *name, int type) {
  if (type != LDAP_DNS_TYPE_ANY && type != LDAP_DNS_TYPE_TXT) return LDAP_DNS_INVALID_DATA;
  // Room for TCP's length prefix in front: prefix and message go out in one
  // send, since two small sends meet Nagle's algorithm and the peer's delayed
  // acknowledgement (some 40 ms per query).
  size_t size = strlen(name) + 18;
  unsigned char *frame = static_cast<unsigned char *>(olx_malloc(size + 2));
  if (frame == nullptr) return LDAP_NO_MEMORY;
  unsigned char *buf = frame + 2;
  uint16_t id = st->next_id++;
  const unsigned char header[12] = {(unsigned char)(id >> 8), (unsigned char)id, 0x01, 0x00, 0, 1, 0, 0, 0, 0, 0, 0};
  memcpy(buf, header, 12);
  size_t pos = 12;
  bool overflow = false;
  for (const char *p = name; *p != '\0' && !overflow;) {
    const char *dot = strchr(p, '.');
    size_t n = dot != nullptr ? (size_t)(dot - p) : strlen(p);
    if (n == 0 || n > 63 || pos + 1 + n > size - 5) {
      overflow = true;
      break;
    }
    buf[pos++] = (unsigned char)n;
    memcpy(buf + pos, p, n);
    pos += n;
    p += n + (dot != nullptr ? 1 : 0);
  }
  if (overflow) {
    free(frame);
    return LDAP_DNS_INVALID_DATA;
  }
  const unsigned char tail[5] = {0, 0, (unsigned char)type, 0, 1};
  memcpy(buf + pos, tail, 5);
  pos += 5;
  frame[0] = (unsigned char)(pos >> 8);
  frame[1] = (unsigned char)pos;
  const bool ok = st->transport == LDAP_DNS_TRANSPORT_UDP ? send_all(st, buf, pos, step_deadline(st))
                                                          : send_all(st, frame, pos + 2, step_deadline(st));
  free(frame);
  return ok ? 0 : LDAP_CONNECT_ERROR;
}

int ldap_dns_read_answer(ldap_dns_state *st) {
  uint16_t expected = (uint16_t)(st->next_id - 1);
  // One deadline for the answer: messages that are not it (wrong ID, wrong
  // source) are dropped and the wait goes on with what is left.
  const int64_t deadline = step_deadline(st);
  for (;;) {
    free(st->packet);
    st->packet = nullptr;
    st->packet_len = 0;
    size_t size = LDAP_DNS_UDP_SIZE;
    unsigned char len[2];
    if (st->transport == LDAP_DNS_TRANSPORT_TCP) size = recv_all(st, len, 2, deadline) ? ldap_dns_get16(len) : 0;
    if (size == 0) return LDAP_CONNECT_ERROR;
    st->packet = static_cast<unsigned char *>(olx_malloc(size));
    if (st->packet == nullptr) return LDAP_NO_MEMORY;
    if (st->transport == LDAP_DNS_TRANSPORT_TCP) {
      if (!recv_all(st, st->packet, size, deadline)) return LDAP_CONNECT_ERROR;
      st->packet_len = size;
    } else {
      if (!wait_ready(st->sock, POLLIN, deadline)) {
        LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: connection has timed out\n");
        return LDAP_CONNECT_ERROR;
      }
      ssize_t n;
      struct sockaddr_storage from;
      socklen_t from_len;
      do {
        from_len = sizeof from;
        n = recvfrom(st->sock, st->packet, size, 0, reinterpret_cast<sockaddr *>(&from), &from_len);
      } while (n < 0 && errno == EINTR);
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) continue;  // readable, then not (a bad checksum)
      if (n < 0) {
        LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: error receiving response: rc = %d\n", errno);
        return LDAP_CONNECT_ERROR;
      }
      // Only the name server may answer: a datagram from elsewhere is
      // dropped like one with a wrong ID.
      if (!same_address(&from, &st->server_addr)) {
        LDAP_LOG(LDAP_LOG_TRACE, "ldapdns: Oops, wrong packet\n");
        continue;
      }
      st->packet_len = (size_t)n;
    }
    int rc = ldap_dns_check_answer(st, expected);
    if (rc != 1) return rc;
  }
}

}  // extern "C"
