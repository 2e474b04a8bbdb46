// Session options by number, and the process-wide default handle that a null
// session addresses.
#include <pthread.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ldap-debug.h"
#include "ldap-int.h"
#include "ldap-lock.h"
#include "ldap-ssl.h"
#include "ldap-utils.h"

namespace {

// Returned in the API information record; callers must not free it.
char kVendorName[] = "libtav8ldap_64";
const char kVlvExtension[] = "VIRTUAL_LIST_VIEW";

LDAP global_default;  // guarded by the defaults lock until created
int global_default_created = 0;

// The default handle lives as long as the library; what it gathered (error
// records, copies of options) goes when the library is unloaded, so a program
// that dlcloses it leaks nothing.
struct GlobalDefaultRelease {
  ~GlobalDefaultRelease() {
    if (!global_default_created) return;
    ldap_free_thread_errors(&global_default);
    ldap_controls_free(global_default.ld_sctrls);
    ldap_controls_free(global_default.ld_cctrls);
    free(global_default.ld_ssl_cipher);
    global_default.ld_sctrls = global_default.ld_cctrls = nullptr;
    global_default.ld_ssl_cipher = nullptr;
  }
} global_default_release;

int as_int(const void *value) { return (int)(intptr_t)value; }

// Options whose version-3 value is an int behind the pointer.
bool takes_int_pointer(int option) {
  switch (option) {
    case LDAP_OPT_SIZELIMIT:
    case LDAP_OPT_TIMELIMIT:
    case LDAP_OPT_DEREF:
    case LDAP_OPT_RESTART:
    case LDAP_OPT_REFHOPLIMIT:
    case LDAP_OPT_DEBUG:
    case LDAP_OPT_SSL_TIMEOUT:
    case LDAP_OPT_REFHOPLIMIT2:
    case LDAP_OPT_54:
      return true;
    default:
      return false;
  }
}

int set_bit(unsigned int *options, unsigned int bit, int value) {
  if (value == 1) {
    *options |= bit;
  } else if (value == 0) {
    *options &= ~bit;
  } else {
    return LDAP_PARAM_ERROR;
  }
  return LDAP_SUCCESS;
}

int set_ranged(int *field, int value, int low, int high) {
  if (value < low || value > high) return LDAP_PARAM_ERROR;
  *field = value;
  return LDAP_SUCCESS;
}

bool has_critical(LDAPControl **ctrls) {
  for (LDAPControl **c = ctrls; c != nullptr && *c != nullptr; ++c)
    if ((*c)->ldctl_iscritical) return true;
  return false;
}

int set_cipher(LDAP *ld, const char *cipher) {
  // Re-checking needs a specification; there is no built-in default one.
  if (cipher == nullptr && ld->ld_ssl_cipher == nullptr) return LDAP_NO_MEMORY;
  if (checkCiphers(cipher != nullptr ? cipher : ld->ld_ssl_cipher) != 0) {
    ldap_set_ext_errno(ld, TAV_ERROR_BAD_V3_CIPHER);
    return LDAP_SSL_PARAM_ERROR;
  }
  if (cipher == nullptr) return LDAP_SUCCESS;
  char *copy = olx_strdup(cipher);
  if (copy == nullptr) return LDAP_NO_MEMORY;
  free(ld->ld_ssl_cipher);
  ld->ld_ssl_cipher = copy;
  return LDAP_SUCCESS;
}

int copy_string_out(const char *s, void *out) {
  char **dest = static_cast<char **>(out);
  *dest = nullptr;
  if (s == nullptr) return LDAP_SUCCESS;
  *dest = olx_strdup(s);
  return *dest != nullptr ? LDAP_SUCCESS : LDAP_NO_MEMORY;
}

int get_api_info(LDAPAPIInfo *info) {
  if (info->ldapai_info_version != LDAP_API_INFO_VERSION) {
    info->ldapai_info_version = LDAP_API_INFO_VERSION;
    return LDAP_PARAM_ERROR;
  }
  info->ldapai_api_version = 2004;
  info->ldapai_protocol_version = LDAP_VERSION3;
  info->ldapai_vendor_name = kVendorName;
  info->ldapai_vendor_version = 510;
  info->ldapai_extensions = static_cast<char **>(olx_calloc(2, sizeof(char *)));
  if (info->ldapai_extensions != nullptr) {
    info->ldapai_extensions[0] = olx_strdup(kVlvExtension);
    if (info->ldapai_extensions[0] == nullptr) {
      free(info->ldapai_extensions);
      info->ldapai_extensions = nullptr;
    }
  }
  if (info->ldapai_extensions == nullptr) {
    info->ldapai_vendor_name = nullptr;
    return LDAP_NO_MEMORY;
  }
  return LDAP_SUCCESS;
}

int get_feature_info(LDAPAPIFeatureInfo *info) {
  if (info->ldapaif_info_version != LDAP_FEATURE_INFO_VERSION) {
    info->ldapaif_info_version = LDAP_FEATURE_INFO_VERSION;
    return LDAP_PARAM_ERROR;
  }
  info->ldapaif_version = info->ldapaif_name != nullptr && strcmp(info->ldapaif_name, kVlvExtension) == 0 ? 1000 : 0;
  return LDAP_SUCCESS;
}

// The connection the calling thread works on; the default handle has none.
LDAPConn *current_connection(LDAP *ld) { return ld->ld_defconn != nullptr ? get_default_connection(ld) : nullptr; }

bool has_ssl_session(LDAP *ld) {
  LDAPConn *lc = current_connection(ld);
  return lc != nullptr && lc->lc_sb.sb_ssl != nullptr;
}

// The toolkit connection of the calling thread's connection, or null.
tav_handle ssl_session(LDAP *ld) {
  LDAPConn *lc = current_connection(ld);
  return lc != nullptr && lc->lc_sb.sb_ssl != nullptr ? *static_cast<tav_handle *>(lc->lc_sb.sb_ssl) : nullptr;
}

// A copy of a value read from the SSL session; 89 without session or value,
// and then the output is left untouched.
int copy_ssl_value(tav_handle conn, const char *value, void *out) {
  if (conn == nullptr || value == nullptr) return LDAP_PARAM_ERROR;
  return copy_string_out(value, out);
}

}  // namespace

