// The shared SSL environment (creation, preparation, reference counting) and
// secure connections: opening one on a connected socket, the I/O callbacks
// the toolkit reads and writes through, closing, and the connection queries.
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "fber-stream.h"
#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-lock.h"
#include "ldap-ssl.h"
#include "ldap-utils.h"

namespace {

TavEnvRef *current_env = nullptr;  // SSL environment lock
int ssl_init_count = 0;            // SSL environment lock
std::atomic<int> fips_flag{0};

tav_iocallback io_callbacks = {ssl_read, ssl_write, nullptr, ssl_set_socket_options, nullptr, nullptr};

constexpr int kHandshakeIo = TAV_SOC_HANDSHAKE_IO;
constexpr int kNormalIo = TAV_SOC_NORMAL_IO;

// The stream layer reaches the toolkit through these; a Sockbuf only has a
// cell once the toolkit is loaded, and a loaded toolkit stays loaded.
int stream_read(void *cell, char *buf, int count, int *got) {
  return tav_fn.secure_soc_read(*static_cast<tav_handle *>(cell), buf, count, got);
}
int stream_write(void *cell, const char *buf, int count, int *written) {
  return tav_fn.secure_soc_write(*static_cast<tav_handle *>(cell), buf, count, written);
}
struct StreamHooks {
  StreamHooks() {
    fber_ssl_read_hook = stream_read;
    fber_ssl_write_hook = stream_write;
    fber_ssl_strerror_hook = tav_error_text;
  }
} stream_hooks;

// Decimal value of the callback user string; -1 when it holds none.
int user_command(const char *user) {
  char text[8];
  memcpy(text, user, 7);
  text[7] = '\0';
  char *end = nullptr;
  long v = strtol(text, &end, 10);
  return end != text ? (int)v : -1;
}

bool handshake_mode(const char *user) { return user == nullptr || user_command(user) == kHandshakeIo; }

// ---- the abort guard ----
// A toolkit that aborts mid-handshake must not take the process with it.
// Each thread has its own jump target, so handshakes in several threads at
// once are guarded; SIGABRT on a thread without a handshake goes on to the
// previous disposition.
thread_local sigjmp_buf abort_target;
thread_local volatile sig_atomic_t abort_armed = 0;
struct sigaction previous_abort_action;
std::once_flag abort_handler_once;

void abort_handler(int sig) {
  if (abort_armed) {
    abort_armed = 0;
    LDAP_LOG(LDAP_LOG_ERROR, "Caught an exception in %s, signal was %d\n", __FILE__, sig);
    siglongjmp(abort_target, 1);  // restores the mask saved by sigsetjmp: SIGABRT is released
  }
  if ((previous_abort_action.sa_flags & SA_SIGINFO) == 0 && previous_abort_action.sa_handler != SIG_DFL &&
      previous_abort_action.sa_handler != SIG_IGN) {
    previous_abort_action.sa_handler(sig);
    return;
  }
  signal(SIGABRT, SIG_DFL);  // abort() raises again and the process ends as it would have
}

void install_abort_handler() {
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = abort_handler;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGABRT, &sa, &previous_abort_action);
}

// The handshake; 414 when the toolkit aborted instead of returning.
int guarded_handshake(tav_handle conn) {
  std::call_once(abort_handler_once, install_abort_handler);
  volatile int code = TAV_ERROR_BAD_CERT;
  if (sigsetjmp(abort_target, 1) == 0) {
    abort_armed = 1;
    LDAP_LOG(LDAP_LOG_TRACE, "Solaris, trying the tav_secure_soc_init.\n");
    code = tav_fn.secure_soc_init(conn);
    abort_armed = 0;
  } else {
    LDAP_LOG(LDAP_LOG_TRACE, "Solaris caught the Tavlib SIGIOT, returning TAV_ERROR_BAD_CERT\n");
    code = TAV_ERROR_BAD_CERT;
  }
  sigset_t abrt;
  sigemptyset(&abrt);
  sigaddset(&abrt, SIGABRT);
  pthread_sigmask(SIG_UNBLOCK, &abrt, nullptr);
  return code;
}

// "name.ext" -> "name.sth"; a name without extension gets one.
char *stash_name(const char *kdb) {
  const char *slash = strrchr(kdb, '/');
  const char *dot = strrchr(kdb, '.');
  size_t stem = dot != nullptr && (slash == nullptr || dot > slash) ? (size_t)(dot - kdb) : strlen(kdb);
  char *out = static_cast<char *>(olx_malloc(stem + 5));
  if (out == nullptr) return nullptr;
  memcpy(out, kdb, stem);
  memcpy(out + stem, ".sth", 5);
  return out;
}

int set_enum_traced(tav_handle env, int id, int value) {
  LDAP_LOG(LDAP_LOG_TRACE, "setTavlibEnum: Setting ENUM ID [%d] to [%d]\n", id, value);
  int t = tav_fn.attribute_set_enum(env, id, value);
  if (t != 0) LDAP_LOG(LDAP_LOG_ERROR, "Error - setiTavlibEnum(): setting ENUM ID [%d] to [%d] failed ", id, value);
  return t;
}

int setPKCS11AccMode(tav_handle env, int mode) {
  LDAP_LOG(LDAP_LOG_TRACE, "setPKCS11AccMode Enabling accelerator mode=[%d]\n", mode);
  if (mode < 0 || mode > 7) {
    LDAP_LOG(LDAP_LOG_ERROR, "setPKCS11AccMode: Accelerator mode[%d] incorrect must be [0-7]", mode);
    return 0;
  }
  const int bits[][2] = {
      {2, TAV_ACCELERATOR_RSA_ON}, {4, TAV_ACCELERATOR_SYMMETRIC_ON}, {1, TAV_ACCELERATOR_NCIPHER_ON}};
  for (auto [bit, value] : bits)
    if ((mode & bit) != 0)
      if (int t = set_enum_traced(env, TAV_PKCS11_ACCELERATOR_MODE, value); t != 0) return t;
  return 0;
}

void drop_current_env(const char *trace) {
  LDAP_LOG(LDAP_LOG_TRACE, "%s", trace);
  freeTavEnvRef(current_env);
}

