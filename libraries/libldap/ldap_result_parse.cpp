// Reading LDAPResults: the result code, matched DN, diagnostic text,
// referrals and controls of a response (ldap_parse_result and the bind,
// extended-operation and password-policy parsers built on it).
#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ldap-controls.h"
#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-int.h"
#include "ldap-lock.h"
#include "ldap-protocol.h"
#include "ldap-utils.h"

namespace {

using ldap_proto::kBindResponse;
using ldap_proto::kExtendedResponse;
using ldap_proto::kSearchEntry;
using ldap_proto::kSearchReference;

// Entries, references and IntermediateResponses carry no LDAPResult.
bool not_a_result(const LDAPMessage *msg) {
  return msg->lm_msgtype == kSearchEntry || msg->lm_msgtype == kSearchReference ||
         msg->lm_msgtype == ldap_proto::kIntermediateResponse;
}

// A reader of the message's element on the stack: parsing moves only the
// copy's position, so the message can be parsed again.
struct BerCopy {
  BerElement record;
  BerElement *ber;
  explicit BerCopy(const LDAPMessage *msg) : ber(ldap_msg_reader(msg, &record) ? &record : nullptr) {}
};

// The protocol operation's end, so the controls after it can be found even
// when the operation carries fields this reader does not look at.
bool enter_op(BerElement *ber, const char **op_end) {
  ber_len_t len = 0;
  if (fber_skip_tag(ber, &len) == LBER_DEFAULT || len > (ber_len_t)(ber->ber_end - ber->ber_ptr)) return false;
  *op_end = ber->ber_ptr + len;
  return true;
}

using ldap_proto::kEnumerated;

// Result codes above 80 are the client's own, so a server that sent one could
// pass its reply off as, say, a lost connection or a time-out.  The exceptions
// are the server results the code table names above 80, which the client
// never produces itself.
bool server_code(int64_t code) {
  return (code >= 0 && code <= LDAP_OTHER) || code == LDAP_ASSERTION_FAILED || code == LDAP_NO_EXPLICIT_OWNER;
}

// resultCode: an ENUMERATED holding a code a server may send.
bool read_code(BerElement *ber, int *code) {
  ber_len_t len;
  int64_t value = 0;
  if (fber_peek_tag(ber, &len) != kEnumerated || fber_get_long(ber, &value) == LBER_DEFAULT || !server_code(value))
    return false;
  *code = (int)value;
  return true;
}

int read_head(BerElement *ber, int *code, char **matched, char **msg) {
  *matched = *msg = nullptr;
  if (!read_code(ber, code) || fber_scanf(ber, "aa", matched, msg) == LBER_ERROR) {
    free(*matched);
    free(*msg);
    *matched = *msg = nullptr;
    return LDAP_DECODING_ERROR;
  }
  return LDAP_SUCCESS;
}

// The LDAPResult's head of a response: into the operation (its end in
// *op_end), then resultCode, matchedDN and diagnosticMessage; 0 or 84.
int read_result_head(BerElement *ber, const char **op_end, int *code, char **matched, char **msg) {
  *matched = *msg = nullptr;
  if (ber == nullptr || !enter_op(ber, op_end)) return LDAP_DECODING_ERROR;
  return read_head(ber, code, matched, msg);
}

}  // namespace

