// LDAP URLs: ldap[s]://host[:port][/dn[?attrs[?scope[?filter]]]], optionally
// inside "<" ... ">" and after "URL:".
#include <strings.h>

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "ldap-debug.h"
#include "ldap-int.h"
#include "ldap-utils.h"

namespace {

const char kDefaultFilter[] = "(objectClass=*)";

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return c - 87;  // 'a'..'f' give 10..15; anything else is decoded the same way
}

// Ports are 16 bits; a longer run of digits is as wrong as a letter.
bool port_value(const char *text, int *port) {
  if (!ldap_url_port_is_numeric(text)) return false;
  long value = 0;
  for (const char *p = text; *p != '\0'; ++p) {
    value = value * 10 + (*p - '0');
    if (value > 65535) return false;
  }
  *port = (int)value;
  return true;
}

int fail(LDAPURLDesc *lud, int rc) {
  ldap_free_urldesc(lud);
  return rc;
}

}  // namespace

extern "C" {

int ldap_url_port_is_numeric(const char *s) {
  if (s == nullptr) return 0;
  for (; *s != '\0'; ++s)
    if (!isdigit((unsigned char)*s)) return 0;
  return 1;
}

void ldap_url_unescape(char *s) {
  char *w = s;
  const char *r = s;
  while (*r != '\0') {
    if (*r != '%') {
      *w++ = *r++;
      continue;
    }
    if (r[1] == '\0' || r[2] == '\0') break;
    *w++ = (char)(unsigned char)(hex_value(r[1]) * 16 + hex_value(r[2]));
    r += 3;
  }
  *w = '\0';
}

int ldap_url_skip_prefix(const char **urlp, LDAPURLDesc *ludp, int *enclosed, int *secure, int store) {
  if (urlp == nullptr || *urlp == nullptr) return 0;
  const char *p = *urlp;
  *enclosed = 0;
  if (*p == '<') {
    *enclosed = 1;
    ++p;
  }
  if (strncasecmp(p, "URL:", 4) == 0) p += 4;
  int is_secure;
  size_t scheme_len;
  if (strncasecmp(p, "ldap://", 7) == 0) {
    is_secure = 0;
    scheme_len = 4;
  } else if (strncasecmp(p, "ldaps://", 8) == 0) {
    is_secure = 1;
    scheme_len = 5;
  } else {
    return 0;
  }
  if (store && ludp != nullptr) ludp->lud_scheme = olx_strndup(p, scheme_len);
  p += scheme_len + 3;
  if (secure != nullptr) *secure = is_secure;
  *urlp = p;
  return 1;
}

int ldap_url_is_ldap_url(const char *url) {
  if (url == nullptr) return 0;
  int enclosed = 0;
  return ldap_url_skip_prefix(&url, nullptr, &enclosed, nullptr, 0);
}

void ldap_free_urldesc(LDAPURLDesc *ludp) {
  if (ludp == nullptr) return;
  free(ludp->lud_scheme);
  free(ludp->lud_string);
  if (ludp->lud_attrs != nullptr) {
    for (char **a = ludp->lud_attrs; *a != nullptr; ++a) free(*a);
    free(ludp->lud_attrs);
  }
  free(ludp->lud_filter);
  free(ludp->lud_dn);
  free(ludp->lud_host);
  free(ludp);
}

int ldap_url_parse_internal(const char *url, LDAPURLDesc **ludpp) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_url_parse_internal(%s)\n", ldap_trace_str(url));
  if (ludpp == nullptr) return LDAP_PARAM_ERROR;
  *ludpp = nullptr;
  auto *lud = static_cast<LDAPURLDesc *>(olx_calloc(1, sizeof(LDAPURLDesc)));
  if (lud == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_url_parse_internal: No memory for LDAPURLDesc\n");
    return LDAP_URL_ERR_MEM;
  }
  const char *rest = url;
  int enclosed = 0;
  int secure = 0;
  if (!ldap_url_skip_prefix(&rest, lud, &enclosed, &secure, 1)) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_url_parse_internal: Not an LDAP URL\n");
    return fail(lud, LDAP_URL_ERR_NOTLDAP);
  }
  if (lud->lud_scheme == nullptr) return fail(lud, LDAP_URL_ERR_MEM);
  lud->lud_string = olx_strdup(rest);
  if (lud->lud_string == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_url_parse_internal: No memory for copy of url\n");
    return fail(lud, LDAP_URL_ERR_MEM);
  }
  char *s = lud->lud_string;
  size_t len = strlen(s);
  if (enclosed && len > 0 && s[len - 1] == '>') s[len - 1] = '\0';
  lud->lud_scope = LDAP_URL_SCOPE_UNSET;

  char *dn = nullptr;
  if (char *slash = strchr(s, '/'); slash != nullptr) {
    *slash = '\0';
    dn = slash + 1;
  }

  char *host = s;
  const int default_port = secure ? LDAP_URL_PORT_DEFAULT_SECURE : LDAP_URL_PORT_DEFAULT;
  if (char *close = strchr(host, ']'); close != nullptr) {
    *close = '\0';
    if (close[1] == ':') {
      close[1] = '\0';
      if (!port_value(close + 2, &lud->lud_port)) return fail(lud, LDAP_INVALID_SYNTAX);
    } else {
      lud->lud_port = default_port;
    }
    if (char *open = strchr(host, '['); open != nullptr) {
      *open = '\0';
      host = open + 1;
    }
  } else if (char *colon = strchr(host, ':'); colon != nullptr) {
    *colon = '\0';
    if (!port_value(colon + 1, &lud->lud_port)) return fail(lud, LDAP_INVALID_SYNTAX);
  } else {
    lud->lud_port = default_port;
  }
  if (*host == '\0')
    host = nullptr;
  else
    ldap_url_unescape(host);

  char *attrs = nullptr;
  char *filter = nullptr;
  if (dn != nullptr) {
    if (char *q = strchr(dn, '?'); q != nullptr) {
      *q = '\0';
      attrs = q + 1;
      char *scope = nullptr;
      if (char *q2 = strchr(attrs, '?'); q2 != nullptr) {
        *q2 = '\0';
        scope = q2 + 1;
        if (char *q3 = strchr(scope, '?'); q3 != nullptr) {
          *q3 = '\0';
          if (q3[1] != '\0') {
            filter = q3 + 1;
            ldap_url_unescape(filter);
          }
        }
      }
      if (scope != nullptr && *scope != '\0') {
        if (strcasecmp(scope, "one") == 0) {
          lud->lud_scope = LDAP_SCOPE_ONELEVEL;
        } else if (strcasecmp(scope, "base") == 0) {
          lud->lud_scope = LDAP_SCOPE_BASE;
        } else if (strcasecmp(scope, "sub") == 0) {
          lud->lud_scope = LDAP_SCOPE_SUBTREE;
        } else {
          LDAP_LOG(LDAP_LOG_ERROR, "ldap_url_parse_internal: bad scope=%s\n", scope);
          return fail(lud, LDAP_URL_ERR_BADSCOPE);
        }
      }
    }
    if (*dn == '\0')
      dn = nullptr;
    else
      ldap_url_unescape(dn);
  }

  if (attrs != nullptr && *attrs != '\0') {
    size_t commas = 0;
    for (const char *p = attrs; *p != '\0'; ++p) commas += *p == ',';
    lud->lud_attrs = static_cast<char **>(olx_calloc(commas + 2, sizeof(char *)));
    if (lud->lud_attrs == nullptr) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldap_url_parse_internal: No memory for attrs array\n");
      return fail(lud, LDAP_URL_ERR_MEM);
    }
    char *piece = attrs;
    for (size_t i = 0; i <= commas; ++i) {
      char *comma = strchr(piece, ',');
      if (comma != nullptr) *comma = '\0';
      lud->lud_attrs[i] = olx_strdup(piece);
      if (lud->lud_attrs[i] == nullptr) {
        LDAP_LOG(LDAP_LOG_ERROR, "ldap_url_parse_internal: No memory for lud_attrs[%d]\n", (int)i);
        return fail(lud, LDAP_URL_ERR_MEM);
      }
      ldap_url_unescape(lud->lud_attrs[i]);
      if (comma != nullptr) piece = comma + 1;
    }
  }

  if (dn != nullptr && (lud->lud_dn = olx_strdup(dn)) == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_url_parse_internal: strdup for lud_dn failed\n");
    return fail(lud, LDAP_URL_ERR_MEM);
  }
  if (filter != nullptr && (lud->lud_filter = olx_strdup(filter)) == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_url_parse_internal: strdup for lud_filter failed\n");
    return fail(lud, LDAP_URL_ERR_MEM);
  }
  if (host != nullptr && (lud->lud_host = olx_strdup(host)) == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_url_parse_internal: strdup for lud_host failed\n");
    return fail(lud, LDAP_URL_ERR_MEM);
  }
  free(lud->lud_string);
  lud->lud_string = nullptr;
  *ludpp = lud;
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_url_parse_internal: return(SUCCESS)\n");
  return LDAP_SUCCESS;
}

int ldap_url_parse(const char *url, LDAPURLDesc **ludpp) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_url_parse(%s)\n", ldap_trace_str(url));
  int rc = ldap_url_parse_internal(url, ludpp);
  if (rc != LDAP_SUCCESS) return rc;
  LDAPURLDesc *lud = *ludpp;
  if (lud->lud_port == LDAP_URL_PORT_DEFAULT)
    lud->lud_port = LDAP_PORT;
  else if (lud->lud_port == LDAP_URL_PORT_DEFAULT_SECURE)
    lud->lud_port = LDAPS_PORT;
  if (lud->lud_scope == LDAP_URL_SCOPE_UNSET) lud->lud_scope = LDAP_SCOPE_BASE;
  if (lud->lud_filter == nullptr && (lud->lud_filter = olx_strdup(kDefaultFilter)) == nullptr) {
    ldap_free_urldesc(lud);
    *ludpp = nullptr;
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_url_parse: strdup for default filter failed\n");
    return LDAP_URL_ERR_MEM;
  }
  return LDAP_SUCCESS;
}
}
