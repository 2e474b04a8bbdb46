#include "referral_servers.h"

#include <pthread.h>

#include <cstdlib>
#include <cstring>
#include <set>

namespace tavtest {

namespace {

std::string entry(const std::string &dn, const std::string &body) { return "dn: " + dn + "\n" + body + "\n"; }

std::string referral(const std::string &dn, const std::string &ou, const std::vector<std::string> &refs) {
  std::string body = "objectClass: referral\nobjectClass: extensibleObject\nou: " + ou + "\n";
  for (const auto &r : refs) body += "ref: " + r + "\n";
  return entry(dn, body);
}

std::string person(const std::string &dn, const std::string &cn) {
  return entry(dn, "objectClass: person\ncn: " + cn + "\nsn: " + cn + "\n");
}

std::string unit(const std::string &dn, const std::string &ou) {
  return entry(dn, "objectClass: organizationalUnit\nou: " + ou + "\n");
}

}  // namespace

ReferralServers::ReferralServers(int branch_entries, bool tls) {
  std::set<int> taken;
  for (int *p : {&port_a_, &port_b_, &port_c_, &dead_port_}) {
    do *p = free_port();
    while (taken.count(*p));
    taken.insert(*p);
  }
  const std::string &s = kSuffix;
  SlapdOptions b = {
      .allow_v2 = true,
      .access =
          "access to attrs=userPassword by anonymous auth by * none\n"
          "access to * by users read by * none\n",
      .extra_ldif = unit(branch(), "branch") + referral("ou=loop," + s, "loop", {url(port_a_, "ou=loop," + s)}),
      .port = port_b_,
      .tls = tls};
  for (int i = 1; i <= branch_entries; ++i)
    b.extra_ldif += person("cn=b" + std::to_string(i) + "," + branch(), "b" + std::to_string(i));
  b_ = std::make_unique<SlapdServer>(b);
  c_ = std::make_unique<SlapdServer>(
      SlapdOptions{.extra_ldif = unit("ou=dead," + s, "dead") + person("cn=c1,ou=dead," + s, "c1"), .port = port_c_});
  // A's referrals name B's ldaps port, known once B runs.
  if (!b_->start(&error_) || !c_->start(&error_)) return;
  SlapdOptions a = {.allow_v2 = true, .global_config = "referral " + url(port_c_, "") + "\n", .port = port_a_};
  a.extra_ldif = unit("ou=t1," + s, "t1") + person("cn=a1,ou=t1," + s, "a1") + person("cn=a2,ou=t1," + s, "a2") +
                 referral("ou=branch,ou=t1," + s, "branch", {url(port_b_, branch())}) +
                 referral("ou=loop," + s, "loop", {url(port_b_, "ou=loop," + s)}) +
                 referral("ou=dead," + s, "dead", {url(dead_port_, "ou=dead," + s), url(port_c_, "ou=dead," + s)}) +
                 referral("ou=nowhere," + s, "nowhere", {url(dead_port_, "ou=nowhere," + s)});
  if (tls)
    a.extra_ldif += referral("ou=secure," + s, "secure",
                             {"ldaps://127.0.0.1/" + branch(), "ldaps://" + b_->ldaps_host_port() + "/" + branch()});
  a_ = std::make_unique<SlapdServer>(a);
  started_ = a_->start(&error_);
}

int ReferralServers::rebind_proc(LDAP *, char **dn, char **pw, int *method, int freeit) {
  if (freeit) {
    ++rebind_frees_;
    free(*dn);
    free(*pw);
    *dn = *pw = nullptr;
    return 0;
  }
  ++rebinds_;
  *dn = strdup(SlapdServer::kRootDn);
  *pw = strdup(SlapdServer::kRootPw);
  *method = LDAP_AUTH_SIMPLE;
  return 0;
}

LDAP *ReferralServers::session(bool rebind) const {
  LDAP *ld = ldap_init("127.0.0.1", port_a_);
  if (ld != nullptr && rebind) ldap_set_option(ld, LDAP_OPT_REBIND_FN, reinterpret_cast<void *>(&rebind_proc));
  return ld;
}

int ReferralServers::rows_in_use(LDAP *ld) {
  int used = 0;
  pthread_mutex_lock(&ld->ld_conn_mutex);
  for (LDAPConn *c = ld->ld_servers; c != nullptr; c = c->lc_next) {
    ldap_msg_table *t = c->lc_msgtable;
    pthread_mutex_lock(&t->table_mutex);
    used += (int)t->size - t->free_count;
    pthread_mutex_unlock(&t->table_mutex);
  }
  pthread_mutex_unlock(&ld->ld_conn_mutex);
  return used;
}

}  // namespace tavtest
