// Loading shared libraries at run time, and loading the security toolkit:
// its file name and place, and the table of its functions.
#include <dlfcn.h>
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ldap-debug.h"
#include "ldap-ssl.h"
#include "ldap-utils.h"

tav_function_table tav_fn;
std::atomic<ldap_dl *> tav_library{nullptr};

namespace {

constexpr const char *kDefaultLibDir = "/usr/lib/64/";
constexpr const char *kInstallDir = "/opt/KRV/ldap/V6.2";
constexpr int kLibNameSize = 1024;

// Table order is resolution order.
struct Symbol {
  const char *name;
  void **slot;
};
const Symbol kSymbols[] = {
    {"tav_environment_open", reinterpret_cast<void **>(&tav_fn.environment_open)},
    {"tav_environment_close", reinterpret_cast<void **>(&tav_fn.environment_close)},
    {"tav_environment_init", reinterpret_cast<void **>(&tav_fn.environment_init)},
    {"tav_secure_soc_open", reinterpret_cast<void **>(&tav_fn.secure_soc_open)},
    {"tav_secure_soc_init", reinterpret_cast<void **>(&tav_fn.secure_soc_init)},
    {"tav_secure_soc_close", reinterpret_cast<void **>(&tav_fn.secure_soc_close)},
    {"tav_secure_soc_read", reinterpret_cast<void **>(&tav_fn.secure_soc_read)},
    {"tav_secure_soc_write", reinterpret_cast<void **>(&tav_fn.secure_soc_write)},
    {"tav_attribute_set_buffer", reinterpret_cast<void **>(&tav_fn.attribute_set_buffer)},
    {"tav_attribute_get_buffer", reinterpret_cast<void **>(&tav_fn.attribute_get_buffer)},
    {"tav_attribute_set_callback", reinterpret_cast<void **>(&tav_fn.attribute_set_callback)},
    {"tav_attribute_get_cert_info", reinterpret_cast<void **>(&tav_fn.attribute_get_cert_info)},
    {"tav_attribute_set_numeric_value", reinterpret_cast<void **>(&tav_fn.attribute_set_numeric_value)},
    {"tav_attribute_get_numeric_value", reinterpret_cast<void **>(&tav_fn.attribute_get_numeric_value)},
    {"tav_attribute_set_enum", reinterpret_cast<void **>(&tav_fn.attribute_set_enum)},
    {"tav_attribute_get_enum", reinterpret_cast<void **>(&tav_fn.attribute_get_enum)},
    {"tav_strerror", reinterpret_cast<void **>(&tav_fn.strerror)},
    {"tav_get_cert_by_label", reinterpret_cast<void **>(&tav_fn.get_cert_by_label)},
};

// The library being loaded, before it is published in tav_library.
ldap_dl *loading = nullptr;

}  // namespace

extern "C" {

ldap_dl *ldap_dlopen(const char *file, int flags) {
  ldap_dl *lib = static_cast<ldap_dl *>(olx_calloc(1, sizeof(ldap_dl)));
  if (lib == nullptr) return nullptr;
  if (flags == 0) flags = RTLD_NOW | RTLD_GLOBAL;
  lib->handle = dlopen(file, flags);
  if (lib->handle == nullptr) {
    const char *why = dlerror();
    // The line number is the one this trace has always carried.
    LDAP_LOG(LDAP_LOG_ERROR, "dlopen(%s,%d) failed at %d in %s with error: %s\n", ldap_trace_str(file), flags, 190,
             __FILE__, why ? why : "");
    free(lib);
    return nullptr;
  }
  return lib;
}

void *ldap_dlsym(ldap_dl *lib, const char *symbol) {
  if (lib == nullptr || symbol == nullptr) return nullptr;
  return dlsym(lib->handle, symbol);
}

int ldap_dlclose(ldap_dl *lib) {
  if (lib == nullptr) return 80;
  dlclose(lib->handle);
  lib->handle = nullptr;
  free(lib);
  return 0;
}

char *getTAVLibrary(void) {
  char *version = ldap_getenv("TAVLIB_CLIENT_VERSION");
  if (version == nullptr) {
    LDAP_LOG(LDAP_LOG_TRACE, "getTAVLibrary: TAVLIB_CLIENT_VERSION is not set \n");
    version = olx_strdup("7");
    if (version == nullptr) {
      LDAP_LOG(LDAP_LOG_ERROR, "getTAVLibrary: strdup failed\n");
      return nullptr;
    }
  }
  char *name = static_cast<char *>(olx_malloc(kLibNameSize));
  if (name == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "getTAVLibrary fail to allocate memory\n");
  } else {
    int n = snprintf(name, kLibNameSize, "%s%s%s", "libtav", version, "ssl_64.so");
    if (n < 0 || n >= kLibNameSize) {
      LDAP_LOG(LDAP_LOG_ERROR, "getTAVLibrary: olx_snprintf failed\n");
      free(name);
      name = nullptr;
    }
  }
  free(version);
  return name;
}