extern "C" {

LDAP *ld_set_global_default(void) {
  ldap_lock_defaults();
  if (!global_default_created) {
    LDAP *ld = &global_default;
    memcpy(ld->ld_eyecatcher, LDAP_EYECATCHER, LDAP_EYECATCHER_LEN);
    ld->ld_version = LDAP_VERSION3;
    ld->ld_options = LDAP_BITOPT_REFERRALS;
    ld->ld_refhoplimit = 10;
    int rc = LDAP_MUTEX_CREATE(&ld->ld_mutex);
    // Failures on the default handle are recorded like on any other, so it
    // needs its error-record lock as well.
    if (rc == 0) {
      rc = LDAP_MUTEX_CREATE(&ld->ld_err_mutex);
      if (rc != 0) pthread_mutex_destroy(&ld->ld_mutex);
    }
    if (rc != 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "ld_set_global_default: pthread_mutex_init failed, errno %d\n", rc);
    } else {
      global_default_created = 1;
    }
  }
  LDAP *result = global_default_created ? &global_default : nullptr;
  ldap_unlock_defaults();
  return result;
}

int ldap_set_option_direct(LDAP *ld, int option, const void *value) {
  int rc = LDAP_SUCCESS;
  int v = as_int(value);
  switch (option) {
    case LDAP_OPT_SIZELIMIT:
      rc = set_ranged(&ld->ld_sizelimit, v, 0, INT32_MAX);
      break;
    case LDAP_OPT_TIMELIMIT:
      rc = set_ranged(&ld->ld_timelimit, v, 0, INT32_MAX);
      break;
    case LDAP_OPT_REFERRALS:
      rc = set_bit(&ld->ld_options, LDAP_BITOPT_REFERRALS, v);
      break;
    case LDAP_OPT_DEREF:
      rc = set_ranged(&ld->ld_deref, v, LDAP_DEREF_NEVER, LDAP_DEREF_ALWAYS);
      break;
    case LDAP_OPT_RESTART:
      rc = set_bit(&ld->ld_options, LDAP_BITOPT_RESTART, v);
      break;
    case LDAP_OPT_REFHOPLIMIT:
    case LDAP_OPT_REFHOPLIMIT2:
      rc = set_ranged(&ld->ld_refhoplimit, v, 0, INT32_MAX);
      break;
    case LDAP_OPT_DEBUG:
      // Negative masks are refused: they would switch on every category.
      if (v < 0 || v >= 0x10000)
        rc = LDAP_PARAM_ERROR;
      else
        ldap_set_debug_level((uint32_t)v);
      break;
    case LDAP_OPT_SSL_CIPHER:
      rc = set_cipher(ld, static_cast<const char *>(value));
      break;
    case LDAP_OPT_SSL_TIMEOUT:
      rc = set_ranged(&ld->ld_ssl_timeout, v, 0, 86400);
      break;
    case LDAP_OPT_REBIND_FN:
      ld->ld_rebind_proc = reinterpret_cast<LDAP_REBINDPROC_CALLBACK *>(const_cast<void *>(value));
      break;
    case LDAP_OPT_PROTOCOL_VERSION:
      rc = set_ranged(&ld->ld_version, v, LDAP_VERSION2, LDAP_VERSION3);
      break;
    case LDAP_OPT_SERVER_CONTROLS: {
      // The old list goes first, so a failed copy leaves the session without one.
      ldap_controls_free(ld->ld_sctrls);
      ld->ld_sctrls = nullptr;
      rc = ldap_copy_controls(&ld->ld_sctrls, static_cast<LDAPControl **>(const_cast<void *>(value)));
      break;
    }
    case LDAP_OPT_CLIENT_CONTROLS: {
      auto **list = static_cast<LDAPControl **>(const_cast<void *>(value));
      if (has_critical(list)) {
        rc = LDAP_UNAVAILABLE_CRITICAL_EXTENSION;
        break;
      }
      ldap_controls_free(ld->ld_cctrls);
      ld->ld_cctrls = nullptr;
      rc = ldap_copy_controls(&ld->ld_cctrls, list);
      break;
    }
    case LDAP_OPT_52:
      rc = set_ranged(&ld->ld_option52, v, 0, 1);
      break;
    case LDAP_OPT_54:
      rc = set_ranged(&ld->ld_option54, v, 2, 3);
      break;
    case LDAP_OPT_XLATE:
      rc = set_ranged(&ld->ld_xlate, v, 0, 1);
      break;
    case LDAP_OPT_TIMEOUT:
    case LDAP_OPT_NETWORK_TIMEOUT: {
      const auto *tv = static_cast<const struct timeval *>(value);
      struct timeval *field = option == LDAP_OPT_TIMEOUT ? &ld->ld_op_timeout : &ld->ld_net_timeout;
      int *on = option == LDAP_OPT_TIMEOUT ? &ld->ld_op_timeout_on : &ld->ld_net_timeout_on;
      if (tv != nullptr && (tv->tv_sec < 0 || tv->tv_usec < 0 || tv->tv_usec >= 1000000)) {
        rc = LDAP_PARAM_ERROR;
      } else {
        if (tv != nullptr) *field = *tv;
        *on = tv != nullptr ? 1 : 0;
      }
      break;
    }
    case LDAP_OPT_SSL_CHECK_HOSTNAME:
      if (v != 0 && v != 1)
        rc = LDAP_PARAM_ERROR;
      else
        ld->ld_ssl_no_host_check = v == 1 ? 0 : 1;
      break;
    case LDAP_OPT_RECONNECT:
      if (v != 0 && v != 1)
        rc = LDAP_PARAM_ERROR;
      else
        __atomic_store_n(&ld->ld_reconnect, v, __ATOMIC_RELAXED);
      break;
    default:
      // Read-only options and unknown numbers alike.
      rc = LDAP_PARAM_ERROR;
      break;
  }
  ldap_set_errno_direct(ld, rc, nullptr, nullptr);
  return rc;
}

