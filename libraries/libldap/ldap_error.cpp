// Result codes, their messages, and the per-thread error record of a session.
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

struct code_message {
  int code;
  const char *message;
};

// Order as published; lookups walk it to the -1 row.
const code_message ldap_errlist[] = {
    {0x00, "Success"},
    {0x01, "Operations error"},
    {0x02, "Protocol error"},
    {0x03, "Timelimit exceeded"},
    {0x04, "Sizelimit exceeded"},
    {0x05, "Compare false"},
    {0x06, "Compare true"},
    {0x07, "Strong authentication not supported"},
    {0x08, "Strong authentication required"},
    {0x09, "Partial results and referral received"},
    {0x10, "No such attribute"},
    {0x0a, "Referral returned"},
    {0x0b, "Administration limit exceeded"},
    {0x0c, "Critical extension not supported"},
    {0x0d, "Confidentiality is required"},
    {0x0e, "SASL Bind in progress"},
    {0x11, "Undefined attribute type"},
    {0x12, "Inappropriate matching"},
    {0x13, "Constraint violation"},
    {0x14, "Type or value exists"},
    {0x15, "Invalid syntax"},
    {0x20, "No such object"},
    {0x21, "Alias problem"},
    {0x22, "Invalid DN syntax"},
    {0x23, "Object is a leaf"},
    {0x24, "Alias dereferencing problem"},
    {0x30, "Inappropriate authentication"},
    {0x31, "Invalid credentials"},
    {0x32, "Insufficient access"},
    {0x33, "DSA is busy"},
    {0x34, "DSA is unavailable"},
    {0x35, "DSA is unwilling to perform"},
    {0x36, "Loop detected"},
    {0x3c, "Sort control missing"},
    {0x3d, "Index range error"},
    {0x40, "Naming violation"},
    {0x41, "Object class violation"},
    {0x42, "Operation not allowed on nonleaf"},
    {0x43, "Operation not allowed on RDN"},
    {0x44, "Already exists"},
    {0x45, "Cannot modify object class"},
    {0x46, "Results too large"},
    {0x47, "Affects multiple DSAS"},
    {0x50, "Unknown error"},
    {0x51, "Can't contact LDAP server"},
    {0x52, "Local error"},
    {0x53, "Encoding error"},
    {0x54, "Decoding error"},
    {0x55, "Timed out"},
    {0x56, "Unknown authentication method"},
    {0x57, "Bad search filter"},
    {0x58, "User cancelled operation"},
    {0x59, "Bad parameter to an ldap routine"},
    {0x5a, "Out of memory"},
    {0x5b, "Connection error"},
    {0x5c, "Not Supported"},
    {0x5d, "Control not found"},
    {0x5e, "No results returned"},
    {0x5f, "More result to return"},
    {0x60, "URL doesn't begin with ldap://"},
    {0x61, "URL has no DN (required)"},
    {0x62, "URL scope string is invalid"},
    {0x63, "can't allocate memory space"},
    {0x64, "Client loop"},
    {0x65, "Referral limit exceeded"},
    {0x70, "ldap_ssl_client_init successfully called previously in this process."},
    {0x71, "SSL initialization call failed"},
    {0x72, "Call ldap_ssl_client_init before attempting to use an ssl connection"},
    {0x73, "An invalid ssl parameter was previously specified."},
    {0x74, "Failed to connect to ssl server."},
    {0x75, "Failed to identify the maximum SSL encryption level for this host."},
    {0x76, "The SSL library cannot be loaded."},
    {0x77, "SSL Keyring file not found"},
    {0x78, "SSL password not specified"},
    {0x7a, "The assertion filter evalues to false or undefined"},
    {0x80, "No explicit owner found"},
    {0x81, "Could not obtain lock"},
    {0x85, "LDAP servers found"},
    {0x86, "Truncated DNS results"},
    {0x87, "Invalid DNS data"},
    {0x88, "Can't resolve system domain or nameserver"},
    {0x89, "DNS Configuration file error"},
    {0xa0, "Output buffer overflow"},
    {0xa1, "Input buffer truncated"},
    {0xa2, "Unusable input character"},
    {0xa3, "No codeset point to map to"},
    {0xb0, "NT Registry file not found"},
    {0xb1, "Cannot open NT Registry"},
    {0xb2, "Cannot find NT Registry entry"},
    {0xc0, "Plugin configuration file not opened"},
    {0xc1, "Plugin library not loaded"},
    {0xc2, "Plugin function not resolved"},
    {0xc3, "Plugin library not initialized"},
    {0xc4, "Plugin function could not bind"},
    {0xd0, "gss_init_sec_context failed"},
    {-1, nullptr},
};

