#include "ldap_requests.h"

#include <cstdlib>
#include <functional>

#include "ldap-protocol.h"

namespace tavtest {

namespace {

int send_built(LDAP *ld, int type, const std::function<int(BerElement *, int)> &build, std::string *encoded) {
  LDAPConn *conn = get_default_connection(ld);
  if (conn == nullptr) return -1;
  ldap_msg_table *table = conn->lc_msgtable;
  int id = ldap_msg_table_get_next_msgid(table);
  if (id < 0) return -1;
  LDAPMessage *req = ldap_msg_new(conn);
  req->lm_msgid = id;
  req->lm_msgtype = type;
  req->lm_ber = ldap_alloc_ber_with_options(ld, 0);
  if (req->lm_ber == nullptr || build(req->lm_ber, id) != 0) {
    free_msg(req, 0);
    ldap_msg_table_release_msgid(table, id);
    return -1;
  }
  if (encoded) *encoded = written(req->lm_ber);
  if (ldap_msg_table_send_message(table, ld, req) != 0) {
    ldap_msg_release_msgid(req);  // frees the request with its row
    return -1;
  }
  return id;
}

}  // namespace

int send_search(LDAP *ld, const std::string &base, int scope, const std::string &present_attr,
                const std::vector<std::string> &attrs) {
  std::vector<char *> vec;
  for (const auto &a : attrs) vec.push_back(const_cast<char *>(a.c_str()));
  vec.push_back(nullptr);
  auto build = [&](BerElement *ber, int id) {
    return fber_printf(ber, "{it{seeiibts{v}}}", id, (ber_tag_t)ldap_proto::kSearchRequest, base.c_str(), scope, 0, 0,
                       0, 0, (ber_tag_t)0x87, present_attr.c_str(), vec.data());
  };
  return send_built(ld, ldap_proto::kSearchRequest, build, nullptr);
}

int send_raw_op(LDAP *ld, int type, const std::string &op_bytes, std::string *encoded) {
  auto build = [&](BerElement *ber, int id) {
    if (fber_printf(ber, "{i", id) < 0) return -1;
    if (fber_write(ber, op_bytes.data(), op_bytes.size()) != (int)op_bytes.size()) return -1;
    return fber_printf(ber, "}");
  };
  return send_built(ld, type, build, encoded);
}

std::string search_entry(int msgid, const std::string &dn) {
  return message(msgid, tlv(ldap_proto::kSearchEntry,
                            str(dn) + tlv(ldap_proto::kSequence,
                                          tlv(ldap_proto::kSequence, str("cn") + tlv(ldap_proto::kSet, str("x"))))));
}

std::string entry_dn(LDAPMessage *entry) {
  BerElement copy;  // read from a copy so the entry stays readable
  if (!ldap_msg_reader(entry, &copy)) return "";
  char *dn = nullptr;
  std::string out;
  if (fber_scanf(&copy, "{a", &dn) != LBER_ERROR && dn != nullptr) out = dn;
  free(dn);
  return out;
}

int request_msgid(const std::string &pdu) {
  // 30 LL [length octets] 02 NN id...
  size_t i = 2 + (pdu.size() > 1 && (pdu[1] & 0x80) ? (pdu[1] & 0x7F) : 0);
  if (i + 2 > pdu.size() || static_cast<unsigned char>(pdu[i]) != ldap_proto::kInteger) return -1;
  int id = 0;
  for (size_t k = 0; k < (size_t)pdu[i + 1] && i + 2 + k < pdu.size(); ++k)
    id = id << 8 | (unsigned char)pdu[i + 2 + k];
  return id;
}

std::string whoami(LDAP *ld) {
  const int id =
      send_raw_op(ld, ldap_proto::kExtendedRequest,
                  tlv(ldap_proto::kExtendedRequest, tlv(ldap_proto::kRequestName, "1.3.6.1.4.1.4203.1.11.3")));
  LDAPMessage *res = nullptr;
  struct berval *authzid = nullptr;
  if (id < 0 || ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res) != ldap_proto::kExtendedResponse ||
      ldap_parse_extended_result(ld, res, nullptr, &authzid, 1) != 0 || authzid == nullptr)
    return "";
  std::string who(authzid->bv_val, authzid->bv_len);
  fber_bvfree(authzid);
  return who;
}

}  // namespace tavtest