// Sets the environment attributes of the PKCS#11 record; 0 or 115.
int prepare_pkcs11(tav_handle env, LDAP_PKCS11_PARMS *p, int *code) {
  if (p->pkcs11_keystorage != 1 && p->pkcs11_accel_mode == 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "prepare_tav_init_data: Need to set PKCS#11 Keystorage or Acceleration mode\n");
    return LDAP_SSL_PARAM_ERROR;
  }
  LDAP_LOG(LDAP_LOG_TRACE, "setPKCS11LibPath: Setting LibPath [%s] in Tavlib Env\n",
           p->pkcs11_lib_path ? p->pkcs11_lib_path : "null");
  if (p->pkcs11_lib_path == nullptr ||
      (*code = tav_fn.attribute_set_buffer(env, TAV_PKCS11_DRIVER_PATH, p->pkcs11_lib_path, 0)) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - setPKCS11LibPath() setting PKCS11 driver path to %s in Tavlib environment\n",
             p->pkcs11_lib_path ? p->pkcs11_lib_path : "null");
    return LDAP_SSL_PARAM_ERROR;
  }
  if (p->pkcs11_token_pwd != nullptr &&
      (*code = tav_fn.attribute_set_buffer(env, TAV_PKCS11_TOKEN_PWD, p->pkcs11_token_pwd, 0)) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - setPKCS11TokenPW: setting PKCS#11 Token Password failed\n");
    return LDAP_SSL_PARAM_ERROR;
  }
  if (p->pkcs11_token_label != nullptr) {
    LDAP_LOG(LDAP_LOG_TRACE, "setPKCS11TokenLabel: Setting PKCS#11 Token Label [%s] in Tavlib Env\n",
             p->pkcs11_token_label);
    if ((*code = tav_fn.attribute_set_buffer(env, TAV_PKCS11_TOKEN_LABEL, p->pkcs11_token_label, 0)) != 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "Error - setPKCS11TokenLabel setting PKCS11 Token Label to %s inTavlib environment\n",
               p->pkcs11_token_label);
      return LDAP_SSL_PARAM_ERROR;
    }
  }
  if ((*code = setPKCS11AccMode(env, p->pkcs11_accel_mode)) != 0) return LDAP_SSL_PARAM_ERROR;
  return 0;
}

// The common steps of the two set-up forms; `who` names the caller in the
// trace lines that differ between them.
int setup_environment(bool client, const char *kdb, const char *pw, int timeout, int *code, LDAP_PKCS11_PARMS *pkcs11) {
  const char *who = client ? "ldap_ssl_client_init_setup" : "ldap_ssl_environment_init_setup";
  LDAP_LOG(LDAP_LOG_TRACE, client ? "%s: Loading Tavlib functions\n" : "%s: Loading Tavlib functions... \n", who);
  int rc = loadTlibShared();
  if (rc != 0) {
    *code = rc;
    return rc;
  }
  LDAP_LOG(LDAP_LOG_TRACE, client ? "%s: Opening Tavlib environment\n" : "%s: Opening Tavlib environment... \n", who);
  if (createTavEnvRef() != 0) return LDAP_NO_MEMORY;
  int t = tav_fn.environment_open(&current_env->env);
  if (t != 0) {
    if (client) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldap_ssl_client_init_setup: tav_environment_open() rc=%d %s\n", t, tav_error_text(t));
      LDAP_LOG(LDAP_LOG_ERROR, "Error - ldap_ssl_client_init_setup: Delete bad Tavlib environment reference.\n");
    } else {
      LDAP_LOG(LDAP_LOG_ERROR, "Error - ldap_ssl_environment_init_setup: tav_environment_open() rc=%d %s\n", t,
               tav_error_text(t));
      LDAP_LOG(LDAP_LOG_ERROR, "ldap_ssl_environment_init_setup: Delete bad Tavlib environment reference.\n");
    }
    freeTavEnvRef(current_env);
    *code = t;
    return LDAP_SSL_INITIALIZE_FAILED;
  }
  int prepared_code = 0;
  rc = prepare_tav_init_data(kdb, pw, timeout, &prepared_code, pkcs11);
  if (rc != 0) {
    // A half-prepared environment is never left for sessions to take.
    freeTavEnvRef(current_env);
    return rc;
  }
  LDAP_LOG(LDAP_LOG_TRACE, "%s: Initialize Tavlib environment...\n", who);
  t = initTavlibEnv(current_env->env, pw, pkcs11);
  if (t != 0) {
    LDAP_LOG(LDAP_LOG_ERROR,
             client ? "Error - %s: tav_environment_init() returns rc=%d %s\n"
                    : "Error - %s(): tav_environment_init() returns rc=%d %s\n",
             who, t, tav_error_text(t));
    freeTavEnvRef(current_env);
    *code = t;
    return LDAP_SSL_INITIALIZE_FAILED;
  }
  ++ssl_init_count;
  return 0;
}

// Checks of the PKCS#11 record shared by both forms; 0, 115 or (environment
// form, check 1) 89.
int check_pkcs11(bool client, const char *kdb, LDAP_PKCS11_PARMS *p) {
  if (p == nullptr) return 0;
  if (p->pkcs11_accel_mode < 0 || p->pkcs11_accel_mode > 7) {
    LDAP_LOG(LDAP_LOG_ERROR,
             client ? "ldap_ssl_pkcs11_client_init: Accelerator mode (0-7) not set to appropriate value: %d\n"
                    : "ldap_ssl_pkcs11_client_init: Accelerator mode (0-7) not set to appropriate value %d \n",
             p->pkcs11_accel_mode);
    return client ? LDAP_SSL_PARAM_ERROR : LDAP_PARAM_ERROR;
  }
  if (p->pkcs11_keystorage != 0 && p->pkcs11_keystorage != 1) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_ssl_pkcs11_client_init: PKCS#11 Keystorage must be [0/1]\n");
    return LDAP_SSL_PARAM_ERROR;
  }
  if (p->pkcs11_lib_path == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, client ? "ldap_ssl_pkcs11_client_init: PKCS#11 Library path is NULL\n"
                                    : "ldap_ssl_pkcs11_environment_init: PKCS#11 Library path is NULL\n");
    return LDAP_SSL_PARAM_ERROR;
  }
  if (p->pkcs11_token_label != nullptr && p->pkcs11_keystorage == 1 && p->pkcs11_token_pwd == nullptr &&
      kdb == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR,
             client ? "ldap_ssl_pkcs11_client_init: PKCS#11 Token Password toaccess crypto device is NULL\n"
                    : "ldap_ssl_pkcs11_environment_init: Token Password to access crypto device is NULL\n");
    return LDAP_SSL_PARAM_ERROR;
  }
  if (p->pkcs11_token_label == nullptr && p->pkcs11_keystorage == 1 && kdb == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, client ? "ldap_ssl_pkcs11_client_init: PKCS#11 Token Label is NULL\n"
                                    : "ldap_ssl_pkcs11_environment_init: Token Label is NULL\n");
    return LDAP_SSL_PARAM_ERROR;
  }
  return 0;
}

