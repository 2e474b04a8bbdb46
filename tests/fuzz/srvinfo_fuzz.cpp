// Fuzzes the server information file reader, and checks that what it reads
// is written back by ldap_server_cache_save and read again unchanged.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ldap-dns.h"

namespace {

void check(bool ok) {
  if (!ok) abort();
}

std::string str(const char *s) { return s != nullptr ? std::string(s) + '\x01' : std::string("\x02"); }

std::string render(const LDAPServerInfo *s) {
  std::string out;
  for (; s != nullptr; s = s->next)
    out += str(s->service) + str(s->domain) + str(s->host) + str(s->suffix) + str(s->vendor) + str(s->info) +
           std::to_string(s->port) + "," + std::to_string(s->priority) + "," + std::to_string(s->weight) + "," +
           std::to_string(s->replica) + "," + std::to_string(s->sec_flag) + "\n";
  return out;
}

// The input as a file in memory, named through /proc so the reader opens it
// by path.
std::string scratch(const char *name) {
  int fd = memfd_create(name, 0);
  check(fd >= 0);
  return "/proc/self/fd/" + std::to_string(fd);
}

// The saved file needs a directory (it is renamed into place beside its
// lock file); it and the directory go at exit.
std::string save_dir;

void remove_save_dir() {
  for (const char *name : {"/out", "/out.lock"}) unlink((save_dir + name).c_str());
  rmdir(save_dir.c_str());
}

std::string save_path() {
  char dir[] = "/tmp/srvinfo_fuzz.XXXXXX";
  check(mkdtemp(dir) != nullptr);
  save_dir = dir;
  atexit(remove_save_dir);
  return save_dir + "/out";
}

// Whether a line of the input is long enough that, written back with every
// field and each character possibly escaped, it may pass the limit of 1023.
bool may_grow_too_long(const std::string &text) {
  size_t len = 0;
  for (char c : text) {
    len = c == '\n' ? 0 : len + 1;
    if (len > 480) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // A C string's view of the input: the reader's lines end at a NUL.
  std::string text(reinterpret_cast<const char *>(data), strnlen(reinterpret_cast<const char *>(data), size));
  static const std::string in = scratch("in"), out = save_path();
  FILE *f = fopen(in.c_str(), "w");
  fwrite(text.data(), 1, text.size(), f);
  fclose(f);
  LDAPServerInfo *list = nullptr;
  int rc = ldap_conf_read_servers(in.c_str(), &list);
  check(rc == 0 || rc == LDAP_DNS_CONF_FILE_ERROR);
  check(rc == 0 || list == nullptr);
  if (rc == 0) {
    // What is saved always reads back; it is the same list unless a line had
    // to be left out for its length.
    check(ldap_server_cache_save(out.c_str(), 0, list) == 0);
    LDAPServerInfo *back = nullptr;
    check(ldap_conf_read_servers(out.c_str(), &back) == 0);
    if (!may_grow_too_long(text)) check(render(back) == render(list));
    ldap_server_free_list(back);
  }
  ldap_server_free_list(list);
  return 0;
}
