// tavldap: command-line client for libtav8ldap_64.
//
// It loads the library with dlopen and calls only the exported functions.
// The library is looked for in TAVLDAP_LIBRARY, then next to the program
// (../lib/libtav8ldap_64.so), then on the loader's search path.
#include "tavldap.h"

#include <dlfcn.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "ldif.h"

namespace {

// The exported interface as this program uses it; entries stay null when the
// library lacks them, and only the commands that need them refuse to run.
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
  void (*ber_free)(BerElement *) = nullptr;
  int (*simple_bind_s)(LDAP *, const char *, const char *) = nullptr;
  int (*search_st)(LDAP *, const char *, int, const char *, char **, int, struct timeval *, LDAPMessage **) = nullptr;
  int (*url_search_st)(LDAP *, const char *, int, struct timeval *, LDAPMessage **) = nullptr;
  LDAPMessage *(*first_entry)(LDAP *, LDAPMessage *) = nullptr;
  LDAPMessage *(*next_entry)(LDAP *, LDAPMessage *) = nullptr;
  char *(*get_dn)(LDAP *, LDAPMessage *) = nullptr;
  char *(*first_attribute)(LDAP *, LDAPMessage *, BerElement **) = nullptr;
  char *(*next_attribute)(LDAP *, LDAPMessage *, BerElement *) = nullptr;
  struct berval **(*get_values_len)(LDAP *, LDAPMessage *, const char *) = nullptr;
  void (*value_free_len)(struct berval **) = nullptr;
  int (*msgfree)(LDAPMessage *) = nullptr;
  int (*add_s)(LDAP *, const char *, LDAPMod **) = nullptr;
  int (*delete_s)(LDAP *, const char *) = nullptr;
  int (*modify_s)(LDAP *, const char *, LDAPMod **) = nullptr;
  int (*modrdn_s)(LDAP *, const char *, const char *, int) = nullptr;
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
  resolve(lib.handle, lib.ber_free, "tav_ldap_ber_free");
  resolve(lib.handle, lib.simple_bind_s, "tav_ldap_simple_bind_s");
  resolve(lib.handle, lib.search_st, "tav_ldap_search_st");
  resolve(lib.handle, lib.url_search_st, "tav_ldap_url_search_st");
  resolve(lib.handle, lib.first_entry, "tav_ldap_first_entry");
  resolve(lib.handle, lib.next_entry, "tav_ldap_next_entry");
  resolve(lib.handle, lib.get_dn, "tav_ldap_get_dn");
  resolve(lib.handle, lib.first_attribute, "tav_ldap_first_attribute");
  resolve(lib.handle, lib.next_attribute, "tav_ldap_next_attribute");
  resolve(lib.handle, lib.get_values_len, "tav_ldap_get_values_len");
  resolve(lib.handle, lib.value_free_len, "tav_ldap_value_free_len");
  resolve(lib.handle, lib.msgfree, "tav_ldap_msgfree");
  resolve(lib.handle, lib.add_s, "tav_ldap_add_s");
  resolve(lib.handle, lib.delete_s, "tav_ldap_delete_s");
  resolve(lib.handle, lib.modify_s, "tav_ldap_modify_s");
  resolve(lib.handle, lib.modrdn_s, "tav_ldap_modrdn_s");
  if (!lib.loaded_from || !lib.memfree || !lib.sccs_info || !lib.copyright || !lib.init || !lib.unbind ||
      !lib.set_option || !lib.get_errno || !lib.err2string || !lib.url_parse || !lib.free_urldesc) {
    fprintf(stderr, "tavldap: the library lacks the tav8 interface\n");
    return false;
  }
  return true;
}

// A command that needs functions the loaded library does not export says so.
bool require(std::initializer_list<std::pair<const void *, const char *>> functions) {
  for (const auto &[f, name] : functions) {
    if (f == nullptr) {
      fprintf(stderr, "tavldap: the loaded library does not export %s\n", name);
      return false;
    }
  }
  return true;
}

// Exit status for problems found before anything is sent: bad usage and
// malformed LDIF.  LDAP_PARAM_ERROR, as the library would say of bad input.
constexpr int kUsage = 2;
constexpr int kBadInput = LDAP_PARAM_ERROR;

