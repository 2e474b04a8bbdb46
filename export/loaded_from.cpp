// tavldap_loaded_from: the canonical path of the file this library was loaded from.
#include <dlfcn.h>
#include <limits.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tavldap.h"
#include "tav-visibility.h"

namespace {
constexpr size_t kPathBuffer = 1024;
}

extern "C" char *tavldap_loaded_from(void) {
  Dl_info info;
  if (dladdr(reinterpret_cast<void *>(&tavldap_loaded_from), &info) == 0 || info.dli_fname == nullptr)
    return nullptr;

  char name[kPathBuffer];
  // A name that does not fit the buffer is refused rather than cut short.
  if (snprintf(name, sizeof name, "%s", info.dli_fname) >= (int)sizeof name) return nullptr;

  // realpath needs PATH_MAX bytes to write into safely, so let it allocate and
  // hold the result to the same 1024-byte limit.  When the file can no longer
  // be resolved (removed after loading) there is no canonical path: null.
  char *resolved = realpath(name, nullptr);
  if (resolved == nullptr) return nullptr;
  size_t len = strlen(resolved);
  char *result = nullptr;
  if (len < kPathBuffer) {
    result = static_cast<char *>(malloc(len + 1));
    if (result != nullptr) memcpy(result, resolved, len + 1);
  }
  free(resolved);
  return result;
}