const code_message ldap_pwdpolicy_errlist[] = {
    {0, "Success"},
    {1, "Warning, time before expiration is %ld"},
    {2, "Warning, %ld grace logins remain"},
    {3, "Error, Password has expired"},
    {4, "Error, Account is locked"},
    {5, "Error, Password must be changed after reset"},
    {6, "Error, Password may not be modified"},
    {7, "Error, Must supply old password"},
    {8, "Error, Invalid password syntax"},
    {9, "Error, Password too short"},
    {10, "Error, Password too young"},
    {11, "Error, Password in History"},
    {-1, nullptr},
};

const char kUnknownError[] = "Unknown error";

char *lookup(const code_message *table, int code) {
  for (const code_message *row = table; row->code != -1; ++row)
    if (row->code == code) return const_cast<char *>(row->message);
  return const_cast<char *>(kUnknownError);
}

// The calling thread's record.  Records are only ever added at the head of
// the list (published with a release store, under ld_err_mutex) and only their
// own thread writes them, so a thread may look its record up without the lock.
ldap_thread_error *find_record(LDAP *ld) {
  pthread_t self = pthread_self();
  for (ldap_thread_error *e = __atomic_load_n(&ld->ld_errors, __ATOMIC_ACQUIRE); e != nullptr; e = e->lte_next)
    if (pthread_equal(e->lte_thread, self)) return e;
  return nullptr;
}

// A new, cleared record for the calling thread.  Caller holds ld_err_mutex.
ldap_thread_error *new_record(LDAP *ld) {
  auto *e = static_cast<ldap_thread_error *>(olx_calloc(1, sizeof(ldap_thread_error)));
  if (e == nullptr) return nullptr;
  e->lte_thread = pthread_self();
  e->lte_next = ld->ld_errors;
  __atomic_store_n(&ld->ld_errors, e, __ATOMIC_RELEASE);
  return e;
}

}  // namespace

// The public forms: the operation bracket around the worker; -1 for a handle
// that is invalid or being unbound.
template <typename Work>
int bracketed(LDAP *ld, Work work) {
  OperationScope bracket(ld);
  if (bracket.refused()) return -1;
  int rc = work();
  return rc;
}

extern "C" {

char *ldap_err2string(int err) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_err2string: err(%d)\n", err);
  return lookup(ldap_errlist, err);
}

char *ldap_pwdpolicy_err2string(int err) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_pwdpolicy_err2string\n");
  return lookup(ldap_pwdpolicy_errlist, err);
}

int ldap_set_errno_direct(LDAP *ld, int code, const char *matched, const char *msg) {
  // Most calls set a code alone on a record that holds no strings.  Only this
  // thread writes or reads its record's code, so that needs no lock; the
  // lock guards the list and the strings.
  if (matched == nullptr && msg == nullptr) {
    ldap_thread_error *e = find_record(ld);
    if (e != nullptr && e->lte_matched == nullptr && e->lte_message == nullptr) {
      e->lte_code = code;
      return LDAP_SUCCESS;
    }
  }
  if (LDAP_MUTEX_LOCK(&ld->ld_err_mutex) != 0) return LDAP_LOCK_ERROR;
  int rc = LDAP_SUCCESS;
  char *m = nullptr;
  char *s = nullptr;
  if (matched != nullptr && (m = olx_strdup(matched)) == nullptr) rc = LDAP_NO_MEMORY;
  if (rc == LDAP_SUCCESS && msg != nullptr && (s = olx_strdup(msg)) == nullptr) rc = LDAP_NO_MEMORY;
  ldap_thread_error *e = rc == LDAP_SUCCESS ? find_record(ld) : nullptr;
  if (rc == LDAP_SUCCESS && e == nullptr && (e = new_record(ld)) == nullptr) rc = LDAP_NO_MEMORY;
  if (rc == LDAP_SUCCESS) {
    free(e->lte_matched);
    free(e->lte_message);
    e->lte_matched = m;
    e->lte_message = s;
    e->lte_code = code;
  } else {
    free(m);
    free(s);
  }
  LDAP_MUTEX_UNLOCK(&ld->ld_err_mutex);
  return rc;
}