struct Options {
  std::string uri;  // -H: URL or host list
  std::string host = "localhost";
  int port = 0;
  std::string binddn;
  std::string password;
  bool have_password = false;
  bool prompt = false;
  std::string base;
  int scope = LDAP_SCOPE_SUBTREE;
  int sizelimit = -1;
  int timelimit = -1;
  bool attrs_only = false;
  bool no_chase = false;  // -C: referrals and references come back unfollowed
  // -o referral-credentials=yes: -D/-w go to the servers referrals lead to,
  // not only to the one named.
  bool referral_credentials = false;
  // -o nettimeout=N, -o timeout=N: seconds for opening each connection and
  // for each operation (-1: none).
  long nettimeout = -1;
  long optimeout = -1;
  bool verbose = false;
  bool keep_going = false;
  bool delete_old_rdn = false;
  std::string file;
  std::vector<std::string> args;
};

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
    return kUsage;
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

int report(Library &lib, const std::string &what, int rc) {
  fflush(stdout);  // progress lines first, then what went wrong
  if (rc != LDAP_SUCCESS) fprintf(stderr, "tavldap: %s: %s (%d)\n", what.c_str(), lib.err2string(rc), rc);
  return rc;
}

const Options *rebind_identity = nullptr;

int rebind(LDAP *, char **dn, char **pw, int *method, int freeit) {
  if (freeit) {
    free(*dn);
    free(*pw);
    *dn = *pw = nullptr;
    return LDAP_SUCCESS;
  }
  const Options &o = *rebind_identity;
  *dn = o.binddn.empty() ? nullptr : strdup(o.binddn.c_str());
  *pw = o.have_password ? strdup(o.password.c_str()) : nullptr;
  *method = LDAP_AUTH_SIMPLE;
  return LDAP_SUCCESS;
}

// A session to the server the options name, protocol version 3, limits set,
// bound when a DN or password was given.  Null after saying why.
LDAP *open_session(Library &lib, Options &o, int *rc) {
  const std::string target = o.uri.empty() ? o.host : o.uri;
  LDAP *ld = lib.init(target.c_str(), o.uri.empty() ? o.port : 0);
  if (ld == nullptr) {
    fprintf(stderr, "tavldap: cannot create a session for \"%s\"\n", target.c_str());
    *rc = LDAP_PARAM_ERROR;
    return nullptr;
  }
  if (o.verbose) {
    if (o.uri.empty())
      fprintf(stderr, "tavldap: session for %s port %d\n", target.c_str(), o.port ? o.port : LDAP_PORT);
    else
      fprintf(stderr, "tavldap: session for %s\n", target.c_str());
  }
  int version = LDAP_VERSION3;
  *rc = lib.set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
  if (*rc == LDAP_SUCCESS && o.no_chase) *rc = lib.set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
  if (*rc == LDAP_SUCCESS && o.sizelimit >= 0) *rc = lib.set_option(ld, LDAP_OPT_SIZELIMIT, &o.sizelimit);
  if (*rc == LDAP_SUCCESS && o.timelimit >= 0) *rc = lib.set_option(ld, LDAP_OPT_TIMELIMIT, &o.timelimit);
  struct timeval network = {o.nettimeout, 0}, operation = {o.optimeout, 0};
  if (*rc == LDAP_SUCCESS && o.nettimeout >= 0) *rc = lib.set_option(ld, LDAP_OPT_NETWORK_TIMEOUT, &network);
  if (*rc == LDAP_SUCCESS && o.optimeout >= 0) *rc = lib.set_option(ld, LDAP_OPT_TIMEOUT, &operation);
  if (*rc != LDAP_SUCCESS) {
    report(lib, "setting session options", *rc);
    lib.unbind(ld);
    return nullptr;
  }
  if (o.prompt) {
    char *pw = getpass("Enter LDAP Password: ");
    o.password = pw ? pw : "";
    o.have_password = true;
  }
  if (!o.binddn.empty() || o.have_password) {
    if (!require({{(const void *)lib.simple_bind_s, "tav_ldap_simple_bind_s"}})) {
      *rc = LDAP_NOT_SUPPORTED;
      lib.unbind(ld);
      return nullptr;
    }
    if (o.verbose) fprintf(stderr, "tavldap: binding as \"%s\"\n", o.binddn.c_str());
    *rc = lib.simple_bind_s(ld, o.binddn.empty() ? nullptr : o.binddn.c_str(),
                            o.have_password ? o.password.c_str() : nullptr);
    // Servers that referrals lead to get the password only when asked for:
    // a referral may name any server.  Otherwise the library chases them
    // anonymously.
    rebind_identity = &o;
    if (*rc == LDAP_SUCCESS && o.referral_credentials)
      *rc = lib.set_option(ld, LDAP_OPT_REBIND_FN, reinterpret_cast<void *>(&rebind));
    if (*rc != LDAP_SUCCESS) {
      report(lib, "bind as \"" + o.binddn + "\"", *rc);
      lib.unbind(ld);
      return nullptr;
    }
  }
  return ld;
}

