// LDAPv3 control lists: copying, merging and freeing them, their encoding in
// requests and decoding from responses, the preparation every operation
// applies (critical client controls, the session's defaults), and the last
// bind response's controls.  Constructors and parsers of particular
// controls are in ldap_control_types.cpp.
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include <string_view>

#include "ldap-controls.h"
#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-int.h"
#include "ldap-lock.h"
#include "ldap-protocol.h"
#include "ldap-search.h"
#include "ldap-utils.h"

namespace {

size_t count_of(LDAPControl **list) {
  size_t n = 0;
  while (list != nullptr && list[n] != nullptr) ++n;
  return n;
}

}  // namespace

extern "C" {

// ---- lists ----------------------------------------------------------------

void ldap_control_free(LDAPControl *ctrl) {
  if (ctrl == nullptr) return;
  free(ctrl->ldctl_oid);
  free(ctrl->ldctl_value.bv_val);
  free(ctrl);
}

void ldap_controls_free(LDAPControl **ctrls) {
  if (ctrls == nullptr) return;
  for (LDAPControl **c = ctrls; *c != nullptr; ++c) ldap_control_free(*c);
  free(ctrls);
}

void ldap_free_empty_control_list(LDAPControl **ctrls) {
  if (ctrls == nullptr || ctrls[0] == nullptr) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_free_empty_control_list: called with NULL free, skipping ctrl(%p)\n",
             (void *)ctrls);
    return;
  }
  free(ctrls);
}

int ldap_copy_controls(LDAPControl ***to_here, LDAPControl **from) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_copy_controls\n");
  if (to_here == nullptr) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_copy_controls: Invalid input to_here(%x)\n", 0u);
    return LDAP_PARAM_ERROR;
  }
  *to_here = nullptr;
  const size_t count = count_of(from);
  if (count == 0) return LDAP_SUCCESS;
  auto **copy = static_cast<LDAPControl **>(olx_calloc(count + 1, sizeof(LDAPControl *)));
  if (copy == nullptr) return LDAP_NO_MEMORY;
  int rc = LDAP_SUCCESS;
  for (size_t i = 0; i < count && rc == LDAP_SUCCESS; ++i) {
    const LDAPControl *src = from[i];
    if (src->ldctl_oid == nullptr) {
      LDAP_LOG(LDAP_LOG_TRACE, "ldap_copy_controls: OID is missing in control\n");
      rc = LDAP_PARAM_ERROR;
      break;
    }
    if ((int32_t)src->ldctl_value.bv_len < 0) {
      LDAP_LOG(LDAP_LOG_TRACE, "ldap_copy_controls: length of value can't be less than 0\n");
      rc = LDAP_PARAM_ERROR;
      break;
    }
    auto *c = static_cast<LDAPControl *>(olx_calloc(1, sizeof(LDAPControl)));
    if (c == nullptr) {
      rc = LDAP_NO_MEMORY;
      break;
    }
    copy[i] = c;
    c->ldctl_iscritical = src->ldctl_iscritical;
    c->ldctl_value.bv_len = src->ldctl_value.bv_len;
    c->ldctl_oid = olx_strdup(src->ldctl_oid);
    if (c->ldctl_oid == nullptr) rc = LDAP_NO_MEMORY;
    if (rc == LDAP_SUCCESS && src->ldctl_value.bv_len > 0 && src->ldctl_value.bv_val != nullptr) {
      c->ldctl_value.bv_val = static_cast<char *>(olx_malloc(src->ldctl_value.bv_len + 1));
      if (c->ldctl_value.bv_val == nullptr) {
        rc = LDAP_NO_MEMORY;
      } else {
        memcpy(c->ldctl_value.bv_val, src->ldctl_value.bv_val, src->ldctl_value.bv_len);
        c->ldctl_value.bv_val[src->ldctl_value.bv_len] = '\0';
      }
    } else {
      c->ldctl_value.bv_len = 0;  // a 0-length value is copied as no value
    }
  }
  if (rc != LDAP_SUCCESS) {
    ldap_controls_free(copy);
    return rc;
  }
  *to_here = copy;
  return LDAP_SUCCESS;
}

