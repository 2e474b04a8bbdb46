// Round trips of the LDAP request and response shapes, and the decoder on
// every truncation of them.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "fber_test_helpers.h"
#include "lber-int.h"

using namespace fbertest;

namespace {

using Values = std::vector<std::string>;
struct Attr {
  std::string type;
  Values values;
};

// Owned NULL-terminated berval array over test strings.
struct BvArray {
  Values values;
  std::vector<berval> store;
  std::vector<berval *> ptrs;
  explicit BvArray(Values v) : values(std::move(v)) {
    store.reserve(values.size());
    for (auto &s : values) store.push_back({s.size(), const_cast<char *>(s.data())});
    for (auto &b : store) ptrs.push_back(&b);
    ptrs.push_back(nullptr);
  }
  berval **get() { return ptrs.data(); }
};

Values take(berval **v) {
  Values out;
  for (size_t i = 0; v && v[i]; ++i) out.emplace_back(v[i]->bv_val, v[i]->bv_len);
  fber_bvecfree(v);
  return out;
}

std::string take(char *s) {
  std::string out = s ? s : "(null)";
  free(s);
  return out;
}

bool ok(ber_tag_t t) { return t != LBER_ERROR; }

// Controls: [0] SEQUENCE OF { oid, critical?, value? }.
struct Control {
  std::string oid;
  bool critical;
  std::string value;
};

int put_controls(BerElement *b, const std::vector<Control> &ctrls) {
  if (fber_printf(b, "t{", tag(0xA0)) != 0) return -1;
  for (auto &c : ctrls) {
    const int rc = c.value.empty() ? fber_printf(b, "{sb}", c.oid.c_str(), c.critical)
                                   : fber_printf(b, "{sbo}", c.oid.c_str(), c.critical, c.value.data(),
                                                 static_cast<int>(c.value.size()));
    if (rc != 0) return -1;
  }
  return fber_printf(b, "}");
}

bool get_controls(BerElement *b, std::string *out) {
  ber_len_t len;
  char *end;
  if (fber_peek_tag(b, &len) != 0xA0) return false;
  if (fber_first_element(b, &len, &end) == LBER_DEFAULT) return false;
  while (b->ber_ptr < end) {
    char *oid = nullptr;
    int critical = 0;
    berval value{0, nullptr};
    ber_len_t seq_len;
    if (!ok(fber_skip_tag(b, &seq_len))) return false;
    const char *seq_end = b->ber_ptr + seq_len;
    if (!ok(fber_scanf(b, "a", &oid))) return false;
    *out += take(oid);
    if (b->ber_ptr < seq_end && fber_peek_tag(b, &len) == 0x01 && !ok(fber_scanf(b, "b", &critical))) return false;
    if (b->ber_ptr < seq_end) {
      if (!ok(fber_scanf(b, "o", &value))) return false;
      *out += "=" + std::string(value.bv_val, value.bv_len);
      free(value.bv_val);
    }
    *out += critical ? "!;" : ";";
  }
  return true;
}

// Search filters, as text <-> BER, enough for nested and/or/not, equality,
// presence and substrings.
int put_filter(BerElement *b, const std::string &f, size_t *pos);
int put_filter_list(BerElement *b, const std::string &f, size_t *pos) {
  while (*pos < f.size() && f[*pos] == '(')
    if (put_filter(b, f, pos) != 0) return -1;
  return 0;
}
int put_filter(BerElement *b, const std::string &f, size_t *pos) {
  ++*pos;  // '('
  const char op = f[*pos];
  int rc;
  if (op == '&' || op == '|' || op == '!') {
    ++*pos;
    rc = fber_printf(b, "t{", tag(op == '&' ? 0xA0 : op == '|' ? 0xA1 : 0xA2));
    if (rc == 0) rc = put_filter_list(b, f, pos);
    if (rc == 0) rc = fber_printf(b, "}");
  } else {
    const size_t eq = f.find('=', *pos), close = f.find(')', *pos);
    const std::string type = f.substr(*pos, eq - *pos), value = f.substr(eq + 1, close - eq - 1);
    if (value == "*") {
      rc = fber_printf(b, "ts", tag(0x87), type.c_str());
    } else if (value.back() == '*') {
      rc = fber_printf(b, "t{s{ts}}", tag(0xA4), type.c_str(), tag(0x80), value.substr(0, value.size() - 1).c_str());
    } else {
      rc = fber_printf(b, "t{ss}", tag(0xA3), type.c_str(), value.c_str());
    }
    *pos = close;
  }
  ++*pos;  // ')'
  return rc;
}

bool get_filter(BerElement *b, std::string *out) {
  ber_len_t len;
  char *end;
  const ber_tag_t t = fber_peek_tag(b, &len);
  char *type = nullptr, *value = nullptr;
  switch (t) {
    case 0xA0:
    case 0xA1:
    case 0xA2: {
      *out += t == 0xA0 ? "(&" : t == 0xA1 ? "(|" : "(!";
      if (fber_first_element(b, &len, &end) == LBER_DEFAULT) return false;
      while (b->ber_ptr < end)
        if (!get_filter(b, out)) return false;
      *out += ")";
      return true;
    }
    case 0x87:
      if (!ok(fber_scanf(b, "a", &type))) return false;
      *out += "(" + take(type) + "=*)";
      return true;
    case 0xA3:
      if (!ok(fber_scanf(b, "{a", &type))) return false;
      *out += "(" + take(type);
      if (!ok(fber_scanf(b, "a}", &value))) return false;
      *out += "=" + take(value) + ")";
      return true;
    case 0xA4:
      if (!ok(fber_scanf(b, "{a", &type))) return false;
      *out += "(" + take(type);
      if (!ok(fber_scanf(b, "{a}}", &value))) return false;
      *out += "=" + take(value) + "*)";
      return true;
    default:
      return false;
  }
}

// A PDU shape: how to encode it and how a response or request parser would
// read it back into text.
struct Shape {
  const char *name;
  std::function<int(BerElement *)> encode;
  std::function<bool(BerElement *, std::string *)> decode;
  std::string expected;  // decoded text
};

const std::string kFilter = "(&(objectClass=person)(|(cn=ab*)(!(sn=x))(mail=*)))";
const std::string kJpeg("\xFF\xD8\x00\x01\x02\x00\xFF", 7);
const std::vector<Attr> kAddAttrs = {{"objectClass", {"top", "person"}}, {"cn", {"a"}}, {"jpegPhoto", {kJpeg, ""}}};

bool get_attrs(BerElement *b, std::string *out, bool with_op) {
  ber_len_t len;
  char *end;
  if (fber_first_element(b, &len, &end) == LBER_DEFAULT) return false;
  while (b->ber_ptr < end) {
    char *type = nullptr;
    berval **vals = nullptr;
    int op = -1;
    if (with_op && !ok(fber_scanf(b, "{e", &op))) return false;
    if (!ok(fber_scanf(b, with_op ? "{a[V]}}" : "{a[V]}", &type, &vals))) {
      free(type);
      return false;
    }
    *out += (with_op ? std::to_string(op) + ":" : "") + take(type) + "=";
    for (auto &v : take(vals)) *out += hex(v) + "|";
    *out += ";";
  }
  return true;
}

std::vector<Shape> shapes() {
  std::vector<Control> ctrls = {{"1.2.840.113556.1.4.319", true, std::string("\x30\x05\x02\x01\x0A\x04\x00", 7)},
                                {"2.16.840.1.113730.3.4.2", false, ""}};
  return {
      {"bind",
       [](BerElement *b) { return fber_printf(b, "{it{ists}}", 1, tag(0x60), 3, "cn=admin,o=x", tag(0x80), "s3cr3t"); },
       [](BerElement *b, std::string *out) {
         int id, version, t;
         char *dn = nullptr;
         berval pw{0, nullptr};
         if (!ok(fber_scanf(b, "{i{ia", &id, &version, &dn))) return free(dn), false;
         *out = std::to_string(id) + " v" + std::to_string(version) + " " + take(dn);
         if (!ok(fber_scanf(b, "to}}", &t, &pw))) return false;
         *out += " " + std::to_string(t) + ":" + std::string(pw.bv_val, pw.bv_len);
         free(pw.bv_val);
         return true;
       },
       "1 v3 cn=admin,o=x 128:s3cr3t"},
      {"search with nested filter and controls",
       [ctrls](BerElement *b) {
         static const char *attrs[] = {"cn", "mail", nullptr};
         size_t pos = 0;
         if (fber_printf(b, "{it{seeiib", 200, tag(0x63), "o=x", 2, 0, 100, 30, 0) != 0) return -1;
         if (put_filter(b, kFilter, &pos) != 0) return -1;
         if (fber_printf(b, "{v}}", attrs) != 0) return -1;
         return put_controls(b, ctrls) | fber_printf(b, "}");
       },
       [](BerElement *b, std::string *out) {
         int id, scope, deref, size, time, typesonly;
         char *base = nullptr, **attrs = nullptr;
         if (!ok(fber_scanf(b, "{i{aeeiib", &id, &base, &scope, &deref, &size, &time, &typesonly)))
           return free(base), false;
         *out = std::to_string(id) + " " + take(base) + " " + std::to_string(scope) + std::to_string(deref) + " " +
                std::to_string(size) + "/" + std::to_string(time) + " " + std::to_string(typesonly) + " ";
         if (!get_filter(b, out)) return false;
         if (!ok(fber_scanf(b, "{v}}", &attrs))) return false;
         for (size_t i = 0; attrs && attrs[i]; ++i) *out += std::string(" ") + attrs[i];
         fber_svecfree(attrs);
         *out += " ";
         return get_controls(b, out);
       },
       "200 o=x 20 100/30 0 " + kFilter + " cn mail 1.2.840.113556.1.4.319=" +
           std::string("\x30\x05\x02\x01\x0A\x04\x00", 7) + "!;2.16.840.1.113730.3.4.2;"},
      {"add with binary values",
       [](BerElement *b) {
         if (fber_printf(b, "{it{s{", 3, tag(0x68), "cn=a,o=x") != 0) return -1;
         for (auto &a : kAddAttrs) {
           BvArray v(a.values);
           if (fber_printf(b, "{s[V]}", a.type.c_str(), v.get()) != 0) return -1;
         }
         return fber_printf(b, "}}}");
       },
       [](BerElement *b, std::string *out) {
         int id;
         char *dn = nullptr;
         if (!ok(fber_scanf(b, "{i{a", &id, &dn))) return free(dn), false;
         *out = std::to_string(id) + " " + take(dn) + " ";
         return get_attrs(b, out, false);
       },
       "3 cn=a,o=x objectClass=74 6F 70|70 65 72 73 6F 6E|;cn=61|;jpegPhoto=" + hex(kJpeg) + "||;"},
      {"modify",
       [](BerElement *b) {
         if (fber_printf(b, "{it{s{", 4, tag(0x66), "cn=a,o=x") != 0) return -1;
         BvArray add({"x@y"}), del({}), rep({"1", "2"});
         if (fber_printf(b, "{e{s[V]}}", 0, "mail", add.get()) != 0) return -1;
         if (fber_printf(b, "{e{s[V]}}", 1, "description", del.get()) != 0) return -1;
         if (fber_printf(b, "{e{s[V]}}", 2, "ou", rep.get()) != 0) return -1;
         return fber_printf(b, "}}}");
       },
       [](BerElement *b, std::string *out) {
         int id;
         char *dn = nullptr;
         if (!ok(fber_scanf(b, "{i{a", &id, &dn))) return free(dn), false;
         *out = std::to_string(id) + " " + take(dn) + " ";
         return get_attrs(b, out, true);
       },
       "4 cn=a,o=x 0:mail=78 40 79|;1:description=;2:ou=31|32|;"},
      {"modify DN with new superior",
       [](BerElement *b) {
         return fber_printf(b, "{it{ssbts}}", 5, tag(0x6C), "cn=a,o=x", "cn=b", 1, tag(0x80), "ou=new,o=x");
       },
       [](BerElement *b, std::string *out) {
         int id, del;
         char *dn = nullptr, *rdn = nullptr, *sup = nullptr;
         ber_tag_t rc = fber_scanf(b, "{i{aab", &id, &dn, &rdn, &del);
         if (ok(rc)) rc = fber_scanf(b, "a}}", &sup);
         *out = std::to_string(id) + " " + take(dn) + " " + take(rdn) + " " + std::to_string(del) + " " + take(sup);
         return ok(rc);
       },
       "5 cn=a,o=x cn=b -1 ou=new,o=x"},
      {"delete with a control",
       [](BerElement *b) {
         return fber_printf(b, "{its", 6, tag(0x4A), "cn=a,o=x") |
                put_controls(b, {{"1.3.6.1.4.1.4203.1.10.2", false, ""}}) | fber_printf(b, "}");
       },
       [](BerElement *b, std::string *out) {
         int id, t;
         char *dn = nullptr;
         // The DelRequest is a primitive [APPLICATION 10]: read it as a string.
         if (!ok(fber_scanf(b, "{ita", &id, &t, &dn))) return free(dn), false;
         *out = std::to_string(id) + " " + std::to_string(t) + " " + take(dn) + " ";
         return get_controls(b, out);
       },
       "6 74 cn=a,o=x 1.3.6.1.4.1.4203.1.10.2;"},
      {"search result entry",
       [](BerElement *b) {
         if (fber_printf(b, "{it{s{", 7, tag(0x64), "cn=a,o=x") != 0) return -1;
         for (auto &a : kAddAttrs) {
           BvArray v(a.values);
           if (fber_printf(b, "{s[V]}", a.type.c_str(), v.get()) != 0) return -1;
         }
         return fber_printf(b, "}}}");
       },
       [](BerElement *b, std::string *out) {
         char *dn = nullptr;
         if (!ok(fber_scanf(b, "{x{a", &dn))) return free(dn), false;
         *out = take(dn) + " ";
         return get_attrs(b, out, false);
       },
       "cn=a,o=x objectClass=74 6F 70|70 65 72 73 6F 6E|;cn=61|;jpegPhoto=" + hex(kJpeg) + "||;"},
      {"result with referral",
       [](BerElement *b) {
         static const char *urls[] = {"ldap://h1/o=x", "ldap://h2/o=x", nullptr};
         return fber_printf(b, "{it{esst{v}}}", 8, tag(0x65), 10, "", "go away", tag(0xA3), urls);
       },
       [](BerElement *b, std::string *out) {
         int id, code;
         char *matched = nullptr, *text = nullptr, **refs = nullptr;
         ber_tag_t rc = fber_scanf(b, "{i{eaa", &id, &code, &matched, &text);
         if (ok(rc)) rc = fber_scanf(b, "{v}}}", &refs);
         *out = std::to_string(id) + " " + std::to_string(code) + " [" + take(matched) + "] " + take(text);
         for (size_t i = 0; refs && refs[i]; ++i) *out += std::string(" ") + refs[i];
         fber_svecfree(refs);
         return ok(rc) && refs != nullptr;
       },
       "8 10 [] go away ldap://h1/o=x ldap://h2/o=x"},
  };
}

}  // namespace