// The entries of a result chain as LDIF on standard output; their number.
int print_entries(Library &lib, LDAP *ld, LDAPMessage *res, const Options &o) {
  int count = 0;
  for (LDAPMessage *e = res ? lib.first_entry(ld, res) : nullptr; e != nullptr; e = lib.next_entry(ld, e)) {
    std::string out;
    char *dn = lib.get_dn(ld, e);
    out += tavldif::attr_line("dn", dn ? dn : "");
    lib.memfree(dn);
    BerElement *state = nullptr;
    for (char *a = lib.first_attribute(ld, e, &state); a != nullptr; a = lib.next_attribute(ld, e, state)) {
      struct berval **vals = lib.get_values_len(ld, e, a);
      if (o.attrs_only || vals == nullptr) {
        out += std::string(a) + ":\n";
      } else {
        for (struct berval **v = vals; *v != nullptr; ++v)
          out += tavldif::attr_line(a, std::string_view((*v)->bv_val, (*v)->bv_len));
      }
      lib.value_free_len(vals);
      lib.memfree(a);
    }
    lib.ber_free(state);
    fputs(count++ ? "\n" : "", stdout);
    fputs(out.c_str(), stdout);
  }
  return count;
}

bool require_walk(Library &lib) {
  return require({{(const void *)lib.first_entry, "tav_ldap_first_entry"},
                  {(const void *)lib.next_entry, "tav_ldap_next_entry"},
                  {(const void *)lib.get_dn, "tav_ldap_get_dn"},
                  {(const void *)lib.first_attribute, "tav_ldap_first_attribute"},
                  {(const void *)lib.next_attribute, "tav_ldap_next_attribute"},
                  {(const void *)lib.get_values_len, "tav_ldap_get_values_len"},
                  {(const void *)lib.value_free_len, "tav_ldap_value_free_len"},
                  {(const void *)lib.msgfree, "tav_ldap_msgfree"},
                  {(const void *)lib.ber_free, "tav_ldap_ber_free"}});
}

int cmd_search(Library &lib, Options &o) {
  if (!require({{(const void *)lib.search_st, "tav_ldap_search_st"}}) || !require_walk(lib)) return LDAP_NOT_SUPPORTED;
  const std::string filter = o.args.empty() ? "(objectClass=*)" : o.args[0];
  std::vector<char *> attrs;
  for (size_t i = 1; i < o.args.size(); ++i) attrs.push_back(o.args[i].data());
  attrs.push_back(nullptr);
  int rc;
  LDAP *ld = open_session(lib, o, &rc);
  if (ld == nullptr) return rc;
  if (o.verbose) fprintf(stderr, "tavldap: searching \"%s\" for %s\n", o.base.c_str(), filter.c_str());
  LDAPMessage *res = nullptr;
  rc = lib.search_st(ld, o.base.c_str(), o.scope, filter.c_str(), attrs.size() > 1 ? attrs.data() : nullptr,
                     o.attrs_only ? 1 : 0, nullptr, &res);
  // Entries that arrived are printed even when the search ended in an error
  // (a size limit, say).
  const int count = print_entries(lib, ld, res, o);
  if (res != nullptr) lib.msgfree(res);
  if (o.verbose) fprintf(stderr, "tavldap: %d entries\n", count);
  lib.unbind(ld);
  return report(lib, "search", rc);
}

// The search an LDAP URL describes; the session goes to -H/-h when given,
// else to the URL's own server.
int cmd_url(Library &lib, Options &o) {
  if (!require({{(const void *)lib.url_search_st, "tav_ldap_url_search_st"}}) || !require_walk(lib))
    return LDAP_NOT_SUPPORTED;
  if (o.args.size() != 1) {
    fprintf(stderr, "tavldap: url takes one LDAP URL\n");
    return kUsage;
  }
  if (o.uri.empty() && o.host == "localhost" && o.port == 0) o.uri = o.args[0];
  int rc;
  LDAP *ld = open_session(lib, o, &rc);
  if (ld == nullptr) return rc;
  LDAPMessage *res = nullptr;
  rc = lib.url_search_st(ld, o.args[0].c_str(), o.attrs_only ? 1 : 0, nullptr, &res);
  const int count = print_entries(lib, ld, res, o);
  if (res != nullptr) lib.msgfree(res);
  if (o.verbose) fprintf(stderr, "tavldap: %d entries\n", count);
  lib.unbind(ld);
  return report(lib, "url search", rc);
}

