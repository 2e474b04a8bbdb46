/* The pipelined workload with no LDAP library at all: SearchRequests encoded
 * by hand, every request due written in one call, answers skipped by their
 * outer lengths (only each message's operation tag is looked at).  What one
 * connection to slapd serves when the client costs next to nothing: the
 * ceiling for the pipelined rows of search_bench.
 * Usage: wire_client host port pipeline <dn-format> <outstanding> <seconds>
 * Prints the line the other clients print. */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

static double wall_seconds(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

static double cpu_seconds(void) {
  struct rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

/* A tag and a definite length (short form, or 0x84 and four octets). */
static unsigned char *header(unsigned char *p, unsigned char tag, size_t len) {
  *p++ = tag;
  if (len < 128) {
    *p++ = (unsigned char)len;
  } else {
    *p++ = 0x84;
    for (int shift = 24; shift >= 0; shift -= 8) *p++ = (unsigned char)(len >> shift);
  }
  return p;
}

/* A base search for `dn`, filter (objectClass=*), all attributes, as message
 * `id`; its length. */
static size_t encode_search(unsigned char *out, int id, const char *dn) {
  static const unsigned char tail[] = {0x0a, 0x01, 0x00, 0x0a, 0x01, 0x00, 0x02, 0x01, 0x00, 0x02, 0x01, 0x00,
                                       0x01, 0x01, 0x00, 0x87, 0x0b, 'o',  'b',  'j',  'e',  'c',  't',  'C',
                                       'l',  'a',  's',  's',  0x30, 0x00};
  const size_t dn_len = strlen(dn);
  unsigned char op[512], *p = header(op, 0x04, dn_len);
  memcpy(p, dn, dn_len);
  p += dn_len;
  memcpy(p, tail, sizeof tail);
  p += sizeof tail;
  const size_t op_len = (size_t)(p - op);
  unsigned char body[600], *q = body;
  *q++ = 0x02, *q++ = 0x04;
  for (int shift = 24; shift >= 0; shift -= 8) *q++ = (unsigned char)(id >> shift);
  q = header(q, 0x63, op_len);
  memcpy(q, op, op_len);
  q += op_len;
  unsigned char *r = header(out, 0x30, (size_t)(q - body));
  memcpy(r, body, (size_t)(q - body));
  return (size_t)(r - out) + (size_t)(q - body);
}

/* The length of the header at p and of its contents, or 0 when the header is
 * not all there yet. */
static size_t parse_header(const unsigned char *p, size_t have, size_t *contents) {
  if (have < 2) return 0;
  if (!(p[1] & 0x80)) {
    *contents = p[1];
    return 2;
  }
  const size_t n = p[1] & 0x7f;
  if (n == 0 || n > 4 || have < 2 + n) return 0;
  size_t len = 0;
  for (size_t i = 0; i < n; ++i) len = (len << 8) | p[2 + i];
  *contents = len;
  return 2 + n;
}

int main(int argc, char **argv) {
  if (argc < 7 || strcmp(argv[3], "pipeline") != 0) {
    fprintf(stderr, "usage: wire_client host port pipeline <dn-format> <outstanding> <seconds>\n");
    return 2;
  }
  const char *dn_format = argv[4];
  const int outstanding = atoi(argv[5]);
  const double seconds = atof(argv[6]);
  int sd = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in sin;
  memset(&sin, 0, sizeof sin);
  sin.sin_family = AF_INET;
  sin.sin_port = htons((unsigned short)atoi(argv[2]));
  if (sd < 0 || inet_pton(AF_INET, argv[1], &sin.sin_addr) != 1 ||
      connect(sd, (struct sockaddr *)&sin, sizeof sin) != 0)
    return 1;
  const int on = 1;
  setsockopt(sd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);

  static unsigned char out[1 << 20], in[1 << 16];
  size_t held = 0;
  long sent = 0, ops = 0, failures = 0;
  int in_flight = 0;
  const double c0 = cpu_seconds(), w0 = wall_seconds(), until = w0 + seconds;
  for (;;) {
    size_t n = 0;
    while (in_flight < outstanding && wall_seconds() < until) {
      char dn[256];
      snprintf(dn, sizeof dn, dn_format, (int)(sent % 1000) + 1);
      n += encode_search(out + n, (int)(sent % 0x7fffffff) + 1, dn);
      ++sent;
      ++in_flight;
    }
    for (size_t at = 0; at < n;) {
      const ssize_t w = write(sd, out + at, n - at);
      if (w <= 0) return 1;
      at += (size_t)w;
    }
    if (in_flight == 0) break;
    const ssize_t r = read(sd, in + held, sizeof in - held);
    if (r <= 0) return 1;
    held += (size_t)r;
    size_t at = 0;
    for (;;) {
      size_t len = 0, id_len = 0;
      const size_t h = parse_header(in + at, held - at, &len);
      if (h == 0 || held - at < h + len) break;
      /* messageID, then the operation's tag */
      const size_t id_h = parse_header(in + at + h, len, &id_len);
      if (id_h == 0 || id_h + id_len >= len) {
        ++failures;
      } else if (in[at + h + id_h + id_len] == 0x65) {
        --in_flight;
        ++ops;
      }
      at += h + len;
    }
    if (at == 0 && held == sizeof in) return 1; /* an answer larger than the buffer */
    memmove(in, in + at, held - at);
    held -= at;
  }
  const double cpu = cpu_seconds() - c0, wall = wall_seconds() - w0;
  printf("outstanding=%d ops=%ld failures=%ld ops_per_s=%.0f cpu_us_per_op=%.2f\n", outstanding, ops, failures,
         ops / wall, cpu / (ops ? ops : 1) * 1e6);
  close(sd);
  return failures == 0 ? 0 : 1;
}
