// Server records: the server information file (reading and writing), the
// DN-suffix filter, and the order in which located servers are offered.
#include <fcntl.h>
#include <strings.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "ldap-debug.h"
#include "ldap-dns.h"
#include "ldap-utils.h"

namespace {

// Longest line of the file, without its newline.
constexpr size_t kMaxLine = 1023;
// Latest expiry time the file holds.
constexpr unsigned long kMaxExpiry = 0xffffffffUL;

bool is_blank(char c) { return c == ' ' || c == '\t'; }
bool is_end(char c) { return c == '\0' || c == '\n' || c == '\r'; }

const char *skip_blanks(const char *p) {
  while (is_blank(*p)) ++p;
  return p;
}

// Next blank-separated word; null when the line has ended.
char *take_word(const char **pp) {
  const char *p = skip_blanks(*pp);
  const char *start = p;
  while (!is_end(*p) && !is_blank(*p)) ++p;
  *pp = p;
  if (p == start) return nullptr;
  return olx_strndup(start, (size_t)(p - start));
}

enum class Field { kNone, kOk, kBad, kNoMemory };

// An all-digit number up to `max`.
Field take_number(const char **pp, unsigned long max, unsigned long *value) {
  const char *p = skip_blanks(*pp);
  if (is_end(*p) || *p == '"') return Field::kNone;
  unsigned long v = 0;
  const char *start = p;
  while (!is_end(*p) && !is_blank(*p)) {
    if (*p < '0' || *p > '9') return Field::kBad;
    v = v * 10 + (unsigned long)(*p - '0');
    if (v > max) return Field::kBad;
    ++p;
  }
  if (p == start) return Field::kBad;
  *pp = p;
  *value = v;
  return Field::kOk;
}

// A double-quoted string with \" and \\ escapes; the empty string is null.
Field take_quoted(const char **pp, char **out) {
  const char *p = skip_blanks(*pp);
  if (is_end(*p)) return Field::kNone;
  if (*p != '"') return Field::kBad;
  ++p;
  const char *start = p;
  size_t len = 0;
  for (; *p != '"'; ++p, ++len) {
    if (*p == '\\' && (p[1] == '"' || p[1] == '\\')) ++p;
    if (*p == '\0') return Field::kBad;
  }
  *pp = p + 1;
  if (len == 0) return Field::kOk;
  char *s = static_cast<char *>(olx_malloc(len + 1));
  if (s == nullptr) return Field::kNoMemory;
  size_t n = 0;
  for (const char *q = start; q < p; ++q) {
    if (*q == '\\' && (q[1] == '"' || q[1] == '\\')) ++q;
    s[n++] = *q;
  }
  s[n] = '\0';
  *out = s;
  return Field::kOk;
}

// One server line.  0, LDAP_DNS_CONF_FILE_ERROR or LDAP_NO_MEMORY.
int parse_server_line(const char *line, LDAPServerInfo **out) {
  LDAPServerInfo *s = static_cast<LDAPServerInfo *>(olx_calloc(1, sizeof(LDAPServerInfo)));
  if (s == nullptr) return LDAP_NO_MEMORY;
  s->port = 389;
  const char *p = line;
  int rc = 0;
  char **words[] = {&s->service, &s->domain, &s->host};
  for (char **w : words) {
    const char *before = skip_blanks(p);
    *w = take_word(&p);
    if (*w == nullptr) {
      rc = is_end(*before) ? LDAP_DNS_CONF_FILE_ERROR : LDAP_NO_MEMORY;
      break;
    }
  }
  unsigned long numbers[5] = {0, 0, 389, 0, 0};
  const unsigned long limits[5] = {65535, 65535, 65535, 0x7fffffff, 0x7fffffff};
  int count = 0;
  for (; rc == 0 && count < 5; ++count) {
    Field f = take_number(&p, limits[count], &numbers[count]);
    if (f == Field::kNone) break;
    if (f == Field::kBad) rc = LDAP_DNS_CONF_FILE_ERROR;
  }
  if (rc == 0) {
    s->priority = (unsigned short)numbers[0];
    s->weight = (unsigned short)numbers[1];
    s->port = (unsigned short)numbers[2];
    s->replica = (int)numbers[3];
    s->sec_flag = (int)numbers[4];
  }
  char **strings[] = {&s->suffix, &s->vendor, &s->info};
  for (char **str : strings) {
    if (rc != 0) break;
    Field f = take_quoted(&p, str);
    if (f == Field::kNone) break;
    if (f == Field::kBad) rc = LDAP_DNS_CONF_FILE_ERROR;
    if (f == Field::kNoMemory) rc = LDAP_NO_MEMORY;
  }
  // Only blanks may follow the last field.
  if (rc == 0 && !is_end(*skip_blanks(p))) rc = LDAP_DNS_CONF_FILE_ERROR;
  if (rc != 0) {
    ldap_server_info_free(s);
    return rc;
  }
  *out = s;
  return 0;
}

void append_one(LDAPServerInfo **head, LDAPServerInfo **tail, LDAPServerInfo *s) {
  s->prev = *tail;
  s->next = nullptr;
  if (*tail != nullptr)
    (*tail)->next = s;
  else
    *head = s;
  *tail = s;
}

int make_parent_dirs(const char *path) {
  char *copy = olx_strdup(path);
  if (copy == nullptr) return LDAP_NO_MEMORY;
  int rc = 0;
  for (char *slash = strchr(copy + 1, '/'); slash != nullptr; slash = strchr(slash + 1, '/')) {
    *slash = '\0';
    if (mkdir(copy, 0755) != 0 && errno != EEXIST) {
      rc = errno;
      LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: Error creating configuration file path %s: rc = %d\n", copy, rc);
      break;
    }
    *slash = '/';
  }
  free(copy);
  return rc;
}

void append_quoted(std::string *line, const char *s) {
  *line += " \"";
  for (; s != nullptr && *s != '\0'; ++s) {
    if (*s == '"' || *s == '\\') *line += '\\';
    *line += *s;
  }
  *line += '"';
}

// A word the reader takes back whole: something, without blanks or line ends.
bool word_fits(const char *w) {
  if (w == nullptr || *w == '\0') return false;
  for (; *w != '\0'; ++w)
    if (is_blank(*w) || *w == '\n' || *w == '\r') return false;
  return true;
}

// The line of one server, or false when the file cannot hold it: a
// newline in a TXT value (legal in DNS) would end the line early.
bool server_line(const LDAPServerInfo *s, std::string *line) {
  if (!word_fits(s->service) || s->service[0] == '#' || !word_fits(s->domain) || !word_fits(s->host)) return false;
  if (s->replica < 0 || s->sec_flag < 0) return false;
  for (const char *str : {s->suffix, s->vendor, s->info})
    if (str != nullptr && strchr(str, '\n') != nullptr) return false;
  char numbers[80];
  snprintf(numbers, sizeof numbers, " %d %d %d %d %d", s->priority, s->weight, s->port, s->replica, s->sec_flag);
  *line = std::string(s->service) + " " + s->domain + " " + s->host + numbers;
  append_quoted(line, s->suffix);
  append_quoted(line, s->vendor);
  append_quoted(line, s->info);
  if (line->size() > kMaxLine) return false;
  *line += '\n';
  return true;
}

// The next component of a DN from the right: [*start, *end) trimmed of
// blanks; false when none is left.  `*limit` moves left past it.
bool previous_component(const char *dn, const char **limit, const char **start, const char **end) {
  const char *e = *limit;
  if (e == nullptr) return false;
  const char *b = e;
  while (b > dn && b[-1] != ',') --b;
  *limit = b > dn ? b - 1 : nullptr;
  while (b < e && is_blank(*b)) ++b;
  while (e > b && is_blank(e[-1])) --e;
  *start = b;
  *end = e;
  return true;
}

}  // namespace