bool read_input(const Options &o, std::string *text, std::string *name) {
  if (o.file.empty() || o.file == "-") {
    *name = "(standard input)";
    text->assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    return true;
  }
  *name = o.file;
  std::ifstream in(o.file, std::ios::binary);
  if (!in) {
    fprintf(stderr, "tavldap: cannot read %s: %s\n", o.file.c_str(), strerror(errno));
    return false;
  }
  text->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return true;
}

// Counted values for every modification, so values may hold any bytes.
class ModList {
 public:
  explicit ModList(std::vector<tavldif::Mod> &mods) {
    for (auto &m : mods) {
      auto &vals = values_.emplace_back();
      for (auto &v : m.values) vals.push_back({v.size(), v.data()});
    }
    for (size_t i = 0; i < mods.size(); ++i) {
      auto &ptrs = pointers_.emplace_back();
      for (auto &bv : values_[i]) ptrs.push_back(&bv);
      ptrs.push_back(nullptr);
    }
    for (size_t i = 0; i < mods.size(); ++i) {
      LDAPMod mod{};
      mod.mod_op = static_cast<int>(mods[i].op) | LDAP_MOD_BVALUES;
      mod.mod_type = mods[i].type.data();
      mod.mod_bvalues = pointers_[i].data();
      records_.push_back(mod);
    }
    for (auto &r : records_) list_.push_back(&r);
    list_.push_back(nullptr);
  }
  LDAPMod **get() { return list_.data(); }

 private:
  std::vector<std::vector<struct berval>> values_;
  std::vector<std::vector<struct berval *>> pointers_;
  std::vector<LDAPMod> records_;
  std::vector<LDAPMod *> list_;
};

int apply(Library &lib, LDAP *ld, tavldif::Record &r) {
  using tavldif::Change;
  switch (r.change) {
    case Change::None:
    case Change::Add: {
      printf("adding new entry \"%s\"\n", r.dn.c_str());
      ModList mods(r.mods);
      return report(lib, "adding \"" + r.dn + "\"", lib.add_s(ld, r.dn.c_str(), mods.get()));
    }
    case Change::Modify: {
      printf("modifying entry \"%s\"\n", r.dn.c_str());
      ModList mods(r.mods);
      return report(lib, "modifying \"" + r.dn + "\"", lib.modify_s(ld, r.dn.c_str(), mods.get()));
    }
    case Change::Delete:
      printf("deleting entry \"%s\"\n", r.dn.c_str());
      return report(lib, "deleting \"" + r.dn + "\"", lib.delete_s(ld, r.dn.c_str()));
    case Change::ModRdn:
      printf("renaming entry \"%s\" to \"%s\"\n", r.dn.c_str(), r.newrdn.c_str());
      return report(lib, "renaming \"" + r.dn + "\"",
                    lib.modrdn_s(ld, r.dn.c_str(), r.newrdn.c_str(), r.deleteoldrdn ? 1 : 0));
  }
  return LDAP_OTHER;
}

