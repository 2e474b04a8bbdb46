// The security toolkit on OpenSSL: an environment (key database, trust
// anchors, session cache) and secure connections whose every socket read and
// write goes through the caller's I/O callbacks.
#include "tav_toolkit.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/provider.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "keydb.h"

#define TAV_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

constexpr uint32_t kEnvMagic = 0x54454e56;   // "TENV"
constexpr uint32_t kConnMagic = 0x54434f4e;  // "TCON"

// Two-character cipher codes.  The hexadecimal ones are the low byte of the
// TLS cipher suite number of the classic RSA suites; E* are ECDHE suites and
// T* the TLS 1.3 suites.
struct CipherCode {
  char code[3];
  const char *name;  // OpenSSL's name
  bool tls13;
};
const CipherCode kCiphers[] = {
    {"2F", "AES128-SHA", false},
    {"35", "AES256-SHA", false},
    {"3C", "AES128-SHA256", false},
    {"3D", "AES256-SHA256", false},
    {"9C", "AES128-GCM-SHA256", false},
    {"9D", "AES256-GCM-SHA384", false},
    {"E1", "ECDHE-RSA-AES128-GCM-SHA256", false},
    {"E2", "ECDHE-RSA-AES256-GCM-SHA384", false},
    {"E3", "ECDHE-ECDSA-AES128-GCM-SHA256", false},
    {"E4", "ECDHE-ECDSA-AES256-GCM-SHA384", false},
    {"E5", "ECDHE-RSA-CHACHA20-POLY1305", false},
    {"E6", "ECDHE-RSA-AES128-SHA256", false},
    {"E7", "ECDHE-RSA-AES256-SHA384", false},
    {"T1", "TLS_AES_128_GCM_SHA256", true},
    {"T2", "TLS_AES_256_GCM_SHA384", true},
    {"T3", "TLS_CHACHA20_POLY1305_SHA256", true},
    {"T4", "TLS_AES_128_CCM_SHA256", true},
    {"T5", "TLS_AES_128_CCM_8_SHA256", true},
};

const CipherCode *cipher_by_code(const char *two) {
  for (const CipherCode &c : kCiphers)
    if (c.code[0] == two[0] && c.code[1] == two[1]) return &c;
  return nullptr;
}

struct Env {
  uint32_t magic = kEnvMagic;
  std::string kdb, password, stash, pkcs11_path, token_label, token_pw;
  bool have_password = false;
  int timeout = 43200;
  int session_type = 0, fips = TAV_FIPS_MODE_PROCESSING_OFF, base_crypto = 0, ssl_fips = 0, accel = 0;
  tav_iocallback cb{};
  bool initialised = false;
  SSL_CTX *ctx = nullptr;
  tavtk::KeyDb keys;
  std::mutex session_mu;
  // Sessions for resumption, each offered only to the server that issued it:
  // keyed by host, port and what the client presented (see session_key).
  std::map<std::string, SSL_SESSION *> sessions;  // session_mu
  std::mutex info_mu;
  std::map<std::string, std::pair<std::vector<std::string>, std::vector<tav_cert_data_elem>>> label_info;  // info_mu
};

struct Conn {
  uint32_t magic = kConnMagic;
  Env *env = nullptr;
  int fd = -1;
  std::string label, cipher_spec, cipher_code;
  std::string protocol, cipher_name, group;  // as negotiated
  bool resumed = false;
  std::string peer_host;  // TAV_PEER_HOST_NAME
  bool name_check = true;
  std::string session_key;  // empty: nothing is resumed or kept
  char user[8] = {0};
  SSL *ssl = nullptr;
  std::mutex mu;  // one SSL call at a time: reads and writes come from different threads
  bool established = false;
  bool eof = false;
  int io_errno = 0;
  std::vector<std::string> info_values;
  std::vector<tav_cert_data_elem> info;
};

Env *as_env(tav_handle h) {
  auto *e = static_cast<Env *>(h);
  return e != nullptr && e->magic == kEnvMagic ? e : nullptr;
}
Conn *as_conn(tav_handle h) {
  auto *c = static_cast<Conn *>(h);
  return c != nullptr && c->magic == kConnMagic ? c : nullptr;
}

// ---- the BIO that reads and writes through the caller's callbacks ----

int bio_write(BIO *b, const char *data, int len) {
  Conn *c = static_cast<Conn *>(BIO_get_data(b));
  BIO_clear_retry_flags(b);
  errno = 0;
  int n = c->env->cb.io_write(c->fd, data, len, c->user);
  if (n > 0) return n;
  if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
    BIO_set_retry_write(b);
    return -1;
  }
  c->io_errno = errno != 0 ? errno : EIO;
  return -1;
}

int bio_read(BIO *b, char *data, int len) {
  Conn *c = static_cast<Conn *>(BIO_get_data(b));
  BIO_clear_retry_flags(b);
  errno = 0;
  int n = c->env->cb.io_read(c->fd, data, len, c->user);
  if (n > 0) return n;
  if (n == 0) {
    c->eof = true;
    return 0;
  }
  if (errno == EAGAIN || errno == EWOULDBLOCK) {
    BIO_set_retry_read(b);
    return -1;
  }
  c->io_errno = errno != 0 ? errno : EIO;
  return -1;
}