extern "C" {

void ldap_server_info_free(LDAPServerInfo *s) {
  if (s == nullptr) return;
  free(s->host);
  free(s->suffix);
  free(s->service);
  free(s->domain);
  free(s->vendor);
  free(s->info);
  free(s);
}

void ldap_server_free_list(LDAPServerInfo *list) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_server_free_list(%p)\n", (void *)list);
  while (list != nullptr) {
    LDAPServerInfo *next = list->next;
    ldap_server_info_free(list);
    list = next;
  }
}

LDAPServerInfo *ldap_server_info_dup(const LDAPServerInfo *s) {
  LDAPServerInfo *c = static_cast<LDAPServerInfo *>(olx_calloc(1, sizeof(LDAPServerInfo)));
  if (c == nullptr) return nullptr;
  *c = *s;
  c->prev = c->next = nullptr;
  char **fields[] = {&c->host, &c->suffix, &c->service, &c->domain, &c->vendor, &c->info};
  bool failed = false;
  for (char **f : fields) {
    if (*f == nullptr) continue;
    *f = failed ? nullptr : olx_strdup(*f);
    if (*f == nullptr) failed = true;
  }
  if (failed) {
    ldap_server_info_free(c);
    return nullptr;
  }
  return c;
}

int ldap_conf_read_servers(const char *filename, LDAPServerInfo **entries) {
  *entries = nullptr;
  FILE *f = fopen(filename, "r");
  if (f == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: Error opening configuration file %s: rc = %d\n", filename, errno);
    return LDAP_DNS_CONF_FILE_ERROR;
  }
  LDAPServerInfo *head = nullptr, *tail = nullptr;
  char line[kMaxLine + 2];
  bool have_expiry = false;
  int rc = 0;
  while (rc == 0 && fgets(line, sizeof line, f) != nullptr) {
    size_t len = strlen(line);
    if (len == sizeof line - 1 && line[len - 1] != '\n') {
      LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: Invalid configuration file: line is too long\n");
      rc = LDAP_DNS_CONF_FILE_ERROR;
      break;
    }
    const char *p = skip_blanks(line);
    if (is_end(*p) || *p == '#') continue;
    if (!have_expiry) {
      have_expiry = true;
      unsigned long expiry = 0;
      const char *q = p;
      if (take_number(&q, kMaxExpiry, &expiry) != Field::kOk || !is_end(*skip_blanks(q))) {
        LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: invalid line in configuration file: %s", line);
        rc = LDAP_DNS_CONF_FILE_ERROR;
      } else if (expiry != 0 && (time_t)expiry < time(nullptr)) {
        LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: configuration file has expired\n");
        rc = LDAP_DNS_CONF_FILE_ERROR;
      }
      continue;
    }
    LDAPServerInfo *s = nullptr;
    rc = parse_server_line(p, &s);
    if (rc == LDAP_DNS_CONF_FILE_ERROR)
      LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: invalid line in configuration file: %s", line);
    if (rc == 0) append_one(&head, &tail, s);
  }
  fclose(f);
  if (rc != 0) {
    ldap_server_free_list(head);
    return rc;
  }
  *entries = head;
  return 0;
}