// add, modify, delete, modrdn: LDIF change records from -f FILE or standard
// input, each applied as soon as it has been read whole.  delete also takes
// DNs and modrdn "DN NEWRDN" as arguments instead.
int cmd_update(Library &lib, Options &o, tavldif::Change default_change) {
  using tavldif::Change;
  if (!require({{(const void *)lib.add_s, "tav_ldap_add_s"},
                {(const void *)lib.delete_s, "tav_ldap_delete_s"},
                {(const void *)lib.modify_s, "tav_ldap_modify_s"},
                {(const void *)lib.modrdn_s, "tav_ldap_modrdn_s"}}))
    return LDAP_NOT_SUPPORTED;
  std::vector<tavldif::Record> given;
  if (default_change == Change::Delete) {
    for (const auto &dn : o.args) given.push_back({0, dn, Change::Delete, {}, "", false, false, "", 0});
  } else if (default_change == Change::ModRdn && !o.args.empty()) {
    if (o.args.size() != 2) {
      fprintf(stderr, "tavldap: modrdn takes DN and NEWRDN (or LDIF on input)\n");
      return kUsage;
    }
    given.push_back({0, o.args[0], Change::ModRdn, {}, o.args[1], o.delete_old_rdn, false, "", 0});
  } else if (!o.args.empty()) {
    fprintf(stderr, "tavldap: unexpected argument \"%s\" (LDIF comes from -f FILE or standard input)\n",
            o.args[0].c_str());
    return kUsage;
  }
  std::string text, name;
  if (given.empty() && !read_input(o, &text, &name)) return kBadInput;
  int rc;
  LDAP *ld = open_session(lib, o, &rc);
  if (ld == nullptr) return rc;
  int status = LDAP_SUCCESS;
  tavldif::Reader reader(std::move(text), default_change);
  size_t next_given = 0;
  for (;;) {
    tavldif::Record r;
    std::string error;
    if (next_given < given.size()) {
      r = given[next_given++];
    } else if (!given.empty() || !reader.next(&r, &error)) {
      if (error.empty()) break;
      fprintf(stderr, "tavldap: %s: %s\n", name.c_str(), error.c_str());
      status = kBadInput;
      if (o.keep_going) continue;
      break;
    }
    if (r.change == Change::ModRdn && r.has_newsuperior) {
      // tav_ldap_modrdn_s renames within the parent; there is no exported way
      // to move an entry, so the record is refused rather than half done.
      fprintf(stderr, "tavldap: %s: line %d: newsuperior is not supported (renames stay within the parent)\n",
              name.c_str(), r.newsuperior_line);
      status = LDAP_NOT_SUPPORTED;
      if (o.keep_going) continue;
      break;
    }
    rc = apply(lib, ld, r);
    if (rc != LDAP_SUCCESS) {
      status = rc;
      if (!o.keep_going) break;
    }
  }
  lib.unbind(ld);
  return status;
}

// Usage goes to standard error after a mistake, to standard output when asked for.
// "-o NAME=SECONDS": true when `arg` is NAME= followed by a whole number of
// seconds, stored in *out.
bool seconds_option(const char *arg, const char *name, long *out) {
  const size_t n = strlen(name);
  if (strncmp(arg, name, n) != 0 || arg[n] == '\0') return false;
  char *end = nullptr;
  errno = 0;
  const long v = strtol(arg + n, &end, 10);
  if (*end != '\0' || errno != 0 || v < 0) return false;
  *out = v;
  return true;
}

void usage(FILE *to = stderr) {
  fprintf(to,
          "usage: tavldap [-d LEVEL] COMMAND [OPTIONS] [ARGS]\n"
          "commands:\n"
          "  info     print where the library was loaded from and its identification\n"
          "  session [URL|HOSTS]  create a session (default: $TAVLDAP_TEST_URL) and unbind it\n"
          "  search [FILTER [ATTR...]]  search and print the entries as LDIF\n"
          "  url 'ldap://HOST:PORT/BASE?ATTRS?SCOPE?FILTER'  run the search a URL describes (LDIF out)\n"
          "  add | modify | delete | modrdn   apply LDIF change records from -f FILE or standard input\n"
          "           (records without changetype are of the command's kind; delete also takes DNs,\n"
          "           modrdn also takes DN NEWRDN)\n"
          "options:\n"
          "  -H URL|HOSTS  server as an LDAP URL or a blank-separated host list\n"
          "  -h HOST -p PORT   server as host and port (default localhost:389)\n"
          "  -D DN -w PASSWORD | -W   simple bind (-W prompts for the password)\n"
          "  -b BASE -s base|one|sub -z SIZELIMIT -l TIMELIMIT -A (attribute names only)\n"
          "  -C (do not chase referrals: they come back as they are; by default they are followed\n"
          "      anonymously)\n"
          "  -o referral-credentials=yes|no  yes: bind to the servers referrals lead to as -D/-w too,\n"
          "      handing them the password (default no)\n"
          "  -o nettimeout=SECONDS  give up opening a connection (connect, SSL handshake) after that long\n"
          "  -o timeout=SECONDS     give up waiting for each operation's answer after that long (code 85)\n"
          "  -f FILE (LDIF input)  -c (go on after errors)  -r (modrdn: delete the old RDN)\n"
          "  -v (verbose)  -d LEVEL (sets LDAP_DEBUG for the run)  -x (simple auth; the only kind)\n"
          "exit status: 0, or the LDAP result code of the first failure (89 for malformed LDIF)\n");
}

bool parse_int(const char *text, int *out) {
  char *end = nullptr;
  long v = strtol(text, &end, 10);
  if (end == text || *end != '\0' || v < 0 || v > INT_MAX) return false;
  *out = static_cast<int>(v);
  return true;
}

