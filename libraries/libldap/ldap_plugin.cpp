// The client configuration file krvldap.conf and the registry of SASL
// plug-ins loaded from it or registered by the application.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "ldap-debug.h"
#include "ldap-int.h"
#include "ldap-lock.h"
#include "ldap-plugin.h"
#include "ldap-utils.h"

namespace {

constexpr const char *kConfFile = "krvldap.conf";
constexpr const char *kDefaultInit = "ldap_plugin_init";
constexpr int kMaxPluginList = 64;
// A larger file is refused: a few hundred plug-in lines fill a few kilobytes,
// and each line costs a whole entry in memory for the life of the process.
constexpr size_t kMaxConfBytes = 1024 * 1024;

// Set under the configuration lock once the file was read; tested first
// without it.
std::atomic<int> ldap_conf_read{0};

// Registry and libraries loaded for it; both grow only, for the process.
ldap_plugin_entry *registry_head = nullptr;
ldap_plugin_entry *registry_tail = nullptr;
struct loaded_library {
  ldap_dl *library;
  loaded_library *next;
};
loaded_library *loaded_libraries = nullptr;
ldap_dl *current_library = nullptr;

class ConfigLock {
 public:
  ConfigLock() { ldap_lock_config(); }
  ~ConfigLock() { ldap_unlock_config(); }
  ConfigLock(const ConfigLock &) = delete;
  ConfigLock &operator=(const ConfigLock &) = delete;
};

bool is_separator(char c) { return c == ' ' || c == '\t' || c == '\n'; }

// Cuts the next word at *p; null when the line has none left.
char *next_word(char **p) {
  char *s = *p;
  while (is_separator(*s)) ++s;
  if (*s == '\0') return nullptr;
  char *word = s;
  while (*s != '\0' && !is_separator(*s)) ++s;
  if (*s != '\0') *s++ = '\0';
  *p = s;
  return word;
}

enum class LineRead { kEnd, kLine, kOverlong, kFileTooLarge };

// The next line into `line` (at most LDAP_CONF_LINE_MAX characters, with its
// newline when that fits).  A longer line is consumed whole and reported, so
// its tail is never taken for a line of its own.  *total counts the file's
// bytes so far.
LineRead read_line(FILE *stream, char *line, size_t *total) {
  size_t n = 0;
  bool overlong = false;
  int c = EOF;
  while ((c = getc(stream)) != EOF) {
    if (++*total > kMaxConfBytes) return LineRead::kFileTooLarge;
    if (n < LDAP_CONF_LINE_MAX)
      line[n++] = static_cast<char>(c);
    else if (c != '\n')
      overlong = true;
    if (c == '\n') break;
  }
  line[n] = '\0';
  if (c == EOF && n == 0) return LineRead::kEnd;
  return overlong ? LineRead::kOverlong : LineRead::kLine;
}

bool same(const char *a, const char *b) { return a != nullptr && b != nullptr && strcmp(a, b) == 0; }

void free_entry(ldap_plugin_entry *e) {
  if (e == nullptr) return;
  for (char *s : {e->type, e->name, e->path, e->init_function, e->args}) free(s);
  free(e);
}

void free_info(ldap_plugin_info *info) {
  if (info == nullptr) return;
  for (char *s : {info->type, info->name, info->path, info->init_function, info->args}) free(s);
  free(info);
}

// Copies of the five strings; false when memory ran out (what was copied is
// left for the caller to free).
template <typename T>
bool copy_strings(T *to, const ldap_plugin_info *from) {
  char **dst[] = {&to->type, &to->name, &to->path, &to->init_function, &to->args};
  const char *src[] = {from->type, from->name, from->path, from->init_function, from->args};
  for (size_t i = 0; i < 5; ++i) {
    if (src[i] == nullptr) continue;
    *dst[i] = olx_strdup(src[i]);
    if (*dst[i] == nullptr) return false;
  }
  return true;
}

ldap_plugin_init_fn find_init(ldap_dl *library, const ldap_plugin_info *info) {
  return reinterpret_cast<ldap_plugin_init_fn>(
      ldap_dlsym(library, info->init_function != nullptr ? info->init_function : kDefaultInit));
}

struct PblockFree {
  void operator()(LDAP_PBLOCK *pb) const { ldap_pblock_free(pb); }
};

// Under the configuration lock: undoes the last ldap_load_plugin.
void unload_current_library() {
  loaded_library *node = loaded_libraries;
  if (node == nullptr || node->library != current_library) return;
  loaded_libraries = node->next;
  ldap_dlclose(node->library);
  free(node);
  current_library = loaded_libraries != nullptr ? loaded_libraries->library : nullptr;
}

// Under the configuration lock: initialises the library just loaded and
// registers what it offers.
int init_loaded_locked(ldap_plugin_info *info, LDAP_PBLOCK *pb) {
  ldap_plugin_init_fn init = find_init(current_library, info);
  if (init == nullptr) return LDAP_PLUGIN_FUNCTION_NOT_RESOLVED;
  if (init(pb) != 0) return LDAP_PLUGIN_NOT_INITIALIZED;
  void *bind = nullptr;
  if (ldap_pblock_get(pb, LDAP_PLUGIN_BIND_FN, &bind) != 0 || bind == nullptr) return 1;
  auto *e = static_cast<ldap_plugin_entry *>(olx_calloc(1, sizeof(ldap_plugin_entry)));
  if (e == nullptr || !copy_strings(e, info)) {
    free_entry(e);
    return LDAP_NO_MEMORY;
  }
  e->bind_fn = reinterpret_cast<ldap_plugin_bind_fn>(bind);
  e->init_fn = init;
  e->library = current_library;
  if (ldap_plugin_add(e) != LDAP_SUCCESS) free_entry(e);  // registered before: the first one stays
  return LDAP_SUCCESS;
}

// Under the configuration lock.  The initialisation function gets a block
// with the plug-in's type.
int load_and_init_locked(ldap_plugin_info *info, int reg) {
  std::unique_ptr<LDAP_PBLOCK, PblockFree> pb(ldap_pblock_new());
  if (pb == nullptr) return LDAP_NO_MEMORY;
  if (ldap_pblock_set(pb.get(), LDAP_PLUGIN_TYPE, info->type) != 0) return 1;
  if (reg == 0) {
    if (ldap_plugin_entry *e = ldap_plugin_find(info)) {
      // Initialised again from the library it was registered from.
      ldap_plugin_init_fn init = find_init(e->library, info);
      if (init == nullptr) return LDAP_PLUGIN_FUNCTION_NOT_RESOLVED;
      return init(pb.get()) != 0 ? LDAP_PLUGIN_NOT_INITIALIZED : LDAP_SUCCESS;
    }
  }
  int rc = ldap_load_plugin(info->path);
  if (rc != LDAP_SUCCESS) return rc;
  rc = init_loaded_locked(info, pb.get());
  if (rc != LDAP_SUCCESS) unload_current_library();  // a failed load keeps nothing
  return rc;
}

// A memory failure sets *no_memory rather than passing for a missing file
// (which would send the bind without its plug-in).
char *locate_conf_file(bool *no_memory) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_locate_conf_file() called\n");
  char *dirs[3] = {ldap_getenv("KRVLDAP_CONF"), ldap_get_default_config_path('/'), olx_strdup("/opt/KRV/ldap/V6.2")};
  *no_memory = (dirs[0] == nullptr && ldap_chkenv("KRVLDAP_CONF")) || dirs[1] == nullptr || dirs[2] == nullptr;
  char *found = nullptr;
  for (char *dir : dirs) {
    if (found == nullptr && dir != nullptr && !*no_memory) {
      char *path = ldap_make_path(dir, nullptr, kConfFile);
      if (path == nullptr)
        *no_memory = true;
      else if (ldap_file_exists(path))
        found = path;
      else
        free(path);
    }
    free(dir);
  }
  return found;
}

