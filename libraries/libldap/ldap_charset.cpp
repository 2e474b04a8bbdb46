// Locale and local code page: which code page the application's strings are
// in, and the flags that make every direction re-open its converter when it
// changes.
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "ldap-debug.h"
#include "ldap-iconv.h"
#include "ldap-utils.h"
#include "ldap-xlate.h"
#include "tavldap.h"

ldap_xlate_state ldap_xlate_globals;

namespace {
const char kDefaultLocalePath[] = "/usr/lib/locale";

void store_codepage(char *name) {
  free(ldap_xlate_globals.codepage);
  ldap_xlate_globals.codepage = name;
  ldap_xlate_note_codepage();
}

// The code page is the table ldap_cs_open reads.  A null one has no table
// and is refused when set instead of failing every conversion after:
// glibc's IBM864 reads 0x25 as U+066A, which no ASCII-based kind holds, and
// EUC-TW needs more rows than the 256 KiB a table addresses
// (docs/codeset.md, "Refused names").
struct Charset {
  const char *charset, *codepage;
};
const Charset kCharsets[] = {
    {"ISO-8859-1", "ISO88591"},
    {"ISO-8859-2", "ISO88592"},
    {"ISO-8859-5", "ISO88595"},
    {"ISO-8859-6", "ISO88596"},
    {"ISO-8859-7", "ISO88597"},
    {"ISO-8859-8", "ISO88598"},
    {"ISO-8859-9", "ISO88599"},
    {"ISO-8859-15", "ISO885915"},
    {"KRV437", "437"},
    {"KRV850", "850"},
    {"KRV852", "852"},
    {"KRV857", "857"},
    {"KRV862", "862"},
    {"KRV864", nullptr},
    {"KRV866", "866"},
    {"KRV869", "869"},
    {"TIS-620", "TIS620"},
    {"KRV1250", "1250"},
    {"KRV1251", "1251"},
    {"KRV1253", "1253"},
    {"KRV1254", "1254"},
    {"KRV1255", "1255"},
    {"KRV1256", "1256"},
    {"EUC-JP", "EUCJP"},
    {"EUC-KR", "EUCKR"},
    {"EUC-CN", "EUCCN"},
    {"EUC-TW", nullptr},
    {"Shift-JIS", "SJIS"},
    {"GBK", "GBK"},
    {"Big5", "BIG5"},
    {"KSC", "949"},
    {"GB18030", "GB18030"},
    {"KRV-1252", "1252"},
};
}  // namespace