bool ldap_session_timeout(LDAP *ld, int option, struct timeval *out) {
  if (ld == nullptr) return false;
  const bool op = option == LDAP_OPT_TIMEOUT;
  if ((op ? ld->ld_op_timeout_on : ld->ld_net_timeout_on) != 1) return false;
  *out = op ? ld->ld_op_timeout : ld->ld_net_timeout;
  return true;
}

int ldap_get_option_direct(LDAP *ld, int option, void *out) {
  int rc = LDAP_SUCCESS;
  int *iout = static_cast<int *>(out);
  switch (option) {
    case LDAP_OPT_SIZELIMIT:
      *iout = ld->ld_sizelimit;
      break;
    case LDAP_OPT_TIMELIMIT:
      *iout = ld->ld_timelimit;
      break;
    case LDAP_OPT_REFERRALS:
      *iout = (ld->ld_options & LDAP_BITOPT_REFERRALS) ? 1 : 0;
      break;
    case LDAP_OPT_DEREF:
      *iout = ld->ld_deref;
      break;
    case LDAP_OPT_RESTART:
      *iout = (ld->ld_options & LDAP_BITOPT_RESTART) ? 1 : 0;
      break;
    case LDAP_OPT_REFHOPLIMIT:
    case LDAP_OPT_REFHOPLIMIT2:
      *iout = ld->ld_refhoplimit;
      break;
    case LDAP_OPT_DEBUG:
      *iout = (int)ldap_debug_level();
      break;
    case LDAP_OPT_SSL_CIPHER:
      if (ld->ld_ssl_cipher == nullptr) {
        *static_cast<char **>(out) = nullptr;
        rc = LDAP_PARAM_ERROR;
      } else {
        rc = copy_string_out(ld->ld_ssl_cipher, out);
      }
      break;
    case LDAP_OPT_SSL_TIMEOUT:
      *iout = ld->ld_ssl_timeout;
      break;
    case LDAP_OPT_REBIND_FN:
      *static_cast<LDAP_REBINDPROC_CALLBACK **>(out) = ld->ld_rebind_proc;
      break;
    case LDAP_OPT_SSL:
      if (has_ssl_session(ld)) *iout = ld->ld_ssl == 1 ? 1 : 0;
      break;
    case LDAP_OPT_NOSSL:
      if (has_ssl_session(ld)) *iout = ld->ld_ssl == 0 ? 1 : 0;
      break;
    case LDAP_OPT_PROTOCOL_VERSION:
      *iout = ld->ld_version;
      break;
    case LDAP_OPT_SSL_CHECK_HOSTNAME:
      *iout = ld->ld_ssl_no_host_check == 1 ? 0 : 1;
      break;
    case LDAP_OPT_RECONNECT:
      *iout = __atomic_load_n(&ld->ld_reconnect, __ATOMIC_RELAXED);
      break;
    case LDAP_OPT_DIAGNOSTIC_MESSAGE:
    case LDAP_OPT_MATCHED_DN: {
      char *matched = nullptr, *message = nullptr;
      ldap_get_error_info_direct(ld, &matched, &message);
      *static_cast<char **>(out) = option == LDAP_OPT_MATCHED_DN ? matched : message;
      free(option == LDAP_OPT_MATCHED_DN ? message : matched);
      break;
    }
    case LDAP_OPT_TIMEOUT:
    case LDAP_OPT_NETWORK_TIMEOUT: {
      struct timeval tv;
      struct timeval **tout = static_cast<struct timeval **>(out);
      *tout = nullptr;
      if (ldap_session_timeout(ld, option, &tv)) {
        *tout = static_cast<struct timeval *>(olx_malloc(sizeof tv));
        if (*tout == nullptr)
          rc = LDAP_NO_MEMORY;
        else
          **tout = tv;
      }
      break;
    }
    case LDAP_OPT_SERVER_CONTROLS:
      rc = ldap_copy_controls(static_cast<LDAPControl ***>(out), ld->ld_sctrls);
      break;
    case LDAP_OPT_CLIENT_CONTROLS:
      rc = ldap_copy_controls(static_cast<LDAPControl ***>(out), ld->ld_cctrls);
      break;
    case LDAP_OPT_API_INFO:
      rc = get_api_info(static_cast<LDAPAPIInfo *>(out));
      break;
    case LDAP_OPT_API_FEATURE_INFO:
      rc = get_feature_info(static_cast<LDAPAPIFeatureInfo *>(out));
      break;
    case LDAP_OPT_HOST_NAME: {
      LDAPConn *lc = current_connection(ld);
      rc = copy_string_out(lc != nullptr ? lc->lc_host : ld->ld_defhost, out);
      break;
    }
    case LDAP_OPT_ERROR_NUMBER:
      *iout = ldap_get_errno_direct(ld);
      break;
    case LDAP_OPT_ERROR_STRING:
      *static_cast<char **>(out) = nullptr;
      break;
    case LDAP_OPT_EXT_ERROR:
      *iout = ldap_get_ext_errno_direct(ld);
      break;
    case LDAP_OPT_52:
      *iout = ld->ld_option52;
      break;
    case LDAP_OPT_54:
      *iout = ld->ld_option54;
      break;
    case LDAP_OPT_PLUGIN_STATUS:
      *iout = ld->ld_plugin_status;
      break;
    case LDAP_OPT_SSL_ACTIVE:
      if (has_ssl_session(ld)) *iout = 1;
      break;
    case LDAP_OPT_XLATE:
      *iout = ld->ld_xlate;
      break;
    case LDAP_OPT_SSL_CERT_ALTNAME:
    case LDAP_OPT_SSL_CERT_ALTNAME2: {
      tav_handle conn = ssl_session(ld);
      char *value = nullptr;
      if (conn != nullptr)
        value = getSSLCertAltName(
            conn, option == LDAP_OPT_SSL_CERT_ALTNAME ? TAV_CERT_SUBJECT_ALT_NAMES : TAV_CERT_COMMON_NAME);
      if (value == nullptr)
        rc = LDAP_PARAM_ERROR;
      else
        *static_cast<char **>(out) = value;
      break;
    }
    case LDAP_OPT_SSL_CURRENT_CIPHER: {
      tav_handle conn = ssl_session(ld);
      rc = copy_ssl_value(conn, conn ? getSSLCipher(conn) : nullptr, out);
      break;
    }
    case LDAP_OPT_SSL_KEYDB: {
      tav_handle conn = ssl_session(ld);
      rc = copy_ssl_value(conn, conn ? getSSLKeydatabase(conn) : nullptr, out);
      break;
    }
    case LDAP_OPT_SSL_CLIENT_LABEL: {
      tav_handle conn = ssl_session(ld);
      rc = copy_ssl_value(conn, conn ? getSSLClientLabel(conn) : nullptr, out);
      break;
    }
    default:
      rc = LDAP_PARAM_ERROR;
      break;
  }
  if (rc != LDAP_SUCCESS) ldap_set_errno_direct(ld, rc, nullptr, nullptr);
  return rc;
}