FILE *open_conf_file(bool *no_memory) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_open_conf_file()\n");
  char *path = locate_conf_file(no_memory);
  if (path == nullptr) return nullptr;
  FILE *f = fopen(path, "r");
  free(path);
  return f;
}

}  // namespace

extern "C" {

ldap_conf_list ldap_conf_list_global = {nullptr, nullptr};

char *ldap_locate_conf_file(void) {
  bool no_memory = false;
  return locate_conf_file(&no_memory);
}

FILE *ldap_open_conf_file(void) {
  bool no_memory = false;
  return open_conf_file(&no_memory);
}

int ldap_read_conf_file(ldap_conf_list *list) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_read_conf_file()\n");
  if (ldap_conf_read.load(std::memory_order_acquire) == 1) return LDAP_SUCCESS;
  ConfigLock lock;
  if (ldap_conf_read.load(std::memory_order_relaxed) == 1) return LDAP_SUCCESS;
  bool no_memory = false;
  FILE *f = open_conf_file(&no_memory);
  if (f == nullptr) return no_memory ? LDAP_NO_MEMORY : LDAP_PLUGIN_CONF_NOT_OPENED;
  int rc = ldap_process_conf_data(f, list);
  fclose(f);
  if (rc == LDAP_SUCCESS) ldap_conf_read.store(1, std::memory_order_release);
  return rc;
}

