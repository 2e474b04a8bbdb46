/* The client side of the search benchmark, written once against the classic
 * LDAP C API so that our library and OpenLDAP's libldap run the very same
 * code.  The includer defines the API names first (ldap.h for the peer, our
 * internal headers for ours) and SB_SEARCH for a synchronous subtree/base
 * search without time-out.  Each mode prints one line of figures. */
#ifndef SEARCH_BENCH_WORK_H
#define SEARCH_BENCH_WORK_H

#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

static double sb_cpu_seconds(void) {
  struct rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

static double sb_wall_seconds(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

/* Reads every DN, attribute name and value of the chain; returns the entry
 * count and adds the number of values to *values. */
static int sb_walk(LDAP *ld, LDAPMessage *res, long *values) {
  int n = 0;
  for (LDAPMessage *e = ldap_first_entry(ld, res); e != NULL; e = ldap_next_entry(ld, e), ++n) {
    char *dn = ldap_get_dn(ld, e);
    BerElement *cursor = NULL;
    for (char *a = ldap_first_attribute(ld, e, &cursor); a != NULL; a = ldap_next_attribute(ld, e, cursor)) {
      struct berval **v = ldap_get_values_len(ld, e, a);
      for (int i = 0; v != NULL && v[i] != NULL; ++i) *values += (long)(v[i]->bv_len != 0);
      ldap_value_free_len(v);
      ldap_memfree(a);
    }
    SB_BER_FREE(cursor);
    ldap_memfree(dn);
  }
  return n;
}

/* (a) and (c): one subtree search, walked completely. */
static int sb_walk_mode(LDAP *ld, const char *base, const char *filter) {
  double c0 = sb_cpu_seconds(), w0 = sb_wall_seconds();
  LDAPMessage *res = NULL;
  int rc = SB_SEARCH(ld, base, 2, filter, &res);
  long values = 0;
  int n = sb_walk(ld, res, &values);
  ldap_msgfree(res);
  double cpu = sb_cpu_seconds() - c0, wall = sb_wall_seconds() - w0;
  printf("rc=%d entries=%d values=%ld cpu_s=%.4f wall_s=%.4f\n", rc, n, values, cpu, wall);
  return rc == 0 ? 0 : 1;
}

struct sb_thread {
  LDAP *ld;
  const char *dn_format;
  int index;
  double until;
  long ops;
  long failures;
};

static void *sb_thread_main(void *arg) {
  struct sb_thread *t = (struct sb_thread *)arg;
  char dn[256];
  for (long i = 0; sb_wall_seconds() < t->until; ++i) {
    snprintf(dn, sizeof dn, t->dn_format, (int)((t->index * 7919 + i) % 1000) + 1);
    LDAPMessage *res = NULL;
    if (SB_SEARCH(t->ld, dn, 0, "(objectClass=*)", &res) != 0 || ldap_count_entries(t->ld, res) != 1) ++t->failures;
    ldap_msgfree(res);
    ++t->ops;
  }
  return NULL;
}

/* (b): `threads` threads share the session for `seconds`, each doing base
 * searches of single entries. */
static int sb_threads_mode(LDAP *ld, const char *dn_format, int threads, double seconds) {
  struct sb_thread ts[64];
  pthread_t ids[64];
  if (threads > 64) threads = 64;
  double c0 = sb_cpu_seconds(), w0 = sb_wall_seconds();
  for (int i = 0; i < threads; ++i) {
    ts[i] = (struct sb_thread){ld, dn_format, i, w0 + seconds, 0, 0};
    pthread_create(&ids[i], NULL, sb_thread_main, &ts[i]);
  }
  long ops = 0, failures = 0;
  for (int i = 0; i < threads; ++i) {
    pthread_join(ids[i], NULL);
    ops += ts[i].ops;
    failures += ts[i].failures;
  }
  double cpu = sb_cpu_seconds() - c0, wall = sb_wall_seconds() - w0;
  printf("threads=%d ops=%ld failures=%ld ops_per_s=%.0f cpu_us_per_op=%.1f\n", threads, ops, failures, ops / wall,
         cpu / (ops ? ops : 1) * 1e6);
  return failures == 0 ? 0 : 1;
}

/* Base searches of single entries one after another, `count` of them, with
 * no clock read between them: run under callgrind with two counts, the
 * difference is the cost of the searches alone. */
static int sb_bases_mode(LDAP *ld, const char *dn_format, int count) {
  char dn[256];
  long failures = 0;
  for (int i = 0; i < count; ++i) {
    snprintf(dn, sizeof dn, dn_format, i % 1000 + 1);
    LDAPMessage *res = NULL;
    if (SB_SEARCH(ld, dn, 0, "(objectClass=*)", &res) != 0 || ldap_count_entries(ld, res) != 1) ++failures;
    ldap_msgfree(res);
  }
  printf("bases=%d failures=%ld\n", count, failures);
  return failures == 0 ? 0 : 1;
}

/* Pipelined (clients that define SB_SEARCH_ASYNC, returning a message ID or
 * -1, and SB_RESULT_ANY, the next whole answer of any request): one thread
 * keeps `outstanding` base searches in flight on the one connection for
 * `seconds`, sending a new one for each answer it takes. */
#ifdef SB_SEARCH_ASYNC
static int sb_pipeline_mode(LDAP *ld, const char *dn_format, int outstanding, double seconds) {
  char dn[256];
  long sent = 0, ops = 0, failures = 0;
  double c0 = sb_cpu_seconds(), w0 = sb_wall_seconds(), until = w0 + seconds;
  int in_flight = 0;
  for (;;) {
    while (in_flight < outstanding && sb_wall_seconds() < until) {
      snprintf(dn, sizeof dn, dn_format, (int)(sent++ % 1000) + 1);
      if (SB_SEARCH_ASYNC(ld, dn, 0, "(objectClass=*)") < 0) {
        ++failures;
        break;
      }
      ++in_flight;
    }
    if (in_flight == 0) break;
    LDAPMessage *res = NULL;
    int type = SB_RESULT_ANY(ld, &res);
    if (type <= 0 || ldap_count_entries(ld, res) != 1) ++failures;
    ldap_msgfree(res);
    if (type <= 0) break; /* nothing more will come */
    --in_flight;
    ++ops;
  }
  double cpu = sb_cpu_seconds() - c0, wall = sb_wall_seconds() - w0;
  printf("outstanding=%d ops=%ld failures=%ld ops_per_s=%.0f cpu_us_per_op=%.2f\n", outstanding, ops, failures,
         ops / wall, cpu / (ops ? ops : 1) * 1e6);
  return failures == 0 ? 0 : 1;
}
#endif

/* Outage mode (clients that define SB_SEARCH_T, a search with a time-out):
 * each thread's tally of a run through a server restart. */
#ifdef SB_SEARCH_T
struct sb_outage {
  LDAP *ld;
  const char *dn_format;
  int index;
  double until;
  long calls, ok;
  long codes[256]; /* by code + 128 */
  double longest, longest_at, first_fail, recovered;
};

/* When the driver saw the restarted server answer (its SIGUSR1), in
 * nanoseconds of CLOCK_MONOTONIC; 0 before. */
static volatile long sb_restart_ns;
/* When the driver killed the server (its SIGUSR2). */
static volatile long sb_kill_ns;

static void sb_on_signal(int sig) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  if (sig == SIGUSR1)
    sb_restart_ns = ts.tv_sec * 1000000000L + ts.tv_nsec;
  else
    sb_kill_ns = ts.tv_sec * 1000000000L + ts.tv_nsec;
}

static void *sb_outage_main(void *arg) {
  struct sb_outage *t = (struct sb_outage *)arg;
  char dn[256];
  for (long i = 0; sb_wall_seconds() < t->until; ++i) {
    snprintf(dn, sizeof dn, t->dn_format, (int)((t->index + i) % 5) + 1);
    LDAPMessage *res = NULL;
    struct timeval wait = {5, 0};
    double w0 = sb_wall_seconds();
    int rc = SB_SEARCH_T(t->ld, dn, 0, "(objectClass=*)", &wait, &res);
    double w1 = sb_wall_seconds();
    ldap_msgfree(res);
    ++t->calls;
    if (w1 - w0 > t->longest) {
      t->longest = w1 - w0;
      t->longest_at = w0;
    }
    t->codes[(rc < -128 || rc > 127 ? 127 : rc) + 128]++;
    const double restart = sb_restart_ns / 1e9;
    if (rc == 0) {
      ++t->ok;
      if (restart > 0 && w1 >= restart && t->recovered == 0) t->recovered = w1;
    } else if (t->first_fail == 0) {
      t->first_fail = w1;
    }
  }
  return NULL;
}

static long sb_status_kb(const char *key) {
  FILE *f = fopen("/proc/self/status", "r");
  char line[256];
  long kb = -1;
  size_t n = strlen(key);
  while (f != NULL && fgets(line, sizeof line, f) != NULL)
    if (strncmp(line, key, n) == 0) kb = atol(line + n + 1);
  if (f != NULL) fclose(f);
  return kb;
}

static int sb_open_fds(void) {
  int n = 0;
  for (int fd = 0; fd < 65536; ++fd) {
    char path[64], target[256];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    if (readlink(path, target, sizeof target) > 0) ++n;
  }
  return n;
}

/* `threads` threads (at most 64) do base searches with a 5 s time-out for
 * `seconds` while the driver kills and restarts the server.  Prints calls,
 * successes, every code seen, the longest call, the clock (CLOCK_MONOTONIC
 * seconds) of the first failure, of the restart and of the first success
 * after it, and the process's RSS and descriptors at the end. */
static int sb_outage_mode(LDAP *ld, const char *dn_format, int threads, double seconds) {
  static struct sb_outage ts[64];
  pthread_t ids[64];
  if (threads > 64) threads = 64;
  signal(SIGUSR1, sb_on_signal);
  signal(SIGUSR2, sb_on_signal);
  double w0 = sb_wall_seconds();
  for (int i = 0; i < threads; ++i) {
    memset(&ts[i], 0, sizeof ts[i]);
    ts[i].ld = ld;
    ts[i].dn_format = dn_format;
    ts[i].index = i;
    ts[i].until = w0 + seconds;
    pthread_create(&ids[i], NULL, sb_outage_main, &ts[i]);
  }
  long calls = 0, ok = 0, codes[256] = {0};
  double longest = 0, longest_at = 0, first_fail = 0, recovered = 0;
  for (int i = 0; i < threads; ++i) {
    pthread_join(ids[i], NULL);
    calls += ts[i].calls;
    ok += ts[i].ok;
    for (int c = 0; c < 256; ++c) codes[c] += ts[i].codes[c];
    if (ts[i].longest > longest) {
      longest = ts[i].longest;
      longest_at = ts[i].longest_at;
    }
    if (ts[i].first_fail > 0 && (first_fail == 0 || ts[i].first_fail < first_fail)) first_fail = ts[i].first_fail;
    if (ts[i].recovered > 0 && (recovered == 0 || ts[i].recovered < recovered)) recovered = ts[i].recovered;
  }
  printf("calls=%ld ok=%ld longest_s=%.3f longest_at=%.6f first_fail=%.6f kill=%.6f restart=%.6f recovered=%.6f rss_kb=%ld fds=%d",
         calls, ok, longest, longest_at, first_fail, sb_kill_ns / 1e9, sb_restart_ns / 1e9, recovered, sb_status_kb("VmRSS:"),
         sb_open_fds());
  for (int c = 0; c < 256; ++c)
    if (codes[c] != 0) printf(" code_%d=%ld", c - 128, codes[c]);
  printf("\n");
  return 0;
}
#endif

/* argv: host port mode ...; walk <base> <filter> | threads <dn-format> <n> <seconds>
 * | bases <dn-format> <count> | pipeline <dn-format> <outstanding> <seconds>
 * | outage <dn-format> <n> <seconds> */
static int sb_main(LDAP *ld, int argc, char **argv) {
  if (argc >= 3 && strcmp(argv[0], "walk") == 0) return sb_walk_mode(ld, argv[1], argv[2]);
  if (argc >= 4 && strcmp(argv[0], "threads") == 0) {
    /* One search first so the connection is open before the threads start. */
    LDAPMessage *res = NULL;
    char dn[256];
    snprintf(dn, sizeof dn, argv[1], 1);
    SB_SEARCH(ld, dn, 0, "(objectClass=*)", &res);
    ldap_msgfree(res);
    return sb_threads_mode(ld, argv[1], atoi(argv[2]), atof(argv[3]));
  }
  if (argc >= 3 && strcmp(argv[0], "bases") == 0) return sb_bases_mode(ld, argv[1], atoi(argv[2]));
#ifdef SB_SEARCH_ASYNC
  if (argc >= 4 && strcmp(argv[0], "pipeline") == 0) {
    LDAPMessage *res = NULL;
    char dn[256];
    snprintf(dn, sizeof dn, argv[1], 1);
    SB_SEARCH(ld, dn, 0, "(objectClass=*)", &res);
    ldap_msgfree(res);
    return sb_pipeline_mode(ld, argv[1], atoi(argv[2]), atof(argv[3]));
  }
#endif
#ifdef SB_SEARCH_T
  if (argc >= 4 && strcmp(argv[0], "outage") == 0) return sb_outage_mode(ld, argv[1], atoi(argv[2]), atof(argv[3]));
#endif
  fprintf(stderr, "usage: host port walk <base> <filter> | threads|pipeline|outage <dn-format> <n> <seconds>"
                  " | bases <dn-format> <count>\n");
  return 2;
}

#endif