int ldap_merge_control_lists(LDAPControl ***dest, LDAPControl **input) {
  LDAP_LOG(LDAP_LOG_TRACE,
           "ldap_merge_control_lists: dest_ctrls(%p), *dest_ctrls(%p), input_ctrls(%p), *input_ctrls(%p)\n",
           (void *)dest, dest ? (void *)*dest : nullptr, (void *)input, input ? (void *)*input : nullptr);
  if (dest == nullptr || *dest == nullptr || input == nullptr || input[0] == nullptr) return LDAP_SUCCESS;
  const size_t a = count_of(input), b = count_of(*dest);
  auto **merged = static_cast<LDAPControl **>(olx_calloc(a + b + 1, sizeof(LDAPControl *)));
  if (merged == nullptr) return LDAP_NO_MEMORY;
  memcpy(merged, input, a * sizeof(LDAPControl *));
  memcpy(merged + a, *dest, b * sizeof(LDAPControl *));
  free(input);
  free(*dest);
  *dest = merged;
  return LDAP_SUCCESS;
}

int ldap_alloc_control(LDAPControl **ctrl) {
  if (ctrl == nullptr) return LDAP_PARAM_ERROR;
  *ctrl = static_cast<LDAPControl *>(olx_calloc(1, sizeof(LDAPControl)));
  return *ctrl ? LDAP_SUCCESS : LDAP_NO_MEMORY;
}

int ldap_build_control(LDAPControl **ctrl, const char *oid, ber_len_t len, const char *value, int critical) {
  if (ldap_alloc_control(ctrl) != LDAP_SUCCESS) return LDAP_NO_MEMORY;
  LDAPControl *c = *ctrl;
  c->ldctl_iscritical = critical;
  c->ldctl_oid = olx_strdup(oid ? oid : "");
  c->ldctl_value.bv_len = len;
  bool ok = c->ldctl_oid != nullptr;
  if (ok && len != 0) {
    c->ldctl_value.bv_val = static_cast<char *>(olx_malloc(len + 1));
    ok = c->ldctl_value.bv_val != nullptr;
    if (ok) {
      memcpy(c->ldctl_value.bv_val, value, len);
      c->ldctl_value.bv_val[len] = '\0';
    }
  }
  if (!ok) {
    ldap_control_free(c);
    *ctrl = nullptr;
    return LDAP_NO_MEMORY;
  }
  return LDAP_SUCCESS;
}

int ldap_append_control(LDAPControl *ctrl, LDAPControl ***list) {
  const size_t n = count_of(*list);
  auto **grown = static_cast<LDAPControl **>(olx_calloc(n + 2, sizeof(LDAPControl *)));
  if (grown == nullptr) return LDAP_NO_MEMORY;
  if (n) memcpy(grown, *list, n * sizeof(LDAPControl *));
  grown[n] = ctrl;
  // An empty array is not freed here: it stays the caller's.
  ldap_free_empty_control_list(*list);
  *list = grown;
  return LDAP_SUCCESS;
}

int ldap_add_control_to_list(const char *oid, ber_len_t len, const char *value, int critical,
                             LDAPControl ***list) {
  if (list == nullptr || (len != 0 && value == nullptr)) return LDAP_PARAM_ERROR;
  LDAPControl *c = nullptr;
  int rc = ldap_build_control(&c, oid, len, value, critical);
  if (rc != LDAP_SUCCESS) return rc;
  rc = ldap_append_control(c, list);
  if (rc != LDAP_SUCCESS) ldap_control_free(c);
  return rc;
}

// Removing a control that is not in the list leaves the list as it is.
int ldap_remove_control(LDAPControl *ctrl, LDAPControl ***list, int freeit) {
  const size_t n = count_of(*list);
  size_t at = n;
  for (size_t i = 0; i < n; ++i)
    if ((*list)[i] == ctrl) at = i;
  if (at == n) return LDAP_SUCCESS;
  auto **shrunk = static_cast<LDAPControl **>(olx_calloc(n, sizeof(LDAPControl *)));
  if (shrunk == nullptr) return LDAP_NO_MEMORY;
  for (size_t i = 0, j = 0; i < n; ++i)
    if (i != at) shrunk[j++] = (*list)[i];
  free(*list);
  *list = shrunk;
  if (freeit) ldap_control_free(ctrl);
  return LDAP_SUCCESS;
}

// ---- encoding and decoding --------------------------------------------------