int ldap_process_conf_data(FILE *stream, ldap_conf_list *list) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_process_conf_data()\n");
  // Entries go to the list only once the whole file was read, so a failure
  // leaves it as it was.
  ldap_conf_list read = {nullptr, nullptr};
  ldap_conf_entry *spare = nullptr;
  size_t total = 0;
  int rc = LDAP_SUCCESS;
  for (;;) {
    if (spare == nullptr) {
      spare = static_cast<ldap_conf_entry *>(olx_calloc(1, sizeof(ldap_conf_entry)));
      if (spare == nullptr) {
        rc = LDAP_NO_MEMORY;
        break;
      }
    } else {
      memset(spare, 0, sizeof *spare);
    }
    LineRead got = read_line(stream, spare->line, &total);
    if (got == LineRead::kEnd) break;
    if (got == LineRead::kFileTooLarge) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldap_process_conf_data(): file over %lu bytes, not read\n",
               (unsigned long)kMaxConfBytes);
      rc = LDAP_PLUGIN_CONF_NOT_OPENED;
      break;
    }
    if (got == LineRead::kOverlong) {
      LDAP_LOG(LDAP_LOG_TRACE, "ldap_process_conf_data(): line over %d characters skipped\n", LDAP_CONF_LINE_MAX);
      continue;
    }
    if (ldap_conf_parse_line(spare) != 0) continue;
    spare->prev = read.tail;
    if (read.tail != nullptr)
      read.tail->next = spare;
    else
      read.head = spare;
    read.tail = spare;
    spare = nullptr;
  }
  free(spare);
  if (rc != LDAP_SUCCESS) {
    ldap_conf_list_free(&read);
    return rc;
  }
  if (read.head != nullptr) {
    read.head->prev = list->tail;
    if (list->tail != nullptr)
      list->tail->next = read.head;
    else
      list->head = read.head;
    list->tail = read.tail;
  }
  return LDAP_SUCCESS;
}

int ldap_conf_parse_line(ldap_conf_entry *entry) {
  entry->fields = &entry->words;
  ldap_conf_fields *w = &entry->words;
  if (entry->line[0] == '#') return 1;
  char *p = entry->line;
  for (char **field : {&w->kind, &w->type, &w->name, &w->path}) {
    *field = next_word(&p);
    if (*field == nullptr) return 1;
  }
  w->init_function = next_word(&p);
  if (w->init_function == nullptr) return 0;
  while (*p == ' ') ++p;
  size_t n = strcspn(p, "\t\n");
  if (n > 0) {
    p[n] = '\0';
    w->args = p;
  }
  return 0;
}

int ldap_conf_eval(const ldap_conf_entry *entry, const ldap_conf_fields *key) {
  const ldap_conf_fields *f = entry->fields;
  return same(f->kind, key->kind) && same(f->type, key->type) && same(f->name, key->name) ? 1 : 0;
}

ldap_conf_entry *ldap_conf_find(ldap_conf_list *list, const ldap_conf_fields *key) {
  for (ldap_conf_entry *e = list->head; e != nullptr; e = e->next) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_conf_eval()\n");
    if (ldap_conf_eval(e, key)) return e;
  }
  return nullptr;
}

void ldap_conf_list_free(ldap_conf_list *list) {
  for (ldap_conf_entry *e = list->head; e != nullptr;) {
    ldap_conf_entry *next = e->next;
    free(e);
    e = next;
  }
  list->head = list->tail = nullptr;
}

void ldap_conf_forget(void) {
  ConfigLock lock;
  ldap_conf_list_free(&ldap_conf_list_global);
  ldap_conf_read.store(0, std::memory_order_release);
}

int ldap_load_plugin(const char *path) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_load_plugin(): %s\n", ldap_trace_str(path));
  char *file = ldap_replace_extension(path, '.', "so");
  if (file == nullptr) return path == nullptr ? LDAP_PLUGIN_NOT_LOADED : LDAP_NO_MEMORY;
  auto *node = static_cast<loaded_library *>(olx_calloc(1, sizeof(loaded_library)));
  if (node == nullptr) {
    free(file);
    return LDAP_NO_MEMORY;
  }
  current_library = ldap_dlopen(file, 0);
  free(file);
  if (current_library == nullptr) {
    free(node);
    return LDAP_PLUGIN_NOT_LOADED;
  }
  // Kept (never unloaded) so the functions handed out stay valid.
  node->library = current_library;
  node->next = loaded_libraries;
  loaded_libraries = node;
  return LDAP_SUCCESS;
}

int ldap_gpt_eval(const ldap_plugin_entry *entry, const ldap_plugin_info *key) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_gpt_eval()\n");
  return same(entry->type, key->type) && same(entry->name, key->name) ? 1 : 0;
}