// The handshake's budget is kept on the monotonic clock: a step of the
// wall clock neither stretches nor cuts it.
void monotonic_now(struct timeval *out) {
  const int64_t now = ldap_monotonic_ns();
  out->tv_sec = (time_t)(now / 1000000000);
  out->tv_usec = (suseconds_t)(now % 1000000000 / 1000);
}

// now - then, normalised; false when now is earlier.
bool elapsed_since(const struct timeval *now, const struct timeval *then, struct timeval *out) {
  long sec = now->tv_sec - then->tv_sec;
  long usec = now->tv_usec - then->tv_usec;
  if (usec < 0) {
    usec += 1000000;
    --sec;
  }
  if (sec < 0) return false;
  out->tv_sec = sec;
  out->tv_usec = usec;
  return true;
}

// Waits for the socket in handshake mode: 1 ready; 0 budget used up (traced,
// errno EIO); 2 the wait timed out after `*waited`; -1 select failed.
int handshake_wait(int fd, bool for_write, struct timeval *budget, struct timeval *last, const char *who,
                   struct timeval *waited) {
  struct timeval now;
  monotonic_now(&now);
  if (ldap_ssl_budget_spend(budget, last, &now)) {
    LDAP_LOG(LDAP_LOG_ERROR, "%s: SSL handshake timed out after: %ld.%06ld sec\n", who,
             (long)LDAP_SSL_HANDSHAKE_BUDGET_SEC, (long)LDAP_SSL_HANDSHAKE_BUDGET_USEC);
    errno = EIO;
    return 0;
  }
  // The whole handshake ends with the call (and the network time-out), not
  // only each callback with its budget.
  struct timeval call_left;
  const bool call_bounded = ldap_deadline_left_tv(ldap_call_deadline(), &call_left) != nullptr;
  if (call_bounded && call_left.tv_sec == 0 && call_left.tv_usec == 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "%s: SSL handshake ended by the call's time-out\n", who);
    errno = EIO;
    return 0;
  }
  if (fd < 0 || fd >= FD_SETSIZE) {
    errno = EBADF;
    return -1;
  }
  fd_set set;
  FD_ZERO(&set);
  FD_SET(fd, &set);
  *waited = call_bounded && timercmp(&call_left, budget, <) ? call_left : *budget;
  struct timeval wait = *waited;
  int rc = for_write ? select(fd + 1, nullptr, &set, nullptr, &wait) : select(fd + 1, &set, nullptr, nullptr, &wait);
  if (rc < 0) return -1;
  if (rc == 0) {
    errno = EIO;
    return 2;
  }
  return 1;
}

}  // namespace