int ldap_set_errno(LDAP *ld, int code, const char *matched, const char *msg) {
  return bracketed(ld, [&] { return ldap_set_errno_direct(ld, code, matched, msg); });
}

int ldap_get_errno_direct(LDAP *ld) {
  // The calling thread's own code: no lock (see ldap_set_errno_direct).
  const ldap_thread_error *e = find_record(ld);
  return e != nullptr ? e->lte_code : LDAP_SUCCESS;
}

int ldap_get_errno(LDAP *ld) {
  return bracketed(ld, [&] { return ldap_get_errno_direct(ld); });
}

int ldap_get_error_info_direct(LDAP *ld, char **matched, char **msg) {
  if (matched != nullptr) *matched = nullptr;
  if (msg != nullptr) *msg = nullptr;
  LDAP_LOCK_GUARD(g, &ld->ld_err_mutex);
  if (!g.ok()) return LDAP_LOCK_ERROR;
  ldap_thread_error *e = find_record(ld);
  if (e == nullptr) return LDAP_SUCCESS;
  // A copy that cannot be made is simply absent: the code is what matters.
  if (matched != nullptr && e->lte_matched != nullptr) *matched = olx_strdup(e->lte_matched);
  if (msg != nullptr && e->lte_message != nullptr) *msg = olx_strdup(e->lte_message);
  return e->lte_code;
}

int ldap_get_error_info(LDAP *ld, char **matched, char **msg) {
  return bracketed(ld, [&] { return ldap_get_error_info_direct(ld, matched, msg); });
}

int ldap_get_ext_errno_direct(LDAP *ld) {
  LDAP_LOCK_GUARD(g, &ld->ld_err_mutex);
  if (!g.ok()) return LDAP_LOCK_ERROR;
  ldap_thread_error *e = find_record(ld);
  return e != nullptr ? e->lte_ext_code : 0;
}

int ldap_get_ext_errno(LDAP *ld) {
  return bracketed(ld, [&] { return ldap_get_ext_errno_direct(ld); });
}

int ldap_set_ext_errno(LDAP *ld, int value) {
  LDAP_LOCK_GUARD(g, &ld->ld_err_mutex);
  if (!g.ok()) return LDAP_LOCK_ERROR;
  ldap_thread_error *e = find_record(ld);
  if (e == nullptr && (e = new_record(ld)) == nullptr) return LDAP_NO_MEMORY;
  e->lte_ext_code = value;
  return LDAP_SUCCESS;
}

void ldap_perror_direct(LDAP *ld, const char *prefix) {
  char *matched = nullptr;
  char *msg = nullptr;
  int code = ldap_get_error_info_direct(ld, &matched, &msg);
  if (prefix == nullptr) prefix = "";
  fprintf(stderr, "%s: %s\n", prefix, ldap_err2string(code));
  if (matched != nullptr && *matched != '\0') fprintf(stderr, "%s: matched: %s\n", prefix, matched);
  if (msg != nullptr && *msg != '\0') fprintf(stderr, "%s: additional info: %s\n", prefix, msg);
  free(matched);
  free(msg);
  fflush(stderr);
}

void ldap_perror(LDAP *ld, const char *prefix) {
  OperationScope bracket(ld);
  if (bracket.refused()) return;
  ldap_perror_direct(ld, prefix);
}

// Called only while the session is being released; no other thread can hold
// a reference any more.
void ldap_free_thread_errors(LDAP *ld) {
  ldap_thread_error *e = ld->ld_errors;
  while (e != nullptr) {
    ldap_thread_error *next = e->lte_next;
    free(e->lte_matched);
    free(e->lte_message);
    free(e);
    e = next;
  }
  ld->ld_errors = nullptr;
}
}
