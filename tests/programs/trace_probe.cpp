// Runs trace calls in a fresh process, so tests can set LDAP_DEBUG* before the
// once-per-process initialisation.  Each argument is one action:
//   init            ldap_debug_init()
//   levels          one line at each of the 19 level codes: "level k\n"
//   short           a 5-character format: "x=%d\n"
//   long            "long line %d\n"
//   dump:N[:TITLE]  dump N bytes counting up from 0x40
//   nolist          ldap_log_v with no argument list and a format holding %s
//   setmask:N       ldap_set_debug_level(N)
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ldap-debug.h"

int main(int argc, char **argv) {
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "init") {
      ldap_debug_init();
    } else if (a == "levels") {
      for (int k = 0; k < LDAP_LOG_CATEGORIES; ++k) LDAP_LOG(LDAP_LOG_LEVEL(k), "level %d\n", k);
    } else if (a == "short") {
      LDAP_LOG(LDAP_LOG_ANY, "x=%d\n", 1);
    } else if (a == "long") {
      LDAP_LOG(LDAP_LOG_ANY, "long line %d\n", 7);
    } else if (a == "nolist") {
      ldap_log_v(LDAP_LOG_ANY, "kept as is: %s\n", nullptr);
    } else if (a.rfind("setmask:", 0) == 0) {
      ldap_set_debug_level((uint32_t)strtoul(a.c_str() + 8, nullptr, 0));
    } else if (a.rfind("dump:", 0) == 0) {
      char *end = nullptr;
      unsigned long n = strtoul(a.c_str() + 5, &end, 0);
      const char *title = (*end == ':') ? end + 1 : nullptr;
      std::vector<unsigned char> bytes(n > 0x10000 ? 0x10000 : n);
      for (size_t b = 0; b < bytes.size(); ++b) bytes[b] = (unsigned char)(0x40 + b);
      ldap_log_dump(bytes.data(), (unsigned int)n, title);
    } else {
      fprintf(stderr, "trace_probe: unknown action %s\n", argv[i]);
      return 2;
    }
  }
  return 0;
}