char *ldap_get_default_libpath(void) {
  char *name = getTAVLibrary();
  if (name == nullptr) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_get_default_libpath: fail to get TAVLIB library name\n");
    return nullptr;
  }
  size_t size = strlen(kDefaultLibDir) + strlen(name) + 1;
  char *path = static_cast<char *>(olx_malloc(size));
  if (path == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, " Memory allocation failed ! \n");
  } else {
    snprintf(path, size, "%s%s", kDefaultLibDir, name);
  }
  free(name);
  return path;
}

int ldap_get_etc_file_path(const char *name, char sep, char **out) {
  if (name == nullptr || out == nullptr) return LDAP_PARAM_ERROR;
  char *dir = olx_strdup(kInstallDir);
  if (dir == nullptr) return LDAP_LOCAL_ERROR;
  size_t size = strlen(dir) + strlen(name) + 6;
  *out = static_cast<char *>(olx_malloc(size));
  if (*out != nullptr) snprintf(*out, size, "%s%cetc%c%s", dir, sep, sep, name);
  free(dir);
  return *out != nullptr ? LDAP_SUCCESS : LDAP_NO_MEMORY;
}

int clearLoadTlib(const char *symbol) {
  ldap_dlclose(loading);
  loading = nullptr;
  tav_library.store(nullptr, std::memory_order_release);
  LDAP_LOG(LDAP_LOG_ERROR, "clearLoadTlib: Failed to find symbol %s\n", symbol);
  return LDAP_SSL_NOT_AVAILABLE;
}

// Called with the SSL environment lock held.
int loadTlibShared(void) {
  if (char *kcl = ldap_getenv("TAVLIB_SHIPPED_KCL")) {
    bool refused = strcasecmp(kcl, "TRUE") == 0;
    free(kcl);
    if (refused) {
      LDAP_LOG(LDAP_LOG_ERROR, "loadTlibShared: Error Check the supported version of TAVLIB in the install guide.\n");
      return LDAP_SSL_NOT_AVAILABLE;
    }
  }
  char *name = getTAVLibrary();
  if (name == nullptr) {
    LDAP_LOG(LDAP_LOG_TRACE, "loadTlibShared: Missing Tavlib library name\n");
    return LDAP_SSL_NOT_AVAILABLE;
  }
  if (tav_library.load(std::memory_order_acquire) != nullptr) {
    LDAP_LOG(LDAP_LOG_TRACE, "loadTlibShared: Tavlib library has already loaded\n");
    free(name);
    return LDAP_SUCCESS;
  }
  if (ldap_chkenv("TAVLIB_LOCAL_INSTALL_MODE")) {
    LDAP_LOG(LDAP_LOG_TRACE, "loadTlibShared: Loading Tavlib library: %s \n", name);
    loading = ldap_dlopen(name, 0);
  } else {
    char *path = ldap_get_default_libpath();
    if (path == nullptr) {
      LDAP_LOG(LDAP_LOG_ERROR, "loadTlibShared: Unable to get default libpath\n");
      free(name);
      return LDAP_SSL_NOT_AVAILABLE;
    }
    LDAP_LOG(LDAP_LOG_TRACE, "loadTlibShared: Loading Tavlib library: %s tavLibPath=%s\n", name, path);
    loading = ldap_dlopen(path, 0);
    free(path);
  }
  if (loading == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - loadTlibShared: Failed to load %s\n", name);
    free(name);
    return LDAP_SSL_NOT_AVAILABLE;
  }
  free(name);
  for (const Symbol &s : kSymbols) {
    *s.slot = ldap_dlsym(loading, s.name);
    if (*s.slot == nullptr) return clearLoadTlib(s.name);
  }
  tav_library.store(loading, std::memory_order_release);
  loading = nullptr;
  LDAP_LOG(LDAP_LOG_TRACE, "loadTlibShared: Successfully resolved the required Tavlib function addresses\n");
  return LDAP_SUCCESS;
}

const char *tav_error_text(int code) {
  if (tav_library.load(std::memory_order_acquire) == nullptr || tav_fn.strerror == nullptr) return "Tavlib not loaded";
  return tav_fn.strerror(code);
}
}