long bio_ctrl(BIO *b, int cmd, long, void *) {
  switch (cmd) {
    case BIO_CTRL_FLUSH:
      return 1;
    case BIO_CTRL_EOF:
      return static_cast<Conn *>(BIO_get_data(b))->eof ? 1 : 0;
    default:
      return 0;
  }
}

int bio_create(BIO *b) {
  BIO_set_init(b, 1);
  return 1;
}

BIO_METHOD *callback_method() {
  static BIO_METHOD *method = [] {
    BIO_METHOD *m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "tav callbacks");
    if (m != nullptr) {
      BIO_meth_set_write(m, bio_write);
      BIO_meth_set_read(m, bio_read);
      BIO_meth_set_ctrl(m, bio_ctrl);
      BIO_meth_set_create(m, bio_create);
    }
    return m;
  }();
  return method;
}

// ---- certificate information elements ----

std::string name_text(const X509_NAME *name) {
  BIO *mem = BIO_new(BIO_s_mem());
  if (mem == nullptr) return {};
  X509_NAME_print_ex(mem, name, 0, XN_FLAG_RFC2253);
  char *p = nullptr;
  long n = BIO_get_mem_data(mem, &p);
  std::string s(p != nullptr ? p : "", n > 0 ? (size_t)n : 0);
  BIO_free(mem);
  return s;
}

std::string common_name(const X509_NAME *name) {
  int i = X509_NAME_get_index_by_NID(name, NID_commonName, -1);
  if (i < 0) return {};
  const ASN1_STRING *s = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, i));
  unsigned char *utf8 = nullptr;
  int n = ASN1_STRING_to_UTF8(&utf8, s);
  std::string out = n > 0 ? std::string(reinterpret_cast<char *>(utf8), (size_t)n) : "";
  OPENSSL_free(utf8);
  return out;
}

// DNS names and IP addresses of the subject alternative name, comma-separated.
std::string alt_names(X509 *cert) {
  auto *names = static_cast<GENERAL_NAMES *>(X509_get_ext_d2i(cert, NID_subject_alt_name, nullptr, nullptr));
  std::string out;
  for (int i = 0; names != nullptr && i < sk_GENERAL_NAME_num(names); ++i) {
    const GENERAL_NAME *g = sk_GENERAL_NAME_value(names, i);
    std::string one;
    if (g->type == GEN_DNS) {
      one.assign(reinterpret_cast<const char *>(ASN1_STRING_get0_data(g->d.dNSName)),
                 (size_t)ASN1_STRING_length(g->d.dNSName));
    } else if (g->type == GEN_IPADD && ASN1_STRING_length(g->d.iPAddress) == 4) {
      const unsigned char *a = ASN1_STRING_get0_data(g->d.iPAddress);
      one = std::to_string(a[0]) + "." + std::to_string(a[1]) + "." + std::to_string(a[2]) + "." + std::to_string(a[3]);
    } else {
      continue;
    }
    if (!out.empty()) out += ",";
    out += one;
  }
  GENERAL_NAMES_free(names);
  return out;
}

void cert_info(X509 *cert, std::vector<std::string> *values, std::vector<tav_cert_data_elem> *elems) {
  values->clear();
  elems->clear();
  std::vector<std::pair<int, std::string>> items;
  BIGNUM *serial = ASN1_INTEGER_to_BN(X509_get0_serialNumber(cert), nullptr);
  char *hex = serial != nullptr ? BN_bn2hex(serial) : nullptr;
  items.emplace_back(TAV_CERT_SERIAL_NUMBER, hex != nullptr ? hex : "");
  OPENSSL_free(hex);
  BN_free(serial);
  items.emplace_back(TAV_CERT_COMMON_NAME, common_name(X509_get_subject_name(cert)));
  items.emplace_back(TAV_CERT_DN_PRINTABLE, name_text(X509_get_subject_name(cert)));
  items.emplace_back(TAV_CERT_ISSUER_DN_PRINTABLE, name_text(X509_get_issuer_name(cert)));
  std::string alt = alt_names(cert);
  if (!alt.empty()) items.emplace_back(TAV_CERT_SUBJECT_ALT_NAMES, alt);
  values->reserve(items.size());
  for (auto &[id, v] : items) values->push_back(v);
  for (size_t i = 0; i < items.size(); ++i)
    elems->push_back({items[i].first, (*values)[i].data(), (int64_t)(*values)[i].size()});
}

// ---- handshake outcome ----

int verify_code(long result) {
  switch (result) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
    case X509_V_ERR_CERT_NOT_YET_VALID:
    case X509_V_ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD:
    case X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD:
      return TAV_ERROR_BAD_DATE;
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
      return TAV_ERROR_SELF_SIGNED;
    // The chain ends at a root that is not among the trust anchors.
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
      return TAV_ERROR_VALIDATING_CERT;
    case X509_V_ERR_CERT_SIGNATURE_FAILURE:
      return TAV_ERROR_BAD_CERT_SIG;
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
      return TAV_ERROR_HOST_MISMATCH;
    default:
      return TAV_ERROR_BAD_CERT;
  }
}

