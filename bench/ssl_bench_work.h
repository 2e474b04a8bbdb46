/* The handshake part of the ldaps benchmark, shared by both clients: the
 * includer defines SB_CONNECT (a new session, bound anonymously: one full
 * connection life up to its first response, 0 on success), SB_DISCONNECT and
 * SB_BETWEEN (work between handshakes that is not counted, or nothing). */
#ifndef SSL_BENCH_WORK_H
#define SSL_BENCH_WORK_H

#include "search_bench_work.h"

static int sb_handshakes_mode(int count) {
  double cpu = 0, wall = 0;
  int failures = 0;
  for (int i = 0; i < count; ++i) {
    SB_BETWEEN();
    double c0 = sb_cpu_seconds(), w0 = sb_wall_seconds();
    LDAP *ld = NULL;
    if (SB_CONNECT(&ld) != 0) ++failures;
    SB_DISCONNECT(ld);
    cpu += sb_cpu_seconds() - c0;
    wall += sb_wall_seconds() - w0;
  }
  printf("handshakes=%d failures=%d per_s=%.1f cpu_ms=%.3f\n", count, failures, count / wall, cpu / count * 1e3);
  return failures == 0 ? 0 : 1;
}

#endif