extern "C" {

TavEnvRef *ldap_ssl_current_env(void) { return current_env; }
int ldap_ssl_init_count(void) { return ssl_init_count; }

int createTavEnvRef(void) {
  if (current_env != nullptr && current_env->count == 0) {
    LDAP_LOG(LDAP_LOG_TRACE, "createTavEnvRef: Delete unused Tavlib environment reference.\n");
    freeTavEnvRef(current_env);
  }
  LDAP_LOG(LDAP_LOG_TRACE, "createTavEnvRef: Create new Tavlib environment reference...\n");
  TavEnvRef *ref = static_cast<TavEnvRef *>(olx_calloc(1, sizeof(TavEnvRef)));
  if (ref == nullptr) {
    // The line number is the one this trace has always carried, whatever
    // line of this file it sits on now.
    LDAP_LOG(LDAP_LOG_ERROR,
             "Error - createTavEnvRef: File %s:%d - Allocation failed for Tavlib environment reference\n", __FILE__,
             2558);
    return LDAP_NO_MEMORY;
  }
  current_env = ref;
  return 0;
}

void freeTavEnvRef(TavEnvRef *ref) {
  if (ref == nullptr) return;
  LDAP_LOG(LDAP_LOG_TRACE, "freeTavEnvRef: tav_environment_close(%p) and free %p\n", ref->env, (void *)ref);
  if (ref->env != nullptr) {
    int t = tav_fn.environment_close(&ref->env);
    if (t != 0)
      LDAP_LOG(LDAP_LOG_ERROR, "Error - freeTavEnvRef: tav_environment_close() rc=%d %s\n", t, tav_error_text(t));
  }
  if (ref == current_env) current_env = nullptr;
  free(ref);
}

void deleteTavEnvRef(TavEnvRef *ref) {
  if (ref == nullptr) return;
  ldap_lock_ssl_env();
  if (ref->count > 0) --ref->count;
  LDAP_LOG(LDAP_LOG_TRACE, "deleteTavEnvRef: Reset Tavlib environment reference count for %p to %d.\n", (void *)ref,
           (int)ref->count);
  if (ref->count == 0 && ref != current_env) freeTavEnvRef(ref);
  ldap_unlock_ssl_env();
}

int prepare_tav_init_data(const char *kdb, const char *pw, int timeout, int *tavrc, LDAP_PKCS11_PARMS *pkcs11) {
  LDAP_LOG(LDAP_LOG_TRACE, "prepare_tav_init_data\n");
  int code = 0;
  int rc = 0;
  tav_handle env = current_env != nullptr ? current_env->env : nullptr;
  auto failed = [&](int t) { return (code = t) != 0; };
  if (timeout > 86400 || timeout < 0) {
    rc = LDAP_SSL_PARAM_ERROR;
  } else if (failed(tav_fn.attribute_set_numeric_value(env, TAV_V3_SESSION_TIMEOUT, timeout ? timeout : 43200))) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - prepare_tav_init_data: tav_attribute_set_enum(...timeout...) rc=%d %s\n", code,
             tav_error_text(code));
    rc = LDAP_SSL_PARAM_ERROR;
  } else if (failed(tav_fn.attribute_set_enum(env, TAV_SESSION_TYPE, TAV_CLIENT_SESSION))) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - prepare_tav_init_data: tav_attribute_set_enum() rc=%d %s\n", code,
             tav_error_text(code));
    drop_current_env("Error - prepare_tav_init_data: Delete bad Tavlib environment reference.\n");
    rc = LDAP_SSL_INITIALIZE_FAILED;
  }
  const bool fips = fips_flag.load() != 0;
  if (rc == 0 && fips) {
    LDAP_LOG(LDAP_LOG_TRACE, "prepare_tav_init_data: setting base crypto library for FIPS to TAV_BASE_CRYPTO_KCL\n");
    if (failed(tav_fn.attribute_set_enum(env, TAV_BASE_CRYPTO_LIBRARY, TAV_BASE_CRYPTO_KCL))) {
      LDAP_LOG(LDAP_LOG_ERROR,
               "Error - prepare_tav_init_data: tav_attribute_set_enum(...TAV_BASE_CRYPTO_LIBRARY...) rc=%d %s\n", code,
               tav_error_text(code));
      drop_current_env("prepare_tav_init_data: Delete bad Tavlib environment reference.\n");
      rc = LDAP_SSL_INITIALIZE_FAILED;
    }
  }
  if (rc == 0) {
    LDAP_LOG(LDAP_LOG_TRACE, "prepare_tav_init_data: setting %s\n",
             fips ? "TAV_FIPS_MODE_PROCESSING_ON" : "TAV_FIPS_MODE_PROCESSING_OFF");
    if (failed(tav_fn.attribute_set_enum(env, TAV_FIPS_MODE_PROCESSING,
                                         fips ? TAV_FIPS_MODE_PROCESSING_ON : TAV_FIPS_MODE_PROCESSING_OFF))) {
      LDAP_LOG(LDAP_LOG_ERROR,
               "Error - prepare_tav_init_data: tav_attribute_set_enum(...TAV_FIPS_MODE_PROCESSING...) rc=%d %s\n", code,
               tav_error_text(code));
      drop_current_env("prepare_tav_init_data: Delete bad Tavlib environment reference.\n");
      rc = LDAP_SSL_INITIALIZE_FAILED;
    }
  }
  if (rc == 0 && pkcs11 != nullptr) rc = prepare_pkcs11(env, pkcs11, &code);
  if (rc == 0) {
    if (kdb != nullptr) {
      LDAP_LOG(LDAP_LOG_TRACE, "prepare_tav_init_data: set key database filename to [%s]\n", kdb);
      if (failed(tav_fn.attribute_set_buffer(env, TAV_KEYRING_FILE, kdb, 0))) {
        LDAP_LOG(LDAP_LOG_ERROR, "Error - prepare_tav_init_data: tav_attribute_set_buffer(...kdb...) rc=%d %s\n", code,
                 tav_error_text(code));
        rc = LDAP_SSL_PARAM_ERROR;
      }
    } else {
      char *path = nullptr;
      if (ldap_get_etc_file_path("ldapkey.kdb", '/', &path) != 0) {
        rc = LDAP_SSL_KEYRING_NOT_FOUND;
      } else {
        LDAP_LOG(LDAP_LOG_TRACE, "prepare_tav_init_data: set key database filename to default=[%s]\n", path);
        if (failed(tav_fn.attribute_set_buffer(env, TAV_KEYRING_FILE, path, 0))) {
          LDAP_LOG(LDAP_LOG_ERROR, "Error - prepare_tav_init_data: tav_attribute_get_buffer(...kdb...) rc=%d %s\n",
                   code, tav_error_text(code));
          rc = LDAP_SSL_KEYRING_NOT_FOUND;
        }
        free(path);
      }
    }
  }
  if (rc == 0 && pw != nullptr && *pw != '\0') {
    LDAP_LOG(LDAP_LOG_TRACE, "prepare_tav_init_data: set key database password\n");
    char *copy = olx_strdup(pw);
    if (copy == nullptr) {
      rc = LDAP_NO_MEMORY;
    } else {
      if (failed(tav_fn.attribute_set_buffer(env, TAV_KEYRING_PW, copy, 0))) {
        LDAP_LOG(LDAP_LOG_ERROR, "Error - prepare_tav_init_data: tav_attribute_set_buffer(...kdb-pw...) rc=%d %s\n",
                 code, tav_error_text(code));
        rc = LDAP_SSL_PASSWORD_NOT_SPECIFIED;
      }
      memset(copy, 0, strlen(copy));
      free(copy);
    }
  } else if (rc == 0) {
    const char *name = nullptr;
    int len = 0;
    if (failed(tav_fn.attribute_get_buffer(env, TAV_KEYRING_FILE, &name, &len))) {
      LDAP_LOG(LDAP_LOG_ERROR, "prepare_tav_init_data: tav_attribute_get_buffer(...kdb...) rc=%d %s\n", code,
               tav_error_text(code));
      rc = LDAP_SSL_KEYRING_NOT_FOUND;
    } else if (name == nullptr || *name == '\0') {
      LDAP_LOG(LDAP_LOG_TRACE, "prepare_tav_init_data: Creating stash file name\n");
      rc = LDAP_NO_MEMORY;
    } else if (char *stash = stash_name(name); stash == nullptr) {
      rc = LDAP_NO_MEMORY;
    } else {
      LDAP_LOG(LDAP_LOG_TRACE, "prepare_tav_init_data: set stash file name=[%s]\n", stash);
      if (failed(tav_fn.attribute_set_buffer(env, TAV_KEYRING_STASH_FILE, stash, 0))) {
        LDAP_LOG(LDAP_LOG_ERROR, "Error - prepare_tav_init_data: tav_attribute_set_buffer(...stashfile...) rc=%d %s\n",
                 code, tav_error_text(code));
        rc = LDAP_SSL_KEYRING_NOT_FOUND;
      }
      free(stash);
    }
  }
  if (rc == 0 && failed(tav_fn.attribute_set_callback(env, TAV_IO_CALLBACK, &io_callbacks))) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - prepare_tav_init_data: setting I/O callback\n");
    rc = 80;
  }
  LDAP_LOG(LDAP_LOG_TRACE, "prepare_tav_init_data: rc=%d\n", rc);
  if (tavrc != nullptr) *tavrc = code;
  return rc;
}