TEST(FberLdap, RequestAndResponseShapesRoundTrip) {
  for (auto &s : shapes()) {
    Ber b(fber_alloc_with_options(0, 0, 3));
    ASSERT_EQ(s.encode(b.get()), 0) << s.name;
    EXPECT_EQ(b->ber_sos[0], 0u) << s.name << ": every SEQUENCE closed";
    Ber r = rewind(std::move(b));
    std::string text;
    EXPECT_TRUE(s.decode(r.get(), &text)) << s.name;
    EXPECT_EQ(text, s.expected) << s.name;
    EXPECT_EQ(r->ber_ptr, r->ber_end) << s.name << ": everything consumed";
  }
}

TEST(FberLdap, EveryTruncationFailsCleanly) {
  // Decoding any proper prefix must fail; ASan's leak check proves that the
  // parsers and the decoder freed what they took.
  for (auto &s : shapes()) {
    Ber b(fber_alloc_with_options(0, 0, 3));
    ASSERT_EQ(s.encode(b.get()), 0);
    const std::string pdu = bytes_of(b.get());
    for (size_t n = 0; n < pdu.size(); ++n) {
      Ber r = reader(pdu.substr(0, n));
      ASSERT_TRUE(r);
      std::string text;
      EXPECT_FALSE(s.decode(r.get(), &text)) << s.name << " cut at " << n << " of " << pdu.size();
      EXPECT_LE(r->ber_ptr, r->ber_end);
    }
  }
}

TEST(FberLdap, TruncatedLdapResultLeavesLaterOutputsNull) {
  const std::string pdu = unhex("30 11 02 01 09 61 0C 0A 01 31 04 02 6F 3D 04 03 62 61 64");
  for (size_t n = 0; n < pdu.size(); ++n) {
    Ber r = reader(pdu.substr(0, n));
    int id = -7, code = -7;
    char *matched = reinterpret_cast<char *>(1), *text = reinterpret_cast<char *>(1);
    EXPECT_EQ(fber_scanf(r.get(), "{i{eaa}}", &id, &code, &matched, &text), LBER_ERROR) << n;
    // Outputs of items that were reached and failed are null; items never
    // reached are untouched.
    if (n >= 14) {
      EXPECT_EQ(text, nullptr) << n;
      EXPECT_STREQ(matched, "o=") << n;
      free(matched);
    } else if (n >= 10) {
      EXPECT_EQ(matched, nullptr) << n;
      EXPECT_EQ(text, reinterpret_cast<char *>(1)) << n;
    } else if (n >= 7) {
      EXPECT_EQ(id, 9) << n;
    }
  }
}