int handshake_failure(Conn *c, int ssl_error) {
  long verify = SSL_get_verify_result(c->ssl);
  // The caller may want to say what the refused server presented.
  if (X509 *peer = SSL_get0_peer_certificate(c->ssl)) cert_info(peer, &c->info_values, &c->info);
  unsigned long e = ERR_peek_error();
  ERR_clear_error();
  if (verify != X509_V_OK) return verify_code(verify);
  if (e == 0 || ERR_GET_LIB(e) != ERR_LIB_SSL) {
    if (c->io_errno != 0 || ssl_error == SSL_ERROR_SYSCALL) return c->eof ? TAV_ERROR_SOCKET_CLOSED : TAV_ERROR_IO;
    return c->eof ? TAV_ERROR_SOCKET_CLOSED : TAV_ERROR_BAD_MESSAGE;
  }
  switch (ERR_GET_REASON(e)) {
    case SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE:
    case SSL_R_NO_CIPHERS_AVAILABLE:
    case SSL_R_NO_SHARED_CIPHER:
      return TAV_ERROR_NO_CIPHERS;
    case SSL_R_TLSV13_ALERT_CERTIFICATE_REQUIRED:
    case SSL_R_SSLV3_ALERT_BAD_CERTIFICATE:
      return TAV_ERROR_NO_CERTIFICATE;
    case SSL_R_UNEXPECTED_EOF_WHILE_READING:
      return TAV_ERROR_SOCKET_CLOSED;
    case SSL_R_DECRYPTION_FAILED_OR_BAD_RECORD_MAC:
      return TAV_ERROR_BAD_MAC;
    default:
      return TAV_ERROR_BAD_MESSAGE;
  }
}

constexpr size_t kMaxSessions = 256;

int new_session(SSL *ssl, SSL_SESSION *session) {
  Conn *c = static_cast<Conn *>(SSL_get_app_data(ssl));
  if (c == nullptr || c->session_key.empty() || SSL_SESSION_is_resumable(session) == 0) return 0;
  std::lock_guard<std::mutex> lock(c->env->session_mu);
  auto &sessions = c->env->sessions;
  auto it = sessions.find(c->session_key);
  if (it != sessions.end()) {
    SSL_SESSION_free(it->second);
    it->second = session;
    return 1;  // the reference is ours now
  }
  if (sessions.size() >= kMaxSessions) {  // a bound on memory; any one may go
    SSL_SESSION_free(sessions.begin()->second);
    sessions.erase(sessions.begin());
  }
  sessions.emplace(c->session_key, session);
  return 1;
}

bool is_address(const std::string &host) {
  unsigned char buf[16];
  return inet_pton(AF_INET, host.c_str(), buf) == 1 || inet_pton(AF_INET6, host.c_str(), buf) == 1;
}

// What a resumed session must agree on: the server (its name as the caller
// gave it and the port the socket is connected to) and what the client
// presented or required.  The trust anchors belong to the environment, which
// holds the cache.
std::string session_key(const Conn *c) {
  if (c->peer_host.empty()) return {};
  sockaddr_storage peer{};
  socklen_t len = sizeof peer;
  int port = -1;
  if (getpeername(c->fd, reinterpret_cast<sockaddr *>(&peer), &len) == 0) {
    if (peer.ss_family == AF_INET) port = ntohs(reinterpret_cast<sockaddr_in *>(&peer)->sin_port);
    if (peer.ss_family == AF_INET6) port = ntohs(reinterpret_cast<sockaddr_in6 *>(&peer)->sin6_port);
  }
  if (port < 0) return {};
  std::string key = c->peer_host;
  key += '\n';
  key += std::to_string(port);
  key += '\n';
  key += c->label;
  key += '\n';
  key += c->cipher_spec;
  key += c->name_check ? "\ncheck" : "\nnocheck";
  return key;
}

// Server name: SNI for a host name, and, with the check on, the name or
// address the certificate must carry (subjectAltName; the common name only
// when there is no DNS name; a wildcard only as the whole left-most label).
bool apply_peer_name(Conn *c) {
  const std::string &host = c->peer_host;
  const bool address = is_address(host);
  if (!host.empty() && !address && SSL_set_tlsext_host_name(c->ssl, host.c_str()) != 1) return false;
  if (!c->name_check) return true;
  X509_VERIFY_PARAM *param = SSL_get0_param(c->ssl);
  X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  if (address) return X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str()) == 1;
  return X509_VERIFY_PARAM_set1_host(param, host.c_str(), host.size()) == 1;
}

bool apply_cipher_spec(SSL *ssl, const std::string &spec) {
  if (spec.empty()) return true;
  std::string v12, v13;
  for (size_t i = 0; i + 1 < spec.size(); i += 2) {
    const CipherCode *c = cipher_by_code(spec.data() + i);
    std::string &list = c->tls13 ? v13 : v12;
    if (!list.empty()) list += ":";
    list += c->name;
  }
  // A specification with codes of one protocol version only keeps to it.
  if (v12.empty()) return SSL_set_min_proto_version(ssl, TLS1_3_VERSION) && SSL_set_ciphersuites(ssl, v13.c_str());
  if (v13.empty()) return SSL_set_max_proto_version(ssl, TLS1_2_VERSION) && SSL_set_cipher_list(ssl, v12.c_str());
  return SSL_set_cipher_list(ssl, v12.c_str()) && SSL_set_ciphersuites(ssl, v13.c_str());
}

bool valid_cipher_spec(const char *spec, size_t n) {
  if (n % 2 != 0) return false;
  for (size_t i = 0; i < n; i += 2)
    if (cipher_by_code(spec + i) == nullptr) return false;
  return true;
}