int initTavlibEnv(tav_handle env, const char *pw, LDAP_PKCS11_PARMS *pkcs11) {
  LDAP_LOG(LDAP_LOG_TRACE, "initTavlibEnv: initialize the server Tavlib environment\n");
  int t = tav_fn.environment_init(env);
  if (t == 0) return 0;
  if (t != TAV_FIPS_NOT_AVAILABLE) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - initTavlibEnv(): pTavEnvInit()\n");
    return t;
  }
  // The toolkit cannot work in FIPS mode here: once more without it.
  if (tav_fn.attribute_set_enum(env, TAV_FIPS_MODE_PROCESSING, TAV_FIPS_MODE_PROCESSING_OFF) != 0)
    LDAP_LOG(LDAP_LOG_ERROR, "Error - initTavlibEnv(): pTavAttributeSetEnum(TAV_FIPS_MODE_PROCESSING_OFF)\n");
  if (tav_fn.attribute_set_enum(env, TAV_SSL_FIPS_MODE, TAV_SSL_FIPS_MODE_PROCESSING_ON) != 0)
    LDAP_LOG(LDAP_LOG_ERROR, "Error - initTavlibEnv(): pTavAttributeSetEnum(TAV_SSL_FIPS_MODE_PROCESSING_ON)\n");
  if (pkcs11 != nullptr) {
    if (pkcs11->pkcs11_token_pwd != nullptr &&
        tav_fn.attribute_set_buffer(env, TAV_PKCS11_TOKEN_PWD, pkcs11->pkcs11_token_pwd, 0) != 0)
      LDAP_LOG(LDAP_LOG_ERROR, "Error - initTavlibEnv(): pTavAttributeSetBuffer(TAV_PKCS11_TOKEN_PWD)\n");
  } else if (pw != nullptr && *pw != '\0' && tav_fn.attribute_set_buffer(env, TAV_KEYRING_PW, pw, 0) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - initTavlibEnv(): pTavAttributeSetBuffer(TAV_KEYRING_PW)\n");
  }
  t = tav_fn.environment_init(env);
  if (t != 0) LDAP_LOG(LDAP_LOG_ERROR, "Error - initTavlibEnv(): pTavEnvInit()\n");
  return t;
}

int ldap_ssl_client_init_setup(const char *kdb, const char *pw, int timeout, int *tavrc, LDAP_PKCS11_PARMS *pkcs11) {
  ldap_debug_init();
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_ssl_client_init_setup\n");
  ldap_mutex_init_once();
  ldap_lock_ssl_env();
  int code = 0;
  int rc;
  if (ssl_init_count != 0) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_ssl_client_init_setup: Multiple calls have been made.  Attempt %d.\n",
             ssl_init_count);
    rc = LDAP_SSL_ALREADY_INITIALIZED;
  } else {
    rc = setup_environment(true, kdb, pw, timeout, &code, pkcs11);
  }
  ldap_unlock_ssl_env();
  if (tavrc != nullptr) *tavrc = code;
  return rc;
}

int ldap_ssl_environment_init_setup(const char *kdb, const char *pw, int timeout, int *tavrc,
                                    LDAP_PKCS11_PARMS *pkcs11) {
  if (tavrc != nullptr) *tavrc = 0;
  ldap_debug_init();
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_ssl_environment_init_setup\n");
  ldap_mutex_init_once();
  ldap_lock_ssl_env();
  int code = 0;
  int rc = setup_environment(false, kdb, pw, timeout, &code, pkcs11);
  ldap_unlock_ssl_env();
  if (tavrc != nullptr) *tavrc = code;
  return rc;
}

int ldap_ssl_client_init(const char *kdb, const char *pw, int timeout, int *tavrc) {
  return ldap_ssl_client_init_setup(kdb, pw, timeout, tavrc, nullptr);
}

int ldap_ssl_environment_init(const char *kdb, const char *pw, int timeout, int *tavrc) {
  return ldap_ssl_environment_init_setup(kdb, pw, timeout, tavrc, nullptr);
}

int ldap_ssl_pkcs11_client_init(const char *kdb, const char *pw, int timeout, int *tavrc, LDAP_PKCS11_PARMS *pkcs11) {
  ldap_debug_init();
  if (int rc = check_pkcs11(true, kdb, pkcs11); rc != 0) return rc;
  return ldap_ssl_client_init_setup(kdb, pw, timeout, tavrc, pkcs11);
}

int ldap_ssl_pkcs11_environment_init(const char *kdb, const char *pw, int timeout, int *tavrc,
                                     LDAP_PKCS11_PARMS *pkcs11) {
  ldap_debug_init();
  if (int rc = check_pkcs11(false, kdb, pkcs11); rc != 0) return rc;
  return ldap_ssl_environment_init_setup(kdb, pw, timeout, tavrc, pkcs11);
}

int ldap_ssl_set_fips_mode_np(int mode) {
  fips_flag.store(mode != 0 ? 1 : 0);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_ssl_set_fips_mode_np: FIPS mode=%d\n", mode != 0 ? 1 : 0);
  return 0;
}

int ldap_ssl_budget_spend(struct timeval *budget, struct timeval *last, const struct timeval *now) {
  struct timeval elapsed;
  if (!elapsed_since(now, last, &elapsed)) return 1;
  *last = *now;
  if (timercmp(&elapsed, budget, >)) return 1;
  timersub(budget, &elapsed, budget);
  return 0;
}

int ssl_set_socket_options(int fd, int command, char *user) {
  if (user != nullptr) {
    if (user_command(user) == command) return 0;
    char text[16];
    int n = snprintf(text, sizeof text, "%d", command);
    if (n < 0 || n > 7) return -1;
    memcpy(user, text, (size_t)n + 1);
  }
  if (command != kHandshakeIo && command != kNormalIo) return -1;
  int flags = fcntl(fd, F_GETFL);
  return fcntl(fd, F_SETFL, flags == -1 ? O_NONBLOCK : flags | O_NONBLOCK);
}