int ldap_server_cache_save(const char *filename, unsigned long ttl, LDAPServerInfo *list) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_server_cache_save(%s, %lu, %p)\n", ldap_trace_str(filename, "NULL"), ttl,
           (void *)list);
  const char *path = filename != nullptr ? filename : LDAP_SERVER_INFO_FILE;
  if (make_parent_dirs(path) != 0) return LDAP_LOCAL_ERROR;
  // The reader takes expiry times up to 0xffffffff: a longer time to live
  // is cut to that, not wrapped into the past.
  const unsigned long now = (unsigned long)time(nullptr);
  const unsigned long expiry = ttl == 0 ? 0 : ttl > kMaxExpiry - now ? kMaxExpiry : now + ttl;
  std::string text =
      "# LDAP configuration file.\n# The following line hold the files expiration time, which is\n"
      "# a UNIX time_t value (time in seconds since January 1, 1970\n"
      "# UTC). A value of 0 indicates that the file will not expire.\n" +
      std::to_string(expiry) +
      "\n"
      "# Each of the following lines in this file represents a known\n"
      "# LDAP server. The lines have the following format:\n"
      "#\tservice domain host priority weight port replica sec_flag \"suffix\" \"vendor\" \"info\"\n"
      "# where:\n#\tservice = service_key[.enetwork_domain]\n"
      "# Only service, domain and host are required\n";
  for (LDAPServerInfo *s = list; s != nullptr; s = s->next) {
    // What the reader would refuse, and so fail the whole file with, is left out.
    std::string line;
    if (server_line(s, &line))
      text += line;
    else
      LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: server %s cannot be saved in the configuration file\n",
               ldap_trace_str(s->host, "NULL"));
  }
  // Savers take turns on a lock file beside the target; each writes a
  // temporary file in the same directory and renames it over the target, so
  // a reader sees the old file or the new one, and a failed save leaves the
  // old one whole.
  const std::string target(path), lock_path = target + ".lock";
  std::string temp = target + ".XXXXXX";
  const int lock = open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (lock < 0 || flock(lock, LOCK_EX) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: Error opening configuration file %s: rc = %d\n", lock_path.c_str(), errno);
    if (lock >= 0) close(lock);
    return LDAP_LOCAL_ERROR;
  }
  int rc = 0;
  const int fd = mkostemp(&temp[0], O_CLOEXEC);
  if (fd < 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: Error opening configuration file %s: rc = %d\n", temp.c_str(), errno);
    close(lock);
    return LDAP_LOCAL_ERROR;
  }
  if (fchmod(fd, 0644) != 0) rc = errno;
  for (size_t done = 0; rc == 0 && done < text.size();) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno != EINTR) rc = errno;
    if (n == 0) rc = EIO;
    if (n > 0) done += (size_t)n;
  }
  if (rc == 0 && fsync(fd) != 0) rc = errno;
  if (close(fd) != 0 && rc == 0) rc = errno;
  if (rc == 0 && rename(temp.c_str(), path) != 0) rc = errno;
  if (rc != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldapdns: Error writing configuration file %s: rc = %d\n", path, rc);
    unlink(temp.c_str());
  }
  close(lock);
  return rc == 0 ? 0 : LDAP_LOCAL_ERROR;
}