int env_set_buffer(Env *e, int id, const std::string &v) {
  switch (id) {
    case TAV_KEYRING_FILE:
      // Opened when the environment is initialised, where a missing file is
      // reported (202), as a toolkit that reads its files then does.
      e->kdb = v;
      return 0;
    case TAV_KEYRING_PW:
      OPENSSL_cleanse(e->password.data(), e->password.size());
      e->password = v;
      e->have_password = true;
      return 0;
    case TAV_KEYRING_STASH_FILE:
      if (access(v.c_str(), R_OK) != 0) return TAV_NO_PASSWORD_NOR_STASH;
      e->stash = v;
      return 0;
    case TAV_PKCS11_DRIVER_PATH:
      e->pkcs11_path = v;
      return 0;
    case TAV_PKCS11_TOKEN_LABEL:
      e->token_label = v;
      return 0;
    case TAV_PKCS11_TOKEN_PWD:
      e->token_pw = v;
      return 0;
    default:
      return TAV_INVALID_ATTRIBUTE;
  }
}

int conn_set_buffer(Conn *c, int id, const std::string &v) {
  switch (id) {
    case TAV_KEYRING_LABEL: {
      const tavtk::KeyEntry *k = c->env->keys.find(v);
      if (k == nullptr) return TAV_KEY_LABEL_NOT_FOUND;
      if (k->key == nullptr) return TAV_ERROR_BAD_KEYFILE_LABEL;
      c->label = v;
      return 0;
    }
    case TAV_V3_CIPHER_SPECS:
      if (!valid_cipher_spec(v.data(), v.size())) return TAV_ERROR_BAD_V3_CIPHER;
      c->cipher_spec = v;
      return 0;
    case TAV_PEER_HOST_NAME:
      if (v.empty() || v.find('\0') != std::string::npos) return TAV_INVALID_LENGTH;
      c->peer_host = v;
      return 0;
    default:
      return TAV_INVALID_ATTRIBUTE;
  }
}

constexpr const char *kDefaultTls12Suites = "ECDHE+AESGCM:ECDHE+CHACHA20:DHE+AESGCM:DHE+CHACHA20:!aNULL";
constexpr const char *kDefaultTls13Suites =
    "TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256:TLS_AES_128_GCM_SHA256";

int build_context(Env *e) {
  SSL_CTX *ctx = SSL_CTX_new(TLS_client_method());
  if (ctx == nullptr) return TAV_ERROR_INIT_FAILED;
  SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
  SSL_CTX_set_options(ctx, SSL_OP_NO_RENEGOTIATION);
  // Forward-secret AEAD suites only, unless a connection's cipher
  // specification asks for others.
  if (SSL_CTX_set_cipher_list(ctx, kDefaultTls12Suites) != 1 ||
      SSL_CTX_set_ciphersuites(ctx, kDefaultTls13Suites) != 1) {
    SSL_CTX_free(ctx);
    ERR_clear_error();
    return TAV_ERROR_INIT_FAILED;
  }
  SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  // Room for several records per read once reading ahead (see tav_secure_soc_init).
  SSL_CTX_set_default_read_buffer_len(ctx, 64 * 1024);
  // Only the key database's trust anchors vouch for a server.
  SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
  X509_STORE *store = SSL_CTX_get_cert_store(ctx);
  for (const tavtk::KeyEntry &k : e->keys.entries)
    if (k.key == nullptr && X509_STORE_add_cert(store, k.cert) != 1) {
      SSL_CTX_free(ctx);
      ERR_clear_error();
      return TAV_ERROR_INIT_FAILED;
    }
  SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL_STORE);
  SSL_CTX_sess_set_new_cb(ctx, new_session);
  SSL_CTX_set_timeout(ctx, e->timeout);
  e->ctx = ctx;
  return 0;
}

const std::map<int, const char *> &error_texts() {
  static const std::map<int, const char *> texts = {
      {0, "Success"},
      {1, "Invalid handle"},
      {2, "API not available"},
      {3, "Internal error"},
      {4, "Insufficient storage"},
      {5, "Invalid state"},
      {6, "Key label not found"},
      {7, "Certificate not available"},
      {8, "Error validating certificate"},
      {9, "Error encrypting/decrypting"},
      {10, "ASN encoding error"},
      {11, "LDAP error"},
      {12, "Unknown error"},
      {101, "Open cipher error"},
      {102, "Keyfile I/O error"},
      {103, "Keyfile invalid format"},
      {104, "Keyfile duplicate key"},
      {105, "Keyfile duplicate label"},
      {106, "Bad format or invalid password"},
      {107, "Keyfile certificate expired"},
      {108, "Error loading LDAP library"},
      {109, "Pending close error"},
      {201, "No password nor stash file"},
      {202, "Keyring file open error"},
      {203, "RSA temporary key pair"},
      {204, "LDAP no such object"},
      {205, "LDAP invalid credentials"},
      {206, "Bad index"},
      {207, "FIPS mode not available"},
      {301, "Close failed"},
      {401, "Bad date"},
      {402, "No ciphers"},
      {403, "No certificate"},
      {404, "Bad certificate"},
      {405, "Unsupported certificate type"},
      {406, "I/O error"},
      {407, "Bad keyfile label"},
      {408, "Bad keyfile password"},
      {409, "Bad key length for export"},
      {410, "Bad message"},
      {411, "Bad MAC"},
      {412, "Unsupported"},
      {413, "Bad certificate signature"},
      {414, "Bad certificate"},
      {415, "Bad peer"},
      {416, "Permission denied"},
      {417, "Self-signed error"},
      {418, "No read function"},
      {419, "No write function"},
      {420, "Socket closed"},
      {421, "Bad V2 cipher"},
      {422, "Bad V3 cipher"},
      {423, "Bad security type"},
      {424, "Bad security type combination"},
      {425, "Handle creation failed"},
      {426, "Initialization failed"},
      {427, "LDAP not available"},
      {428, "No private key"},
      {429, "PKCS11 library not loaded"},
      {430, "PKCS11 token label mismatch"},
      {431, "PKCS11 token not present"},
      {432, "PKCS11 token bad password"},
      {433, "Invalid V2 header"},
      {434, "Certificate does not match the server's name"},
      {501, "Invalid buffer size"},
      {502, "Would block"},
      {601, "Not SSL V3"},
      {602, "Miscellaneous invalid ID"},
      {701, "Invalid attribute"},
      {702, "Invalid length"},
      {703, "Invalid enumeration"},
      {704, "Invalid session ID (SID) cache"},
      {705, "Invalid numeric value"},
      {706, "Invalid setting"},
  };
  return texts;
}

}  // namespace

