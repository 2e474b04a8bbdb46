// The shared SSL environment: creating, preparing and counting it, the
// set-up calls, and the guard the handshake runs under (a toolkit that
// aborts must not take the process with it).  Connections are in
// ldap_ssl_conn.cpp, the toolkit's I/O callbacks in ldap_ssl_io.cpp.
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

}  // namespace

extern "C" {

TavEnvRef *ldap_ssl_current_env(void) { return current_env; }
int ldap_ssl_init_count(void) { return ssl_init_count; }

TavEnvRef *ldap_ssl_env_ref_direct(void) {
  if (current_env != nullptr) ++current_env->count;
  return current_env;
}

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

// The handshake; 414 when the toolkit aborted instead of returning.
int ldap_ssl_guarded_handshake(tav_handle conn) { return guarded_handshake(conn); }
}