int ssl_read(int fd, void *buffer, int length, char *user) {
  LDAP_LOG(LDAP_LOG_NET, "ssl_read: -----> Entering ssl_read\n");
  if (!handshake_mode(user)) {
    LDAP_LOG(LDAP_LOG_NET, "ssl_read: <----- Leaving ssl_read\n");
    return (int)read(fd, buffer, (size_t)(length > 0 ? length : 0));
  }
  LDAP_LOG(LDAP_LOG_NET, "ssl_read: SSL handshake num_bytes=%d\n", length);
  struct timeval budget = {LDAP_SSL_HANDSHAKE_BUDGET_SEC, LDAP_SSL_HANDSHAKE_BUDGET_USEC};
  struct timeval last;
  monotonic_now(&last);
  char *at = static_cast<char *>(buffer);
  int done = 0;
  while (done < length) {
    ssize_t n = read(fd, at + done, (size_t)(length - done));
    if (n == 0) {
      LDAP_LOG(LDAP_LOG_NET, "ssl_read: <----- Leaving ssl_read rc=%d\n", 0);
      return 0;
    }
    if (n > 0) {
      done += (int)n;
      continue;
    }
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
      LDAP_LOG(LDAP_LOG_ERROR, "Error - ssl_read: in SSL handshake errno=%d EWOULDBLOCK=%d EAGAIN=%d\n", errno,
               EWOULDBLOCK, EAGAIN);
      LDAP_LOG(LDAP_LOG_NET, "ssl_read: rc=%d\n", -1);
      return -1;
    }
    struct timeval waited;
    int w = handshake_wait(fd, false, &budget, &last, "ssl_read", &waited);
    if (w < 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "ssl_read: Error select failed with INVALID_SOCKET: errno = %d \n", errno);
      LDAP_LOG(LDAP_LOG_NET, "ssl_read: rc=%d\n", -1);
      return -1;
    }
    if (w == 0) {
      LDAP_LOG(LDAP_LOG_NET, "ssl_read: rc=%d\n", -1);
      errno = EIO;
      return -1;
    }
    if (w == 2) {
      LDAP_LOG(LDAP_LOG_ERROR, "Error - ssl_read: select timed out after: %ld.%06ld sec\n", (long)waited.tv_sec,
               (long)waited.tv_usec);
      errno = EIO;
      return -1;
    }
    LDAP_LOG(LDAP_LOG_NET, "ssl_read: select returned rc=%d\n", w);
  }
  LDAP_LOG(LDAP_LOG_NET, "ssl_read: <----- Leaving ssl_read rc=%d\n", length);
  return length;
}

int ssl_write(int fd, const void *buffer, int length, char *user) {
  // send without SIGPIPE: the toolkit's close alert may go to a server that has already gone.
  if (!handshake_mode(user)) return (int)send(fd, buffer, (size_t)(length > 0 ? length : 0), MSG_NOSIGNAL);
  LDAP_LOG(LDAP_LOG_NET, "ssl_write: SSL handshake num_bytes=%d\n", length);
  struct timeval budget = {LDAP_SSL_HANDSHAKE_BUDGET_SEC, LDAP_SSL_HANDSHAKE_BUDGET_USEC};
  struct timeval last;
  monotonic_now(&last);
  const char *at = static_cast<const char *>(buffer);
  int done = 0;
  while (done < length) {
    ssize_t n = send(fd, at + done, (size_t)(length - done), MSG_NOSIGNAL);
    if (n >= 0) {
      done += (int)n;
      continue;
    }
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
      LDAP_LOG(LDAP_LOG_ERROR, "Error - ssl_write: in SSL handshake errno=%d EWOULDBLOCK=%d EAGAIN=%d\n", errno,
               EWOULDBLOCK, EAGAIN);
      LDAP_LOG(LDAP_LOG_NET, "ssl_write: rc=%d\n", -1);
      return -1;
    }
    struct timeval waited;
    int w = handshake_wait(fd, true, &budget, &last, "ssl_write", &waited);
    if (w < 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "Error - ssl_write: select failed: %d \n", errno);
      return -1;
    }
    if (w == 0) return -1;
    if (w == 2) {
      LDAP_LOG(LDAP_LOG_ERROR, "ssl_write: select timed out after: %ld.%06ld sec\n", (long)waited.tv_sec,
               (long)waited.tv_usec);
      errno = EIO;
      return -1;
    }
    LDAP_LOG(LDAP_LOG_NET, "ssl_write: select rc=%d\n", w);
  }
  LDAP_LOG(LDAP_LOG_NET, "ssl_write: <----- Leaving ssl_write rc=%d\n", length);
  return length;
}

int checkCiphers(const char *spec) {
  // No source of valid codes is built in; a build that has one sets it here.
  const char *valid = nullptr;
  LDAP_LOG(LDAP_LOG_TRACE, "In checkCiphers: validCipherString == <%s>, userString == <%s>.\n", valid ? valid : "null",
           spec ? spec : "null");
  if (valid == nullptr || spec == nullptr) return 0;
  size_t n = strlen(spec);
  for (size_t i = 0; i < n; i += 2) {
    if (i + 1 >= n) return LDAP_SSL_PARAM_ERROR;
    bool found = false;
    for (const char *v = valid; v[0] != '\0' && v[1] != '\0' && !found; v += 2)
      found = v[0] == spec[i] && v[1] == spec[i + 1];
    if (!found) return LDAP_SSL_PARAM_ERROR;
  }
  return 0;
}

const char *getSSLKeydatabase(tav_handle conn) {
  const char *v = nullptr;
  int t = tav_fn.attribute_get_buffer(conn, TAV_KEYRING_FILE, &v, nullptr);
  if (t != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - getSSLKeydatabase: tav_attribute_get_buffer(...kdb...) rc=%d %s\n", t,
             tav_error_text(t));
    return nullptr;
  }
  LDAP_LOG(LDAP_LOG_TRACE, "getSSLKeydatabase: current kdb=[ %s ]\n", v);
  return v;
}

