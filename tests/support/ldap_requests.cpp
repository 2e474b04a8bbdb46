#include "ldap_requests.h"

#include <cstdlib>
#include <functional>

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
  if (encoded) encoded->assign(req->lm_ber->ber_buf, req->lm_ber->ber_ptr - req->lm_ber->ber_buf);
  if (ldap_msg_table_send_message(table, ld, req) != 0) {
    ldap_msg_release_msgid(req);  // frees the request with its row
    return -1;
  }
  return id;
}

std::string header(unsigned char tag, size_t len) {
  std::string h(1, static_cast<char>(tag));
  if (len < 0x80) {
    h += static_cast<char>(len);
  } else {
    h += '\x84';
    for (int shift = 24; shift >= 0; shift -= 8) h += static_cast<char>((len >> shift) & 0xFF);
  }
  return h;
}

std::string tlv(unsigned char tag, const std::string &v) { return header(tag, v.size()) + v; }
std::string integer(int v) { return tlv(0x02, std::string(1, static_cast<char>(v & 0xFF))); }
std::string message(int msgid, const std::string &op) {
  std::string id = msgid < 0x80 ? integer(msgid)
                                : tlv(0x02, std::string{static_cast<char>((msgid >> 16) & 0xFF),
                                                        static_cast<char>((msgid >> 8) & 0xFF),
                                                        static_cast<char>(msgid & 0xFF)});
  return tlv(0x30, id + op);
}

}  // namespace

int send_search(LDAP *ld, const std::string &base, int scope, const std::string &present_attr,
                const std::vector<std::string> &attrs) {
  std::vector<char *> vec;
  for (const auto &a : attrs) vec.push_back(const_cast<char *>(a.c_str()));
  vec.push_back(nullptr);
  return send_built(
      ld, 0x63,
      [&](BerElement *ber, int id) {
        return fber_printf(ber, "{it{seeiibts{v}}}", id, (ber_tag_t)0x63, base.c_str(), scope, 0, 0, 0, 0,
                           (ber_tag_t)0x87, present_attr.c_str(), vec.data()) < 0
                   ? -1
                   : 0;
      },
      nullptr);
}

int send_raw_op(LDAP *ld, int type, const std::string &op_bytes, std::string *encoded) {
  return send_built(
      ld, type,
      [&](BerElement *ber, int id) {
        if (fber_printf(ber, "{i", id) < 0) return -1;
        if (fber_write(ber, op_bytes.data(), op_bytes.size()) != (int)op_bytes.size()) return -1;
        return fber_printf(ber, "}") < 0 ? -1 : 0;
      },
      encoded);
}

std::string search_entry(int msgid, const std::string &dn) {
  std::string attrs = tlv(0x30, tlv(0x30, tlv(0x04, "cn") + tlv(0x31, tlv(0x04, "x"))));
  return message(msgid, tlv(0x64, tlv(0x04, dn) + attrs));
}

std::string ldap_response(int msgid, int type, int code) {
  return message(msgid, tlv(static_cast<unsigned char>(type),
                            tlv(0x0A, std::string(1, static_cast<char>(code))) + tlv(0x04, "") + tlv(0x04, "")));
}

std::string search_done(int msgid, int code) { return ldap_response(msgid, 0x65, code); }

std::string search_reference(int msgid, const std::string &url) { return message(msgid, tlv(0x73, tlv(0x04, url))); }

std::string entry_dn(LDAPMessage *entry) {
  if (entry == nullptr || entry->lm_ber == nullptr) return "";
  // Read from a copy of the position so the entry stays readable.
  char *saved = entry->lm_ber->ber_ptr;
  char *dn = nullptr;
  std::string out;
  if (fber_scanf(entry->lm_ber, "{a", &dn) != LBER_ERROR && dn != nullptr) out = dn;
  free(dn);
  entry->lm_ber->ber_ptr = saved;
  return out;
}

int request_msgid(const std::string &pdu) {
  // 30 LL 02 NN id...: the ID follows the outer header.
  size_t i = 1;
  unsigned char l = static_cast<unsigned char>(pdu[i++]);
  if (l & 0x80) i += l & 0x7F;
  if (i + 2 > pdu.size() || pdu[i] != 0x02) return -1;
  size_t n = static_cast<unsigned char>(pdu[i + 1]);
  int id = 0;
  for (size_t k = 0; k < n && i + 2 + k < pdu.size(); ++k) id = (id << 8) | static_cast<unsigned char>(pdu[i + 2 + k]);
  return id;
}

}  // namespace tavtest
