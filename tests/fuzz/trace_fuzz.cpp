// Fuzzes the trace facility's parsers and formatters: the LDAP_DEBUG mask
// text, the boxed dump layout and the environment list element test.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ldap-debug.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const uint8_t mode = data[0] % 3;
  std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
  switch (mode) {
    case 0:
      ldap_debug_parse_mask(text.c_str());
      break;
    case 1: {
      // Title up to the first NUL, the rest is the dumped data.
      size_t cut = strnlen(text.c_str(), text.size());
      std::string title = text.substr(0, cut);
      const char *bytes = text.data() + (cut < text.size() ? cut + 1 : cut);
      unsigned int len = (unsigned int)(text.size() - (bytes - text.data()));
      char line[60];
      for (unsigned int i = 0; ldap_log_dump_line(bytes, len, title.c_str(), i, line); ++i) {
        if (strlen(line) != 59 || (line[0] != '|' && line[0] != '+') || (line[58] != '|' && line[58] != '+'))
          abort();
      }
      break;
    }
    case 2: {
      size_t cut = strnlen(text.c_str(), text.size());
      std::string list = text.substr(0, cut);
      std::string value = cut < text.size() ? std::string(text.c_str() + cut + 1) : std::string();
      if (!value.empty()) ldap_env_has_element(list.c_str(), ':', value.c_str());
      break;
    }
  }
  return 0;
}
