// Walking the entries and references of a result chain, entry DNs, entry
// controls and referral URLs.  Readers decode from a copy of the message's
// element record, so a message can be read any number of times.
#include <cstdlib>

#include "ldap-debug.h"
#include "ldap-protocol.h"
#include "ldap-search.h"

namespace {

constexpr int kEntry = ldap_proto::kSearchEntry;
constexpr int kReference = ldap_proto::kSearchReference;

LDAPMessage *first_of_type(LDAPMessage *m, int type) {
  while (m != nullptr && m->lm_msgtype != type) m = m->lm_chain;
  return m;
}

int count_of_type(LDAPMessage *m, int type) {
  int n = 0;
  for (; m != nullptr; m = m->lm_chain)
    if (m->lm_msgtype == type) ++n;
  return n;
}

// Bracketed walk step shared by the four first/next functions.
LDAPMessage *walk(const char *name, LDAP *ld, LDAPMessage *from, int type, bool skip_self) {
  LDAP_LOG(LDAP_LOG_TRACE, "%s: ld(%p) msg(%p)\n", name, (void *)ld, (void *)from);
  OperationScope bracket(ld);
  if (bracket.refused()) return nullptr;
  ldap_set_errno_direct(ld, 0, nullptr, nullptr);
  LDAPMessage *found = nullptr;
  if (from != nullptr) found = first_of_type(skip_self ? from->lm_chain : from, type);
  LDAP_LOG(LDAP_LOG_TRACE, "%s: returning (%p)\n", name, (void *)found);
  return found;
}

int parse_reference(LDAP *ld, LDAPMessage *ref, char ***referralsp, LDAPControl ***serverctrlsp, int freeit) {
  char **urls = nullptr;
  LDAPControl **ctrls = nullptr;
  int rc = 0;
  BerElement copy;
  if (ref == nullptr || ref->lm_msgtype != kReference || !ldap_msg_reader(ref, &copy)) {
    rc = LDAP_PARAM_ERROR;
  } else {
    if (referralsp != nullptr) {
      if (fber_scanf(&copy, "{v}", &urls) == LBER_ERROR) rc = LDAP_DECODING_ERROR;
    } else if (fber_skip_element(&copy) != 0) {
      rc = LDAP_DECODING_ERROR;
    }
    if (rc == 0 && serverctrlsp != nullptr) rc = get_ctrls_from_ber(&copy, &ctrls);
  }
  if (freeit) ldap_msgfree_direct(ref);
  if (rc == 0) {
    if (referralsp != nullptr) *referralsp = urls;
    if (serverctrlsp != nullptr) *serverctrlsp = ctrls;
  } else {
    fber_svecfree(urls);
    ldap_controls_free(ctrls);
  }
  ldap_set_errno_direct(ld, rc, nullptr, nullptr);
  return rc;
}

int get_entry_controls(LDAP *ld, LDAPMessage *entry, LDAPControl ***serverctrlsp) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_get_entry_controls:\n ");
  int rc = 0;
  BerElement copy;
  if (serverctrlsp == nullptr || entry == nullptr || entry->lm_msgtype != kEntry || !ldap_msg_reader(entry, &copy)) {
    rc = LDAP_PARAM_ERROR;
  } else {
    *serverctrlsp = nullptr;
    LDAPControl **ctrls = nullptr;
    if (fber_skip_element(&copy) != 0) {
      rc = LDAP_DECODING_ERROR;
    } else if ((rc = get_ctrls_from_ber(&copy, &ctrls)) == 0) {
      *serverctrlsp = ctrls;
    } else {
      ldap_controls_free(ctrls);
    }
  }
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_get_entry_controls: return( %d )\n", rc);
  ldap_set_errno_direct(ld, rc, nullptr, nullptr);
  return rc;
}

}  // namespace

