// Fuzzes the LDIF reader with every default kind of record, and checks that
// whatever it accepts survives the writer: each record written back as a
// content record reads back with the same DN and values.
#include <strings.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "ldif.h"

namespace {

void check(bool ok) {
  if (!ok) abort();
}

void round_trip(const tavldif::Record &r) {
  std::string text = tavldif::attr_line("dn", r.dn);
  size_t values = 0;
  for (const auto &m : r.mods)
    for (const auto &v : m.values) {
      text += tavldif::attr_line(m.type, v);
      ++values;
    }
  if (values == 0) return;  // a content record needs an attribute
  // A record whose first attribute is named "changetype" or "control" cannot
  // be written as a content record: LDIF reads that line as the keyword.
  for (const auto &m : r.mods)
    if (!m.values.empty()) {
      if (strcasecmp(m.type.c_str(), "changetype") == 0 || strcasecmp(m.type.c_str(), "control") == 0) return;
      break;
    }
  tavldif::Reader back(text);
  back.allow_file_values(false);
  tavldif::Record again;
  std::string error;
  check(back.next(&again, &error));
  check(again.dn == r.dn);
  size_t k = 0;
  for (const auto &m : again.mods) k += m.values.size();
  check(k == values);
  // Values of one type keep their order; compare type by type.
  for (const auto &m : again.mods) {
    std::vector<std::string> want;
    for (const auto &orig : r.mods)
      for (const auto &v : orig.values)
        if (orig.type.size() == m.type.size() && strncasecmp(orig.type.c_str(), m.type.c_str(), m.type.size()) == 0)
          want.push_back(v);
    check(want == m.values);
  }
  check(!back.next(&again, &error) && error.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  using tavldif::Change;
  for (Change def : {Change::Add, Change::Modify, Change::Delete, Change::ModRdn}) {
    tavldif::Reader reader(text, def);
    reader.allow_file_values(false);
    tavldif::Record r;
    std::string error;
    // Bounded: every call consumes at least one line or ends the input.
    for (int n = 0; n < 10000; ++n) {
      if (reader.next(&r, &error)) {
        check(error.empty());
        check(r.change != Change::None);
        round_trip(r);
        continue;
      }
      if (error.empty()) break;
      check(error.rfind("line ", 0) == 0);
    }
  }
  // Accepted base64 re-encodes to text that decodes the same (padding bits
  // may differ), and every byte string survives encode then decode.
  std::string decoded, again;
  if (tavldif::base64_decode(text, &decoded)) {
    check(tavldif::base64_decode(tavldif::base64_encode(decoded), &again) && again == decoded);
  }
  check(tavldif::base64_decode(tavldif::base64_encode(text), &decoded) && decoded == text);
  return 0;
}
