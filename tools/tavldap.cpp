// tavldap: command-line client for libtav8ldap_64.
//
// It loads the library with dlopen and calls only the exported functions.
// The library is looked for in TAVLDAP_LIBRARY, then next to the program
// (../lib/libtav8ldap_64.so), then on the loader's search path.
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
};

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
  if (!lib.loaded_from || !lib.memfree || !lib.sccs_info || !lib.copyright) {
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

void usage() {
  fprintf(stderr,
          "usage: tavldap [-d LEVEL] COMMAND\n"
          "commands:\n"
          "  info     print where the library was loaded from and its identification\n");
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
  fprintf(stderr, "tavldap: unknown command '%s'\n", command.c_str());
  usage();
  return 2;
}
