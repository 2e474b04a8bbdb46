// Fuzzes the toolkit's key database and stash file readers.  The first byte
// chooses the reader; the rest is the file.  A stash that reads back encodes
// to the same bytes; a key database that reads has a certificate in every
// entry, a key only where the entry is labelled, and no label twice.
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>

#include "keydb.h"

namespace {

void check(bool ok) {
  if (!ok) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const uint8_t *file = data + 1;
  const size_t length = size - 1;
  if (data[0] & 1) {
    std::string password;
    int rc = tavtk::stash_parse(file, length, &password);
    check(rc == 0 || rc == 103);
    if (rc == 0) check(tavtk::stash_encode(password) == std::string(reinterpret_cast<const char *>(file), length));
    return 0;
  }
  tavtk::KeyDb db;
  int rc = tavtk::keydb_parse(file, length, "fuzz-pass", &db);
  check(rc == 0 || rc == 103 || rc == 105 || rc == 106);
  check(rc == 0 || db.entries.empty());
  std::set<std::string> labels;
  for (const tavtk::KeyEntry &e : db.entries) {
    check(e.cert != nullptr);
    check(e.key == nullptr || !e.label.empty());
    check(e.label.empty() || labels.insert(e.label).second);
  }
  return 0;
}