int put_ctrls_into_ber(BerElement *ber, LDAPControl **ctrls) {
  if (ctrls == nullptr || ctrls[0] == nullptr) return LDAP_SUCCESS;
  if (fber_printf(ber, "t{", ldap_proto::kControls) != 0) return LDAP_ENCODING_ERROR;
  for (size_t i = 0; ctrls[i] != nullptr; ++i) {
    const LDAPControl *c = ctrls[i];
    if (fber_printf(ber, "{sb", c->ldctl_oid ? c->ldctl_oid : "", c->ldctl_iscritical ? 1 : 0) != 0)
      return LDAP_ENCODING_ERROR;
    if (c->ldctl_value.bv_val != nullptr &&
        fber_printf(ber, "o", c->ldctl_value.bv_val, (int)c->ldctl_value.bv_len) != 0)
      return LDAP_ENCODING_ERROR;
    if (fber_printf(ber, "}") != 0) return LDAP_ENCODING_ERROR;
  }
  return fber_printf(ber, "}") != 0 ? LDAP_ENCODING_ERROR : LDAP_SUCCESS;
}

int get_ctrls_from_ber(BerElement *ber, LDAPControl ***out) {
  *out = nullptr;
  if (ber == nullptr) return LDAP_DECODING_ERROR;
  ber_len_t len = 0;
  if (fber_peek_tag(ber, &len) != ldap_proto::kControls) return LDAP_SUCCESS;
  fber_skip_tag(ber, &len);
  const char *end = ber->ber_ptr + (len > (ber_len_t)(ber->ber_end - ber->ber_ptr) ? ber->ber_end - ber->ber_ptr : len);
  auto **list = static_cast<LDAPControl **>(olx_calloc(2, sizeof(LDAPControl *)));
  size_t n = 0;
  int rc = list ? LDAP_SUCCESS : LDAP_NO_MEMORY;
  if (rc != LDAP_SUCCESS) LDAP_LOG(LDAP_LOG_ERROR, "get_ctrls_from_ber: No memory to (re)allocate controls array\n");
  while (rc == LDAP_SUCCESS && ber->ber_ptr < end) {
    if (n > 0) {
      auto **grown = static_cast<LDAPControl **>(olx_realloc(list, (n + 2) * sizeof(LDAPControl *)));
      if (grown == nullptr) {
        LDAP_LOG(LDAP_LOG_ERROR, "get_ctrls_from_ber: No memory to (re)allocate controls array\n");
        rc = LDAP_NO_MEMORY;
        break;
      }
      list = grown;
      list[n + 1] = nullptr;
    }
    auto *c = static_cast<LDAPControl *>(olx_calloc(1, sizeof(LDAPControl)));
    if (c == nullptr) {
      LDAP_LOG(LDAP_LOG_ERROR, "get_ctrls_from_ber: No memory for LDAPControl structure\n");
      rc = LDAP_NO_MEMORY;
      break;
    }
    list[n++] = c;
    ber_len_t clen = 0;
    if (fber_skip_tag(ber, &clen) == LBER_DEFAULT || clen > (ber_len_t)(end - ber->ber_ptr)) {
      rc = LDAP_DECODING_ERROR;
      break;
    }
    const char *cend = ber->ber_ptr + clen;
    // The OID must be an OCTET STRING; the reader would take any primitive.
    if (fber_peek_tag(ber, &len) != ldap_proto::kOctetString || fber_scanf(ber, "a", &c->ldctl_oid) == LBER_ERROR ||
        c->ldctl_oid == nullptr) {
      LDAP_LOG(LDAP_LOG_ERROR, "get_ctrls_from_ber: Error decoding a control OID\n");
      rc = LDAP_DECODING_ERROR;
      break;
    }
    bool seen_bool = false, seen_value = false;
    while (rc == LDAP_SUCCESS && ber->ber_ptr < cend) {
      ber_tag_t tag = fber_peek_tag(ber, &len);
      if (tag == ldap_proto::kBoolean && !seen_bool && !seen_value) {
        seen_bool = true;
        if (fber_scanf(ber, "b", &c->ldctl_iscritical) == LBER_ERROR) rc = LDAP_DECODING_ERROR;
      } else if (tag == ldap_proto::kOctetString && !seen_value) {
        seen_value = true;
        if (fber_scanf(ber, "o", &c->ldctl_value) == LBER_ERROR) rc = LDAP_DECODING_ERROR;
      } else {
        rc = LDAP_DECODING_ERROR;  // out of order, repeated or unknown
      }
    }
    if (rc != LDAP_SUCCESS) break;
    if (ldap_trace_on()) {
      if (c->ldctl_value.bv_val != nullptr) {
        ldap_log(LDAP_LOG_TRACE, "get_ctrls_from_ber: Control OID = %s, critical = %s, value follows\n",
                 c->ldctl_oid, c->ldctl_iscritical ? "Yes" : "No");
        if (ldap_trace_enabled(LDAP_LOG_TRACE)) ldap_log_dump(c->ldctl_value.bv_val, (unsigned)c->ldctl_value.bv_len, nullptr);
      } else {
        ldap_log(LDAP_LOG_TRACE, "get_ctrls_from_ber: control value is NULL. \n");
      }
    }
  }
  if (rc != LDAP_SUCCESS) {
    ldap_controls_free(list);
    list = nullptr;
    n = 0;
  } else if (n == 0) {
    free(list);
    list = nullptr;
  }
  LDAP_LOG(LDAP_LOG_TRACE, "get_ctrls_from_ber: return(%d), ctrls=%p, %d controls returned\n", rc, (void *)list,
           (int)n);
  *out = list;
  return rc;
}

