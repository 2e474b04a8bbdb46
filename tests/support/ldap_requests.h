// Building and sending raw LDAP requests through the message engine, for
// tests that exercise it beneath the operation functions.
#ifndef TAV_TEST_LDAP_REQUESTS_H
#define TAV_TEST_LDAP_REQUESTS_H

#include <string>
#include <vector>

#include "ber_build.h"
#include "ldap-engine.h"
#include "ldap-protocol.h"

namespace tavtest {

// Sends a SearchRequest with a presence filter "(attr=*)"; returns the
// message ID, or -1 with the session's error set.
int send_search(LDAP *ld, const std::string &base, int scope, const std::string &present_attr = "objectClass",
                const std::vector<std::string> &attrs = {});
// Sends a protocol operation (the bytes after the message ID) under a new
// message ID; returns the ID or -1.  *encoded receives the whole PDU.
int send_raw_op(LDAP *ld, int type, const std::string &op_bytes, std::string *encoded = nullptr);

// Responses for scripted servers.
std::string search_entry(int msgid, const std::string &dn);
inline std::string ldap_response(int msgid, int type, int code = 0) { return message(msgid, result(type, code)); }
inline std::string search_done(int msgid, int code = 0) { return ldap_response(msgid, ldap_proto::kSearchDone, code); }
inline std::string search_reference(int msgid, const std::string &url) {
  return message(msgid, tlv(ldap_proto::kSearchReference, str(url)));
}

// The DN of a SearchResultEntry as received, or "" when it does not parse.
std::string entry_dn(LDAPMessage *entry);
// The message ID of a request as the fake server received it.
int request_msgid(const std::string &pdu);
// The session's identity as the server's Who am I? operation answers it, or
// "" when it does not.
std::string whoami(LDAP *ld);

}  // namespace tavtest

#endif
