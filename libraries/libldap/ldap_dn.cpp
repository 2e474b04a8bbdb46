// Distinguished names: the string form parsed into RDNs and AVAs by two
// character-level state machines, values decoded, and the structure written
// back as the normalised form, the user-friendly form and exploded lists.
// Names without "=" and "," (mail-style or dotted) take a simpler road.
#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "ldap-debug.h"
#include "ldap-dn.h"
#include "ldap-utils.h"

namespace {

// The parser's own codes; LDAP_NO_MEMORY is shared with the rest of the library.
constexpr int kBadType = 1, kBadEscape = 2, kBadHexPair = 3, kBadHexString = 4, kUnescapedSpecial = 6, kBadOidDigit = 7,
              kUndefinedState = 8, kAfterQuote = 9, kEmptyValue = -1, kBadValue = 1;

bool is_blank(char c) { return c == ' ' || c == '\n' || c == '\t'; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool is_special(char c) { return c != '\0' && strchr("\"+,;<=>", c) != nullptr; }
bool is_separator(char c) { return c == ',' || c == ';' || c == '+'; }
// What may follow a backslash as itself.
bool is_escapable(char c) { return is_blank(c) || (c != '\0' && strchr("\"#+,;<=>\\", c) != nullptr); }

char ascii_upper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

// Case-insensitive in ASCII only, so the order does not move with the locale.
int ascii_casecmp(const char *a, const char *b) {
  for (;; ++a, ++b) {
    unsigned char x = static_cast<unsigned char>(ascii_upper(*a)), y = static_cast<unsigned char>(ascii_upper(*b));
    if (x != y || x == '\0') return x - y;
  }
}

enum TypeState { B4TYPE, INOIDDIGIT, INDIGITS, INIDENT, AFTERTYPE, TYPEDONE, INVALID };
const char *const kTypeStateNames[] = {"B4TYPE",    "INOIDDIGIT", "INDIGITS", "INIDENT",
                                       "AFTERTYPE", "TYPEDONE",   "INVALID"};

void type_tx(TypeState *state, TypeState next) {
  LDAP_LOG(LDAP_LOG_DN, "\nState tx %s -> %s.\n", kTypeStateNames[*state], kTypeStateNames[next]);
  *state = next;
}

// Scans an attribute type from p and returns the position of its "=", with
// the type in [*start, *end); 0 or the machine's code in *code.  A character
// that ends a type is looked at again in AFTERTYPE.
char *scan_type(char *p, char **start, char **end, int *code) {
  TypeState state = B4TYPE;
  LDAP_LOG(LDAP_LOG_DN, "Start in state B4TYPE.\n");
  *code = 0;
  while (state != TYPEDONE) {
    const char c = *p;
    if (c == '\0') {
      type_tx(&state, INVALID);
      *code = kBadType;
      return nullptr;
    }
    switch (state) {
      case B4TYPE:
        if (is_blank(c)) {
          ++p;
        } else if (is_digit(c)) {
          *start = p;
          type_tx(&state, INDIGITS);
        } else if (strncasecmp(p, "oid.", 4) == 0) {
          *start = p;
          LDAP_LOG(LDAP_LOG_DN, "\nRead in OID prefix.");
          p += 4;
          type_tx(&state, INOIDDIGIT);
        } else if (is_letter(c)) {
          *start = p;
          type_tx(&state, INIDENT);
        } else {
          type_tx(&state, INVALID);
          *code = kBadType;
          return nullptr;
        }
        break;
      case INOIDDIGIT:
        if (!is_digit(c)) {
          LDAP_LOG(LDAP_LOG_ANY, "Found bad type spec, bad oid %c not digit.\n", c);
          type_tx(&state, INVALID);
          *code = kBadOidDigit;
          return nullptr;
        }
        ++p;
        type_tx(&state, INDIGITS);
        break;
      case INDIGITS:
      case INIDENT:
        if (is_digit(c) || (state == INIDENT && (is_letter(c) || c == '-'))) {
          ++p;
        } else if (c == '.' && state == INDIGITS) {
          ++p;
          type_tx(&state, INOIDDIGIT);
        } else {
          *end = p;
          type_tx(&state, c == '=' ? TYPEDONE : AFTERTYPE);
        }
        break;
      case AFTERTYPE:
        if (is_blank(c)) {
          ++p;
        } else if (c == '=') {
          type_tx(&state, TYPEDONE);
        } else {
          LDAP_LOG(LDAP_LOG_ANY, "Found bad type spec, bad char %c after type.\n", c);
          type_tx(&state, INVALID);
          *code = kBadType;
          return nullptr;
        }
        break;
      default:
        LDAP_LOG(LDAP_LOG_ANY, "Undefined state!  Tx -> INVALID\n");
        *code = kUndefinedState;
        return nullptr;
    }
  }
  return p;
}

enum ValueState { B4Value, INQUOTE, AFTERQUOTE, INHEXSTRING, INVALUE, INESCAPE, INHEXPAIR };
const char *const kValueStateNames[] = {"B4Value", "INQUOTE",  "AFTERQUOTE", "INHEXSTRING",
                                        "INVALUE", "INESCAPE", "INHEXPAIR"};

void value_tx(ValueState *state, ValueState next) {
  LDAP_LOG(LDAP_LOG_DN, "\nState tx %s -> %s.\n", kValueStateNames[*state], kValueStateNames[next]);
  *state = next;
}

struct ValueSpan {
  char *start;  // first character of the value
  char *end;    // one past its last
  char *stop;   // the separator after it, or the end of the string
};

// Unescaped blanks before `end` are not part of the value; `keep` is one past
// the last escaped character.
char *trim_blanks(char *end, const char *keep) {
  while (end > keep && is_blank(end[-1])) --end;
  return end;
}

// Finds where the value starting at p ends; 0 or the machine's code.
int scan_value(char *p, ValueSpan *v) {
  ValueState state = B4Value, back = INVALUE;
  char *keep = nullptr;
  bool end_found = false;
  LDAP_LOG(LDAP_LOG_DN, "Start in state B4Value.\n");
  for (;; ++p) {
    const char c = *p;
    if (c == '\0') {
      if (state == B4Value) return kEmptyValue;
      if (!end_found) v->end = trim_blanks(p, keep);
      v->stop = p;
      return 0;
    }
    switch (state) {
      case B4Value:
        if (is_blank(c)) break;
        v->start = keep = p;
        if (c == '"') {
          value_tx(&state, INQUOTE);
        } else if (c == '#') {
          value_tx(&state, INHEXSTRING);
        } else if (c == '\\') {
          back = INVALUE;
          value_tx(&state, INESCAPE);
        } else if (is_special(c)) {
          return kUnescapedSpecial;
        } else {
          value_tx(&state, INVALUE);
        }
        break;
      case INQUOTE:
        if (c == '\\') {
          back = INQUOTE;
          value_tx(&state, INESCAPE);
        } else if (c == '"') {
          v->end = p + 1;
          end_found = true;
          value_tx(&state, AFTERQUOTE);
        }
        break;
      case AFTERQUOTE:
        if (is_separator(c)) {
          v->stop = p;
          return 0;
        }
        if (!is_blank(c)) return kAfterQuote;
        break;
      case INHEXSTRING:
        if (is_separator(c) || is_blank(c)) {
          v->end = p;
          end_found = true;
          if (is_separator(c) || p - v->start < 2) {
            v->stop = p;
            return 0;
          }
          value_tx(&state, AFTERQUOTE);
        } else if (ldap_is_hex(c)) {
          back = INHEXSTRING;
          value_tx(&state, INHEXPAIR);
        } else {
          return kBadHexString;
        }
        break;
      case INVALUE:
        if (c == '\\') {
          back = INVALUE;
          value_tx(&state, INESCAPE);
        } else if (is_separator(c)) {
          v->end = trim_blanks(p, keep);
          v->stop = p;
          return 0;
        } else if (is_special(c)) {
          return kUnescapedSpecial;
        }
        break;
      case INESCAPE:
        if (ldap_is_hex(c)) {
          value_tx(&state, INHEXPAIR);
        } else if (is_escapable(c)) {
          keep = p + 1;
          value_tx(&state, back);
        } else {
          return kBadEscape;
        }
        break;
      case INHEXPAIR:
        if (!ldap_is_hex(c)) return kBadHexPair;
        keep = p + 1;
        value_tx(&state, back);
        break;
      default:
        LDAP_LOG(LDAP_LOG_ANY, "Undefined state!  Tx -> INVALID\n");
        return kUndefinedState;
    }
  }
}

// True when only blanks stand between p and the end of the value.
bool at_value_end(const char *p, char closing) {
  while (is_blank(*p)) ++p;
  return closing != '\0' ? *p == closing : (*p == '\0' || is_separator(*p));
}

// Decodes the escape at p (a backslash) into *out and steps over it; false for
// an escape the grammar does not allow.  A blank may be escaped only as the
// first or last character of the value.
bool decode_escape(const char **pp, bool at_start, char closing, char *out) {
  const char *p = *pp;
  if (ldap_is_hex(p[1]) && ldap_is_hex(p[2])) {
    *out = static_cast<char>(ldap_hex_value(p[1]) * 16 + ldap_hex_value(p[2]));
    *pp = p + 3;
    return true;
  }
  if (is_blank(p[1]) ? !(at_start || at_value_end(p + 2, closing)) : !is_escapable(p[1])) return false;
  *out = p[1];
  *pp = p + 2;
  return true;
}

int decode_quoted(const char *p, char *buf) {
  const char *first = ++p;
  size_t n = 0;
  while (*p != '"') {
    if (*p == '\0') return kBadValue;
    if (*p != '\\')
      buf[n++] = *p++;
    else if (!decode_escape(&p, p == first, '"', &buf[n++]))
      return kBadValue;
  }
  return at_value_end(p + 1, '\0') ? 0 : kBadValue;
}

// "#04" (an OCTET STRING), its length (long form allowed, skipped) and at
// least one content byte, all as hex pairs.
int decode_hex(const char *p, char *buf) {
  auto pair = [&p](int *byte) {
    if (!ldap_is_hex(p[0]) || !ldap_is_hex(p[1])) return false;
    *byte = ldap_hex_value(p[0]) * 16 + ldap_hex_value(p[1]);
    p += 2;
    return true;
  };
  if (strncmp(p, "#04", 3) != 0) return kBadValue;
  p += 3;
  int length, byte;
  if (!pair(&length)) return kBadValue;
  if (length & 0x80) {
    int more = length & 0x7f;
    if (more > 8) return kBadValue;
    while (more-- > 0)
      if (!pair(&byte)) return kBadValue;
  }
  size_t n = 0;
  while (pair(&byte)) buf[n++] = static_cast<char>(byte);
  return n > 0 && at_value_end(p, '\0') ? 0 : kBadValue;
}

int decode_plain(const char *p, char *buf) {
  const char *first = p;
  size_t n = 0, keep = 0;
  while (*p != '\0' && !is_separator(*p)) {
    if (*p == '\\') {
      if (!decode_escape(&p, p == first, '\0', &buf[n++])) return kBadValue;
      keep = n;
    } else if (is_special(*p)) {
      return kBadValue;
    } else {
      buf[n++] = *p++;
    }
  }
  while (n > keep && is_blank(buf[n - 1])) buf[--n] = '\0';
  return 0;
}

// Writes the value with backslashes where the parser needs them (a leading
// space or "#", specials, backslashes, blanks at either end); an empty value
// is written as "" so that it parses again.  out may be null: the length only.
size_t write_escaped(const char *v, char *out) {
  const size_t len = strlen(v);
  if (len == 0) {
    if (out != nullptr) memcpy(out, "\"\"", 2);
    return 2;
  }
  size_t n = 0;
  for (size_t i = 0; i < len; ++i) {
    const char c = v[i];
    const bool escape =
        (i == 0 && (c == '#' || is_blank(c))) || (i == len - 1 && is_blank(c)) || is_special(c) || c == '\\';
    if (escape && out != nullptr) out[n] = '\\';
    n += escape;
    if (out != nullptr) out[n] = c;
    ++n;
  }
  return n;
}

size_t write_text(const char *text, char *out) {
  const size_t len = strlen(text);
  if (out != nullptr) memcpy(out, text, len);
  return len;
}

// The AVAs of one RDN joined by "+", each as type "=" value or the value only;
// values escaped or as they are.  out may be null: the length only.
size_t write_rdn(const LDAPRDN *rdn, bool types, bool escaped, char *out) {
  size_t n = 0;
  for (const LDAPAVAList *a = rdn->rdn_avas; a != nullptr; a = a->al_next) {
    if (a != rdn->rdn_avas) n += write_text("+", out ? out + n : nullptr);
    if (types) {
      n += write_text(a->al_ava.ava_type, out ? out + n : nullptr);
      n += write_text("=", out ? out + n : nullptr);
    }
    n += escaped ? write_escaped(a->al_ava.ava_value, out ? out + n : nullptr)
                 : write_text(a->al_ava.ava_value, out ? out + n : nullptr);
  }
  return n;
}

// All RDNs joined by ",", in a new string.
char *write_dn(const LDAPDN *dn, bool types) {
  size_t size = 1;
  for (const LDAPRDN *r = dn->dn_rdns; r != nullptr; r = r->rdn_next) size += write_rdn(r, types, true, nullptr) + 1;
  char *out = static_cast<char *>(olx_malloc(size));
  if (out == nullptr) return nullptr;
  size_t n = 0;
  for (const LDAPRDN *r = dn->dn_rdns; r != nullptr; r = r->rdn_next) {
    if (r != dn->dn_rdns) out[n++] = ',';
    n += write_rdn(r, types, true, out + n);
  }
  out[n] = '\0';
  return out;
}

char *rdn_string(const LDAPRDN *rdn, bool types, bool escaped) {
  const size_t len = write_rdn(rdn, types, escaped, nullptr);
  char *out = static_cast<char *>(olx_malloc(len + 1));
  if (out == nullptr) return nullptr;
  write_rdn(rdn, types, escaped, out);
  out[len] = '\0';
  return out;
}

char *ava_string(const LDAPAVA *ava, bool types) {
  LDAPAVAList one = {*ava, nullptr};
  LDAPRDN rdn = {&one, 1, nullptr};
  return rdn_string(&rdn, types, false);
}

void free_list(char **list) {
  if (list == nullptr) return;
  for (char **p = list; *p != nullptr; ++p) free(*p);
  free(list);
}

void free_rdn(LDAPRDN *rdn) {
  for (LDAPAVAList *a = rdn->rdn_avas, *next; a != nullptr; a = next) {
    next = a->al_next;
    free(a->al_ava.ava_type);
    free(a->al_ava.ava_value);
    free(a);
  }
  free(rdn);
}

// The parsed record of a DN, or none when it does not parse or memory ran out.
LDAPDN *parse_or_none(const char *dn) {
  int rc = 0;
  LDAPDN *rec = ldap_dn_parse(dn, LDAP_DN_MODE_ORDERED, &rc);
  if (rc != 0) ldap_dn_free(&rec);
  return rec;
}

}  // namespace

extern "C" {

int ldap_dn_decode_value(const char *in, char **out) {
  *out = nullptr;
  char *buf = static_cast<char *>(olx_calloc(strlen(in) + 5, 1));
  if (buf == nullptr) return LDAP_NO_MEMORY;
  while (is_blank(*in)) ++in;
  int rc = *in == '"' ? decode_quoted(in, buf) : *in == '#' ? decode_hex(in, buf) : decode_plain(in, buf);
  if (rc != 0) {
    free(buf);
    return rc;
  }
  *out = buf;
  return 0;
}

int ldap_rdn_add_ava(LDAPRDN *rdn, LDAPAVAList **tail, const char *type, char *value, int mode) {
  LDAP_LOG(LDAP_LOG_DN, "Adding RDN element with type=%s, value=%s.\n", type, value);
  LDAPAVAList *node = static_cast<LDAPAVAList *>(olx_calloc(1, sizeof(LDAPAVAList)));
  char *type_copy = node != nullptr ? olx_strdup(type) : nullptr;
  if (type_copy == nullptr) {
    free(node);
    free(value);
    return LDAP_NO_MEMORY;
  }
  node->al_ava.ava_type = type_copy;
  node->al_ava.ava_value = value;
  auto greater = [type, value](const LDAPAVAList *a) {
    const int by_type = ascii_casecmp(a->al_ava.ava_type, type);
    return by_type > 0 || (by_type == 0 && ascii_casecmp(a->al_ava.ava_value, value) > 0);
  };
  // Appending goes straight to the tail, so an RDN of many AVAs parses in
  // linear time; a sorted insertion walks only when the tail is greater.
  LDAPAVAList **at = &rdn->rdn_avas;
  if (*tail == nullptr) {
    LDAP_LOG(LDAP_LOG_DN, "New RDN element initializes RDN list.\n");
  } else if (mode != LDAP_DN_MODE_SORTED || !greater(*tail)) {
    at = &(*tail)->al_next;
  } else {
    while (!greater(*at)) at = &(*at)->al_next;
  }
  node->al_next = *at;
  *at = node;
  if (node->al_next == nullptr) *tail = node;
  ++rdn->rdn_ava_count;
  return 0;
}

char *ldap_rdn_parse(char *pos, LDAPRDN *rdn, int mode, int *rc) {
  LDAPAVAList *tail = nullptr;
  for (;;) {
    char *type = nullptr, *type_end = nullptr;
    char *equals = scan_type(pos, &type, &type_end, rc);
    if (*rc != 0) {
      LDAP_LOG(LDAP_LOG_ANY, "BAD RDN type, code=%d.\n", *rc);
      return pos;
    }
    *type_end = '\0';
    if (type_end - type == 16 && ascii_casecmp(type, "krv-kerberosname") == 0) memcpy(type, "krv-kn", 7);

    ValueSpan v = {};
    if ((*rc = scan_value(equals + 1, &v)) != 0) {
      LDAP_LOG(LDAP_LOG_ANY, "BAD RDN value, code=%d.\n", *rc);
      return equals + 1;
    }
    const char after = *v.stop;
    *v.end = '\0';
    char *value = nullptr;
    *rc = ldap_dn_decode_value(v.start, &value);
    if (*rc == 0) *rc = ldap_rdn_add_ava(rdn, &tail, type, value, mode);
    *v.stop = after;
    if (*rc != 0 || after != '+') return v.stop;
    pos = v.stop + 1;
  }
}

int ldap_dn_to_string(LDAPDN *dn, int rc) {
  free(dn->dn_string);
  free(dn->dn_string_upper);
  dn->dn_string = rc == 0 ? write_dn(dn, true) : olx_strdup("");
  dn->dn_string_upper = dn->dn_string != nullptr ? olx_strdup(dn->dn_string) : nullptr;
  if (dn->dn_string_upper == nullptr) return LDAP_NO_MEMORY;
  for (char *p = dn->dn_string_upper; *p != '\0'; ++p) *p = ascii_upper(*p);
  return 0;
}

LDAPDN *ldap_dn_parse(const char *dn, int mode, int *rcp) {
  int rc = 0;
  LDAPDN *rec = static_cast<LDAPDN *>(olx_calloc(1, sizeof(LDAPDN)));
  if (rec != nullptr && (dn == nullptr || *dn == '\0')) {
    LDAP_LOG(LDAP_LOG_DN, "NULL DN value.\n");
  } else if (rec != nullptr) {
    char *copy = olx_strdup(dn);
    LDAPRDN **tail = &rec->dn_rdns;
    for (char *p = copy; rc == 0 && p != nullptr && *p != '\0';) {
      LDAPRDN *rdn = static_cast<LDAPRDN *>(olx_calloc(1, sizeof(LDAPRDN)));
      if (rdn == nullptr) {
        rc = LDAP_NO_MEMORY;
        break;
      }
      p = ldap_rdn_parse(p, rdn, mode, &rc);
      if (rc != 0) {
        free_rdn(rdn);
        LDAP_LOG(LDAP_LOG_ANY, "Bad DN %s.\n", dn);
        break;
      }
      if (*p == ',' || *p == ';') {
        LDAP_LOG(LDAP_LOG_DN, "End of DN component, found %c.\n", *p);
        ++p;
      }
      LDAP_LOG(LDAP_LOG_DN, "Parsed DN element %d.\n", static_cast<int>(rec->dn_rdn_count));
      *tail = rdn;
      tail = &rdn->rdn_next;
      ++rec->dn_rdn_count;
    }
    if (copy == nullptr) rc = LDAP_NO_MEMORY;
    free(copy);
  }
  if (rec == nullptr || rc == LDAP_NO_MEMORY || ldap_dn_to_string(rec, rc) != 0) {
    ldap_dn_free(&rec);
    rc = LDAP_NO_MEMORY;
  }
  if (rcp != nullptr) *rcp = rc;
  return rec;
}

void ldap_dn_free(LDAPDN **dnp) {
  if (dnp == nullptr || *dnp == nullptr) return;
  LDAPDN *dn = *dnp;
  for (LDAPRDN *r = dn->dn_rdns, *next; r != nullptr; r = next) {
    next = r->rdn_next;
    free_rdn(r);
  }
  free(dn->dn_spare_string);
  free(dn->dn_string);
  free(dn->dn_string_upper);
  free(dn);
  *dnp = nullptr;
}

char *ldap_dn2ufn(const char *dn) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_dn2ufn\n");
  if (dn == nullptr) return nullptr;
  if (ldap_dn_is_dotted(dn)) return olx_strdup(dn);
  LDAPDN *rec = parse_or_none(dn);
  if (rec == nullptr) return nullptr;
  char *ufn = write_dn(rec, false);
  ldap_dn_free(&rec);
  return ufn;
}

char **ldap_explode_dn(const char *dn, int notypes) {
  if (dn == nullptr) return nullptr;
  if (ldap_dn_is_dotted(dn)) return ldap_explode_dotted(dn);
  LDAPDN *rec = parse_or_none(dn);
  if (rec == nullptr) return nullptr;
  char **list = static_cast<char **>(olx_calloc(rec->dn_rdn_count + 1, sizeof(char *)));
  size_t i = 0;
  for (const LDAPRDN *r = rec->dn_rdns; list != nullptr && r != nullptr; r = r->rdn_next, ++i) {
    if ((list[i] = rdn_string(r, notypes == 0, true)) == nullptr) {
      free_list(list);
      list = nullptr;
    }
  }
  ldap_dn_free(&rec);
  return list;
}

char **ldap_explode_rdn(const char *rdn, int notypes) {
  if (rdn == nullptr) return nullptr;
  LDAPDN *rec = parse_or_none(rdn);
  if (rec == nullptr) return nullptr;
  const LDAPRDN *first = rec->dn_rdns;
  char **list = static_cast<char **>(olx_calloc(first != nullptr ? first->rdn_ava_count + 1 : 1, sizeof(char *)));
  size_t i = 0;
  for (const LDAPAVAList *a = first ? first->rdn_avas : nullptr; list != nullptr && a != nullptr; a = a->al_next, ++i) {
    if ((list[i] = ava_string(&a->al_ava, notypes == 0)) == nullptr) {
      free_list(list);
      list = nullptr;
    }
  }
  ldap_dn_free(&rec);
  return list;
}

int ldap_dn_is_dotted(const char *s) {
  return s != nullptr && *s != '\0' && strchr(s, '=') == nullptr && strchr(s, ',') == nullptr;
}

char **ldap_explode_dotted(const char *s) {
  if (s == nullptr) return nullptr;
  size_t slots = 8, count = 0;
  char **list = static_cast<char **>(olx_calloc(slots, sizeof(char *)));
  for (const char *piece = s; list != nullptr;) {
    const size_t len = strcspn(piece, "@.");
    if (count + 2 > slots) {
      char **grown = static_cast<char **>(olx_realloc(list, 2 * slots * sizeof(char *)));
      if (grown == nullptr) break;
      memset(grown + slots, 0, slots * sizeof(char *));
      list = grown;
      slots *= 2;
    }
    if ((list[count] = olx_strndup(piece, len)) == nullptr) break;
    ++count;
    if (piece[len] == '\0') return list;
    piece += len + 1;
  }
  free_list(list);
  return nullptr;
}
}