extern "C" {

int ldap_parse_result(LDAP *ld, LDAPMessage *res, int *errcodep, char **matcheddnp, char **errmsgp, char ***referralsp,
                      LDAPControl ***serverctrlsp, int freeit) {
  OperationScope bracket(ld);
  if (bracket.refused()) return LDAP_PARAM_ERROR;
  const int rc = ldap_parse_result_direct(ld, res, errcodep, matcheddnp, errmsgp, referralsp, serverctrlsp, freeit);
  return rc;
}

int ldap_parse_result_direct(LDAP *, LDAPMessage *res, int *errcodep, char **matcheddnp, char **errmsgp,
                             char ***referralsp, LDAPControl ***serverctrlsp, int freeit) {
  if (matcheddnp) *matcheddnp = nullptr;
  if (errmsgp) *errmsgp = nullptr;
  if (referralsp) *referralsp = nullptr;
  if (serverctrlsp) *serverctrlsp = nullptr;
  LDAPMessage *msg = res;
  while (msg != nullptr && not_a_result(msg)) msg = msg->lm_chain;
  int rc = LDAP_SUCCESS, code = 0;
  char *matched = nullptr, *text = nullptr, **referrals = nullptr;
  LDAPControl **ctrls = nullptr;
  if (msg == nullptr) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_parse_result: NULLMSG passed\n");
    rc = 1;
  } else if (const int stand_in = ldap_msg_stand_in_code(msg); stand_in != 0) {
    rc = stand_in;
  } else {
    BerCopy copy(msg);
    const char *op_end = nullptr;
    if (read_result_head(copy.ber, &op_end, &code, &matched, &text) != 0) {
      rc = LDAP_DECODING_ERROR;
    } else {
      ber_len_t len;
      if (code == LDAP_REFERRAL && copy.ber->ber_ptr < op_end &&
          fber_peek_tag(copy.ber, &len) == ldap_proto::kReferral) {
        if (referralsp ? fber_scanf(copy.ber, "{v}", &referrals) == LBER_ERROR : fber_skip_element(copy.ber) != 0)
          rc = LDAP_DECODING_ERROR;
      }
      copy.ber->ber_ptr = const_cast<char *>(op_end);
      if (rc == LDAP_SUCCESS && serverctrlsp && get_ctrls_from_ber(copy.ber, &ctrls) != LDAP_SUCCESS)
        rc = LDAP_DECODING_ERROR;
    }
  }
  if (freeit) ldap_msgfree_direct(res);
  if (rc == LDAP_SUCCESS) {
    if (errcodep) *errcodep = code;
    if (matcheddnp) {
      *matcheddnp = matched;
      matched = nullptr;
    }
    if (errmsgp) {
      *errmsgp = text;
      text = nullptr;
    }
    if (referralsp) {
      *referralsp = referrals;
      referrals = nullptr;
    }
    if (serverctrlsp) {
      *serverctrlsp = ctrls;
      ctrls = nullptr;
    }
  }
  free(matched);
  free(text);
  fber_svecfree(referrals);
  ldap_controls_free(ctrls);
  return rc;
}

int ldap_result2error_direct(LDAP *ld, LDAPMessage *res, int freeit) {
  ldap_set_errno_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
  LDAPMessage *last = res;
  while (last != nullptr && last->lm_chain != nullptr) last = last->lm_chain;
  int code;
  if (last == nullptr || not_a_result(last)) {
    code = LDAP_PARAM_ERROR;
    ldap_set_errno_direct(ld, code, nullptr, nullptr);
  } else if (const int stand_in = ldap_msg_stand_in_code(last); stand_in != 0) {
    code = stand_in;
    ldap_set_errno_direct(ld, code, nullptr, nullptr);
  } else {
    BerCopy copy(last);
    char *matched = nullptr, *text = nullptr;
    code = LDAP_DECODING_ERROR;
    if (copy.ber != nullptr &&
        (fber_skip_tag(copy.ber, nullptr) == LBER_DEFAULT || read_head(copy.ber, &code, &matched, &text) != 0))
      code = LDAP_DECODING_ERROR;
    ldap_set_errno_direct(ld, code, matched, text);
    free(matched);
    free(text);
  }
  if (freeit) ldap_msgfree_direct(res);
  return code;
}

int ldap_result2error(LDAP *ld, LDAPMessage *res, int freeit) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_result2error: ld(%p) res(%p) freeit(%d)\n", (void *)ld, (void *)res, freeit);
  if (res == nullptr) {
    int code = ldap_get_errno(ld);
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_result2error:  errno=%d\n", code);
    return code != 0 ? code : LDAP_PARAM_ERROR;
  }
  OperationScope bracket(ld);
  if (bracket.refused()) return LDAP_PARAM_ERROR;
  int code = ldap_result2error_direct(ld, res, freeit);
  return code;
}

