// tavldap: command-line client for libtav8ldap_64, with the option letters,
// output and exit codes of OpenLDAP's ldap-utils so that scripts written for
// ldapsearch, ldapmodify and their siblings work with it unchanged.
//
// It is linked with the full interface (the static archive), which offers
// controls, StartTLS, compare, extended operations and the server's error
// text.  Only "info" loads the shared object, to say which one a program
// using the exported interface would get.
#include <dlfcn.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "ldif.h"
#include "tavldap_full.h"

namespace {

constexpr int kUsage = 2;  // bad usage, as ldap-utils exit with

std::string program_dir() {
  char buf[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return ".";
  buf[n] = '\0';
  std::string path(buf);
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

// Where the shared object is found (TAVLDAP_LIBRARY, ../lib beside the
// program, the loader's path) and its identification.
int cmd_info() {
  std::string candidates[3];
  int n = 0;
  if (const char *env = getenv("TAVLDAP_LIBRARY"); env && *env) candidates[n++] = env;
  candidates[n++] = program_dir() + "/../lib/libtav8ldap_64.so";
  candidates[n++] = "libtav8ldap_64.so";
  void *handle = nullptr;
  std::string errors;
  for (int i = 0; i < n && handle == nullptr; ++i) {
    handle = dlopen(candidates[i].c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) errors += std::string("  ") + dlerror() + "\n";
  }
  if (handle == nullptr) {
    fprintf(stderr, "tavldap: cannot load libtav8ldap_64.so:\n%s", errors.c_str());
    return 1;
  }
  auto loaded_from = reinterpret_cast<char *(*)(void)>(dlvsym(handle, "tavldap_loaded_from", "tav8"));
  auto memfree = reinterpret_cast<void (*)(void *)>(dlvsym(handle, "tav_ldap_memfree", "tav8"));
  auto *sccs = static_cast<const char *>(dlvsym(handle, "tavldap_SCCSInfo", "tav8"));
  auto *copyright = static_cast<const char *>(dlvsym(handle, "tavldap_Copyright", "tav8"));
  if (!loaded_from || !memfree || !sccs || !copyright) {
    fprintf(stderr, "tavldap: the library lacks the tav8 interface\n");
    return 1;
  }
  char *path = loaded_from();
  printf("loaded from: %s\n", path ? path : "(unknown)");
  memfree(path);
  printf("%s\n", copyright);
  fputs(sccs, stdout);  // "@(#)key: value" lines
  return 0;
}

// ldap-utils print OpenLDAP's texts and exit with its codes, where the
// library's client-side codes are 81..101 and OpenLDAP's -1..-17.
int peer_code(int rc) {
  if (rc >= 81 && rc <= 95) return 80 - rc;
  if (rc == 100 || rc == 101) return 84 - rc;
  return rc;
}

const char *peer_text(int rc) {
  static const std::pair<int, const char *> texts[] = {
      {3, "Time limit exceeded"},
      {4, "Size limit exceeded"},
      {5, "Compare False"},
      {6, "Compare True"},
      {7, "Authentication method not supported"},
      {8, "Strong(er) authentication required"},
      {10, "Referral"},
      {11, "Administrative limit exceeded"},
      {12, "Critical extension is unavailable"},
      {13, "Confidentiality required"},
      {14, "SASL bind in progress"},
      {35, "Entry is a leaf"},
      {51, "Server is busy"},
      {52, "Server is unavailable"},
      {53, "Server is unwilling to perform"},
      {66, "Operation not allowed on non-leaf"},
      {71, "Operation affects multiple DSAs"},
      {76, "Virtual List View error"},
      {91, "Connect error"},
      {95, "More results to return"},
      {100, "Client Loop"},
      {101, "Referral Limit Exceeded"},
      {122, "Assertion Failed"},
      {123, "Proxied Authorization Denied"}};
  for (const auto &[code, text] : texts)
    if (code == rc) return text;
  return ldap_err2string(rc);
}

int exit_code(int rc) { return peer_code(rc) & 0xFF; }

struct Options {
  std::string command;
  std::string uri;  // -H: URI list
  std::string host;
  int port = 0;
  std::string binddn;
  std::string password;
  bool have_password = false;
  bool prompt = false;
  std::string password_file;  // -y
  int starttls = 0;           // -Z, -ZZ
  int version = LDAP_VERSION3;
  std::string base;
  bool have_base = false;
  int scope = LDAP_SCOPE_SUBTREE;
  int sizelimit = 0;
  int timelimit = 0;
  int deref = -1;
  bool attrs_only = false;
  int ldif = 0;  // -L count
  bool chase = false;  // -C
  bool referral_credentials = false;
  long nettimeout = -1, optimeout = -1;
  std::string keydb, keydb_password;  // -o keydb=, -o keydb-password= (ldaps, StartTLS)
  bool manage_dsa_it = false;         // -M
  int page_size = 0;                  // -E pr=N
  std::string assertion;              // -e assert=
  std::string authzid;                // -e authzid=: proxied authorisation
  bool ppolicy = false;               // -e ppolicy: asked for with the bind
  std::string sasl_mech, sasl_authcid;  // -Y, -U: a SASL bind through the plug-ins
  bool sasl_quiet = false;              // -Q
  std::string sasl_realm, sasl_authzid;  // -R, -X: words on the plug-in's krvldap.conf line
  int tmpfiles = 0;                   // -t: unprintable values to files, -tt: all
  std::string tmpdir = "/var/tmp";    // -T, where ldapsearch puts them by default
  std::string sort_keys;              // -E sss=, blank-separated as the library reads them
  bool sort_critical = false;
  bool vlv = false, vlv_critical = false;  // -E vlv=
  int vlv_before = 0, vlv_after = 0, vlv_offset = 0, vlv_count = 0;
  std::string vlv_value;  // ":value" positions by value, else by offset/count
  bool vlv_by_value = false;
  std::string vlv_text;  // as given, for the header
  bool keep_going = false, dry_run = false, verbose = false;
  bool delete_old_rdn = false;  // modrdn -r
  std::string newsuperior;      // modrdn -s
  std::string newpw, oldpw;     // passwd -s, -a
  bool have_newpw = false, have_oldpw = false;
  std::string file;
  std::vector<std::string> args;
};

// "func: text (code)" and the server's matched DN, text and referrals, as
// ldap-utils print a failed operation.
void print_error(const char *func, int rc, const char *matched, const char *text, char **refs) {
  fflush(stdout);
  fprintf(stderr, "%s: %s (%d)\n", func, peer_text(rc), peer_code(rc));
  if (matched && *matched) fprintf(stderr, "\tmatched DN: %s\n", matched);
  if (text && *text) fprintf(stderr, "\tadditional info: %s\n", text);
  if (refs && *refs) {
    fprintf(stderr, "\treferrals:\n");
    for (char **r = refs; *r; ++r) fprintf(stderr, "\t%s\n", *r);
  }
}

// A failure the library reports for the session (not a result message).
int session_error(LDAP *ld, const char *func, int rc) {
  char *matched = nullptr, *text = nullptr;
  ldap_get_error_info(ld, &matched, &text);
  print_error(func, rc, matched, text, nullptr);
  ldap_memfree(matched);
  ldap_memfree(text);
  return rc;
}

struct Result {
  int code = LDAP_OTHER;
  char *matched = nullptr, *text = nullptr, **refs = nullptr;
  LDAPControl **ctrls = nullptr;
  LDAPMessage *msg = nullptr;
  ~Result() {
    ldap_memfree(matched);
    ldap_memfree(text);
    ldap_value_free(refs);
    ldap_controls_free(ctrls);
    ldap_msgfree(msg);
  }
};

// Waits for the answer to msgid and reads it; the code (a local one when
// none came).
int wait_result(LDAP *ld, int msgid, Result &r) {
  if (ldap_result(ld, msgid, LDAP_MSG_ALL, nullptr, &r.msg) <= 0) return r.code = ldap_get_errno(ld);
  int rc = ldap_parse_result(ld, r.msg, &r.code, &r.matched, &r.text, &r.refs, &r.ctrls, 0);
  if (rc != LDAP_SUCCESS) r.code = rc;
  return r.code;
}

// The operation's result, printed as ldap-utils print a failure.
int finish(LDAP *ld, const char *func, int rc, int msgid) {
  if (rc != LDAP_SUCCESS) return session_error(ld, func, rc);
  Result r;
  if (wait_result(ld, msgid, r) != LDAP_SUCCESS) print_error(func, r.code, r.matched, r.text, r.refs);
  return r.code;
}

// Server controls from -M, -e assert= and -e authzid=; owned by the list.
struct Controls {
  std::vector<LDAPControl *> list;
  ~Controls() {
    for (auto *c : list)
      if (c) ldap_control_free(c);
  }
  LDAPControl **get() {
    if (list.empty()) return nullptr;
    if (list.back() != nullptr) list.push_back(nullptr);
    return list.data();
  }
  int add(LDAPControl *c) {
    if (!list.empty() && list.back() == nullptr) list.pop_back();
    list.push_back(c);
    return LDAP_SUCCESS;
  }
};

int common_controls(LDAP *ld, const Options &o, Controls &c) {
  LDAPControl *ctrl = nullptr;
  if (o.manage_dsa_it) {
    if (int rc = ldap_build_control(&ctrl, LDAP_CONTROL_MANAGEDSAIT, 0, nullptr, 1); rc != 0) return rc;
    c.add(ctrl);
  }
  if (!o.assertion.empty()) {
    if (int rc = ldap_create_assertion_control(ld, o.assertion.c_str(), 1, &ctrl); rc != 0) return rc;
    c.add(ctrl);
  }
  if (!o.authzid.empty()) {
    // The authzId's bytes as given, as ldap-utils send them (the library's
    // constructor counts a terminating zero in the value).
    if (int rc = ldap_build_control(&ctrl, LDAP_CONTROL_PROXYAUTH, o.authzid.size(), o.authzid.data(), 1); rc != 0)
      return rc;
    c.add(ctrl);
  }
  return LDAP_SUCCESS;
}

bool read_file(const std::string &path, std::string *text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    fprintf(stderr, "tavldap: cannot read %s: %s\n", path.c_str(), strerror(errno));
    return false;
  }
  text->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return true;
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

// The password policy's errors in ldap-utils' words (the response's error
// number is the index).
const char *ppolicy_text(int err) {
  static const char *const texts[] = {"Password expired",
                                      "Account locked",
                                      "Password must be changed",
                                      "Policy prevents password modification",
                                      "Policy requires old password in order to change password",
                                      "Password fails quality checks",
                                      "Password is too short for policy",
                                      "Password has been changed too recently",
                                      "New password is in list of old passwords"};
  return err >= 0 && err < (int)std::size(texts) ? texts[err] : "Unknown error";
}

// A simple bind with the password-policy request control, and what the
// policy's response says written as ldap-utils write it.
int ppolicy_bind(LDAP *ld, const Options &o) {
  LDAPControl *ctrl = nullptr;
  int rc = ldap_build_control(&ctrl, LDAP_CONTROL_PWDPOLICY, 0, nullptr, 0);
  if (rc != LDAP_SUCCESS) return session_error(ld, "ldap_sasl_bind(SIMPLE)", rc);
  LDAPControl *ctrls[] = {ctrl, nullptr};
  struct berval cred = {o.have_password ? o.password.size() : 0, const_cast<char *>(o.password.data())};
  int msgid = -1;
  rc = ldap_sasl_bind(ld, o.binddn.empty() ? nullptr : o.binddn.c_str(), nullptr, &cred, ctrls, nullptr, &msgid);
  ldap_control_free(ctrl);
  if (rc != LDAP_SUCCESS) return session_error(ld, "ldap_sasl_bind(SIMPLE)", rc);
  Result r;
  wait_result(ld, msgid, r);
  int err = 0, warn = 0, value = 0;
  std::string extra;
  if (ldap_parse_pwdpolicy_response(r.ctrls, &err, &warn, &value) > 0 && err >= 3)
    extra = std::string("; ") + ppolicy_text(err - 3);
  if (r.code != LDAP_SUCCESS || !extra.empty() || (r.matched && *r.matched) || (r.text && *r.text) || r.refs) {
    fflush(stdout);
    fprintf(stderr, "ldap_bind: %s (%d)%s\n", peer_text(r.code), peer_code(r.code), extra.c_str());
    if (r.matched && *r.matched) fprintf(stderr, "\tmatched DN: %s\n", r.matched);
    if (r.text && *r.text) fprintf(stderr, "\tadditional info: %s\n", r.text);
  }
  if (warn == 2) fprintf(stderr, "Password expired, %d grace logins remain\n", value);
  if (warn == 1) fprintf(stderr, "Password expires in %d seconds\n", value);
  return r.code;
}

// -Y: the whole exchange runs in the plug-in krvldap.conf names for the
// mechanism, with -U as the authentication identity and the password as the
// secret; the messages are ldap-utils' (the library adds no security layer,
// hence SSF 0).
int sasl_bind(LDAP *ld, const Options &o) {
  if (!o.sasl_quiet) fprintf(stderr, "SASL/%s authentication started\n", o.sasl_mech.c_str());
  struct berval cred = {o.password.size(), const_cast<char *>(o.password.data())};
  const int rc = ldap_sasl_bind_s(ld, o.sasl_authcid.empty() ? nullptr : o.sasl_authcid.c_str(), o.sasl_mech.c_str(),
                                  o.have_password ? &cred : nullptr, nullptr, nullptr, nullptr);
  if (rc != LDAP_SUCCESS) return session_error(ld, "ldap_sasl_interactive_bind", rc);
  // The name Cyrus reports is the authorisation identity when there is one.
  if (!o.sasl_quiet)
    fprintf(stderr, "SASL username: %s\nSASL SSF: 0\n",
            (o.sasl_authzid.empty() ? o.sasl_authcid : o.sasl_authzid).c_str());
  return rc;
}

// A session as the options say: URI list or host, protocol version,
// referrals, limits, time-outs, StartTLS, then a simple bind (anonymous
// without -D or a password, as ldap-utils bind).  Null after saying why,
// with the code in *rc.
LDAP *open_session(Options &o, int *rc) {
  if (!o.keydb.empty()) {
    int tavrc = 0;
    *rc = ldap_ssl_client_init(o.keydb.c_str(), o.keydb_password.empty() ? nullptr : o.keydb_password.c_str(), 0,
                               &tavrc);
    if (*rc != LDAP_SUCCESS) {
      print_error("ldap_ssl_client_init", *rc, nullptr, nullptr, nullptr);
      return nullptr;
    }
  }
  LDAP *ld = nullptr;
  if (!o.uri.empty()) {
    *rc = ldap_initialize(&ld, o.uri.c_str());
  } else {
    ld = ldap_init(o.host.empty() ? "localhost" : o.host.c_str(), o.port);
    *rc = ld ? LDAP_SUCCESS : LDAP_PARAM_ERROR;
  }
  if (*rc != LDAP_SUCCESS || ld == nullptr) {
    fprintf(stderr, "Could not create LDAP session handle for URI=%s (%d): %s\n", o.uri.c_str(), peer_code(*rc),
            peer_text(*rc));
    return nullptr;
  }
  if (o.verbose) fprintf(stderr, "ldap_initialize( %s )\n", o.uri.empty() ? o.host.c_str() : o.uri.c_str());
  struct timeval network = {o.nettimeout, 0}, operation = {o.optimeout, 0};
  *rc = ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &o.version);
  if (*rc == LDAP_SUCCESS) *rc = ldap_set_option(ld, LDAP_OPT_REFERRALS, o.chase ? LDAP_OPT_ON : LDAP_OPT_OFF);
  if (*rc == LDAP_SUCCESS && o.deref >= 0) *rc = ldap_set_option(ld, LDAP_OPT_DEREF, &o.deref);
  if (*rc == LDAP_SUCCESS && o.timelimit > 0) *rc = ldap_set_option(ld, LDAP_OPT_TIMELIMIT, &o.timelimit);
  if (*rc == LDAP_SUCCESS && o.nettimeout >= 0) *rc = ldap_set_option(ld, LDAP_OPT_NETWORK_TIMEOUT, &network);
  if (*rc == LDAP_SUCCESS && o.optimeout >= 0) *rc = ldap_set_option(ld, LDAP_OPT_TIMEOUT, &operation);
  // A referral may name any server: it gets the password only when asked for.
  rebind_identity = &o;
  if (*rc == LDAP_SUCCESS && o.chase && o.referral_credentials)
    *rc = ldap_set_option(ld, LDAP_OPT_REBIND_FN, reinterpret_cast<void *>(&rebind));
  if (*rc != LDAP_SUCCESS) {
    print_error("ldap_set_option", *rc, nullptr, nullptr, nullptr);
    ldap_unbind(ld);
    return nullptr;
  }
  if (o.starttls) {
    *rc = ldap_start_tls_s(ld, nullptr, nullptr);
    if (*rc != LDAP_SUCCESS) {
      session_error(ld, "ldap_start_tls", *rc);
      if (o.starttls > 1) {
        ldap_unbind(ld);
        return nullptr;
      }
    }
  }
  if (o.prompt) {
    char *pw = getpass("Enter LDAP Password: ");
    o.password = pw ? pw : "";
    o.have_password = true;
  } else if (!o.password_file.empty()) {
    if (!read_file(o.password_file, &o.password)) {
      *rc = LDAP_PARAM_ERROR;
      ldap_unbind(ld);
      return nullptr;
    }
    o.have_password = true;
  }
  if (!o.sasl_mech.empty()) {
    *rc = sasl_bind(ld, o);
  } else if (o.ppolicy) {
    *rc = ppolicy_bind(ld, o);
  } else {
    const int msgid = ldap_simple_bind(ld, o.binddn.empty() ? nullptr : o.binddn.c_str(),
                                       o.have_password ? o.password.c_str() : nullptr);
    *rc = msgid < 0 ? session_error(ld, "ldap_sasl_bind(SIMPLE)", ldap_get_errno(ld))
                    : finish(ld, "ldap_bind", LDAP_SUCCESS, msgid);
  }
  if (*rc != LDAP_SUCCESS) {
    ldap_unbind(ld);
    return nullptr;
  }
  return ld;
}

// The user-friendly name ldapsearch writes above each entry: the RDN values
// with ", " between them and a run of domain components dotted.
std::string ufn(const char *dn) {
  char **rdns = ldap_explode_dn(dn, 0);
  if (rdns == nullptr) return dn;
  std::string out;
  bool in_dc = false;
  for (char **r = rdns; *r; ++r) {
    std::string rdn = *r, value;
    for (size_t start = 0; start <= rdn.size();) {
      size_t plus = rdn.find('+', start);
      std::string ava = rdn.substr(start, plus == std::string::npos ? std::string::npos : plus - start);
      size_t eq = ava.find('=');
      value += (value.empty() ? "" : " + ") + (eq == std::string::npos ? ava : ava.substr(eq + 1));
      if (plus == std::string::npos) break;
      start = plus + 1;
    }
    const bool dc = strncasecmp(*r, "dc=", 3) == 0 && strchr(*r, '+') == nullptr;
    out += (r == rdns ? "" : in_dc && dc ? "." : ", ") + value;
    in_dc = dc;
  }
  ldap_value_free(rdns);
  return out;
}

struct Counts {
  int entries = 0, references = 0, responses = 0;
};

// What ldapsearch -t counts as printable: ASCII text without control characters.
bool printable(std::string_view value) {
  for (unsigned char ch : value)
    if (ch < 0x20 || ch > 0x7E) return false;
  return true;
}

// -t/-T: the value written to a new file in the directory; its file: URL, or
// "" (after saying why) when it could not be written.
std::string value_file(const char *attr, std::string_view value, const Options &o) {
  std::string path = o.tmpdir + "/tavldap-" + attr + "-XXXXXX";
  const int fd = mkstemp(path.data());
  bool ok = fd >= 0;
  for (size_t done = 0; ok && done < value.size();) {
    const ssize_t n = write(fd, value.data() + done, value.size() - done);
    ok = n > 0;
    done += ok ? (size_t)n : 0;
  }
  if (fd >= 0 && close(fd) != 0) ok = false;
  if (!ok) {
    fprintf(stderr, "tavldap: cannot write %s: %s\n", path.c_str(), strerror(errno));
    return "";
  }
  return "file://" + path;
}

void print_entry(LDAP *ld, LDAPMessage *e, const Options &o) {
  std::string out;
  char *dn = ldap_get_dn(ld, e);
  if (o.ldif < 2) out += "# " + ufn(dn ? dn : "") + "\n";
  out += tavldif::attr_line("dn", dn ? dn : "");
  ldap_memfree(dn);
  BerElement *state = nullptr;
  for (char *a = ldap_first_attribute(ld, e, &state); a != nullptr; a = ldap_next_attribute(ld, e, state)) {
    struct berval **vals = ldap_get_values_len(ld, e, a);
    if (o.attrs_only || vals == nullptr) {
      out += std::string(a) + ":\n";
    } else {
      for (struct berval **v = vals; *v != nullptr; ++v) {
        const std::string_view value((*v)->bv_val, (*v)->bv_len);
        std::string url;
        if (o.tmpfiles > 1 || (o.tmpfiles == 1 && !printable(value))) url = value_file(a, value, o);
        out += url.empty() ? tavldif::attr_line(a, value) : std::string(a) + ":< " + url + "\n";
      }
    }
    ldap_value_free_len(vals);
    ldap_memfree(a);
  }
  ldap_ber_free(state);
  fputs((out + "\n").c_str(), stdout);
}

// References: values at the default level, comments at -L and beyond, each
// written as ldapsearch writes them.
void print_refs(char **refs, const Options &o) {
  for (char **r = refs; r && *r; ++r) fputs(o.ldif ? ("# ref" + std::string(*r) + "\n").c_str() : tavldif::attr_line("ref", *r).c_str(), stdout);
}

void print_reference(LDAP *ld, LDAPMessage *m, const Options &o) {
  char **refs = nullptr;
  if (ldap_parse_reference(ld, m, &refs, nullptr, 0) != LDAP_SUCCESS) return;
  if (o.ldif < 2) fputs("# search reference\n", stdout);
  print_refs(refs, o);
  fputs("\n", stdout);
  ldap_value_free(refs);
}

// The search result: LDIF-style at the default level, the code and the
// server's text on standard error at -L and beyond, as ldapsearch does.
void print_search_result(const Result &r, int msgid, const Options &o) {
  if (o.ldif < 2) fputs("# search result\n", stdout);
  if (o.ldif == 0) {
    printf("search: %d\nresult: %d %s\n", msgid, peer_code(r.code), peer_text(r.code));
    if (r.matched && *r.matched) fputs(tavldif::attr_line("matchedDN", r.matched).c_str(), stdout);
    if (r.text && *r.text) fputs(tavldif::attr_line("text", r.text).c_str(), stdout);
    print_refs(r.refs, o);
  } else if (r.code != LDAP_SUCCESS) {
    fflush(stdout);
    fprintf(stderr, "%s (%d)\n", peer_text(r.code), peer_code(r.code));
    if (r.matched && *r.matched) fprintf(stderr, "Matched DN: %s\n", r.matched);
    if (r.text && *r.text) fprintf(stderr, "Additional information: %s\n", r.text);
    for (char **ref = r.refs; ref && *ref; ++ref) fprintf(stderr, "Referral: %s\n", *ref);
  }
  if (o.ldif < 2) fputs("\n", stdout);
}

const char *scope_name(int scope) {
  return scope == LDAP_SCOPE_BASE ? "baseObject" : scope == LDAP_SCOPE_ONELEVEL ? "oneLevel" : "subtree";
}

// Response controls as ldapsearch writes them: in the result block each as
// "control:" with its value in base64, then what it says for those it knows;
// at -L and beyond only the latter, as comments.
void print_result_controls(LDAP *ld, LDAPControl **ctrls, const Options &o) {
  const char *mark = o.ldif ? "# " : "";
  for (LDAPControl **c = ctrls; c && *c; ++c) {
    std::string line = std::string("control: ") + (*c)->ldctl_oid + ((*c)->ldctl_iscritical ? " true" : " false");
    if ((*c)->ldctl_value.bv_len > 0)
      line += " " + tavldif::base64_encode(std::string_view((*c)->ldctl_value.bv_val, (*c)->ldctl_value.bv_len));
    if (o.ldif == 0) puts(line.c_str());
    LDAPControl *one[] = {*c, nullptr};
    if (strcmp((*c)->ldctl_oid, LDAP_CONTROL_SORTRESPONSE) == 0) {
      unsigned long code = 0;
      char *attr = nullptr;
      if (ldap_parse_sort_control(ld, one, &code, &attr) == LDAP_SUCCESS)
        printf("%ssortResult: (%d) %s\n", mark, peer_code((int)code), peer_text((int)code));
      ldap_memfree(attr);
    } else if (strcmp((*c)->ldctl_oid, LDAP_CONTROL_VLVRESPONSE) == 0) {
      unsigned long pos = 0, count = 0;
      struct berval *context = nullptr;
      const int code = ldap_parse_vlv_control(ld, one, &pos, &count, &context);
      // ldapsearch's comment form lacks the ": ".
      printf("%spos=%lu count=%lu context=%s (%d) %s\n", o.ldif ? "# vlvResult" : "vlvResult: ", pos, count,
             context ? tavldif::base64_encode(std::string_view(context->bv_val, context->bv_len)).c_str() : "",
             peer_code(code), code == 77 ? "Unknown error" : peer_text(code));
      fber_bvfree(context);
    }
  }
}

bool parse_vlv(const char *text, Options &o);

int cmd_search(Options &o) {
  std::string filter = "(objectclass=*)";
  size_t first_attr = 0;
  if (!o.args.empty() && o.args[0].find('=') != std::string::npos) {
    filter = o.args[0];
    first_attr = 1;
  }
  if (o.vlv && o.sort_keys.empty()) {
    // A view is a window on a sorted list: ldapsearch refuses it alone.
    fprintf(stderr, "VLV control requires server side sort control\n");
    return EXIT_FAILURE;
  }
  std::vector<char *> attrs;
  for (size_t i = first_attr; i < o.args.size(); ++i) attrs.push_back(o.args[i].data());
  attrs.push_back(nullptr);
  if (o.ldif > 0 && o.ldif < 3) fputs("version: 1\n\n", stdout);
  const auto header = [&] {
    if (o.ldif >= 2) return;
    printf(
        "%s#\n# LDAPv%d\n# base <%s>%s with scope %s\n# filter: %s\n# requesting: ", o.ldif ? "" : "# extended LDIF\n",
        o.version, o.base.c_str(), o.have_base ? "" : " (default)", scope_name(o.scope), filter.c_str());
    if (attrs.size() == 1) fputs("ALL", stdout);
    for (size_t i = 0; i + 1 < attrs.size(); ++i) printf("%s ", attrs[i]);
    if (!o.sort_keys.empty()) printf("\n# with server side sorting %scontrol", o.sort_critical ? "critical " : "");
    if (o.vlv)
      printf("\n# with virtual list view %scontrol: %s", o.vlv_critical ? "critical " : "", o.vlv_text.c_str());
    if (o.page_size > 0) printf("\n# with pagedResults control: size=%d", o.page_size);
    fputs("\n#\n\n", stdout);
  };
  header();
  if (o.dry_run) return 0;
  int rc;
  LDAP *ld = open_session(o, &rc);
  if (ld == nullptr) return rc;
  Controls common;
  if ((rc = common_controls(ld, o, common)) == LDAP_SUCCESS && !o.sort_keys.empty()) {
    // The sort goes with every page and window.
    LDAPsortkey **keys = nullptr;
    LDAPControl *sort = nullptr;
    rc = ldap_create_sort_keylist(&keys, o.sort_keys.c_str());
    if (rc == LDAP_SUCCESS) rc = ldap_create_sort_control(ld, keys, o.sort_critical ? 1 : 0, &sort);
    ldap_free_sort_keylist(keys);
    if (rc == LDAP_SUCCESS) common.add(sort);
  }
  if (rc != LDAP_SUCCESS) {
    session_error(ld, "ldap_search_ext", rc);
    ldap_unbind(ld);
    return rc;
  }
  Counts n;
  struct berval *cookie = nullptr, *context = nullptr;
  int status = LDAP_SUCCESS;
  for (bool more = true; more;) {
    more = false;
    // The common controls belong to `common`; page and view are this turn's.
    std::vector<LDAPControl *> ctrls;
    for (auto *c : common.list)
      if (c) ctrls.push_back(c);
    std::unique_ptr<LDAPControl, void (*)(LDAPControl *)> page(nullptr, ldap_control_free),
        view(nullptr, ldap_control_free);
    if (o.page_size > 0) {
      LDAPControl *p = nullptr;
      rc = ldap_create_page_control(ld, (unsigned)o.page_size, cookie, 0, &p);
      page.reset(p);
      ctrls.push_back(p);
    }
    if (rc == LDAP_SUCCESS && o.vlv) {
      struct berval value = {o.vlv_value.size(), o.vlv_value.data()};
      LDAPVLVInfo info = {o.vlv_before, o.vlv_after, o.vlv_offset, o.vlv_count, o.vlv_by_value ? &value : nullptr,
                          context};
      LDAPControl *v = nullptr;
      rc = ldap_create_vlv_control(ld, &info, &v);
      view.reset(v);
      if (v) v->ldctl_iscritical = o.vlv_critical ? 1 : 0;
      ctrls.push_back(v);
    }
    ctrls.push_back(nullptr);
    int msgid = -1;
    if (rc == LDAP_SUCCESS)
      rc = ldap_search_ext(ld, o.base.c_str(), o.scope, filter.c_str(), attrs.size() > 1 ? attrs.data() : nullptr,
                           o.attrs_only ? 1 : 0, ctrls.size() > 1 ? ctrls.data() : nullptr, nullptr, nullptr,
                           o.sizelimit, &msgid);
    if (rc != LDAP_SUCCESS) {
      status = session_error(ld, "ldap_search_ext", rc);
      break;
    }
    struct timeval wait = {o.optimeout, 0};
    for (;;) {
      LDAPMessage *m = nullptr;
      const int type = ldap_result(ld, msgid, LDAP_MSG_ONE, o.optimeout >= 0 ? &wait : nullptr, &m);
      if (type <= 0) {
        status = type == 0 ? LDAP_TIMEOUT : ldap_get_errno(ld);
        if (type == 0) ldap_abandon(ld, msgid);
        ldap_msgfree(m);
        session_error(ld, "ldap_result", status);
        break;
      }
      ++n.responses;
      if (type == LDAP_RES_SEARCH_ENTRY) {
        ++n.entries;
        print_entry(ld, m, o);
        ldap_msgfree(m);
        continue;
      }
      if (type == LDAP_RES_SEARCH_REFERENCE) {
        ++n.references;
        print_reference(ld, m, o);
        ldap_msgfree(m);
        continue;
      }
      Result r;
      r.msg = m;
      if ((rc = ldap_parse_result(ld, m, &r.code, &r.matched, &r.text, &r.refs, &r.ctrls, 0)) != LDAP_SUCCESS)
        r.code = rc;
      if (o.ldif == 0 && r.ctrls) {
        // The control lines go inside the result block, before its blank line.
        if (o.ldif < 2) fputs("# search result\n", stdout);
        printf("search: %d\nresult: %d %s\n", msgid, peer_code(r.code), peer_text(r.code));
        if (r.matched && *r.matched) fputs(tavldif::attr_line("matchedDN", r.matched).c_str(), stdout);
        if (r.text && *r.text) fputs(tavldif::attr_line("text", r.text).c_str(), stdout);
        print_refs(r.refs, o);
        print_result_controls(ld, r.ctrls, o);
        fputs("\n", stdout);
      } else {
        print_search_result(r, msgid, o);
        print_result_controls(ld, r.ctrls, o);
      }
      status = r.code;
      if (page && r.code == LDAP_SUCCESS) {
        unsigned size = 0;
        fber_bvfree(cookie);
        cookie = nullptr;
        more = ldap_parse_page_control(ld, r.ctrls, &size, &cookie) == LDAP_SUCCESS && cookie && cookie->bv_len > 0;
        if (o.ldif > 0)
          printf("# pagedresults: cookie=%s\n",
                 cookie ? tavldif::base64_encode(std::string_view(cookie->bv_val, cookie->bv_len)).c_str() : "");
      }
      if (view && r.code == LDAP_SUCCESS) {
        // As ldapsearch walks a view: after each window a new one may be typed;
        // a bare Enter (or the end of input) moves the window on by one.
        unsigned long pos = 0, count = 0;
        fber_bvfree(context);
        context = nullptr;
        ldap_parse_vlv_control(ld, r.ctrls, &pos, &count, &context);
        if (o.ldif < 2) {
          printf("# numResponses: %d\n", n.responses);
          if (n.entries) printf("# numEntries: %d\n", n.entries);
          if (n.references) printf("# numReferences: %d\n", n.references);
        }
        n = Counts();
        puts("Press [before/after(/offset/count|:value)] Enter for the next window.");
        fflush(stdout);
        std::string line;
        if (std::getline(std::cin, line) && !line.empty()) {
          if (!parse_vlv(line.c_str(), o)) break;
        } else {
          o.vlv_offset = o.vlv_by_value ? 1 : o.vlv_offset + 1;
          o.vlv_by_value = false;
          o.vlv_count = (int)count;
        }
        o.vlv_text = std::to_string(o.vlv_before) + "/" + std::to_string(o.vlv_after) +
                     (o.vlv_by_value ? ":" + o.vlv_value
                                     : "/" + std::to_string(o.vlv_offset) + "/" + std::to_string(o.vlv_count));
        header();
        more = true;
      }
      break;
    }
  }
  fber_bvfree(cookie);
  fber_bvfree(context);
  if (o.ldif < 2) {
    printf("# numResponses: %d\n", n.responses);
    if (n.entries) printf("# numEntries: %d\n", n.entries);
    if (n.references) printf("# numReferences: %d\n", n.references);
  }
  ldap_unbind(ld);
  return status;
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

// One change record; `quiet` for the ldapdelete and ldapmodrdn forms, which
// print nothing on success.
int apply(LDAP *ld, tavldif::Record &r, const Options &o, LDAPControl **ctrls, bool quiet) {
  using tavldif::Change;
  static const char *const said[] = {"adding new entry", "adding new entry", "deleting entry", "modifying entry",
                                     "modifying rdn of entry"};
  static const char *const func[] = {"ldap_add", "ldap_add", "ldap_delete", "ldap_modify", "ldap_rename"};
  const int k = static_cast<int>(r.change);
  if (!quiet || o.verbose) printf("%s%s \"%s\"\n", o.dry_run ? "!" : "", said[k], r.dn.c_str());
  int rc = LDAP_SUCCESS, msgid = -1;
  if (!o.dry_run) {
    ModList mods(r.mods);
    const char *dn = r.dn.c_str();
    switch (r.change) {
      case Change::None:
      case Change::Add:
        rc = ldap_add_ext(ld, dn, mods.get(), ctrls, nullptr, &msgid);
        break;
      case Change::Modify:
        rc = ldap_modify_ext(ld, dn, mods.get(), ctrls, nullptr, &msgid);
        break;
      case Change::Delete:
        rc = ldap_delete_ext(ld, dn, ctrls, nullptr, &msgid);
        break;
      case Change::ModRdn:
        rc = ldap_rename(ld, dn, r.newrdn.c_str(), r.has_newsuperior ? r.newsuperior.c_str() : nullptr,
                         r.deleteoldrdn ? 1 : 0, ctrls, nullptr, &msgid);
        break;
    }
    if (quiet && r.change == Change::ModRdn && rc == LDAP_SUCCESS) {
      // ldapmodrdn's own form of a failure, on standard output.
      Result res;
      if ((rc = wait_result(ld, msgid, res)) != LDAP_SUCCESS) {
        printf("Rename Result: %s (%d)\n", peer_text(rc), peer_code(rc));
        if (res.matched && *res.matched) printf("Matched DN: %s\n", res.matched);
        if (res.text && *res.text) printf("Additional info: %s\n", res.text);
      }
    } else {
      rc = finish(ld, func[k], rc, msgid);
    }
  }
  if (!quiet) fputs("\n", stdout);
  return rc;
}

// add, modify, delete, modrdn: LDIF change records from -f FILE or standard
// input, as ldapmodify applies them.  delete also takes DNs and modrdn
// "DN NEWRDN" as arguments, as ldapdelete and ldapmodrdn do.
int cmd_update(Options &o, tavldif::Change default_change) {
  using tavldif::Change;
  std::vector<tavldif::Record> given;
  if (default_change == Change::Delete) {
    for (const auto &dn : o.args) given.push_back({0, dn, Change::Delete, {}, "", false, false, "", 0});
  } else if (default_change == Change::ModRdn && !o.args.empty()) {
    if (o.args.size() != 2) {
      fprintf(stderr, "tavldap: modrdn takes DN and NEWRDN (or LDIF on input)\n");
      return kUsage;
    }
    given.push_back({0, o.args[0], Change::ModRdn, {}, o.args[1], o.delete_old_rdn, !o.newsuperior.empty(),
                     o.newsuperior, 0});
  } else if (!o.args.empty()) {
    fprintf(stderr, "tavldap: unexpected argument \"%s\" (LDIF comes from -f FILE or standard input)\n",
            o.args[0].c_str());
    return kUsage;
  }
  std::string text, name = o.file.empty() || o.file == "-" ? "(standard input)" : o.file;
  if (given.empty()) {
    if (name == "(standard input)")
      text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    else if (!read_file(o.file, &text))
      return LDAP_PARAM_ERROR;
  }
  int rc = LDAP_SUCCESS;
  LDAP *ld = o.dry_run ? nullptr : open_session(o, &rc);
  if (ld == nullptr && !o.dry_run) return rc;
  Controls ctrls;
  if (ld && (rc = common_controls(ld, o, ctrls)) != LDAP_SUCCESS) {
    session_error(ld, "ldap_control", rc);
    ldap_unbind(ld);
    return rc;
  }
  int status = LDAP_SUCCESS;
  tavldif::Reader reader(std::move(text), default_change);
  for (size_t next_given = 0;;) {
    tavldif::Record r;
    std::string error;
    if (next_given < given.size()) {
      r = given[next_given++];
    } else if (!given.empty() || !reader.next(&r, &error)) {
      if (error.empty()) break;
      fprintf(stderr, "tavldap: %s: %s\n", name.c_str(), error.c_str());
      status = LDAP_PARAM_ERROR;
      if (o.keep_going) continue;
      break;
    }
    rc = apply(ld, r, o, ctrls.get(), !given.empty());
    if (rc != LDAP_SUCCESS) {
      status = rc;
      if (!o.keep_going) break;
    }
  }
  if (ld) ldap_unbind(ld);
  return status;
}

// compare DN attr:value (attr::base64): TRUE (exit 6), FALSE (5), or the
// failure and UNDEFINED, as ldapcompare prints them.
int cmd_compare(Options &o) {
  if (o.args.size() != 2 || o.args[1].find(':') == std::string::npos) {
    fprintf(stderr, "tavldap: compare takes DN and attr:value (or attr::base64value)\n");
    return kUsage;
  }
  const std::string &ava = o.args[1];
  const size_t colon = ava.find(':');
  const std::string attr = ava.substr(0, colon);
  std::string value = ava.substr(colon + 1);
  if (!value.empty() && value[0] == ':' && !tavldif::base64_decode(value.substr(1), &value)) {
    fprintf(stderr, "tavldap: bad base64 value in \"%s\"\n", ava.c_str());
    return kUsage;
  }
  if (o.dry_run) return 0;
  int rc;
  LDAP *ld = open_session(o, &rc);
  if (ld == nullptr) return rc;
  Controls ctrls;
  struct berval bv = {value.size(), value.data()};
  int msgid = -1;
  {
    // The result is freed before the session that holds it.
    Result r;
    if ((rc = common_controls(ld, o, ctrls)) == LDAP_SUCCESS &&
        (rc = ldap_compare_ext(ld, o.args[0].c_str(), attr.c_str(), &bv, ctrls.get(), nullptr, &msgid)) ==
            LDAP_SUCCESS)
      rc = wait_result(ld, msgid, r);
    else
      session_error(ld, "ldap_compare", rc);
    if (rc == LDAP_COMPARE_TRUE || rc == LDAP_COMPARE_FALSE) {
      puts(rc == LDAP_COMPARE_TRUE ? "TRUE" : "FALSE");
    } else {
      printf("Compare Result: %s (%d)\n", peer_text(rc), peer_code(rc));
      if (r.matched && *r.matched) printf("Matched DN: %s\n", r.matched);
      if (r.text && *r.text) printf("Additional info: %s\n", r.text);
      puts("UNDEFINED");
    }
  }
  ldap_unbind(ld);
  return rc;
}

// An extended operation's answer, read whole; the code.
int extended(LDAP *ld, const char *func, const char *oid, struct berval *data, Controls &ctrls, char **retoid,
             struct berval **retdata) {
  int msgid = -1;
  int rc = ldap_extended_operation(ld, oid, data, ctrls.get(), nullptr, &msgid);
  if (rc != LDAP_SUCCESS) return session_error(ld, func, rc);
  Result r;
  if (wait_result(ld, msgid, r) != LDAP_SUCCESS) {
    print_error(func, r.code, r.matched, r.text, r.refs);
    return r.code;
  }
  rc = ldap_parse_extended_result(ld, r.msg, retoid, retdata, 0);
  return rc == LDAP_SUCCESS ? rc : session_error(ld, func, rc);
}

// whoami, exop, passwd: the extended operations ldapwhoami, ldapexop and
// ldappasswd send, with their output.
int cmd_exop(Options &o) {
  const std::string kind = o.command == "exop" ? (o.args.empty() ? "" : o.args[0]) : o.command;
  if (kind.empty()) {
    fprintf(stderr, "tavldap: exop takes whoami, passwd or OID[:value|::base64value]\n");
    return kUsage;
  }
  std::string oid = kind == "whoami" ? LDAP_EXOP_WHO_AM_I : kind == "passwd" ? LDAP_EXOP_MODIFY_PASSWD : kind, value;
  bool have_value = false;
  if (size_t colon = oid.find(':'); colon != std::string::npos && kind != "whoami" && kind != "passwd") {
    value = oid.substr(colon + 1);
    oid.resize(colon);
    have_value = true;
    if (!value.empty() && value[0] == ':' && !tavldif::base64_decode(value.substr(1), &value)) {
      fprintf(stderr, "tavldap: bad base64 value in \"%s\"\n", kind.c_str());
      return kUsage;
    }
  }
  if (o.dry_run) return 0;
  int rc;
  LDAP *ld = open_session(o, &rc);
  if (ld == nullptr) return rc;
  Controls ctrls;
  if ((rc = common_controls(ld, o, ctrls)) != LDAP_SUCCESS) {
    session_error(ld, "ldap_control", rc);
    ldap_unbind(ld);
    return rc;
  }
  char *retoid = nullptr;
  struct berval *retdata = nullptr;
  if (kind == "passwd") {
    // The request value is built by the library's own password call.
    const std::string user = o.command == "passwd" ? (o.args.empty() ? "" : o.args[0]) : (o.args.size() > 1 ? o.args[1] : "");
    struct berval u = {user.size(), const_cast<char *>(user.data())};
    struct berval oldpw = {o.oldpw.size(), o.oldpw.data()}, newpw = {o.newpw.size(), o.newpw.data()};
    int msgid = -1;
    rc = ldap_passwd(ld, user.empty() ? nullptr : &u, o.have_oldpw ? &oldpw : nullptr, o.have_newpw ? &newpw : nullptr,
                     ctrls.get(), nullptr, &msgid);
    Result r;
    if (rc != LDAP_SUCCESS) {
      session_error(ld, "ldap_passwd", rc);
    } else if ((rc = wait_result(ld, msgid, r)) != LDAP_SUCCESS) {
      print_error("ldap_passwd", rc, r.matched, r.text, r.refs);
    } else {
      struct berval generated = {0, nullptr};
      if (ldap_parse_passwd(ld, r.msg, &generated) == LDAP_SUCCESS && generated.bv_len > 0)
        printf("New password: %.*s\n", (int)generated.bv_len, generated.bv_val);
      ldap_memfree(generated.bv_val);
    }
  } else {
    struct berval data = {value.size(), value.data()};
    rc = extended(ld, kind == "whoami" ? "ldap_whoami" : "ldap_extended_operation", oid.c_str(),
                  have_value ? &data : nullptr, ctrls, &retoid, &retdata);
    if (rc == LDAP_SUCCESS && kind == "whoami") {
      if (retdata == nullptr || retdata->bv_len == 0)
        puts("anonymous");
      else
        printf("%.*s\n", (int)retdata->bv_len, retdata->bv_val);
    } else if (rc == LDAP_SUCCESS) {
      puts("# extended operation response");
      if (retoid && *retoid) fputs(tavldif::attr_line("oid", retoid).c_str(), stdout);
      // Always base64, as ldapexop writes the value.
      if (retdata && retdata->bv_len > 0)
        printf("data:: %s\n", tavldif::base64_encode(std::string_view(retdata->bv_val, retdata->bv_len)).c_str());
    }
  }
  ldap_memfree(retoid);
  fber_bvfree(retdata);
  ldap_unbind(ld);
  return rc;
}

// The search an LDAP URL describes; the session goes to -H/-h when given,
// else to the URL's own server.
int cmd_url(Options &o) {
  if (o.args.size() != 1) {
    fprintf(stderr, "tavldap: url takes one LDAP URL\n");
    return kUsage;
  }
  if (o.uri.empty() && o.host.empty()) o.uri = o.args[0];
  if (o.ldif == 0) o.ldif = 3;  // entries only: the URL is the whole request
  int rc;
  LDAP *ld = open_session(o, &rc);
  if (ld == nullptr) return rc;
  LDAPMessage *res = nullptr;
  struct timeval wait = {o.optimeout, 0};
  rc = ldap_url_search_st(ld, o.args[0].c_str(), o.attrs_only ? 1 : 0, o.optimeout >= 0 ? &wait : nullptr, &res);
  if (rc != LDAP_SUCCESS) {
    session_error(ld, "ldap_url_search", rc);
  } else {
    for (LDAPMessage *m = ldap_first_message(ld, res); m; m = ldap_next_message(ld, m)) {
      if (ldap_msgtype(m) == LDAP_RES_SEARCH_ENTRY) print_entry(ld, m, o);
      if (ldap_msgtype(m) == LDAP_RES_SEARCH_REFERENCE) print_reference(ld, m, o);
    }
    Result r;
    if (ldap_parse_result(ld, res, &r.code, &r.matched, &r.text, &r.refs, nullptr, 0) == LDAP_SUCCESS)
      print_search_result(r, ldap_msgid(res), o);
    rc = r.code;
  }
  ldap_msgfree(res);
  ldap_unbind(ld);
  return rc;
}

void usage(FILE *to = stderr) {
  fprintf(to,
          "usage: tavldap [-d LEVEL] COMMAND [OPTIONS] [ARGS]\n"
          "commands (and the ldap-utils program each stands for):\n"
          "  info                       where libtav8ldap_64.so is found, and its identification\n"
          "  search [FILTER [ATTR...]]  ldapsearch\n"
          "  url URL                    the search an LDAP URL describes\n"
          "  add | modify               ldapadd | ldapmodify: LDIF from -f FILE or standard input\n"
          "  delete [DN...]             ldapdelete (LDIF on input without DNs)\n"
          "  modrdn [DN NEWRDN]         ldapmodrdn (-r deletes the old RDN, -s NEWSUPERIOR moves)\n"
          "  compare DN ATTR:VALUE      ldapcompare (ATTR::BASE64 too); exit 6 TRUE, 5 FALSE\n"
          "  whoami                     ldapwhoami\n"
          "  passwd [-a OLD] [-s NEW] [USER]   ldappasswd\n"
          "  exop whoami|passwd|OID[:VALUE|::BASE64]   ldapexop\n"
          "options (as ldap-utils spell them):\n"
          "  -H URIS  -h HOST -p PORT  -x  -D DN  -w PW | -W | -y FILE  -Z | -ZZ  -P 2|3\n"
          "  -b BASE  -s base|one|sub  -z SIZE  -l SECONDS  -a never|always|search|find  -A\n"
          "  -L | -LL | -LLL  -C (chase referrals)  -M (manageDSAit)  -E pr=N  -e assert=FILTER\n"
          "  -e authzid=dn:DN|u:USER  -e ppolicy  -E sss=[-]ATTR[:RULE][/...]\n"
          "  -E vlv=BEFORE/AFTER(/OFFSET/COUNT|:VALUE)  -t[t] (values to files)  -T DIR\n"
          "  -Y MECH  -U AUTHCID  -Q (SASL through the plug-in krvldap.conf names)\n"
          "  -R REALM  -X AUTHZID  -O minssf=0,maxssf=0,maxbufsize=0 (SASL)\n"
          "  -e manageDSAit  -c (go on after errors)  -n (show, do not send)  -v  -f FILE  -d LEVEL\n"
          "  -o nettimeout=N | timeout=N | referral-credentials=yes|no | keydb=FILE |\n"
          "     keydb-password=PW | ldif-wrap=no|76\n"
          "exit status: as ldap-utils: 0, the server's result code, or 256 minus the client error\n");
}

bool parse_int(const char *text, int *out) {
  char *end = nullptr;
  errno = 0;
  long v = strtol(text, &end, 10);
  if (end == text || *end != '\0' || errno != 0 || v < 0 || v > INT_MAX) return false;
  *out = static_cast<int>(v);
  return true;
}

// "NAME=SECONDS": true when `arg` is NAME= followed by a whole number.
bool seconds_option(const char *arg, const char *name, long *out) {
  const size_t n = strlen(name);
  int v;
  if (strncmp(arg, name, n) != 0 || !parse_int(arg + n, &v)) return false;
  *out = v;
  return true;
}

// "BEFORE/AFTER/OFFSET/COUNT" or "BEFORE/AFTER:VALUE", as ldapsearch's vlv= reads.
bool parse_vlv(const char *text, Options &o) {
  std::string t(text);
  const size_t colon = t.find(':');
  o.vlv_by_value = colon != std::string::npos;
  if (colon != std::string::npos) {
    o.vlv_value = t.substr(colon + 1);
    t.resize(colon);
  }
  std::vector<std::string> parts;
  for (size_t start = 0;;) {
    const size_t slash = t.find('/', start);
    parts.push_back(t.substr(start, slash == std::string::npos ? std::string::npos : slash - start));
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
  if (parts.size() != (o.vlv_by_value ? 2u : 4u)) return false;
  int *fields[] = {&o.vlv_before, &o.vlv_after, &o.vlv_offset, &o.vlv_count};
  for (size_t i = 0; i < parts.size(); ++i)
    if (!parse_int(parts[i].c_str(), fields[i])) return false;
  return true;
}

bool bad(const char *what, const char *arg) {
  fprintf(stderr, "tavldap: bad %s \"%s\"\n", what, arg);
  return false;
}

// One option letter; the letters mean what they mean to the ldap-utils
// program the command stands for (-s: scope to ldapsearch, new superior to
// ldapmodrdn, new password to ldappasswd).
bool take_option(int opt, const char *arg, Options &o) {
  const bool search = o.command == "search" || o.command == "url";
  const bool passwd = o.command == "passwd";
  switch (opt) {
    case 'H':
      o.uri = arg;
      return true;
    case 'h':
      o.host = arg;
      return true;
    case 'p':
      return (parse_int(arg, &o.port) && o.port <= 65535) || bad("port", arg);
    case 'D':
      o.binddn = arg;
      return true;
    case 'w':
      o.password = arg;
      o.have_password = true;
      return true;
    case 'W':
      o.prompt = true;
      return true;
    case 'y':
      o.password_file = arg;
      return true;
    case 'Z':
      ++o.starttls;
      return true;
    case 'P':
      if (strcmp(arg, "2") == 0 || strcmp(arg, "3") == 0) {
        o.version = arg[0] - '0';
        return true;
      }
      return bad("protocol version", arg);
    case 'b':
      o.base = arg;
      o.have_base = true;
      return true;
    case 's':
      if (o.command == "modrdn") {
        o.newsuperior = arg;
      } else if (passwd) {
        o.newpw = arg;
        o.have_newpw = true;
      } else if (strcasecmp(arg, "base") == 0) {
        o.scope = LDAP_SCOPE_BASE;
      } else if (strcasecmp(arg, "one") == 0 || strcasecmp(arg, "onelevel") == 0) {
        o.scope = LDAP_SCOPE_ONELEVEL;
      } else if (strcasecmp(arg, "sub") == 0 || strcasecmp(arg, "subtree") == 0) {
        o.scope = LDAP_SCOPE_SUBTREE;
      } else {
        return bad("scope", arg);
      }
      return true;
    case 'z':
      return parse_int(arg, &o.sizelimit) || bad("size limit", arg);
    case 'l':
      return parse_int(arg, &o.timelimit) || bad("time limit", arg);
    case 'a':
      if (passwd) {
        o.oldpw = arg;
        o.have_oldpw = true;
        return true;
      }
      for (const auto &[name, value] : {std::pair<const char *, int>{"never", LDAP_DEREF_NEVER},
                                        {"search", LDAP_DEREF_SEARCHING},
                                        {"find", LDAP_DEREF_FINDING},
                                        {"always", LDAP_DEREF_ALWAYS}})
        if (strcasecmp(arg, name) == 0) {
          o.deref = value;
          return true;
        }
      return bad("alias dereferencing", arg);
    case 'A':
      o.attrs_only = true;
      return true;
    case 'L':
      ++o.ldif;
      return true;
    case 'C':
      o.chase = true;
      return true;
    case 'M':
      o.manage_dsa_it = true;
      return true;
    case 'E':
    case 'e': {
      const char *v = arg[0] == '!' ? arg + 1 : arg;  // "!" marks critical; these are always sent critical
      if (strcmp(v, "manageDSAit") == 0) {
        o.manage_dsa_it = true;
      } else if (strncmp(v, "assert=", 7) == 0) {
        o.assertion = v + 7;
      } else if (strncmp(v, "authzid=", 8) == 0) {
        o.authzid = v + 8;
      } else if (strcmp(v, "ppolicy") == 0) {
        o.ppolicy = true;
      } else if (opt == 'E' && search && strncmp(v, "sss=", 4) == 0) {
        o.sort_keys = v + 4;
        for (char &ch : o.sort_keys)
          if (ch == '/') ch = ' ';
        o.sort_critical = v != arg;
        if (o.sort_keys.empty()) return bad("sort keys", arg);
      } else if (opt == 'E' && search && strncmp(v, "vlv=", 4) == 0) {
        if (!parse_vlv(v + 4, o)) return bad("virtual list view", arg);
        o.vlv = true;
        o.vlv_text = v + 4;
        o.vlv_critical = v != arg;
      } else if (opt == 'E' && search && strncmp(v, "pr=", 3) == 0) {
        std::string size(v + 3);
        size = size.substr(0, size.find('/'));  // "/noprompt": pages are always read without asking
        if (!parse_int(size.c_str(), &o.page_size) || o.page_size == 0) return bad("page size", arg);
      } else {
        return bad("control", arg);
      }
      return true;
    }
    case 't':
      ++o.tmpfiles;
      return search || bad("option", "-t");
    case 'T':
      o.tmpdir = arg;
      return search || bad("option", "-T");
    case 'Y':
      o.sasl_mech = arg;
      return true;
    case 'U':
      o.sasl_authcid = arg;
      return true;
    case 'Q':
      o.sasl_quiet = true;
      return true;
    case 'R':
    case 'X':
      // They become one word of a krvldap.conf line, which blanks would split.
      if (!*arg || strpbrk(arg, " \t\r\n") != nullptr) return bad(opt == 'R' ? "realm" : "authzid", arg);
      (opt == 'R' ? o.sasl_realm : o.sasl_authzid) = arg;
      return true;
    case 'O': {
      // The plug-in never negotiates a security layer and has no properties
      // to set, so only the values that say just that are accepted.
      std::string props(arg);
      for (size_t at = 0, end; at <= props.size(); at = end + 1) {
        end = std::min(props.find(',', at), props.size());
        const std::string p = props.substr(at, end - at);
        if (p != "minssf=0" && p != "maxssf=0" && p != "maxbufsize=0") {
          fprintf(stderr,
                  "tavldap: -O %s: the SASL plug-in negotiates no security layer; "
                  "only minssf=0, maxssf=0 and maxbufsize=0 are accepted\n",
                  p.c_str());
          return false;
        }
      }
      return true;
    }
    case 'c':
      o.keep_going = true;
      return true;
    case 'n':
      o.dry_run = true;
      return true;
    case 'v':
      o.verbose = true;
      return true;
    case 'f':
      o.file = arg;
      return true;
    case 'r':
      o.delete_old_rdn = true;
      return true;
    case 'x':
      return true;
    case 'd':
      setenv("LDAP_DEBUG", arg, 1);
      return true;
    case 'o':
      if (strcmp(arg, "referral-credentials=yes") == 0 || strcmp(arg, "referral-credentials=no") == 0) {
        o.referral_credentials = arg[21] == 'y';
      } else if (strncmp(arg, "keydb=", 6) == 0) {
        o.keydb = arg + 6;
      } else if (strncmp(arg, "keydb-password=", 15) == 0) {
        o.keydb_password = arg + 15;
      } else if (strcmp(arg, "ldif-wrap=no") != 0 && strcmp(arg, "ldif-wrap=76") != 0 &&
                 !seconds_option(arg, "nettimeout=", &o.nettimeout) && !seconds_option(arg, "timeout=", &o.optimeout)) {
        return bad("-o option", arg);
      }
      return true;
    default:
      return false;
  }
}

int parse_options(int argc, char **argv, Options &o) {
  int opt;
  optind = 1;
  while ((opt = getopt(argc, argv, "H:h:p:D:w:Wy:ZP:b:s:z:l:a:ALCME:e:tT:Y:U:R:X:O:Qcnvf:rxd:o:")) != -1) {
    if (opt == '?' || !take_option(opt, optarg, o)) {
      if (opt == '?') usage();
      return kUsage;
    }
  }
  for (int i = optind; i < argc; ++i) o.args.push_back(argv[i]);
  return 0;
}

// -R and -X reach the plug-in only as words on its krvldap.conf line, so the
// run gets a krvldap.conf of its own: the one the library would read (the
// directory KRVLDAP_CONF names, then the installed ones), with a line for the
// mechanism first, carrying the words.  The library reads the file at the
// first SASL bind, so KRVLDAP_CONF set here is seen.
class PrivateConf {
 public:
  ~PrivateConf() {
    if (dir_.empty()) return;
    unlink((dir_ + "/krvldap.conf").c_str());
    rmdir(dir_.c_str());
  }
  bool make(const Options &o) {
    std::vector<std::string> dirs;
    if (const char *env = getenv("KRVLDAP_CONF"); env && *env) dirs.push_back(env);
    dirs.insert(dirs.end(), {"/opt/KRV/ldap/V6.2/etc", "/opt/KRV/ldap/V6.2"});
    std::string text, line, first;
    for (const auto &d : dirs)
      if (access((d + "/krvldap.conf").c_str(), F_OK) == 0) {
        if (!read_file(d + "/krvldap.conf", &text)) return false;
        break;
      }
    for (size_t at = 0, end; at < text.size() && first.empty(); at = end + 1) {
      end = std::min(text.find('\n', at), text.size());
      line = text.substr(at, end - at);
      // kind type name library [init [arguments, up to a tab]]
      std::vector<std::string> words;
      size_t w = 0;
      while (words.size() < 5 && (w = line.find_first_not_of(" \t\r", w)) != std::string::npos) {
        const size_t e = std::min(line.find_first_of(" \t\r", w), line.size());
        words.push_back(line.substr(w, e - w));
        w = e;
      }
      if (line.empty() || line[0] == '#' || words.size() < 4 || words[0] != "plugin" || words[1] != "sasl" ||
          words[2] != o.sasl_mech)
        continue;
      std::string args;  // after word 5, blanks skipped, up to a tab
      if (words.size() == 5 && w < line.size() && line[w] == ' ') {
        args = line.substr(w, line.find('\t', w) - w);
        args.erase(0, args.find_first_not_of(' '));
      }
      // The words given here replace the line's own.
      std::string kept;
      for (size_t b = 0, e; b < args.size(); b = e + 1) {
        e = std::min(args.find(' ', b), args.size());
        const std::string word = args.substr(b, e - b);
        if (word.empty() || (!o.sasl_realm.empty() && word.rfind("realm=", 0) == 0) ||
            (!o.sasl_authzid.empty() && word.rfind("authzid=", 0) == 0))
          continue;
        kept += " " + word;
      }
      if (!o.sasl_realm.empty()) kept += " realm=" + o.sasl_realm;
      if (!o.sasl_authzid.empty()) kept += " authzid=" + o.sasl_authzid;
      first = "plugin sasl " + o.sasl_mech + " " + words[3] + " " + (words.size() == 5 ? words[4] : "ldap_plugin_init") +
              kept + "\n";
    }
    if (first.empty()) {
      fprintf(stderr, "tavldap: -R/-X: krvldap.conf has no line for %s\n", o.sasl_mech.c_str());
      return false;
    }
    char templ[] = "/tmp/tavldap-XXXXXX";
    if (mkdtemp(templ) == nullptr) return perror("tavldap: mkdtemp"), false;
    dir_ = templ;
    std::ofstream out(dir_ + "/krvldap.conf");
    out << first << text;
    out.close();
    if (!out) return fprintf(stderr, "tavldap: cannot write %s/krvldap.conf\n", dir_.c_str()), false;
    setenv("KRVLDAP_CONF", dir_.c_str(), 1);
    return true;
  }

 private:
  std::string dir_;
};

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
  Options o;
  o.command = argv[optind];
  if (o.command == "info") return cmd_info();
  using tavldif::Change;
  static const char *const commands[] = {"search", "url",     "add",    "modify", "delete", "modrdn",
                                         "compare", "whoami", "passwd", "exop"};
  bool known = false;
  for (const char *c : commands) known = known || o.command == c;
  if (!known) {
    fprintf(stderr, "tavldap: unknown command '%s'\n", o.command.c_str());
    usage();
    return kUsage;
  }
  if (int rc = parse_options(argc - optind, argv + optind, o); rc != 0) return rc;
  PrivateConf conf;  // removed when main returns
  if (!o.sasl_mech.empty() && (!o.sasl_realm.empty() || !o.sasl_authzid.empty()) && !conf.make(o)) return kUsage;
  int rc;
  if (o.command == "search")
    rc = cmd_search(o);
  else if (o.command == "url")
    rc = cmd_url(o);
  else if (o.command == "add")
    rc = cmd_update(o, Change::Add);
  else if (o.command == "modify")
    rc = cmd_update(o, Change::Modify);
  else if (o.command == "delete")
    rc = cmd_update(o, Change::Delete);
  else if (o.command == "modrdn")
    rc = cmd_update(o, Change::ModRdn);
  else if (o.command == "compare")
    rc = cmd_compare(o);
  else
    rc = cmd_exop(o);
  return exit_code(rc);
}