const char *getSSLCipher(tav_handle conn) {
  const char *v = nullptr;
  int t = tav_fn.attribute_get_buffer(conn, TAV_CONNECT_CIPHER_SPEC, &v, nullptr);
  if (t != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - getSSLCipher: tav_attribute_get_buffer(...cipher...) rc=%d %s\n", t,
             tav_error_text(t));
    return nullptr;
  }
  LDAP_LOG(LDAP_LOG_TRACE, "getSSLCipher: current connect cipher=[ %s ]\n", v);
  return v;
}

const char *getSSLClientLabel(tav_handle conn) {
  const char *v = nullptr;
  int t = tav_fn.attribute_get_buffer(conn, TAV_KEYRING_LABEL, &v, nullptr);
  if (t != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - getSSLClientLabelr: tav_attribute_get_buffer(...label...) rc=%d %s\n", t,
             tav_error_text(t));
    return nullptr;
  }
  LDAP_LOG(LDAP_LOG_TRACE, "getSSLClientLabel: current client label=[ %s ]\n", v);
  return v;
}

char *getSSLCertAltName(tav_handle conn, int type) {
  const tav_cert_data_elem *elems = nullptr;
  int count = 0;
  int t = tav_fn.attribute_get_cert_info(conn, TAV_PARTNER_CERT_INFO, &elems, &count);
  if (t != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - getSSLCertAltName: tav_attribute_get_cert_info(...label...) rc=%d %s\n", t,
             tav_error_text(t));
    return nullptr;
  }
  LDAP_LOG(LDAP_LOG_TRACE, "getSSLCertAltName: server alt data=[ %p ]\n", (const void *)elems);
  for (int i = 0; i < count; ++i) {
    if (elems[i].cert_data_id != type) continue;
    char *copy = olx_strdup(elems[i].cert_data_p != nullptr ? elems[i].cert_data_p : "");
    if (copy == nullptr) LDAP_LOG(LDAP_LOG_ERROR, "Error - getSSLCertAltName: Unable to allocate memory\n");
    return copy;
  }
  return nullptr;
}

int open_ssl_connection(LDAP *ld, Sockbuf *sb) { return open_ssl_connection_to(ld, sb, nullptr); }

int ldap_ssl_hold_env(LDAP *ld) {
  ldap_lock_ssl_env();
  if (ld->ld_ssl_env == nullptr && current_env != nullptr && ssl_init_count > 0) {
    ld->ld_ssl_env = current_env;
    ++current_env->count;
  }
  const bool held = ld->ld_ssl_env != nullptr;
  ldap_unlock_ssl_env();
  return held ? 0 : LDAP_SSL_NOT_AVAILABLE;
}

int open_ssl_connection_to(LDAP *ld, Sockbuf *sb, const char *host) {
  if (tav_library.load(std::memory_order_acquire) == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR,
             "Error - open_ssl_connection(): Could not open ssl connection because Tavlib was not loaded\n");
    return LDAP_SSL_NOT_AVAILABLE;
  }
  tav_handle *cell = static_cast<tav_handle *>(olx_calloc(1, sizeof(tav_handle)));
  if (cell == nullptr) return LDAP_NO_MEMORY;
  sb->sb_ssl = cell;
  auto fail = [&](int rc) {
    if (*cell != nullptr) tav_fn.secure_soc_close(cell);
    free(cell);
    sb->sb_ssl = nullptr;
    return rc;
  };
  // The handshake's last flight and the first request are separate writes:
  // with Nagle on, the request waits for the server's delayed ACK.
  int one = 1;
  setsockopt(sb->sb_sd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  ldap_lock_ssl_env();
  TavEnvRef *ref = static_cast<TavEnvRef *>(ld->ld_ssl_env);
  ldap_unlock_ssl_env();
  int t = tav_fn.secure_soc_open(ref != nullptr ? ref->env : nullptr, cell);
  if (t != 0) {
    *cell = nullptr;
    LDAP_LOG(LDAP_LOG_ERROR, "Error - open_ssl_connection(): tav_secure_soc_open() rc=%d %s\n", t, tav_error_text(t));
    return fail(LDAP_SSL_INITIALIZE_FAILED);
  }
  LDAP_LOG(LDAP_LOG_TRACE, "open_ssl_connection(): set sd=%d\n", sb->sb_sd);
  if ((t = tav_fn.attribute_set_numeric_value(*cell, TAV_FD, sb->sb_sd)) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - open_ssl_connection(): tav_attribute_set_numeric() rc=%d %s\n", t,
             tav_error_text(t));
    return fail(LDAP_SSL_PARAM_ERROR);
  }
  if (ld->ld_ssl_cert_label != nullptr) {
    LDAP_LOG(LDAP_LOG_TRACE, "open_ssl_connection(): set certificate label to [%s]\n", ld->ld_ssl_cert_label);
    if ((t = tav_fn.attribute_set_buffer(*cell, TAV_KEYRING_LABEL, ld->ld_ssl_cert_label, 0)) != 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "Error - open_ssl_connection(): tav_attribute_set_buffer(...certlabel...) rc=%d.\n", t);
      return fail(t);
    }
  }
  LDAP_LOG(LDAP_LOG_TRACE, "open_ssl_connection(): ld->ld_ssl_cipher == <%s>.\n",
           ld->ld_ssl_cipher ? ld->ld_ssl_cipher : "null");
  if (ld->ld_ssl_cipher != nullptr &&
      (t = tav_fn.attribute_set_buffer(*cell, TAV_V3_CIPHER_SPECS, ld->ld_ssl_cipher, 0)) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - open_ssl_connection(): tav_attribute_set_buffer(...ciphers...) rc=%d %s\n", t,
             tav_error_text(t));
    return fail(LDAP_SSL_PARAM_ERROR);
  }
  if ((t = tav_fn.attribute_set_enum(*cell, TAV_PROTOCOL_SSLV2, TAV_PROTOCOL_SSLV2_OFF)) != 0)
    LDAP_LOG(LDAP_LOG_ERROR, "Error - open_ssl_connection(): tav_attribute_set_enum( SSLV2 OFF ) rc=%d %s\n", t,
             tav_error_text(t));
  // The server's name: sent as SNI and, unless the caller turned the check
  // off, required in its certificate.  Without a name the check fails.
  const bool check = ld->ld_ssl_no_host_check != 1;
  if (host != nullptr && *host != '\0' && (t = tav_fn.attribute_set_buffer(*cell, TAV_PEER_HOST_NAME, host, 0)) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - open_ssl_connection(): tav_attribute_set_buffer(...host...) rc=%d %s\n", t,
             tav_error_text(t));
    return fail(LDAP_SSL_PARAM_ERROR);
  }
  if (!check) {
    LDAP_LOG(LDAP_LOG_TRACE, "open_ssl_connection(): server name check is off\n");
    if ((t = tav_fn.attribute_set_enum(*cell, TAV_PEER_NAME_CHECK, TAV_PEER_NAME_CHECK_OFF)) != 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "Error - open_ssl_connection(): tav_attribute_set_enum(...name check...) rc=%d %s\n", t,
               tav_error_text(t));
      return fail(LDAP_SSL_PARAM_ERROR);
    }
  }
  t = guarded_handshake(*cell);
  if (t != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - open_ssl_connection(): tav_secure_soc_init() rc=%d %s\n", t, tav_error_text(t));
    int ext = LDAP_SSL_HANDSHAKE_FAILED;
    if (t == TAV_ERROR_HOST_MISMATCH) {
      // The extended error says why: the certificate is another server's.
      ext = TAV_ERROR_HOST_MISMATCH;
      if (ldap_trace_on()) {
        std::unique_ptr<char, decltype(&free)> alt(getSSLCertAltName(*cell, TAV_CERT_SUBJECT_ALT_NAMES), free);
        std::unique_ptr<char, decltype(&free)> cn(alt ? nullptr : getSSLCertAltName(*cell, TAV_CERT_COMMON_NAME), free);
        ldap_log(LDAP_LOG_ERROR,
                 "Error - open_ssl_connection(): server name mismatch: expected [%s], certificate names [%s]\n",
                 host != nullptr ? host : "",
                 alt  ? alt.get()
                 : cn ? cn.get()
                      : "");
      }
    }
    ldap_set_errno_direct(ld, LDAP_SSL_HANDSHAKE_FAILED, nullptr, nullptr);
    ldap_set_ext_errno(ld, ext);
    return fail(LDAP_SSL_HANDSHAKE_FAILED);
  }
  const char *cipher = nullptr;
  if (tav_fn.attribute_get_buffer(*cell, TAV_CONNECT_CIPHER_SPEC, &cipher, nullptr) == 0 && cipher != nullptr)
    LDAP_LOG(LDAP_LOG_TRACE, "In open_ssl_connection(): cipher used %c%c\n", cipher[0] ? cipher[0] : ' ',
             cipher[0] && cipher[1] ? cipher[1] : ' ');
  return 0;
}