int ldap_parse_sasl_bind_result_direct(LDAP *ld, LDAPMessage *res, struct berval **servercredp, int freeit) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_parse_sasl_bind_result_direct \n");
  ldap_set_errno_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
  if (res == nullptr || res->lm_msgtype != kBindResponse) {
    if (res != nullptr) LDAP_LOG(LDAP_LOG_TRACE, "ldap_parse_sasl_bind_result_direct: rc=%d\n", LDAP_PARAM_ERROR);
    // The response is gone after the call whatever the outcome.
    if (freeit == 1) ldap_msgfree_direct(res);
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    return LDAP_PARAM_ERROR;
  }
  int code = 0, rc = LDAP_SUCCESS;
  char *matched = nullptr, *text = nullptr;
  if (const int stand_in = ldap_msg_stand_in_code(res); stand_in != 0) {
    rc = stand_in;
  } else {
    BerCopy copy(res);
    const char *op_end = nullptr;
    if (read_result_head(copy.ber, &op_end, &code, &matched, &text) != 0) {
      rc = LDAP_DECODING_ERROR;
    } else {
      ber_len_t len;
      if (copy.ber->ber_ptr < op_end && fber_peek_tag(copy.ber, &len) == ldap_proto::kReferral &&
          fber_skip_element(copy.ber) != 0)
        rc = LDAP_DECODING_ERROR;
      if (rc == LDAP_SUCCESS && servercredp != nullptr) {
        // Server SASL credentials, [7], when the server sent any.
        if (copy.ber->ber_ptr >= op_end || fber_scanf(copy.ber, "O}", servercredp) == LBER_ERROR)
          LDAP_LOG(LDAP_LOG_TRACE,
                   "ldap_parse_sasl_bind_result_direct: No credentials were returned from the server for the "
                   "sasl_bind\n");
      }
    }
  }
  free(matched);
  free(text);
  if (freeit == 1) ldap_msgfree_direct(res);
  if (code != 0) {
    LDAP_LOG(LDAP_LOG_TRACE,
             "ldap_parse_sasl_bind_result_direct: msgrc in ldap_sasl_bind returned non-zero value of 0x%x \n", code);
    ldap_set_errno_direct(ld, code, nullptr, nullptr);
    rc = code;
  } else if (rc != LDAP_SUCCESS) {
    ldap_set_errno_direct(ld, rc, nullptr, nullptr);
  }
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_parse_sasl_bind_result_direct: rc=%d\n", rc);
  return rc;
}

int ldap_parse_sasl_bind_result(LDAP *ld, LDAPMessage *res, struct berval **servercredp, int freeit) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_parse_sasl_bind_result: ld(%p) res(%p)servercredp(%p) freeit(%d)\n", (void *)ld,
           (void *)res, (void *)servercredp, freeit);
  OperationScope bracket(ld);
  if (bracket.refused()) return LDAP_PARAM_ERROR;
  ldap_set_errno_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
  int rc = ldap_parse_sasl_bind_result_direct(ld, res, servercredp, freeit);
  return rc;
}

int ldap_parse_extended_result_direct(LDAP *ld, LDAPMessage *res, char **resultoidp, struct berval **resultdatap,
                                      int freeit, LDAPControl ***serverctrlsp) {
  if (serverctrlsp) *serverctrlsp = nullptr;
  ldap_set_errno_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
  if (res == nullptr || res->lm_msgtype != kExtendedResponse) {
    if (freeit == 1) ldap_msgfree_direct(res);
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    return LDAP_PARAM_ERROR;
  }
  // Read on the message's own element: an extended response is parsed once.
  BerElement view;
  BerElement *ber = ldap_msg_ber(res, &view);
  int code = 0, rc = LDAP_SUCCESS;
  char *matched = nullptr, *text = nullptr;
  const char *op_end = nullptr;
  if (ldap_msg_stand_in_code(res) != 0) {
    rc = ldap_msg_stand_in_code(res);
  } else if (read_result_head(ber, &op_end, &code, &matched, &text) != 0) {
    rc = LDAP_DECODING_ERROR;
  } else if (code != 0) {
    rc = code;
  } else {
    ber_len_t len;
    bool name_ok = true, value_read = false;
    if (resultoidp && ber->ber_ptr < op_end && fber_peek_tag(ber, &len) == ldap_proto::kResponseName &&
        fber_scanf(ber, "a", resultoidp) == LBER_ERROR) {
      LDAP_LOG(LDAP_LOG_TRACE, "ldap_parse_extended_result_direct: No optional oid returned\n");
      name_ok = false;
    }
    bool value_failed = false;
    if (resultdatap && ber->ber_ptr < op_end && fber_peek_tag(ber, &len) == ldap_proto::kResponseValue) {
      if (fber_scanf(ber, "O", resultdatap) == LBER_ERROR) {
        LDAP_LOG(LDAP_LOG_TRACE, "ldap_parse_extended_result_direct: No optional data returned\n");
        value_failed = true;
      } else {
        value_read = true;
      }
    }
    if (serverctrlsp && !value_failed && (name_ok || value_read)) {
      ber->ber_ptr = const_cast<char *>(op_end);
      if (get_ctrls_from_ber(ber, serverctrlsp) != LDAP_SUCCESS) *serverctrlsp = nullptr;
    }
  }
  // What was read stays read, on a compact message too.
  if (ber != nullptr) ldap_msg_set_start(res, ber->ber_ptr);
  free(matched);
  free(text);
  if (freeit == 1) ldap_msgfree_direct(res);
  ldap_set_errno_direct(ld, rc, nullptr, nullptr);
  return rc;
}