TAV_EXPORT int tav_environment_open(tav_handle *env) {
  if (env == nullptr) return TAV_INVALID_HANDLE;
  *env = new (std::nothrow) Env;
  return *env != nullptr ? 0 : TAV_INSUFFICIENT_STORAGE;
}

TAV_EXPORT int tav_environment_close(tav_handle *env) {
  Env *e = env != nullptr ? as_env(*env) : nullptr;
  if (e == nullptr) return TAV_INVALID_HANDLE;
  for (auto &[key, session] : e->sessions) SSL_SESSION_free(session);
  SSL_CTX_free(e->ctx);
  OPENSSL_cleanse(e->password.data(), e->password.size());
  OPENSSL_cleanse(e->token_pw.data(), e->token_pw.size());
  e->magic = 0;
  delete e;
  *env = nullptr;
  return 0;
}

TAV_EXPORT int tav_environment_init(tav_handle env) {
  Env *e = as_env(env);
  if (e == nullptr) return TAV_INVALID_HANDLE;
  if (e->initialised) return TAV_INVALID_STATE;
  if (e->fips == TAV_FIPS_MODE_PROCESSING_ON && !OSSL_PROVIDER_available(nullptr, "fips"))
    return TAV_FIPS_NOT_AVAILABLE;
  if (!e->pkcs11_path.empty()) {
    // Keys and acceleration on a device are not offered by this toolkit.
    void *driver = dlopen(e->pkcs11_path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (driver == nullptr) return TAV_PKCS11_LIBRARY_NOT_LOADED;
    dlclose(driver);
    return 2;
  }
  if (e->kdb.empty()) return TAV_KEYRING_OPEN_ERROR;
  std::string password;
  if (e->have_password) {
    password = e->password;
  } else if (e->stash.empty()) {
    return TAV_NO_PASSWORD_NOR_STASH;
  } else if (int rc = tavtk::stash_load(e->stash, &password); rc != 0) {
    return rc;
  }
  int rc = tavtk::keydb_load(e->kdb, password, &e->keys);
  OPENSSL_cleanse(password.data(), password.size());
  if (rc == 0) rc = build_context(e);
  ERR_clear_error();
  if (rc != 0) {
    e->keys.clear();
    return rc;
  }
  OPENSSL_cleanse(e->password.data(), e->password.size());
  e->password.clear();
  e->initialised = true;
  return 0;
}

TAV_EXPORT int tav_secure_soc_open(tav_handle env, tav_handle *conn) {
  Env *e = as_env(env);
  if (e == nullptr || conn == nullptr) return TAV_INVALID_HANDLE;
  if (!e->initialised) return TAV_INVALID_STATE;
  Conn *c = new (std::nothrow) Conn;
  if (c == nullptr) return TAV_INSUFFICIENT_STORAGE;
  c->env = e;
  *conn = c;
  return 0;
}

TAV_EXPORT int tav_secure_soc_init(tav_handle conn) {
  Conn *c = as_conn(conn);
  if (c == nullptr) return TAV_INVALID_HANDLE;
  if (c->ssl != nullptr || c->fd < 0) return TAV_INVALID_STATE;
  const tav_iocallback &cb = c->env->cb;
  if (cb.io_read == nullptr) return TAV_ERROR_NO_READ_FUNCTION;
  if (cb.io_write == nullptr) return TAV_ERROR_NO_WRITE_FUNCTION;
  if (cb.io_setsocketoptions != nullptr) cb.io_setsocketoptions(c->fd, TAV_SOC_HANDSHAKE_IO, c->user);
#ifdef TAVTK_ABORT_IN_HANDSHAKE
  abort();  // a test build: the toolkit giving up the process mid-handshake
#endif
  std::lock_guard<std::mutex> lock(c->mu);
  c->ssl = SSL_new(c->env->ctx);
  BIO *bio = c->ssl != nullptr ? BIO_new(callback_method()) : nullptr;
  if (bio == nullptr) {
    SSL_free(c->ssl);
    c->ssl = nullptr;
    ERR_clear_error();
    return TAV_INSUFFICIENT_STORAGE;
  }
  BIO_set_data(bio, c);
  SSL_set_bio(c->ssl, bio, bio);
  SSL_set_app_data(c->ssl, c);
  bool ok = apply_cipher_spec(c->ssl, c->cipher_spec);
  // With the check on and no name to check, no server could be told apart.
  if (c->name_check && c->peer_host.empty()) {
    SSL_free(c->ssl);
    c->ssl = nullptr;
    return TAV_ERROR_HOST_MISMATCH;
  }
  if (ok && !apply_peer_name(c)) {
    ERR_clear_error();
    return TAV_INTERNAL_ERROR;
  }
  if (ok && !c->label.empty()) {
    const tavtk::KeyEntry *k = c->env->keys.find(c->label);
    ok = SSL_use_certificate(c->ssl, k->cert) == 1 && SSL_use_PrivateKey(c->ssl, k->key) == 1 &&
         SSL_check_private_key(c->ssl) == 1;
  }
  if (!ok) {
    ERR_clear_error();
    return TAV_ERROR_NO_CIPHERS;
  }
  c->session_key = session_key(c);
  if (!c->session_key.empty()) {
    std::lock_guard<std::mutex> session_lock(c->env->session_mu);
    auto it = c->env->sessions.find(c->session_key);
    if (it != c->env->sessions.end()) SSL_set_session(c->ssl, it->second);
  }
  for (;;) {
    int r = SSL_connect(c->ssl);
    if (r == 1) break;
    int err = SSL_get_error(c->ssl, r);
    if (err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE) continue;  // the callbacks wait
    return handshake_failure(c, err);
  }
  const char *name = SSL_CIPHER_get_name(SSL_get_current_cipher(c->ssl));
  c->cipher_code = name != nullptr ? name : "";
  c->cipher_name = c->cipher_code;
  c->protocol = SSL_get_version(c->ssl);
  const char *group = SSL_group_to_name(c->ssl, SSL_get_negotiated_group(c->ssl));
  c->group = group != nullptr ? group : "";
  c->resumed = SSL_session_reused(c->ssl) == 1;
  for (const CipherCode &k : kCiphers)
    if (name != nullptr && strcmp(k.name, name) == 0) c->cipher_code = k.code;
  if (X509 *peer = SSL_get0_peer_certificate(c->ssl)) cert_info(peer, &c->info_values, &c->info);
  c->established = true;
  // From now on each read callback is one non-blocking read: let OpenSSL ask
  // for as much as its buffer holds, so that one system call brings in many
  // records rather than two calls (header, body) per record.  Not during the
  // handshake, whose callbacks wait until every byte asked for has come.
  SSL_set_read_ahead(c->ssl, 1);
  if (cb.io_setsocketoptions != nullptr) cb.io_setsocketoptions(c->fd, TAV_SOC_NORMAL_IO, c->user);
  return 0;
}

TAV_EXPORT int tav_secure_soc_close(tav_handle *conn) {
  Conn *c = conn != nullptr ? as_conn(*conn) : nullptr;
  if (c == nullptr) return TAV_INVALID_HANDLE;
  if (c->ssl != nullptr) {
    if (c->established) SSL_shutdown(c->ssl);  // one attempt at close_notify; nothing waits for the answer
    SSL_free(c->ssl);
    ERR_clear_error();
  }
  c->magic = 0;
  delete c;
  *conn = nullptr;
  return 0;
}

TAV_EXPORT int tav_secure_soc_read(tav_handle conn, char *buffer, int length, int *count) {
  Conn *c = as_conn(conn);
  if (c == nullptr || count == nullptr) return TAV_INVALID_HANDLE;
  if (!c->established) return TAV_INVALID_STATE;
  std::lock_guard<std::mutex> lock(c->mu);
  if (buffer == nullptr) {
    *count = SSL_pending(c->ssl);
    if (*count == 0 && SSL_has_pending(c->ssl) == 1) {
      // Bytes read ahead but not yet decrypted, which the socket no longer
      // shows.  A whole record among them is readable now; the front of a
      // record still arriving is not (calling it readable would make the
      // caller spin instead of waiting for the socket).  A peek tells them
      // apart; a broken stream counts as readable, so the read reports it.
      c->io_errno = 0;
      char first;
      const int r = SSL_peek(c->ssl, &first, 1);
      const int err = r > 0 ? SSL_ERROR_NONE : SSL_get_error(c->ssl, r);
      ERR_clear_error();
      if (r > 0)
        *count = SSL_pending(c->ssl);
      else if (err != SSL_ERROR_WANT_READ && err != SSL_ERROR_WANT_WRITE)
        *count = 1;
    }
    return 0;
  }
  if (length <= 0) return TAV_INVALID_LENGTH;
  *count = 0;
  c->io_errno = 0;
  int r = SSL_read(c->ssl, buffer, length);
  if (r > 0) {
    *count = r;
    return 0;
  }
  int err = SSL_get_error(c->ssl, r);
  unsigned long e = ERR_peek_error();
  ERR_clear_error();
  switch (err) {
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
      return TAV_WOULD_BLOCK;
    case SSL_ERROR_ZERO_RETURN:
      return 0;  // the server closed the session cleanly: nothing more to read
    case SSL_ERROR_SYSCALL:
      return c->eof ? TAV_ERROR_SOCKET_CLOSED : TAV_ERROR_IO;
    default:
      if (ERR_GET_REASON(e) == SSL_R_UNEXPECTED_EOF_WHILE_READING) return TAV_ERROR_SOCKET_CLOSED;
      return c->io_errno != 0 ? TAV_ERROR_IO : TAV_ERROR_BAD_MESSAGE;
  }
}

TAV_EXPORT int tav_secure_soc_write(tav_handle conn, const char *buffer, int length, int *count) {
  Conn *c = as_conn(conn);
  if (c == nullptr || count == nullptr) return TAV_INVALID_HANDLE;
  if (!c->established) return TAV_INVALID_STATE;
  if (buffer == nullptr || length <= 0) return TAV_INVALID_LENGTH;
  std::lock_guard<std::mutex> lock(c->mu);
  *count = 0;
  c->io_errno = 0;
  int r = SSL_write(c->ssl, buffer, length);
  if (r > 0) {
    *count = r;
    return 0;
  }
  int err = SSL_get_error(c->ssl, r);
  ERR_clear_error();
  if (err == SSL_ERROR_WANT_WRITE || err == SSL_ERROR_WANT_READ) return TAV_WOULD_BLOCK;
  return c->eof ? TAV_ERROR_SOCKET_CLOSED : TAV_ERROR_IO;
}

TAV_EXPORT int tav_attribute_set_buffer(tav_handle h, int id, const char *buffer, int length) {
  if (buffer == nullptr || length < 0) return TAV_INVALID_LENGTH;
  std::string v = length == 0 ? std::string(buffer) : std::string(buffer, (size_t)length);
  if (Env *e = as_env(h)) return e->initialised ? TAV_INVALID_STATE : env_set_buffer(e, id, v);
  if (Conn *c = as_conn(h)) return c->ssl != nullptr ? TAV_INVALID_STATE : conn_set_buffer(c, id, v);
  return TAV_INVALID_HANDLE;
}

TAV_EXPORT int tav_attribute_get_buffer(tav_handle h, int id, const char **buffer, int *length) {
  if (buffer == nullptr) return TAV_INVALID_LENGTH;
  const std::string *v = nullptr;
  Env *e = as_env(h);
  Conn *c = as_conn(h);
  if (c != nullptr) e = c->env;
  if (e == nullptr) return TAV_INVALID_HANDLE;
  switch (id) {
    case TAV_KEYRING_FILE:
      v = &e->kdb;
      break;
    case TAV_KEYRING_STASH_FILE:
      v = &e->stash;
      break;
    case TAV_KEYRING_LABEL:
      if (c == nullptr) return TAV_INVALID_ATTRIBUTE;
      if (c->label.empty()) return TAV_KEY_LABEL_NOT_FOUND;
      v = &c->label;
      break;
    case TAV_V3_CIPHER_SPECS:
      if (c == nullptr) return TAV_INVALID_ATTRIBUTE;
      v = &c->cipher_spec;
      break;
    case TAV_PEER_HOST_NAME:
      if (c == nullptr) return TAV_INVALID_ATTRIBUTE;
      v = &c->peer_host;
      break;
    case TAV_CONNECT_CIPHER_SPEC:
    case TAV_CONNECT_PROTOCOL:
    case TAV_CONNECT_CIPHER_NAME:
    case TAV_CONNECT_GROUP:
      if (c == nullptr) return TAV_INVALID_ATTRIBUTE;
      if (!c->established) return TAV_INVALID_STATE;
      v = id == TAV_CONNECT_CIPHER_SPEC ? &c->cipher_code
          : id == TAV_CONNECT_PROTOCOL  ? &c->protocol
          : id == TAV_CONNECT_GROUP     ? &c->group
                                        : &c->cipher_name;
      break;
    default:
      return TAV_INVALID_ATTRIBUTE;
  }
  *buffer = v->c_str();
  if (length != nullptr) *length = (int)v->size();
  return 0;
}

TAV_EXPORT int tav_attribute_set_callback(tav_handle h, int id, void *callback) {
  Env *e = as_env(h);
  if (e == nullptr) return TAV_INVALID_HANDLE;
  if (id != TAV_IO_CALLBACK) return TAV_INVALID_ATTRIBUTE;
  if (callback == nullptr) return TAV_INVALID_LENGTH;
  e->cb = *static_cast<const tav_iocallback *>(callback);
  return 0;
}

TAV_EXPORT int tav_attribute_get_cert_info(tav_handle h, int id, const tav_cert_data_elem **elems, int *count) {
  Conn *c = as_conn(h);
  if (c == nullptr) return TAV_INVALID_HANDLE;
  if (id != TAV_PARTNER_CERT_INFO) return TAV_INVALID_ATTRIBUTE;
  // Also after a refused handshake, so that the refusal can name what was presented.
  if (!c->established && c->info.empty()) return TAV_INVALID_STATE;
  if (elems == nullptr || count == nullptr) return TAV_INVALID_LENGTH;
  *elems = c->info.data();
  *count = (int)c->info.size();
  return 0;
}

TAV_EXPORT int tav_attribute_set_numeric_value(tav_handle h, int id, int value) {
  if (Env *e = as_env(h)) {
    if (id != TAV_V3_SESSION_TIMEOUT) return TAV_INVALID_ATTRIBUTE;
    if (value < 1 || value > 86400) return TAV_INVALID_NUMERIC_VALUE;
    e->timeout = value;
    return 0;
  }
  if (Conn *c = as_conn(h)) {
    if (id != TAV_FD) return TAV_INVALID_ATTRIBUTE;
    if (value < 0) return TAV_INVALID_NUMERIC_VALUE;
    c->fd = value;
    return 0;
  }
  return TAV_INVALID_HANDLE;
}

TAV_EXPORT int tav_attribute_get_numeric_value(tav_handle h, int id, int *value) {
  if (value == nullptr) return TAV_INVALID_LENGTH;
  if (Env *e = as_env(h)) {
    if (id != TAV_V3_SESSION_TIMEOUT) return TAV_INVALID_ATTRIBUTE;
    *value = e->timeout;
    return 0;
  }
  if (Conn *c = as_conn(h)) {
    if (id == TAV_CONNECT_RESUMED) {
      if (!c->established) return TAV_INVALID_STATE;
      *value = c->resumed ? 1 : 0;
      return 0;
    }
    if (id != TAV_FD) return TAV_INVALID_ATTRIBUTE;
    *value = c->fd;
    return 0;
  }
  return TAV_INVALID_HANDLE;
}

TAV_EXPORT int tav_attribute_set_enum(tav_handle h, int id, int value) {
  if (Conn *c = as_conn(h)) {
    if (id == TAV_PEER_NAME_CHECK) {
      if (c->ssl != nullptr) return TAV_INVALID_STATE;
      if (value != TAV_PEER_NAME_CHECK_ON && value != TAV_PEER_NAME_CHECK_OFF) return TAV_INVALID_ENUMERATION;
      c->name_check = value == TAV_PEER_NAME_CHECK_ON;
      return 0;
    }
    if (id != TAV_PROTOCOL_SSLV2) return TAV_INVALID_ATTRIBUTE;
    return value == TAV_PROTOCOL_SSLV2_OFF ? 0 : TAV_INVALID_ENUMERATION;  // SSL version 2 is never spoken
  }
  Env *e = as_env(h);
  if (e == nullptr) return TAV_INVALID_HANDLE;
  auto take = [&](int *field, std::initializer_list<int> allowed) {
    for (int a : allowed)
      if (a == value) {
        *field = value;
        return 0;
      }
    return (int)TAV_INVALID_ENUMERATION;
  };
  switch (id) {
    case TAV_SESSION_TYPE:
      return take(&e->session_type, {TAV_CLIENT_SESSION});
    case TAV_FIPS_MODE_PROCESSING:
      return take(&e->fips, {TAV_FIPS_MODE_PROCESSING_ON, TAV_FIPS_MODE_PROCESSING_OFF});
    case TAV_BASE_CRYPTO_LIBRARY:
      return take(&e->base_crypto, {TAV_BASE_CRYPTO_KCL});
    case TAV_PKCS11_ACCELERATOR_MODE:
      return take(&e->accel, {TAV_ACCELERATOR_NCIPHER_ON, TAV_ACCELERATOR_RSA_ON, TAV_ACCELERATOR_SYMMETRIC_ON});
    case TAV_SSL_FIPS_MODE:
      return take(&e->ssl_fips, {TAV_SSL_FIPS_MODE_PROCESSING_ON});
    default:
      return TAV_INVALID_ATTRIBUTE;
  }
}

TAV_EXPORT int tav_attribute_get_enum(tav_handle h, int id, int *value) {
  if (value == nullptr) return TAV_INVALID_LENGTH;
  if (Conn *c = as_conn(h)) {
    if (id == TAV_PEER_NAME_CHECK) {
      *value = c->name_check ? TAV_PEER_NAME_CHECK_ON : TAV_PEER_NAME_CHECK_OFF;
      return 0;
    }
    if (id != TAV_PROTOCOL_SSLV2) return TAV_INVALID_ATTRIBUTE;
    *value = TAV_PROTOCOL_SSLV2_OFF;
    return 0;
  }
  Env *e = as_env(h);
  if (e == nullptr) return TAV_INVALID_HANDLE;
  switch (id) {
    case TAV_SESSION_TYPE:
      *value = e->session_type;
      return 0;
    case TAV_FIPS_MODE_PROCESSING:
      *value = e->fips;
      return 0;
    case TAV_BASE_CRYPTO_LIBRARY:
      *value = e->base_crypto;
      return 0;
    case TAV_PKCS11_ACCELERATOR_MODE:
      *value = e->accel;
      return 0;
    case TAV_SSL_FIPS_MODE:
      *value = e->ssl_fips;
      return 0;
    default:
      return TAV_INVALID_ATTRIBUTE;
  }
}

TAV_EXPORT const char *tav_strerror(int code) {
  auto it = error_texts().find(code);
  return it != error_texts().end() ? it->second : "Unknown SSL error";
}

#ifndef TAVTK_OMIT_CERT_BY_LABEL
TAV_EXPORT int tav_get_cert_by_label(tav_handle env, const char *label, const tav_cert_data_elem **elems, int *count) {
  Env *e = as_env(env);
  if (e == nullptr) return TAV_INVALID_HANDLE;
  if (!e->initialised) return TAV_INVALID_STATE;
  if (label == nullptr || elems == nullptr || count == nullptr) return TAV_INVALID_LENGTH;
  const tavtk::KeyEntry *k = e->keys.find(label);
  if (k == nullptr) return TAV_KEY_LABEL_NOT_FOUND;
  std::lock_guard<std::mutex> lock(e->info_mu);
  auto &slot = e->label_info[label];
  if (slot.second.empty()) cert_info(k->cert, &slot.first, &slot.second);
  *elems = slot.second.data();
  *count = (int)slot.second.size();
  return 0;
}
#endif