ldap_plugin_entry *ldap_plugin_find(const ldap_plugin_info *key) {
  for (ldap_plugin_entry *e = registry_head; e != nullptr; e = e->next)
    if (ldap_gpt_eval(e, key)) return e;
  return nullptr;
}

int ldap_plugin_is_loaded(const ldap_plugin_info *key) { return ldap_plugin_find(key) != nullptr ? 1 : 0; }

int ldap_plugin_add(ldap_plugin_entry *entry) {
  if (entry == nullptr) return LDAP_LOCAL_ERROR;
  ldap_plugin_info key = {entry->type, entry->name, nullptr, nullptr, nullptr};
  if (ldap_plugin_find(&key) != nullptr) return LDAP_LOCAL_ERROR;  // the first registration stays
  entry->prev = registry_tail;
  entry->next = nullptr;
  if (registry_tail != nullptr)
    registry_tail->next = entry;
  else
    registry_head = entry;
  registry_tail = entry;
  return LDAP_SUCCESS;
}

int ldap_plugin_load_and_init(ldap_plugin_info *info, int reg) {
  if (info == nullptr) return LDAP_PARAM_ERROR;
  ldap_read_conf_file(&ldap_conf_list_global);
  ConfigLock lock;
  return load_and_init_locked(info, reg);
}

int ldap_register_plugin(ldap_plugin_info *info) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_register_plugin: plugin_info(%p)\n", (void *)info);
  int rc = ldap_plugin_load_and_init(info, 1);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_register_plugin: returing rc=%d\n", rc);
  return rc;
}

int ldap_get_plugin_list(ldap_plugin_info ***out) {
  if (out == nullptr) return LDAP_PARAM_ERROR;
  *out = nullptr;
  ConfigLock lock;
  int count = 0;
  for (ldap_plugin_entry *e = registry_head; e != nullptr; e = e->next) ++count;
  if (count == 0) return LDAP_SUCCESS;
  if (count >= kMaxPluginList) return LDAP_PARAM_ERROR;
  auto **list = static_cast<ldap_plugin_info **>(olx_calloc(count + 1, sizeof(ldap_plugin_info *)));
  if (list == nullptr) return LDAP_NO_MEMORY;
  *out = list;
  int i = 0;
  for (ldap_plugin_entry *e = registry_head; e != nullptr; e = e->next, ++i) {
    list[i] = static_cast<ldap_plugin_info *>(olx_calloc(1, sizeof(ldap_plugin_info)));
    ldap_plugin_info from = {e->type, e->name, e->path, e->init_function, e->args};
    if (list[i] == nullptr || !copy_strings(list[i], &from)) return LDAP_NO_MEMORY;
  }
  return LDAP_SUCCESS;
}

int ldap_free_plugin_list(ldap_plugin_info ***list) {
  if (list == nullptr || *list == nullptr) return LDAP_SUCCESS;
  ConfigLock lock;
  for (ldap_plugin_info **p = *list; *p != nullptr; ++p) free_info(*p);
  free(*list);
  *list = nullptr;
  return LDAP_SUCCESS;
}

int ldap_plugin_for_sasl(const char *mech, ldap_plugin_entry **entry) {
  *entry = nullptr;
  int rc = ldap_read_conf_file(&ldap_conf_list_global);
  if (rc != LDAP_SUCCESS) return rc;
  ldap_plugin_info key = {const_cast<char *>("sasl"), const_cast<char *>(mech), nullptr, nullptr, nullptr};
  {
    ConfigLock lock;
    *entry = ldap_plugin_find(&key);
  }
  if (*entry != nullptr) return LDAP_SUCCESS;
  ldap_plugin_info info;
  {
    ConfigLock lock;
    ldap_conf_fields want = {const_cast<char *>("plugin"), key.type, key.name, nullptr, nullptr, nullptr};
    ldap_conf_entry *conf = ldap_conf_find(&ldap_conf_list_global, &want);
    if (conf == nullptr) return LDAP_UNAVAILABLE_CRITICAL_EXTENSION;
    // The configuration is never changed once read, so its words stay valid.
    const ldap_conf_fields &w = conf->words;
    info = {w.type, w.name, w.path, w.init_function, w.args};
  }
  rc = ldap_plugin_load_and_init(&info, 0);
  if (rc != LDAP_SUCCESS) return rc;
  ConfigLock lock;
  *entry = ldap_plugin_find(&key);
  return *entry != nullptr ? LDAP_SUCCESS : LDAP_UNAVAILABLE_CRITICAL_EXTENSION;
}
}
