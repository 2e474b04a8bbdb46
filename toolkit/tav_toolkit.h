// The security toolkit's C interface: the functions the LDAP library resolves
// by name at run time, the attribute identifiers and values they exchange,
// the I/O callback record and the return codes.  Shared by the toolkit, its
// key database tool and the LDAP library (which only uses the types).
#ifndef TAV_TOOLKIT_H
#define TAV_TOOLKIT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef void *tav_handle;

// Attribute identifiers.
enum {
  TAV_KEYRING_FILE = 201,   // environment: key database file (connection: read only)
  TAV_KEYRING_PW = 202,     // environment: key database password
  TAV_KEYRING_LABEL = 203,  // connection: client certificate label
  TAV_KEYRING_STASH_FILE = 204,
  TAV_V3_CIPHER_SPECS = 206,      // connection: two-character cipher codes
  TAV_CONNECT_CIPHER_SPEC = 207,  // connection: code of the cipher in use
  TAV_PKCS11_DRIVER_PATH = 213,
  TAV_PKCS11_TOKEN_LABEL = 214,
  TAV_PKCS11_TOKEN_PWD = 215,
  // Our extension, connection: the server's host name or address as the
  // caller connected to it.  A name is sent as SNI; with the name check on,
  // the certificate must match it.  Resumed sessions are keyed by it.
  TAV_PEER_HOST_NAME = 250,
  // Our extensions, connection, read only once established: what was
  // negotiated (OpenSSL's names), for diagnostics and benchmarks.
  TAV_CONNECT_PROTOCOL = 251,     // "TLSv1.3"
  TAV_CONNECT_CIPHER_NAME = 252,  // "TLS_AES_256_GCM_SHA384"
  TAV_CONNECT_GROUP = 253,        // key exchange group, "x25519"; empty when none was negotiated
  TAV_CONNECT_RESUMED = 254,      // numeric: 1 when the session was resumed
  TAV_FD = 300,                  // connection: socket descriptor
  TAV_V3_SESSION_TIMEOUT = 302,  // environment: session cache time-out (s)
  TAV_PROTOCOL_SSLV2 = 403,
  TAV_SESSION_TYPE = 407,
  TAV_FIPS_MODE_PROCESSING = 415,
  TAV_BASE_CRYPTO_LIBRARY = 416,
  TAV_PKCS11_ACCELERATOR_MODE = 417,
  TAV_PEER_NAME_CHECK = 418,  // our extension, connection: TAV_PEER_NAME_CHECK_ON (default) or _OFF
  TAV_SSL_FIPS_MODE = 420,
  TAV_PARTNER_CERT_INFO = 700,  // connection: the server certificate's data
  TAV_IO_CALLBACK = 800,
};

// Enumeration values.
enum {
  TAV_PROTOCOL_SSLV2_OFF = 511,
  TAV_CLIENT_SESSION = 518,
  TAV_FIPS_MODE_PROCESSING_ON = 544,
  TAV_FIPS_MODE_PROCESSING_OFF = 545,
  TAV_BASE_CRYPTO_KCL = 547,
  TAV_ACCELERATOR_NCIPHER_ON = 549,
  TAV_ACCELERATOR_RSA_ON = 551,
  TAV_ACCELERATOR_SYMMETRIC_ON = 553,
  TAV_SSL_FIPS_MODE_PROCESSING_ON = 573,
  TAV_PEER_NAME_CHECK_ON = 574,
  TAV_PEER_NAME_CHECK_OFF = 575,
};

// Server certificate data element types (TAV_PARTNER_CERT_INFO).
enum {
  TAV_CERT_SERIAL_NUMBER = 602,
  TAV_CERT_COMMON_NAME = 610,
  TAV_CERT_DN_PRINTABLE = 616,
  TAV_CERT_ISSUER_DN_PRINTABLE = 640,
  TAV_CERT_SUBJECT_ALT_NAMES = 673,
};

// Socket-options callback commands.
enum { TAV_SOC_HANDSHAKE_IO = 900, TAV_SOC_NORMAL_IO = 901 };

typedef struct tav_cert_data_elem {
  int32_t cert_data_id;  // in an 8-byte slot
  char *cert_data_p;     // NUL-terminated
  int64_t cert_data_l;   // length without the NUL
} tav_cert_data_elem;

