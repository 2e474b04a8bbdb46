// The cost of translation on a whole search: 10,000 entries with accented
// UTF-8 values, searched and read to every value by a session with option 224
// = 1 (untranslated) and one with 224 = 0 and local code page ISO8859-1.
// Prints client CPU and wall time per search (medians) and their ratios.
// Usage: xlate_search_bench [entries=10000] [runs=7]
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_driver.h"
#include "ldap-search.h"
#include "ldap-xlate.h"
#include "slapd_server.h"

using tavbench::median;
using tavtest::SlapdServer;

namespace {

double now(clockid_t clock) {
  timespec ts;
  clock_gettime(clock, &ts);
  return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

// One subtree search read to every value; the number of values read.
long search_all(LDAP *ld) {
  LDAPMessage *res = nullptr;
  if (ldap_search_s(ld, "ou=Xlate,dc=example,dc=com", LDAP_SCOPE_ONELEVEL, "(objectClass=person)", nullptr, 0, &res) !=
      0)
    return -1;
  long values = 0;
  for (LDAPMessage *e = ldap_first_entry(ld, res); e; e = ldap_next_entry(ld, e)) {
    BerElement *cursor = nullptr;
    for (char *a = ldap_first_attribute(ld, e, &cursor); a; a = ldap_next_attribute(ld, e, cursor)) {
      char **v = ldap_get_values(ld, e, a);
      for (char **p = v; p != nullptr && *p != nullptr; ++p) ++values;
      ldap_value_free(v);
      ldap_memfree(a);
    }
    ldap_ber_free(cursor);
  }
  ldap_msgfree(res);
  return values;
}

}  // namespace

int main(int argc, char **argv) {
  const int entries = argc > 1 ? atoi(argv[1]) : 10000, runs = argc > 2 ? atoi(argv[2]) : 7;
  setenv("TISDIR", TAV_BUILD_DIR, 1);
  tavtest::SlapdOptions options;
  options.people = 1;
  options.global_config = "sizelimit unlimited\n";
  options.extra_ldif = "dn: ou=Xlate,dc=example,dc=com\nobjectClass: organizationalUnit\nou: Xlate\n\n";
  for (int i = 0; i < entries; ++i) {
    const std::string n = std::to_string(i);
    options.extra_ldif += "dn: cn=M\xC3\xBCller " + n +
                          ",ou=Xlate,dc=example,dc=com\nobjectClass: person\ncn: M\xC3\xBCller " + n +
                          "\nsn: M\xC3\xBCller-L\xC3\xBC"
                          "denscheidt\ndescription: Gr\xC3\xBC\xC3\x9F"
                          "e aus K\xC3\xB6ln, caf\xC3\xA9 " +
                          n + "\ntelephoneNumber: +49 221 " + n + "\n\n";
  }
  SlapdServer slapd(options);
  std::string error;
  if (!slapd.start(&error)) {
    fprintf(stderr, "slapd did not start: %s\n", error.c_str());
    return 1;
  }
  ldap_set_iconv_local_codepage("ISO8859-1");
  double cpu[2], wall[2];
  long values[2] = {0, 0};
  for (int translated = 0; translated < 2; ++translated) {
    LDAP *ld = ldap_init("127.0.0.1", slapd.port());
    ldap_set_option(ld, LDAP_OPT_XLATE, reinterpret_cast<void *>(static_cast<intptr_t>(translated ? 0 : 1)));
    std::vector<double> c, w;
    search_all(ld);  // warm: connection, converters
    for (int r = 0; r < runs; ++r) {
      const double c0 = now(CLOCK_PROCESS_CPUTIME_ID), w0 = now(CLOCK_MONOTONIC);
      values[translated] = search_all(ld);
      c.push_back(now(CLOCK_PROCESS_CPUTIME_ID) - c0);
      w.push_back(now(CLOCK_MONOTONIC) - w0);
    }
    cpu[translated] = median(c);
    wall[translated] = median(w);
    ldap_unbind(ld);
  }
  printf("entries=%d values_untranslated=%ld values_translated=%ld\n", entries, values[0], values[1]);
  printf("untranslated_cpu_ms=%.2f translated_cpu_ms=%.2f cpu_ratio=%.3f\n", cpu[0], cpu[1], cpu[1] / cpu[0]);
  printf("untranslated_wall_ms=%.2f translated_wall_ms=%.2f wall_ratio=%.3f\n", wall[0], wall[1], wall[1] / wall[0]);
  return values[0] == values[1] && values[0] > 0 ? 0 : 1;
}
