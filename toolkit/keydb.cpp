#include "keydb.h"

#include <fcntl.h>
#include <openssl/pkcs12.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "tav_toolkit.h"

namespace tavtk {

namespace {

constexpr char kStashMagic[] = "TAVSTSH1";  // 8 bytes, then a 2-byte length
constexpr size_t kStashHeader = 10;
constexpr unsigned char kStashMask = 0xF5;

struct Bag {
  std::string label;
  std::string key_id;
  X509 *cert = nullptr;
  EVP_PKEY *key = nullptr;
};

std::string friendly_name(const PKCS12_SAFEBAG *bag) {
  char *name = PKCS12_get_friendlyname(const_cast<PKCS12_SAFEBAG *>(bag));
  std::string s = name != nullptr ? name : "";
  OPENSSL_free(name);
  return s;
}

std::string local_key_id(const PKCS12_SAFEBAG *bag) {
  const ASN1_TYPE *t = PKCS12_SAFEBAG_get0_attr(bag, NID_localKeyID);
  if (t == nullptr || t->type != V_ASN1_OCTET_STRING) return {};
  return std::string(reinterpret_cast<const char *>(ASN1_STRING_get0_data(t->value.octet_string)),
                     (size_t)ASN1_STRING_length(t->value.octet_string));
}

// Collects the certificate and key bags of one safe; false when a bag cannot be decrypted.
bool collect(const STACK_OF(PKCS12_SAFEBAG) * bags, const std::string &password, std::vector<Bag> *out) {
  for (int i = 0; i < sk_PKCS12_SAFEBAG_num(bags); ++i) {
    const PKCS12_SAFEBAG *bag = sk_PKCS12_SAFEBAG_value(bags, i);
    Bag b;
    switch (PKCS12_SAFEBAG_get_nid(bag)) {
      case NID_certBag:
        if (PKCS12_SAFEBAG_get_bag_nid(bag) != NID_x509Certificate) continue;
        b.cert = PKCS12_SAFEBAG_get1_cert(bag);
        if (b.cert == nullptr) return false;
        break;
      case NID_keyBag:
        b.key = EVP_PKCS82PKEY(PKCS12_SAFEBAG_get0_p8inf(bag));
        if (b.key == nullptr) return false;
        break;
      case NID_pkcs8ShroudedKeyBag: {
        PKCS8_PRIV_KEY_INFO *p8 = PKCS12_decrypt_skey(bag, password.c_str(), (int)password.size());
        if (p8 == nullptr) return false;
        b.key = EVP_PKCS82PKEY(p8);
        PKCS8_PRIV_KEY_INFO_free(p8);
        if (b.key == nullptr) return false;
        break;
      }
      default:
        continue;  // secrets, CRLs and nested safes carry nothing we use
    }
    b.label = friendly_name(bag);
    b.key_id = local_key_id(bag);
    out->push_back(std::move(b));
  }
  return true;
}

void free_bags(std::vector<Bag> &bags) {
  for (Bag &b : bags) {
    X509_free(b.cert);
    EVP_PKEY_free(b.key);
  }
  bags.clear();
}

int parse_pkcs12(PKCS12 *p12, const std::string &password, std::vector<Bag> *bags) {
  if (!PKCS12_mac_present(p12)) return TAV_KEYFILE_INVALID_FORMAT;
  if (!PKCS12_verify_mac(p12, password.c_str(), (int)password.size())) return TAV_KEYFILE_BAD_FORMAT_OR_PW;
  STACK_OF(PKCS7) *safes = PKCS12_unpack_authsafes(p12);
  if (safes == nullptr) return TAV_KEYFILE_BAD_FORMAT_OR_PW;
  int rc = 0;
  for (int i = 0; i < sk_PKCS7_num(safes) && rc == 0; ++i) {
    PKCS7 *p7 = sk_PKCS7_value(safes, i);
    STACK_OF(PKCS12_SAFEBAG) *safe = nullptr;
    int nid = OBJ_obj2nid(p7->type);
    if (nid == NID_pkcs7_data)
      safe = PKCS12_unpack_p7data(p7);
    else if (nid == NID_pkcs7_encrypted)
      safe = PKCS12_unpack_p7encdata(p7, password.c_str(), (int)password.size());
    else
      continue;
    if (safe == nullptr || !collect(safe, password, bags)) rc = TAV_KEYFILE_BAD_FORMAT_OR_PW;
    sk_PKCS12_SAFEBAG_pop_free(safe, PKCS12_SAFEBAG_free);
  }
  sk_PKCS7_pop_free(safes, PKCS7_free);
  return rc;
}

}  // namespace

KeyDb &KeyDb::operator=(KeyDb &&other) noexcept {
  if (this != &other) {
    clear();
    entries = std::move(other.entries);
    other.entries.clear();
  }
  return *this;
}

void KeyDb::clear() {
  for (KeyEntry &e : entries) {
    X509_free(e.cert);
    EVP_PKEY_free(e.key);
  }
  entries.clear();
}

const KeyEntry *KeyDb::find(const std::string &label) const {
  if (label.empty()) return nullptr;
  for (const KeyEntry &e : entries)
    if (e.label == label) return &e;
  return nullptr;
}

int keydb_parse(const unsigned char *data, size_t length, const std::string &password, KeyDb *out) {
  out->clear();
  if (length == 0 || length > (size_t)INT32_MAX) return TAV_KEYFILE_INVALID_FORMAT;
  const unsigned char *p = data;
  PKCS12 *p12 = d2i_PKCS12(nullptr, &p, (long)length);
  if (p12 == nullptr) return TAV_KEYFILE_INVALID_FORMAT;
  std::vector<Bag> bags;
  int rc = p == data + length ? parse_pkcs12(p12, password, &bags) : TAV_KEYFILE_INVALID_FORMAT;
  PKCS12_free(p12);
  if (rc != 0) {
    free_bags(bags);
    return rc;
  }
  // Each certificate takes the key with its local key id, or else its label.
  for (Bag &c : bags) {
    if (c.cert == nullptr) continue;
    KeyEntry e;
    e.label = c.label;
    for (Bag &k : bags) {
      if (k.key == nullptr) continue;
      bool same = !c.key_id.empty() ? k.key_id == c.key_id : !c.label.empty() && k.label == c.label;
      if (same) {
        e.key = k.key;
        k.key = nullptr;
        break;
      }
    }
    e.cert = c.cert;
    c.cert = nullptr;
    if (out->find(e.label) != nullptr) rc = TAV_KEYFILE_DUPLICATE_LABEL;
    out->entries.push_back(e);
  }
  free_bags(bags);
  if (rc != 0) out->clear();
  return rc;
}

bool read_whole_file(const std::string &path, std::string *out) {
  std::unique_ptr<FILE, int (*)(FILE *)> f(fopen(path.c_str(), "rb"), fclose);
  if (!f) return false;
  out->clear();
  char buf[8192];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f.get())) > 0) {
    out->append(buf, n);
    if (out->size() > (64u << 20)) return false;  // no key database is this large
  }
  return ferror(f.get()) == 0;
}

