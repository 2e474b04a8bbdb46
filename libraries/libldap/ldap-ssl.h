// The security toolkit binding (loader, function table, shared environment)
// and secure connection I/O.
#ifndef TAV_LDAP_SSL_H
#define TAV_LDAP_SSL_H

#include <sys/time.h>

#include <atomic>
#include <cstdint>

#include "ldap-int.h"
#include "tav-visibility.h"
#include "tav_toolkit.h"

// The loader's record: one cell holding the platform's library handle.
typedef struct ldap_dl {
  void *handle;
} ldap_dl;

// The environment shared by sessions.  Count guarded by the SSL environment lock.
typedef struct TavEnvRef {
  uint32_t count;
  tav_handle env;
} TavEnvRef;

// The toolkit's functions, in the order they are resolved.
struct tav_function_table {
  int (*environment_open)(tav_handle *);
  int (*environment_close)(tav_handle *);
  int (*environment_init)(tav_handle);
  int (*secure_soc_open)(tav_handle, tav_handle *);
  int (*secure_soc_init)(tav_handle);
  int (*secure_soc_close)(tav_handle *);
  int (*secure_soc_read)(tav_handle, char *, int, int *);
  int (*secure_soc_write)(tav_handle, const char *, int, int *);
  int (*attribute_set_buffer)(tav_handle, int, const char *, int);
  int (*attribute_get_buffer)(tav_handle, int, const char **, int *);
  int (*attribute_set_callback)(tav_handle, int, void *);
  int (*attribute_get_cert_info)(tav_handle, int, const tav_cert_data_elem **, int *);
  int (*attribute_set_numeric_value)(tav_handle, int, int);
  int (*attribute_get_numeric_value)(tav_handle, int, int *);
  int (*attribute_set_enum)(tav_handle, int, int);
  int (*attribute_get_enum)(tav_handle, int, int *);
  const char *(*strerror)(int);
  int (*get_cert_by_label)(tav_handle, const char *, const tav_cert_data_elem **, int *);
};

// Written only while loading, under the SSL environment lock; the library
// record is published last, so whoever sees it loaded sees the table.
TAV_INTERNAL extern tav_function_table tav_fn;
TAV_INTERNAL extern std::atomic<ldap_dl *> tav_library;

// The handshake's time budget per callback call.
#define LDAP_SSL_HANDSHAKE_BUDGET_SEC 5
#define LDAP_SSL_HANDSHAKE_BUDGET_USEC 0

extern "C" {
// Loader.
TAV_INTERNAL ldap_dl *ldap_dlopen(const char *file, int flags);
TAV_INTERNAL void *ldap_dlsym(ldap_dl *lib, const char *symbol);
TAV_INTERNAL int ldap_dlclose(ldap_dl *lib);

// Toolkit library.
TAV_INTERNAL char *getTAVLibrary(void);
TAV_INTERNAL char *ldap_get_default_libpath(void);
TAV_INTERNAL int ldap_get_etc_file_path(const char *name, char sep, char **out);
TAV_INTERNAL int loadTlibShared(void);
TAV_INTERNAL int clearLoadTlib(const char *symbol);
TAV_INTERNAL const char *tav_error_text(int code);

// Environment.
TAV_INTERNAL int createTavEnvRef(void);
TAV_INTERNAL void deleteTavEnvRef(TavEnvRef *ref);
TAV_INTERNAL void freeTavEnvRef(TavEnvRef *ref);
TAV_INTERNAL TavEnvRef *ldap_ssl_current_env(void);
TAV_INTERNAL int ldap_ssl_init_count(void);
// SSL environment lock held: the current environment with one more
// reference (null when there is none).
TAV_INTERNAL TavEnvRef *ldap_ssl_env_ref_direct(void);
TAV_INTERNAL int ldap_ssl_guarded_handshake(tav_handle conn);
TAV_INTERNAL int prepare_tav_init_data(const char *kdb, const char *pw, int timeout, int *tavrc,
                                       LDAP_PKCS11_PARMS *pkcs11);
TAV_INTERNAL int initTavlibEnv(tav_handle env, const char *pw, LDAP_PKCS11_PARMS *pkcs11);
TAV_INTERNAL int ldap_ssl_client_init_setup(const char *kdb, const char *pw, int timeout, int *tavrc,
                                            LDAP_PKCS11_PARMS *pkcs11);
TAV_INTERNAL int ldap_ssl_environment_init_setup(const char *kdb, const char *pw, int timeout, int *tavrc,
                                                 LDAP_PKCS11_PARMS *pkcs11);

// Secure connections.
TAV_INTERNAL int open_ssl_connection(LDAP *ld, Sockbuf *sb);
// open_ssl_connection for a socket connected to `host` (a name or an address
// literal): the name the certificate must carry, and the SNI for a name.
TAV_INTERNAL int open_ssl_connection_to(LDAP *ld, Sockbuf *sb, const char *host);
// Makes the session hold the current SSL environment if it holds none yet
// (a plain session following an ldaps URL): 0, or 118 when SSL is not
// initialised.
TAV_INTERNAL int ldap_ssl_hold_env(LDAP *ld);
TAV_INTERNAL void ssl_close_direct(Sockbuf *sb);
TAV_INTERNAL int ssl_read(int fd, void *buffer, int length, char *user);
TAV_INTERNAL int ssl_write(int fd, const void *buffer, int length, char *user);
TAV_INTERNAL int ssl_set_socket_options(int fd, int command, char *user);
TAV_INTERNAL int checkCiphers(const char *spec);
TAV_INTERNAL const char *getSSLKeydatabase(tav_handle conn);
TAV_INTERNAL const char *getSSLCipher(tav_handle conn);
TAV_INTERNAL const char *getSSLClientLabel(tav_handle conn);
TAV_INTERNAL char *getSSLCertAltName(tav_handle conn, int type);
TAV_INTERNAL int ldap_ssl_start_direct(LDAP *ld, const char *kdb, const char *pw, const char *label);
// Takes the time since *last off *budget: 0 while budget is left, 1 when it
// is used up (also when the clock went back).  *last becomes now.
TAV_INTERNAL int ldap_ssl_budget_spend(struct timeval *budget, struct timeval *last, const struct timeval *now);
}

#endif