int ldap_apply_default_controls(LDAP *ld, LDAPControl ***sctrls, LDAPControl **cctrls, int *substituted) {
  *substituted = 0;
  for (size_t i = 0; cctrls != nullptr && cctrls[i] != nullptr; ++i) {
    if (cctrls[i]->ldctl_iscritical) {
      LDAP_LOG(LDAP_LOG_ERROR, "Critical client controls not supported\n");
      ldap_set_errno_direct(ld, LDAP_UNAVAILABLE_CRITICAL_EXTENSION, nullptr, nullptr);
      return LDAP_UNAVAILABLE_CRITICAL_EXTENSION;
    }
  }
  if (*sctrls == nullptr) {
    // Only a missing list falls back to the defaults; an empty one means none.
    LDAPControl **defaults = nullptr;
    int rc = ldap_get_option_direct(ld, LDAP_OPT_SERVER_CONTROLS, &defaults);
    if (rc != LDAP_SUCCESS) return rc;
    *sctrls = defaults;
    *substituted = 1;
  }
  return LDAP_SUCCESS;
}

int ldap_set_bind_controls(LDAP *ld, LDAPControl **ctrls) {
  LDAPConn *conn = ld ? get_default_connection(ld) : nullptr;
  if (conn == nullptr) return LDAP_PARAM_ERROR;
  LDAPControl **copy = nullptr;
  int rc = ldap_copy_controls(&copy, ctrls);
  if (rc != LDAP_SUCCESS) return rc;
  if (LDAP_MUTEX_LOCK(&conn->lc_bind_ctrls_mutex) != 0) {
    ldap_controls_free(copy);
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    return LDAP_LOCK_ERROR;
  }
  LDAPControl **old = conn->lc_bind_ctrls;
  conn->lc_bind_ctrls = copy;
  LDAP_MUTEX_UNLOCK(&conn->lc_bind_ctrls_mutex);
  ldap_controls_free(old);
  return LDAP_SUCCESS;
}

int ldap_get_bind_controls(LDAP *ld, LDAPControl ***ctrls) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_get_bind_controls\n");
  OperationScope bracket(ld);
  if (bracket.refused()) return LDAP_PARAM_ERROR;
  int rc;
  LDAPConn *conn = get_default_connection(ld);
  if (ctrls == nullptr || conn == nullptr) {
    rc = LDAP_PARAM_ERROR;
    ldap_set_errno_direct(ld, rc, nullptr, nullptr);
  } else if (LDAP_MUTEX_LOCK(&conn->lc_bind_ctrls_mutex) != 0) {
    rc = LDAP_LOCK_ERROR;
    ldap_set_errno_direct(ld, rc, nullptr, nullptr);
  } else {
    rc = ldap_copy_controls(ctrls, conn->lc_bind_ctrls);
    LDAP_MUTEX_UNLOCK(&conn->lc_bind_ctrls_mutex);
  }
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_get_bind_controls: returning rc=%d\n", rc);
  return rc;
}

}  // extern "C"