// Options after the command, as ldapsearch and ldapmodify spell them.
int parse_options(int argc, char **argv, Options &o) {
  int opt;
  optind = 1;
  while ((opt = getopt(argc, argv, "H:h:p:D:w:Wb:s:z:l:ACvcf:rxd:o:")) != -1) {
    switch (opt) {
      case 'H':
        o.uri = optarg;
        break;
      case 'h':
        o.host = optarg;
        break;
      case 'p':
        if (!parse_int(optarg, &o.port) || o.port > 65535) {
          fprintf(stderr, "tavldap: bad port \"%s\"\n", optarg);
          return kUsage;
        }
        break;
      case 'D':
        o.binddn = optarg;
        break;
      case 'w':
        o.password = optarg;
        o.have_password = true;
        break;
      case 'W':
        o.prompt = true;
        break;
      case 'b':
        o.base = optarg;
        break;
      case 's':
        if (strcmp(optarg, "base") == 0) {
          o.scope = LDAP_SCOPE_BASE;
        } else if (strcmp(optarg, "one") == 0 || strcmp(optarg, "onelevel") == 0) {
          o.scope = LDAP_SCOPE_ONELEVEL;
        } else if (strcmp(optarg, "sub") == 0 || strcmp(optarg, "subtree") == 0) {
          o.scope = LDAP_SCOPE_SUBTREE;
        } else {
          fprintf(stderr, "tavldap: scope must be base, one or sub, not \"%s\"\n", optarg);
          return kUsage;
        }
        break;
      case 'z':
      case 'l':
        if (!parse_int(optarg, opt == 'z' ? &o.sizelimit : &o.timelimit)) {
          fprintf(stderr, "tavldap: bad limit \"%s\"\n", optarg);
          return kUsage;
        }
        break;
      case 'A':
        o.attrs_only = true;
        break;
      case 'C':
        o.no_chase = true;
        break;
      case 'v':
        o.verbose = true;
        break;
      case 'c':
        o.keep_going = true;
        break;
      case 'f':
        o.file = optarg;
        break;
      case 'r':
        o.delete_old_rdn = true;
        break;
      case 'x':
        break;
      case 'd':
        setenv("LDAP_DEBUG", optarg, 1);
        break;
      case 'o':
        if (strcmp(optarg, "referral-credentials=yes") == 0) {
          o.referral_credentials = true;
        } else if (strcmp(optarg, "referral-credentials=no") == 0) {
          o.referral_credentials = false;
        } else if (!seconds_option(optarg, "nettimeout=", &o.nettimeout) &&
                   !seconds_option(optarg, "timeout=", &o.optimeout)) {
          fprintf(stderr,
                  "tavldap: unknown -o option \"%s\" (known: referral-credentials=yes|no, nettimeout=N, timeout=N)\n",
                  optarg);
          return kUsage;
        }
        break;
      default:
        usage();
        return kUsage;
    }
  }
  for (int i = optind; i < argc; ++i) o.args.push_back(argv[i]);
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 2 && strcmp(argv[1], "--help") == 0) {
    usage(stdout);
    return 0;
  }
  int opt;
  while ((opt = getopt(argc, argv, "+d:h")) != -1) {
    switch (opt) {
      case 'd':
        setenv("LDAP_DEBUG", optarg, 1);
        break;
      case 'h':
        usage(stdout);
        return 0;
      default:
        usage();
        return kUsage;
    }
  }
  if (optind >= argc) {
    usage();
    return kUsage;
  }
  const std::string command = argv[optind];
  // The command's own options; LDAP_DEBUG must be set before the library loads.
  Options o;
  const bool takes_options = command != "info" && command != "session";
  if (takes_options) {
    if (int rc = parse_options(argc - optind, argv + optind, o); rc != 0) return rc;
  }
  Library lib;
  if (!load(lib)) return 1;
  using tavldif::Change;
  if (command == "info") return cmd_info(lib);
  if (command == "session") return cmd_session(lib, optind + 1 < argc ? argv[optind + 1] : getenv("TAVLDAP_TEST_URL"));
  if (command == "search") return cmd_search(lib, o);
  if (command == "url") return cmd_url(lib, o);
  if (command == "add") return cmd_update(lib, o, Change::Add);
  if (command == "modify") return cmd_update(lib, o, Change::Modify);
  if (command == "delete") return cmd_update(lib, o, Change::Delete);
  if (command == "modrdn") return cmd_update(lib, o, Change::ModRdn);
  fprintf(stderr, "tavldap: unknown command '%s'\n", command.c_str());
  usage();
  return kUsage;
}
