// tavldap: command-line client for libtav8ldap_64.
//
// It loads the library with dlopen and calls only the exported functions.
// The library is looked for in TAVLDAP_LIBRARY, then next to the program
// (../lib/libtav8ldap_64.so), then on the loader's search path.
#include "tavldap.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

struct Library {
  void *handle = nullptr;
  char *(*loaded_from)(void) = nullptr;
  void (*memfree)(void *) = nullptr;
  const char *sccs_info = nullptr;
  const char *copyright = nullptr;
  LDAP *(*init)(const char *, int) = nullptr;
  int (*unbind)(LDAP *) = nullptr;
  int (*set_option)(LDAP *, int, const void *) = nullptr;
  int (*get_errno)(LDAP *) = nullptr;
  char *(*err2string)(int) = nullptr;
  int (*url_parse)(const char *, LDAPURLDesc **) = nullptr;
  void (*free_urldesc)(LDAPURLDesc *) = nullptr;
};

template <typename F>
void resolve(void *handle, F &f, const char *name) {
  f = reinterpret_cast<F>(dlvsym(handle, name, "tav8"));
}

std::string program_dir() {
  char buf[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return ".";
  buf[n] = '\0';
  std::string path(buf);
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

bool load(Library &lib) {
  std::string candidates[3];
  int n = 0;
  if (const char *env = getenv("TAVLDAP_LIBRARY"); env && *env) candidates[n++] = env;
  candidates[n++] = program_dir() + "/../lib/libtav8ldap_64.so";
  candidates[n++] = "libtav8ldap_64.so";
  std::string errors;
  for (int i = 0; i < n && lib.handle == nullptr; ++i) {
    lib.handle = dlopen(candidates[i].c_str(), RTLD_NOW | RTLD_LOCAL);
    if (lib.handle == nullptr) errors += std::string("  ") + dlerror() + "\n";
  }
  if (lib.handle == nullptr) {
    fprintf(stderr, "tavldap: cannot load libtav8ldap_64.so:\n%s", errors.c_str());
    return false;
  }
  lib.loaded_from = reinterpret_cast<char *(*)(void)>(dlvsym(lib.handle, "tavldap_loaded_from", "tav8"));
  lib.memfree = reinterpret_cast<void (*)(void *)>(dlvsym(lib.handle, "tav_ldap_memfree", "tav8"));
  lib.sccs_info = static_cast<const char *>(dlvsym(lib.handle, "tavldap_SCCSInfo", "tav8"));
  lib.copyright = static_cast<const char *>(dlvsym(lib.handle, "tavldap_Copyright", "tav8"));
  resolve(lib.handle, lib.init, "tav_ldap_init");
  resolve(lib.handle, lib.unbind, "tav_ldap_unbind");
  resolve(lib.handle, lib.set_option, "tav_ldap_set_option");
  resolve(lib.handle, lib.get_errno, "tav_ldap_get_errno");
  resolve(lib.handle, lib.err2string, "tav_ldap_err2string");
  resolve(lib.handle, lib.url_parse, "tav_ldap_url_parse");
  resolve(lib.handle, lib.free_urldesc, "tav_ldap_free_urldesc");
  if (!lib.loaded_from || !lib.memfree || !lib.sccs_info || !lib.copyright || !lib.init || !lib.unbind ||
      !lib.set_option || !lib.get_errno || !lib.err2string || !lib.url_parse || !lib.free_urldesc) {
    fprintf(stderr, "tavldap: the library lacks the tav8 interface\n");
    return false;
  }
  return true;
}

int cmd_info(Library &lib) {
  char *path = lib.loaded_from();
  printf("loaded from: %s\n", path ? path : "(unknown)");
  lib.memfree(path);
  printf("%s\n", lib.copyright);
  // The identification block is "@(#)key: value" lines.
  fputs(lib.sccs_info, stdout);
  return 0;
}

// Opens a session to the server named by a URL or host list and closes it
// again, saying what happened at each step.
int cmd_session(Library &lib, const char *target) {
  if (target == nullptr || *target == '\0') {
    fprintf(stderr, "tavldap: session needs a URL or host (or TAVLDAP_TEST_URL)\n");
    return 2;
  }
  LDAPURLDesc *lud = nullptr;
  int rc = lib.url_parse(target, &lud);
  if (rc == LDAP_SUCCESS) {
    printf("url %s: scheme %s, host %s, port %d, base %s\n", target, lud->lud_scheme,
           lud->lud_host ? lud->lud_host : "(none)", lud->lud_port, lud->lud_dn ? lud->lud_dn : "(none)");
    lib.free_urldesc(lud);
  } else {
    printf("%s is a host list, not a URL (%d: %s)\n", target, rc, lib.err2string(rc));
  }
  LDAP *ld = lib.init(target, 0);
  if (ld == nullptr) {
    printf("tav_ldap_init(\"%s\", 0) failed\n", target);
    return 1;
  }
  printf("tav_ldap_init(\"%s\", 0): session created\n", target);
  int version = LDAP_VERSION3;
  rc = lib.set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
  printf("protocol version 3: %d (%s)\n", rc, lib.err2string(rc));
  int deref = 7;
  rc = lib.set_option(ld, LDAP_OPT_DEREF, &deref);
  printf("alias dereferencing 7 refused: %d (%s)\n", rc, lib.err2string(rc));
  rc = lib.get_errno(ld);
  printf("last result on this thread: %d (%s)\n", rc, lib.err2string(rc));
  rc = lib.unbind(ld);
  printf("tav_ldap_unbind: %d (%s)\n", rc, lib.err2string(rc));
  return rc == LDAP_SUCCESS ? 0 : 1;
}

void usage() {
  fprintf(stderr,
          "usage: tavldap [-d LEVEL] COMMAND\n"
          "commands:\n"
          "  info     print where the library was loaded from and its identification\n"
          "  session [URL|HOSTS]  create a session (default: $TAVLDAP_TEST_URL) and unbind it\n");
}

}  // namespace

int main(int argc, char **argv) {
  int opt;
  while ((opt = getopt(argc, argv, "+d:h")) != -1) {
    switch (opt) {
      case 'd':
        setenv("LDAP_DEBUG", optarg, 1);
        break;
      default:
        usage();
        return opt == 'h' ? 0 : 2;
    }
  }
  if (optind >= argc) {
    usage();
    return 2;
  }
  Library lib;
  if (!load(lib)) return 1;
  std::string command = argv[optind];
  if (command == "info") return cmd_info(lib);
  if (command == "session") return cmd_session(lib, optind + 1 < argc ? argv[optind + 1] : getenv("TAVLDAP_TEST_URL"));
  fprintf(stderr, "tavldap: unknown command '%s'\n", command.c_str());
  usage();
  return 2;
}
