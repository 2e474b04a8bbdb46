// Fuzzes the DNS answer checks and record parsing: the header, questions,
// compressed names and SRV, TXT and CNAME records of any message, and the
// host attributes of TXT records.  Every server made must be complete.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "ldap-dns.h"

namespace {

void check(bool ok) {
  if (!ok) abort();
}

void check_servers(const LDAPServerInfo *s) {
  for (const LDAPServerInfo *prev = nullptr; s != nullptr; prev = s, s = s->next) {
    check(s->host != nullptr && s->domain != nullptr && s->service != nullptr);
    check(s->prev == prev);
    if (prev != nullptr) check(prev->priority <= s->priority);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  ldap_dns_state st;
  memset(&st, 0, sizeof st);
  st.sock = -1;
  st.connection_type = data[0] & 1;  // automatic or UDP only: truncation taken both ways
  st.current_domain = "example.com";
  st.packet = static_cast<unsigned char *>(malloc(size));
  memcpy(st.packet, data, size);
  st.packet_len = size;
  // The expected ID is the message's own, so the checks behind it are reached.
  int rc = ldap_dns_check_answer(&st, (uint16_t)(data[0] << 8 | data[1]));
  check(rc == 0 || rc == -1 || rc == LDAP_DNS_TRUNCATED || rc == LDAP_DNS_INVALID_DATA);
  if (rc == 0) {
    check(st.answers_pos <= st.packet_len);
    for (int type : {LDAP_DNS_TYPE_SRV, LDAP_DNS_TYPE_TXT, LDAP_DNS_TYPE_CNAME}) {
      rc = ldap_dns_parse_answers(&st, nullptr, type);
      check(rc == 0 || rc == LDAP_DNS_INVALID_DATA);
      check_servers(st.found);
    }
    LDAPServerInfo *server = static_cast<LDAPServerInfo *>(calloc(1, sizeof(LDAPServerInfo)));
    server->host = strdup("h");
    server->port = 7;
    rc = ldap_dns_parse_answers(&st, server, LDAP_DNS_TYPE_TXT);
    // A malformed answer drops this server's attributes, never the server.
    check(rc == 0);
    check(server->host != nullptr && server->host[0] != '\0');
    check(server->sec_flag >= 0 && server->sec_flag <= 2);
    ldap_server_free_list(server);
  }
  ldap_dns_state_free(&st);
  return 0;
}