extern "C" {

char *ldap_get_default_locale_path(void) {
  char *path = olx_strdup(kDefaultLocalePath);
  LDAP_LOG(LDAP_LOG_XLATE, "ldap_get_default_locale_path: path = %s\n", ldap_trace_str(path, "NULL"));
  return path;
}

int ldap_set_locpath(void) {
  char *path = ldap_get_default_locale_path();
  if (path == nullptr) return LDAP_LOCAL_ERROR;
  int rc = ldap_change_env_var(1, "LOCPATH", ':', path);
  free(path);
  return rc;
}

char *ldap_get_iconv_compliant_codepage(const char *name) {
  LDAP_LOG(LDAP_LOG_XLATE, "ldap_get_iconv_compliant_codepage(): %s\n", ldap_trace_str(name, "NULL"));
  if (name != nullptr && *name != '\0') return olx_strdup(name);
  LDAP_LOG(LDAP_LOG_XLATE,
           "ldap_get_iconv_compliant_codepage: replacing             NULL or empty codepage with "
           "ISO-8859-1(default)\n");
  return olx_strdup("ISO8859-1");
}

int ldap_set_iconv_local_codepage(const char *name) {
  LDAP_LOG(LDAP_LOG_XLATE, "ldap_set_iconv_local_codepage: codepage = %s\n", ldap_trace_str(name, "NULL"));
  int rc = ldap_set_locpath();
  if (rc != 0) return rc;
  if (name != nullptr) {
    if (ldap_xlate_globals.codepage != nullptr && *name == '\0') {
      LDAP_LOG(LDAP_LOG_XLATE, "ldap_set_iconv_local_codepage: Error:                   Empty codepage string\n");
      return LDAP_PARAM_ERROR;
    }
    char *compliant = ldap_get_iconv_compliant_codepage(name);
    if (compliant == nullptr) {
      LDAP_LOG(LDAP_LOG_XLATE,
               "ldap_set_iconv_local_codepage: Error in                ldap_get_iconv_compliant_codepage - "
               "returned NULL\n");
      return LDAP_NO_MEMORY;
    }
    store_codepage(compliant);
  } else {
    char *chosen = ldap_getenv("LDAP_CODEPAGE");
    if (chosen != nullptr && *chosen != '\0') {
      LDAP_LOG(LDAP_LOG_XLATE,
               "ldap_set_iconv_local_codepage: Using                set in environment variable LDAP_CODEPAGE : %s\n",
               chosen);
    } else {
      free(chosen);
      chosen = ldap_nl_langinfo();
      if (chosen == nullptr) return LDAP_PARAM_ERROR;
      LDAP_LOG(LDAP_LOG_XLATE, "ldap_set_iconv_local_codepage: Using codepage returned by ldap_nl_langinfo : %s\n",
               chosen);
    }
    if (ldap_xlate_globals.codepage == nullptr) {
      char *compliant = ldap_get_iconv_compliant_codepage(chosen);
      if (compliant == nullptr) {
        free(chosen);
        LDAP_LOG(LDAP_LOG_XLATE,
                 "ldap_set_iconv_local_codepage: Error in                ldap_get_iconv_compliant_codepage - "
                 "returned NULL\n");
        return LDAP_NO_MEMORY;
      }
      store_codepage(compliant);
    }
    free(chosen);
  }
  for (int &flag : ldap_xlate_globals.reset) flag = 1;
  return 0;
}

int ldap_set_locale(const char *locale) {
  LDAP_LOG(LDAP_LOG_XLATE, "ldap_set_locale: locale = %s\n", ldap_trace_str(locale, "NULL"));
  int rc = ldap_set_locpath();
  if (rc != 0) return rc;
  if (ldap_iconv_lock() != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error in pthread_mutex_lock at File %s, Line %d, errno %d\n", __FILE__, __LINE__, errno);
    return LDAP_LOCK_ERROR;
  }
  LDAP_LOG(LDAP_LOG_XLATE, "ldap_set_locale: Calling setlocale(LC_ALL, \"%s\")                            \n",
           ldap_trace_str(locale, "NULL"));
  const char *set = setlocale(LC_ALL, locale);
  if (set == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_set_locale: setlocale returned error,             errno = %d\n", errno);
    ldap_iconv_unlock();
    return LDAP_LOCAL_ERROR;
  }
  char *copy = olx_strdup(set);
  if (copy == nullptr) {
    ldap_iconv_unlock();
    return LDAP_NO_MEMORY;
  }
  free(ldap_xlate_globals.locale);
  ldap_xlate_globals.locale = copy;
  ldap_iconv_unlock();
  if (locale != nullptr && *locale != '\0') store_codepage(nullptr);  // derived again from the new locale
  return ldap_set_iconv_local_codepage(nullptr);
}

int ldap_set_iconv_local_charset(const char *charset) {
  if (charset == nullptr) return LDAP_PARAM_ERROR;
  LDAP_LOG(LDAP_LOG_XLATE, "ldap_set_iconv_local_charset : charset = %s\n", charset);
  if (ldap_xlate_globals.locale == nullptr) ldap_set_locale("");
  for (const Charset &c : kCharsets) {
    if (strcmp(c.charset, charset) != 0) continue;
    // 161 is the library's code for EINVAL, iconv_open's answer for a code set it lacks.
    if (c.codepage == nullptr) return LDAP_XLATE_INPUT_TRUNCATED;
    return ldap_set_iconv_local_codepage(c.codepage);
  }
  return LDAP_PARAM_ERROR;
}

const char *ldap_charset_name(size_t i) { return i < std::size(kCharsets) ? kCharsets[i].charset : nullptr; }

char *ldap_get_local_codepage(void) {
  return ldap_xlate_globals.codepage != nullptr ? olx_strdup(ldap_xlate_globals.codepage) : nullptr;
}

char *ldap_get_current_locale(void) {
  const char *cur = setlocale(LC_CTYPE, nullptr);
  return cur != nullptr ? olx_strdup(cur) : nullptr;
}

}  // extern "C"