// The user string is an 8-byte buffer per connection, kept by the toolkit.
typedef int (*tav_read_cb)(int fd, void *buffer, int length, char *user);
typedef int (*tav_write_cb)(int fd, const void *buffer, int length, char *user);
typedef int (*tav_socket_options_cb)(int fd, int command, char *user);
typedef struct tav_iocallback {
  tav_read_cb io_read;
  tav_write_cb io_write;
  void *unused3;
  tav_socket_options_cb io_setsocketoptions;
  void *unused5;
  void *unused6;
} tav_iocallback;

// Return codes (texts from tav_strerror).
enum {
  TAV_OK = 0,
  TAV_INVALID_HANDLE = 1,
  TAV_INTERNAL_ERROR = 3,
  TAV_INSUFFICIENT_STORAGE = 4,
  TAV_INVALID_STATE = 5,
  TAV_KEY_LABEL_NOT_FOUND = 6,
  TAV_ERROR_VALIDATING_CERT = 8,
  TAV_KEYFILE_IO_ERROR = 102,
  TAV_KEYFILE_INVALID_FORMAT = 103,
  TAV_KEYFILE_DUPLICATE_LABEL = 105,
  TAV_KEYFILE_BAD_FORMAT_OR_PW = 106,
  TAV_NO_PASSWORD_NOR_STASH = 201,
  TAV_KEYRING_OPEN_ERROR = 202,
  TAV_FIPS_NOT_AVAILABLE = 207,
  TAV_ERROR_BAD_DATE = 401,
  TAV_ERROR_NO_CIPHERS = 402,
  TAV_ERROR_NO_CERTIFICATE = 403,
  TAV_ERROR_IO = 406,
  TAV_ERROR_BAD_KEYFILE_LABEL = 407,
  TAV_ERROR_BAD_MESSAGE = 410,
  TAV_ERROR_BAD_MAC = 411,
  TAV_ERROR_BAD_CERT_SIG = 413,
  TAV_ERROR_BAD_CERT = 414,
  TAV_ERROR_SELF_SIGNED = 417,
  TAV_ERROR_NO_READ_FUNCTION = 418,
  TAV_ERROR_NO_WRITE_FUNCTION = 419,
  TAV_ERROR_SOCKET_CLOSED = 420,
  TAV_ERROR_BAD_V3_CIPHER = 422,
  TAV_ERROR_INIT_FAILED = 426,
  TAV_ERROR_NO_PRIVATE_KEY = 428,
  TAV_PKCS11_LIBRARY_NOT_LOADED = 429,
  TAV_ERROR_HOST_MISMATCH = 434,  // our extension: the certificate is not the named server's
  TAV_WOULD_BLOCK = 502,
  TAV_INVALID_ATTRIBUTE = 701,
  TAV_INVALID_LENGTH = 702,
  TAV_INVALID_ENUMERATION = 703,
  TAV_INVALID_NUMERIC_VALUE = 705,
};

int tav_environment_open(tav_handle *env);
int tav_environment_close(tav_handle *env);
int tav_environment_init(tav_handle env);
int tav_secure_soc_open(tav_handle env, tav_handle *conn);
int tav_secure_soc_init(tav_handle conn);
int tav_secure_soc_close(tav_handle *conn);
// A null buffer asks how many decrypted bytes are waiting (in *count).
int tav_secure_soc_read(tav_handle conn, char *buffer, int length, int *count);
int tav_secure_soc_write(tav_handle conn, const char *buffer, int length, int *count);
// A length of 0 means a NUL-terminated value.
int tav_attribute_set_buffer(tav_handle h, int id, const char *buffer, int length);
// The string stays owned by the toolkit (valid until the handle is changed or closed).
int tav_attribute_get_buffer(tav_handle h, int id, const char **buffer, int *length);
int tav_attribute_set_callback(tav_handle h, int id, void *callback);
int tav_attribute_get_cert_info(tav_handle h, int id, const tav_cert_data_elem **elems, int *count);
int tav_attribute_set_numeric_value(tav_handle h, int id, int value);
int tav_attribute_get_numeric_value(tav_handle h, int id, int *value);
int tav_attribute_set_enum(tav_handle h, int id, int value);
int tav_attribute_get_enum(tav_handle h, int id, int *value);
const char *tav_strerror(int code);
// The data of the key database certificate with this label (after init).
int tav_get_cert_by_label(tav_handle env, const char *label, const tav_cert_data_elem **elems, int *count);

#ifdef __cplusplus
}
#endif

#endif
