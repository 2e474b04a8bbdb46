// The key database (a password-protected PKCS#12 file whose friendly names are
// the certificate labels) and its stash file (the password, scrambled).
#ifndef TAV_TOOLKIT_KEYDB_H
#define TAV_TOOLKIT_KEYDB_H

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstddef>
#include <string>
#include <vector>

namespace tavtk {

struct KeyEntry {
  std::string label;        // empty for an unlabelled trust anchor
  X509 *cert = nullptr;     // owned
  EVP_PKEY *key = nullptr;  // owned; null for a trust anchor
};

struct KeyDb {
  std::vector<KeyEntry> entries;
  KeyDb() = default;
  KeyDb(const KeyDb &) = delete;
  KeyDb &operator=(const KeyDb &) = delete;
  KeyDb(KeyDb &&other) noexcept : entries(std::move(other.entries)) { other.entries.clear(); }
  KeyDb &operator=(KeyDb &&other) noexcept;
  ~KeyDb() { clear(); }
  void clear();
  const KeyEntry *find(const std::string &label) const;
};

// Longest password a stash file holds.
constexpr size_t kMaxPassword = 1024;

// Parses a key database image: 0, 103 (not a key database), 105 (a label
// twice), 106 (wrong password or damaged), 4 (out of memory).
int keydb_parse(const unsigned char *data, size_t length, const std::string &password, KeyDb *out);
// Reads the file: 202 when it cannot be read, else as keydb_parse.
int keydb_load(const std::string &path, const std::string &password, KeyDb *out);
// Writes the entries as a key database protected by the password: 0 or 102.
int keydb_save(const std::string &path, const std::string &password, const KeyDb &db);

// Stash image: the password from it (0) or 103.
int stash_parse(const unsigned char *data, size_t length, std::string *password);
// 201 when the stash file cannot be read, else as stash_parse.
int stash_load(const std::string &path, std::string *password);
std::string stash_encode(const std::string &password);
// Writes the stash file with mode 0600: 0 or 102.
int stash_save(const std::string &path, const std::string &password);

bool read_whole_file(const std::string &path, std::string *out);

}  // namespace tavtk

#endif