int keydb_load(const std::string &path, const std::string &password, KeyDb *out) {
  std::string data;
  if (!read_whole_file(path, &data)) return TAV_KEYRING_OPEN_ERROR;
  return keydb_parse(reinterpret_cast<const unsigned char *>(data.data()), data.size(), password, out);
}

namespace {

bool write_private_file(const std::string &path, const unsigned char *data, size_t length) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < length) {
    ssize_t n = write(fd, data + done, length - done);
    if (n <= 0) break;
    done += (size_t)n;
  }
  return close(fd) == 0 && done == length;
}

}  // namespace

int keydb_save(const std::string &path, const std::string &password, const KeyDb &db) {
  STACK_OF(PKCS12_SAFEBAG) *certs = sk_PKCS12_SAFEBAG_new_null();
  STACK_OF(PKCS12_SAFEBAG) *keys = sk_PKCS12_SAFEBAG_new_null();
  STACK_OF(PKCS7) *safes = nullptr;
  PKCS12 *p12 = nullptr;
  bool ok = certs != nullptr && keys != nullptr;
  const char *pw = password.c_str();
  for (size_t i = 0; ok && i < db.entries.size(); ++i) {
    const KeyEntry &e = db.entries[i];
    PKCS12_SAFEBAG *cb = PKCS12_add_cert(&certs, e.cert);
    ok = cb != nullptr && (e.label.empty() || PKCS12_add_friendlyname_utf8(cb, e.label.c_str(), -1));
    if (!ok || e.key == nullptr) continue;
    unsigned char id[4] = {(unsigned char)(i >> 24), (unsigned char)(i >> 16), (unsigned char)(i >> 8),
                           (unsigned char)i};
    PKCS12_SAFEBAG *kb = PKCS12_add_key(&keys, e.key, 0, PKCS12_DEFAULT_ITER, NID_aes_256_cbc, pw);
    ok = PKCS12_add_localkeyid(cb, id, sizeof id) && kb != nullptr && PKCS12_add_localkeyid(kb, id, sizeof id) &&
         PKCS12_add_friendlyname_utf8(kb, e.label.c_str(), -1);
  }
  // Certificates in an encrypted safe, keys in their own shrouded bags.
  ok = ok && PKCS12_add_safe(&safes, certs, NID_aes_256_cbc, PKCS12_DEFAULT_ITER, pw) != 0;
  ok = ok && (sk_PKCS12_SAFEBAG_num(keys) == 0 || PKCS12_add_safe(&safes, keys, -1, 0, nullptr) != 0);
  if (ok) p12 = PKCS12_add_safes(safes, 0);
  ok = p12 != nullptr && PKCS12_set_mac(p12, pw, -1, nullptr, 0, PKCS12_DEFAULT_ITER, EVP_sha256()) == 1;
  unsigned char *der = nullptr;
  int len = ok ? i2d_PKCS12(p12, &der) : -1;
  ok = len > 0 && write_private_file(path, der, (size_t)len);
  OPENSSL_free(der);
  PKCS12_free(p12);
  sk_PKCS7_pop_free(safes, PKCS7_free);
  sk_PKCS12_SAFEBAG_pop_free(certs, PKCS12_SAFEBAG_free);
  sk_PKCS12_SAFEBAG_pop_free(keys, PKCS12_SAFEBAG_free);
  return ok ? 0 : TAV_KEYFILE_IO_ERROR;
}

