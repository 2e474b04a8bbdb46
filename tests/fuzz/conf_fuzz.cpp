// Fuzzes the configuration file reader: a file is read (or, over 1 MiB,
// refused with nothing kept); every accepted entry has its four
// words, none holding a separator, all inside its line; the look-up by an
// entry's own key finds an entry with that key; the arguments split into
// words that rebuild them.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ldap-plugin.h"
#include "ldap-utils.h"

namespace {

void check(bool ok) {
  if (!ok) abort();
}

bool inside(const ldap_conf_entry *e, const char *s) {
  return s == nullptr || (s >= e->line && s + strlen(s) <= e->line + LDAP_CONF_LINE_MAX);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  std::string text(reinterpret_cast<const char *>(data), size);
  FILE *f = fmemopen(text.data(), text.size(), "r");
  if (f == nullptr) return 0;
  ldap_conf_list list = {nullptr, nullptr};
  const int rc = ldap_process_conf_data(f, &list);
  check(rc == 0 || (rc == LDAP_PLUGIN_CONF_NOT_OPENED && size > (1u << 20) && list.head == nullptr));
  fclose(f);
  for (ldap_conf_entry *e = list.head; e != nullptr; e = e->next) {
    const ldap_conf_fields &w = *e->fields;
    check(e->next == nullptr ? list.tail == e : e->next->prev == e);
    check(strlen(e->line) <= LDAP_CONF_LINE_MAX && e->line[0] != '#');
    for (const char *word : {w.kind, w.type, w.name, w.path}) check(word != nullptr && *word != '\0');
    for (const char *word : {w.kind, w.type, w.name, w.path, w.init_function})
      check(word == nullptr || strcspn(word, " \t\n") == strlen(word));
    for (const char *s : {w.kind, w.type, w.name, w.path, w.init_function, w.args}) check(inside(e, s));
    check(w.args == nullptr || (w.init_function != nullptr && strcspn(w.args, "\t\n") == strlen(w.args)));
    ldap_conf_entry *found = ldap_conf_find(&list, &w);
    check(found != nullptr && ldap_conf_eval(found, &w) == 1);
    char *vec[LDAP_PLUGIN_MAX_ARGS + 1];
    int count = -1;
    check(ldap_split_args(w.args, LDAP_PLUGIN_MAX_ARGS, &count, vec) == (w.args == nullptr ? 1 : 0));
    check(count >= 0 && count <= LDAP_PLUGIN_MAX_ARGS && vec[count] == nullptr);
    for (int i = 0; i < count; ++i) check(*vec[i] != '\0' && strstr(w.args, vec[i]) != nullptr);
    if (count > 0) free(vec[0]);
  }
  ldap_conf_list_free(&list);
  return 0;
}