int ldap_dns_suffix_fits(const char *suffix, const char *filter) {
  if (filter == nullptr) return 1;
  if (suffix == nullptr) return 0;
  const char *fl = filter + strlen(filter), *sl = suffix + strlen(suffix);
  const char *fb, *fe, *sb, *se;
  while (previous_component(filter, &fl, &fb, &fe)) {
    if (!previous_component(suffix, &sl, &sb, &se)) return 0;
    if (fe - fb != se - sb || strncasecmp(fb, sb, (size_t)(fe - fb)) != 0) return 0;
  }
  return 1;
}

void ldap_dns_insert_by_priority(LDAPServerInfo **list, LDAPServerInfo *s) {
  LDAPServerInfo *prev = nullptr, *cur = *list;
  while (cur != nullptr && cur->priority <= s->priority) {
    prev = cur;
    cur = cur->next;
  }
  s->prev = prev;
  s->next = cur;
  if (cur != nullptr) cur->prev = s;
  if (prev != nullptr)
    prev->next = s;
  else
    *list = s;
}

void ldap_dns_append(LDAPServerInfo **list, LDAPServerInfo *more) {
  if (more == nullptr) return;
  LDAPServerInfo *tail = *list;
  while (tail != nullptr && tail->next != nullptr) tail = tail->next;
  more->prev = tail;
  if (tail != nullptr)
    tail->next = more;
  else
    *list = more;
}

void ldap_dns_order_servers(LDAPServerInfo **list, unsigned int seed) {
  LDAPServerInfo *out = nullptr, *out_tail = nullptr;
  LDAPServerInfo *cur = *list;
  while (cur != nullptr) {
    // Cut the run of equal priority.
    LDAPServerInfo *run = cur, *last = cur;
    uint32_t total = cur->weight;  // 65535 servers of weight 65535 fit
    int count = 1;
    while (last->next != nullptr && last->next->priority == run->priority) {
      last = last->next;
      total += last->weight;
      ++count;
    }
    cur = last->next;
    last->next = nullptr;
    run->prev = nullptr;
    if (count >= 2 && total != 0) {
      while (total != 0 && run != nullptr) {
        // rand_r's range is wider than 15 bits here; the draw uses its low 15.
        float r = (float)(rand_r(&seed) % 32768) / 32767.0f;
        float sum = 0.0f;
        LDAPServerInfo *pick = nullptr;
        for (LDAPServerInfo *s = run; s != nullptr; s = s->next) {
          if (s->weight == 0) continue;
          sum += (float)s->weight / (float)total;
          if (r <= sum) {
            pick = s;
            break;
          }
        }
        if (pick == nullptr) continue;
        LDAP_LOG(LDAP_LOG_TRACE, "ldapdns: loadBalance select: %d %f %d/%u %s\n", pick->priority, (double)r,
                 pick->weight, total, pick->host);
        if (pick->prev != nullptr) pick->prev->next = pick->next;
        if (pick->next != nullptr) pick->next->prev = pick->prev;
        if (pick == run) run = pick->next;
        total -= pick->weight;
        append_one(&out, &out_tail, pick);
      }
    }
    while (run != nullptr) {
      LDAPServerInfo *next = run->next;
      append_one(&out, &out_tail, run);
      run = next;
    }
  }
  *list = out;
}

}  // extern "C"