int ldap_parse_extended_result_ext(LDAP *ld, LDAPMessage *res, char **resultoidp, struct berval **resultdatap,
                                   int freeit, LDAPControl ***serverctrlsp) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_parse_extended_result: ld(%p), res(%p), resultoidp(%p), resultdata(%p), freeit(%d)\n",
           (void *)ld, (void *)res, (void *)resultoidp, (void *)resultdatap, freeit);
  OperationScope bracket(ld);
  if (bracket.refused()) return LDAP_PARAM_ERROR;
  ldap_set_errno_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
  int rc = ldap_parse_extended_result_direct(ld, res, resultoidp, resultdatap, freeit, serverctrlsp);
  return rc;
}

int ldap_parse_extended_result(LDAP *ld, LDAPMessage *res, char **resultoidp, struct berval **resultdatap, int freeit) {
  return ldap_parse_extended_result_ext(ld, res, resultoidp, resultdatap, freeit, nullptr);
}

int ldap_parse_pwdpolicy_response(LDAPControl **ctrls, int *controlerr, int *controlwarn, int *controlres) {
  LDAP_LOG(LDAP_LOG_TRACE,
           "ldap_parse_pwdpolicy_response: serverControls(%p) controlerr(%p), controlwarn(%p), controlres(%p)\n",
           (void *)ctrls, (void *)controlerr, (void *)controlwarn, (void *)controlres);
  *controlerr = *controlwarn = *controlres = 0;
  int result = 0;
  for (size_t i = 0; ctrls != nullptr && ctrls[i] != nullptr; ++i) {
    const LDAPControl *c = ctrls[i];
    if (c->ldctl_oid == nullptr || strcmp(c->ldctl_oid, LDAP_CONTROL_PWDPOLICY) != 0 ||
        c->ldctl_value.bv_val == nullptr || c->ldctl_value.bv_len == 0)
      continue;
    // SEQUENCE { warning [0] { [0] time before expiration | [1] grace logins } OPTIONAL,
    //            error [1] ENUMERATED OPTIONAL }
    BerElement *ber = fber_init2(&c->ldctl_value);
    int tag = 0;
    ber_tag_t rc = ber ? fber_scanf(ber, "{t", &tag) : LBER_ERROR;
    if (rc != LBER_ERROR && (tag == 0xA0 || tag == 0x80)) {
      int inner = 0;
      rc = fber_scanf(ber, "{t", &inner);
      if (rc != LBER_ERROR) rc = fber_get_int(ber, controlres);
      if (rc != LBER_ERROR) *controlwarn = inner == 0x80 ? 1 : 2;
      ber_len_t len;
      if (rc != LBER_ERROR && fber_peek_tag(ber, &len) == 0x81) tag = 0x81;
    }
    if (rc != LBER_ERROR && tag == 0x81) {
      rc = fber_get_int(ber, controlerr);
      if (rc != LBER_ERROR) *controlerr += 3;
    }
    fber_free(ber);
    if (rc == LBER_ERROR) {
      *controlerr = *controlwarn = *controlres = 0;
      return -1;
    }
    result = (int)rc;
  }
  return result;
}
}