void ssl_close_direct(Sockbuf *sb) {
  if (sb == nullptr || sb->sb_ssl == nullptr) return;
  tav_handle *cell = static_cast<tav_handle *>(sb->sb_ssl);
  int t = tav_fn.secure_soc_close(cell);
  if (t != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "In ssl_close_direct(): tav_secure_soc_close() rc=%d %s\n", t, tav_error_text(t));
    return;
  }
  free(cell);
  sb->sb_ssl = nullptr;
}

LDAP *ldap_ssl_init(const char *host, int port, const char *label) {
  ldap_mutex_init_once();
  ldap_lock_ssl_env();
  int count = ssl_init_count;
  ldap_unlock_ssl_env();
  if (count == 0) return nullptr;
  char *copy = nullptr;
  if (label != nullptr && (copy = olx_strdup(label)) == nullptr) return nullptr;
  LDAP *ld = ldap_init(host, port);
  if (ld == nullptr) {
    free(copy);
    return nullptr;
  }
  ld->ld_ssl_cert_label = copy;
  ld->ld_ssl = 1;
  ldap_lock_ssl_env();
  ld->ld_ssl_env = current_env;
  if (current_env != nullptr) ++current_env->count;
  ldap_unlock_ssl_env();
  return ld;
}

int ldap_ssl_start_direct(LDAP *ld, const char *kdb, const char *pw, const char *label) {
  if (ld == nullptr) return -1;
  int rc = ldap_ssl_client_init(kdb, pw, ld->ld_ssl_timeout, nullptr);
  LDAP_LOG(LDAP_LOG_TRACE, "In ldap_ssl_start_direct(): ldap_ssl_client_init() rc=%d\n", rc);
  if (rc != 0 && rc != LDAP_SSL_ALREADY_INITIALIZED) return rc;
  ldap_lock_ssl_env();
  // A session started twice holds one reference, on the current environment.
  TavEnvRef *previous = static_cast<TavEnvRef *>(ld->ld_ssl_env);
  ld->ld_ssl_env = current_env;
  if (current_env != nullptr) ++current_env->count;
  ldap_unlock_ssl_env();
  deleteTavEnvRef(previous);
  LDAPConn *lc = get_default_connection(ld);
  if (lc == nullptr) return LDAP_LOCK_ERROR;
  if (label != nullptr) {
    char *copy = olx_strdup(label);
    if (copy == nullptr) {
      ldap_set_errno_direct(ld, LDAP_NO_MEMORY, nullptr, nullptr);
      return LDAP_NO_MEMORY;
    }
    free(ld->ld_ssl_cert_label);
    ld->ld_ssl_cert_label = copy;
  }
  ld->ld_ssl = 1;
  // A connection not opened yet is made secure when it is opened.
  if (!__atomic_load_n(&lc->lc_connected, __ATOMIC_ACQUIRE) || lc->lc_sb.sb_ssl != nullptr) return 0;
  return open_ssl_connection_to(ld, &lc->lc_sb, lc->lc_peer_name);
}

int ldap_ssl_start(LDAP *ld, const char *kdb, const char *pw, const char *label) {
  LDAP_LOG(LDAP_LOG_TRACE, "In ldap_ssl_start(): this is a deprecated function.\n");
  if (ldap_start_operation(ld) != 0) return LDAP_PARAM_ERROR;
  int rc = ldap_ssl_start_direct(ld, kdb, pw, label);
  ldap_end_operation(ld);
  return rc;
}
}
