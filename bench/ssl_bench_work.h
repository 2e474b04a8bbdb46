/* The handshake part of the ldaps benchmark, shared by both clients: the
 * includer defines SB_CONNECT (a new session, bound anonymously: one full
 * connection life up to its first response, 0 on success), SB_DISCONNECT,
 * SB_BETWEEN (work between handshakes that is not counted, or nothing) and
 * SB_DESCRIBE(ld, protocol, cipher, group) (what the connection negotiated,
 * each into 64 bytes; 1 when its session was resumed, 0 when not, -1 when
 * it cannot tell), also not counted. */
#ifndef SSL_BENCH_WORK_H
#define SSL_BENCH_WORK_H

#include "search_bench_work.h"

static int sb_handshakes_mode(int count) {
  double cpu = 0, wall = 0;
  int failures = 0, resumed = 0;
  char protocol[64] = "?", cipher[64] = "?", group[64] = "?";
  for (int i = 0; i < count; ++i) {
    SB_BETWEEN();
    double c0 = sb_cpu_seconds(), w0 = sb_wall_seconds();
    LDAP *ld = NULL;
    if (SB_CONNECT(&ld) != 0) ++failures;
    cpu += sb_cpu_seconds() - c0;
    wall += sb_wall_seconds() - w0;
    if (ld != NULL && SB_DESCRIBE(ld, protocol, cipher, group) == 1) ++resumed;
    c0 = sb_cpu_seconds(), w0 = sb_wall_seconds();
    SB_DISCONNECT(ld);
    cpu += sb_cpu_seconds() - c0;
    wall += sb_wall_seconds() - w0;
  }
  printf("handshakes=%d failures=%d per_s=%.1f cpu_ms=%.3f resumed=%d protocol=%s cipher=%s group=%s\n", count,
         failures, count / wall, cpu / count * 1e3, resumed, protocol, cipher, group);
  return failures == 0 ? 0 : 1;
}

#endif