int stash_parse(const unsigned char *data, size_t length, std::string *password) {
  if (length < kStashHeader || memcmp(data, kStashMagic, 8) != 0) return TAV_KEYFILE_INVALID_FORMAT;
  size_t n = ((size_t)data[8] << 8) | data[9];
  if (n == 0 || n > kMaxPassword || length != kStashHeader + n) return TAV_KEYFILE_INVALID_FORMAT;
  password->assign(n, '\0');
  for (size_t i = 0; i < n; ++i) (*password)[i] = (char)(data[kStashHeader + i] ^ kStashMask);
  if (password->find('\0') != std::string::npos) {
    password->clear();
    return TAV_KEYFILE_INVALID_FORMAT;
  }
  return 0;
}

int stash_load(const std::string &path, std::string *password) {
  std::string data;
  if (!read_whole_file(path, &data)) return TAV_NO_PASSWORD_NOR_STASH;
  return stash_parse(reinterpret_cast<const unsigned char *>(data.data()), data.size(), password);
}

std::string stash_encode(const std::string &password) {
  std::string out(kStashMagic, 8);
  out += (char)(password.size() >> 8);
  out += (char)(password.size() & 0xFF);
  for (char c : password) out += (char)((unsigned char)c ^ kStashMask);
  return out;
}

int stash_save(const std::string &path, const std::string &password) {
  if (password.empty() || password.size() > kMaxPassword) return TAV_KEYFILE_IO_ERROR;
  std::string image = stash_encode(password);
  return write_private_file(path, reinterpret_cast<const unsigned char *>(image.data()), image.size())
             ? 0
             : TAV_KEYFILE_IO_ERROR;
}

}  // namespace tavtk