int ldap_set_option(LDAP *ld, int option, const void *value) {
  bool is_default = ld == nullptr;
  if (is_default && (ld = ld_set_global_default()) == nullptr) return -1;
  // The process-wide default handle is never unbound: no bracket.
  OperationScope bracket(ld, !is_default);
  if (bracket.refused()) return bracket.code();
  if (LDAP_MUTEX_LOCK(&ld->ld_mutex) != 0) {
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    return LDAP_LOCK_ERROR;
  }
  int rc;
  const void *passed = value;
  bool bad = false;
  if (option == LDAP_OPT_PROTOCOL_VERSION) {
    if (value == nullptr)
      bad = true;
    else
      passed = reinterpret_cast<const void *>((intptr_t) * static_cast<const int *>(value));
  } else if (ld->ld_version < LDAP_VERSION3) {
    // Version-2 callers pass every value in the pointer argument itself.
  } else if (takes_int_pointer(option)) {
    if (value == nullptr)
      bad = true;
    else
      passed = reinterpret_cast<const void *>((intptr_t) * static_cast<const int *>(value));
  } else if (option == LDAP_OPT_API_INFO || option == LDAP_OPT_API_FEATURE_INFO) {
    bad = true;
  }
  if (bad) {
    rc = LDAP_PARAM_ERROR;
    ldap_set_errno_direct(ld, rc, nullptr, nullptr);
  } else {
    rc = ldap_set_option_direct(ld, option, passed);
  }
  LDAP_MUTEX_UNLOCK(&ld->ld_mutex);
  return rc;
}

int ldap_get_option(LDAP *ld, int option, void *out) {
  if (out == nullptr) {
    if (ld != nullptr) {
      OperationScope bracket(ld);
      if (!bracket.refused()) ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    }
    return LDAP_PARAM_ERROR;
  }
  bool is_default = ld == nullptr;
  if (is_default && (ld = ld_set_global_default()) == nullptr) return -1;
  // The process-wide default handle is never unbound: no bracket.
  OperationScope bracket(ld, !is_default);
  if (bracket.refused()) return bracket.code();
  if (LDAP_MUTEX_LOCK(&ld->ld_mutex) != 0) {
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    return LDAP_LOCK_ERROR;
  }
  int rc = ldap_get_option_direct(ld, option, out);
  LDAP_MUTEX_UNLOCK(&ld->ld_mutex);
  return rc;
}
}
