// resolv.conf as the system's resolver reads it: name servers in order,
// the domain and search lists; comments, blanks, CRLF and bad lines are
// passed over.
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

// The next word of a resolv.conf line from *p, or null at its end.  Blanks
// (a carriage return too, for files written elsewhere) separate words, and
// '#' or ';' begins a comment wherever it stands.
const char *conf_word(const char **p, size_t *len) {
  const char *s = *p;
  while (*s == ' ' || *s == '\t' || *s == '\r' || *s == '\n') ++s;
  const char *b = s;
  while (*s != '\0' && strchr(" \t\r\n#;", *s) == nullptr) ++s;
  *p = s;
  *len = (size_t)(s - b);
  return s > b ? b : nullptr;
}

bool conf_keyword(const char *word, size_t len, const char *keyword) {
  return len == strlen(keyword) && memcmp(word, keyword, len) == 0;
}

// A name server ldap_dns_open would take: a numeric address.
bool numeric_address(const char *word, size_t len) {
  char addr[INET6_ADDRSTRLEN + IF_NAMESIZE + 2];
  if (len >= sizeof addr) return false;
  memcpy(addr, word, len);
  addr[len] = '\0';
  struct addrinfo hints;
  memset(&hints, 0, sizeof hints);
  hints.ai_socktype = SOCK_DGRAM;
  hints.ai_flags = AI_NUMERICHOST;
  struct addrinfo *res = nullptr;
  if (getaddrinfo(addr, nullptr, &hints, &res) != 0) return false;
  freeaddrinfo(res);
  return true;
}

}  // namespace

extern "C" {

int ldap_dns_read_resolv_conf(ldap_dns_state *st, const char *path, int need_servers) {
  FILE *f = fopen(path, "r");
  if (f == nullptr) {
    if (!need_servers) return 0;
    LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: Can't open /etc/resolv.conf: rc = %d\n", errno);
    return LDAP_DNS_RESOLVE_ERROR;
  }
  // Read as the resolver reads it: a line the reader does not understand (an
  // unknown keyword, a keyword without a value, a name server that is not a
  // numeric address, a line too long for the buffer) is skipped, never fatal.
  bool want_domains = ldap_dns_list_count(st->dns_domains) == 0;
  char **domains = nullptr;
  int rc = 0;
  char line[256];
  bool in_long_line = false;
  while (rc == 0 && fgets(line, sizeof line, f) != nullptr) {
    const size_t len = strlen(line);
    const bool at_end = (len > 0 && line[len - 1] == '\n') || feof(f);
    const bool whole = !in_long_line && at_end;
    in_long_line = !at_end;
    const char *p = line;
    size_t n;
    const char *key = whole ? conf_word(&p, &n) : nullptr;
    if (key == nullptr) continue;
    if (need_servers && conf_keyword(key, n, "nameserver")) {
      const char *v = conf_word(&p, &n);
      if (v != nullptr && numeric_address(v, n)) rc = ldap_dns_list_add(&st->owned_servers, v, n);
    } else if (want_domains && (conf_keyword(key, n, "domain") || conf_keyword(key, n, "search"))) {
      // The last "domain" or "search" line wins; "domain" takes one word.
      const bool search = *key == 's';
      char **words = nullptr;
      for (const char *v; rc == 0 && (v = conf_word(&p, &n)) != nullptr && (search || words == nullptr);)
        rc = ldap_dns_list_add(&words, v, n);
      if (rc == 0 && words != nullptr) {
        ldap_dns_list_free(domains);
        domains = words;
      } else {
        ldap_dns_list_free(words);
      }
    }
  }
  fclose(f);
  if (rc != 0) {
    ldap_dns_list_free(domains);
    return rc;
  }
  if (domains != nullptr) {
    ldap_dns_list_free(st->owned_domains);
    st->owned_domains = st->dns_domains = domains;
  }
  if (need_servers) {
    st->name_servers = st->owned_servers;
    if (ldap_dns_list_count(st->name_servers) == 0) return LDAP_DNS_RESOLVE_ERROR;
  }
  return 0;
}

int ldap_dns_get_config(ldap_dns_state *st) {
  bool need_servers = st->search_source != 1 && ldap_dns_list_count(st->name_servers) == 0;
  if (ldap_dns_list_count(st->dns_domains) == 0 && ldap_chkenv("LOCALDOMAIN")) {
    char *value = ldap_getenv("LOCALDOMAIN");
    if (value == nullptr) return LDAP_NO_MEMORY;
    int rc = *value != '\0' ? ldap_dns_list_add(&st->owned_domains, value, strlen(value)) : 0;
    free(value);
    if (rc != 0) return rc;
    if (st->owned_domains != nullptr) st->dns_domains = st->owned_domains;
  }
  if (need_servers || ldap_dns_list_count(st->dns_domains) == 0) {
    int rc = ldap_dns_read_resolv_conf(st, "/etc/resolv.conf", need_servers);
    if (rc != 0) return rc;
  }
  if (ldap_dns_list_count(st->dns_domains) == 0) {
    char host[257] = {};
    if (gethostname(host, sizeof host - 1) != 0) return LDAP_DNS_RESOLVE_ERROR;
    const char *dot = strchr(host, '.');
    if (dot == nullptr || dot[1] == '\0') return LDAP_DNS_RESOLVE_ERROR;
    int rc = ldap_dns_list_add(&st->owned_domains, dot + 1, strlen(dot + 1));
    if (rc != 0) return rc;
    st->dns_domains = st->owned_domains;
  }
  return 0;
}

}  // extern "C"