extern "C" {

LDAPMessage *ldap_first_entry(LDAP *ld, LDAPMessage *chain) {
  return walk("ldap_first_entry", ld, chain, kEntry, false);
}

LDAPMessage *ldap_next_entry(LDAP *ld, LDAPMessage *entry) { return walk("ldap_next_entry", ld, entry, kEntry, true); }

LDAPMessage *ldap_first_reference(LDAP *ld, LDAPMessage *chain) {
  return walk("ldap_first_reference", ld, chain, kReference, false);
}

LDAPMessage *ldap_next_reference(LDAP *ld, LDAPMessage *ref) {
  return walk("ldap_next_reference", ld, ref, kReference, true);
}

int ldap_count_entries(LDAP *ld, LDAPMessage *chain) {
  OperationScope bracket(ld);
  if (bracket.refused()) return -1;
  ldap_set_errno_direct(ld, 0, nullptr, nullptr);
  const int n = count_of_type(chain, kEntry);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_count_entries: returning (%d)\n", n);
  return n;
}

int ldap_count_references(LDAP *ld, LDAPMessage *chain) {
  OperationScope bracket(ld);
  if (bracket.refused()) return -1;
  ldap_set_errno_direct(ld, 0, nullptr, nullptr);
  const int n = count_of_type(chain, kReference);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_count_references: returning (%d)\n", n);
  return n;
}

int ldap_parse_reference(LDAP *ld, LDAPMessage *ref, char ***referralsp, LDAPControl ***serverctrlsp, int freeit) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_parse_reference: ld(%p) ref(%p) referralsp(%p) serverctrlsp(%p) freeit(%d)\n",
           (void *)ld, (void *)ref, (void *)referralsp, (void *)serverctrlsp, freeit);
  OperationScope bracket(ld);
  if (bracket.refused()) return LDAP_PARAM_ERROR;
  const int rc = parse_reference(ld, ref, referralsp, serverctrlsp, freeit);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_parse_reference: returning (%d)\n", rc);
  return rc;
}

int ldap_parse_reference_np(LDAP *ld, LDAPMessage *ref, char ***referralsp, LDAPControl ***serverctrlsp, int freeit) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_parse_reference_np: ld(%p) ref(%p) referralsp(%p) serverctrlsp(%p) freeit(%d)\n",
           (void *)ld, (void *)ref, (void *)referralsp, (void *)serverctrlsp, freeit);
  OperationScope bracket(ld);
  if (bracket.refused()) return LDAP_PARAM_ERROR;
  const int rc = parse_reference(ld, ref, referralsp, serverctrlsp, freeit);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_parse_reference_np: returning rc=%d\n", rc);
  return rc;
}

char *ldap_get_dn(LDAP *ld, LDAPMessage *entry) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_get_dn: ld(%p) entry(%p)\n", (void *)ld, (void *)entry);
  OperationScope bracket(ld);
  if (bracket.refused()) return nullptr;
  char *dn = nullptr;
  BerElement copy;
  if (!ldap_msg_reader(entry, &copy)) {
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
  } else {
    if (fber_scanf(&copy, "{a", &dn) == LBER_ERROR) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldap_get_dn: fber_scanf failed\n");
      ldap_set_errno_direct(ld, LDAP_DECODING_ERROR, nullptr, nullptr);
      free(dn);
      dn = nullptr;
    }
  }
  return dn;
}

int ldap_get_entry_controls(LDAP *ld, LDAPMessage *entry, LDAPControl ***serverctrlsp) {
  OperationScope bracket(ld);
  if (bracket.refused()) return -1;
  const int rc = get_entry_controls(ld, entry, serverctrlsp);
  return rc;
}

int ldap_get_entry_controls_np(LDAP *ld, LDAPMessage *entry, LDAPControl ***serverctrlsp) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_get_entry_controls_np: ld(%p) entry(%p) serverctrlsp(%p)\n", (void *)ld, (void *)entry,
           (void *)serverctrlsp);
  OperationScope bracket(ld);
  if (bracket.refused()) return LDAP_PARAM_ERROR;
  const int rc = get_entry_controls(ld, entry, serverctrlsp);
  return rc;
}
}
