#include "ldif.h"

#include <fstream>
#include <iterator>

namespace tavldif {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
// RFC 2849 suggests lines no longer than 76 characters.
constexpr size_t kFoldAt = 76;

int sextet(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

std::string lower(std::string_view s) {
  std::string out(s);
  for (char &c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

bool same_name(std::string_view a, std::string_view b) { return lower(a) == lower(b); }

std::string at(int line, const std::string &what) { return "line " + std::to_string(line) + ": " + what; }

// An attribute description: a name or OID, with options after ';'.
bool valid_name(std::string_view name) {
  if (name.empty()) return false;
  for (char c : name)
    if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == ';' ||
          c == '.'))
      return false;
  return true;
}

struct Field {
  std::string name;
  std::string value;
};

// "name: value", "name:: base64" or "name:< file://path".
bool parse_field(int line, const std::string &text, Field *f, std::string *error, bool files = false) {
  const size_t colon = text.find(':');
  if (colon == std::string::npos) {
    *error = at(line, "expected \"name: value\", found \"" + text.substr(0, 40) + "\"");
    return false;
  }
  f->name = text.substr(0, colon);
  if (!valid_name(f->name)) {
    *error = at(line, "bad attribute name \"" + f->name + "\"");
    return false;
  }
  size_t p = colon + 1;
  const char kind = p < text.size() ? text[p] : '\0';
  if (kind == ':' || kind == '<') ++p;
  while (p < text.size() && text[p] == ' ') ++p;
  std::string_view rest(text.data() + p, text.size() - p);
  if (kind == ':') {
    if (!base64_decode(rest, &f->value)) {
      *error = at(line, "bad base64 value for \"" + f->name + "\"");
      return false;
    }
  } else if (kind == '<') {
    if (!files) {
      *error = at(line, "values from URLs are switched off");
      return false;
    }
    if (rest.substr(0, 7) != "file://") {
      *error = at(line, "only file:// URLs can give a value");
      return false;
    }
    std::ifstream in(std::string(rest.substr(7)), std::ios::binary);
    if (!in) {
      *error = at(line, "cannot read " + std::string(rest));
      return false;
    }
    f->value.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  } else {
    f->value.assign(rest);
  }
  return true;
}

// The "-" ending one change of a modify record (trailing blanks allowed).
bool is_separator(const std::string &text) {
  size_t n = text.size();
  while (n > 1 && text[n - 1] == ' ') --n;
  return n == 1 && text[0] == '-';
}

}  // namespace

std::string base64_encode(std::string_view bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    const unsigned v = static_cast<unsigned char>(bytes[i]) << 16 | static_cast<unsigned char>(bytes[i + 1]) << 8 |
                       static_cast<unsigned char>(bytes[i + 2]);
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
    out += kAlphabet[v & 63];
  }
  if (i < bytes.size()) {
    unsigned v = static_cast<unsigned char>(bytes[i]) << 16;
    if (i + 1 < bytes.size()) v |= static_cast<unsigned char>(bytes[i + 1]) << 8;
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += i + 1 < bytes.size() ? kAlphabet[(v >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

bool base64_decode(std::string_view text, std::string *out) {
  out->clear();
  if (text.size() % 4 != 0) return false;
  for (size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    int s[4];
    int pad = 0;
    for (int k = 0; k < 4; ++k) {
      const char c = text[i + k];
      // Padding only at the very end, and only in the last two places.
      if (c == '=' && last && k >= 2) {
        s[k] = 0;
        ++pad;
        continue;
      }
      if (pad > 0 || (s[k] = sextet(c)) < 0) return false;
    }
    const unsigned v = static_cast<unsigned>(s[0]) << 18 | static_cast<unsigned>(s[1]) << 12 |
                       static_cast<unsigned>(s[2]) << 6 | static_cast<unsigned>(s[3]);
    *out += static_cast<char>(v >> 16);
    if (pad < 2) *out += static_cast<char>((v >> 8) & 0xFF);
    if (pad < 1) *out += static_cast<char>(v & 0xFF);
  }
  return true;
}

bool is_safe_string(std::string_view value) {
  if (value.empty()) return true;
  const char first = value.front();
  if (first == ' ' || first == ':' || first == '<') return false;
  // A trailing space would be lost by readers that trim lines.
  if (value.back() == ' ') return false;
  for (char c : value) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u == 0 || u == '\n' || u == '\r' || u > 0x7F) return false;
  }
  return true;
}

std::string attr_line(std::string_view name, std::string_view value) {
  std::string line(name);
  if (is_safe_string(value)) {
    line += ": ";
    line += value;
  } else {
    line += ":: ";
    line += base64_encode(value);
  }
  if (line.size() <= kFoldAt) return line + "\n";
  std::string out = line.substr(0, kFoldAt);
  for (size_t p = kFoldAt; p < line.size(); p += kFoldAt - 1) out += "\n " + line.substr(p, kFoldAt - 1);
  return out + "\n";
}

// Collects the logical lines of the next record (comments dropped,
// continuations joined).  At a malformed line the rest of the record is
// skipped so that the caller may go on with the next one.
bool Reader::gather(std::vector<Line> *lines, std::string *error) {
  lines->clear();
  bool in_comment = false;
  bool failed = false;
  while (pos_ < text_.size()) {
    size_t end = text_.find('\n', pos_);
    if (end == std::string::npos) end = text_.size();
    std::string text = text_.substr(pos_, end - pos_);
    pos_ = end < text_.size() ? end + 1 : end;
    ++line_;
    if (!text.empty() && text.back() == '\r') text.pop_back();
    if (text.empty()) {
      if (!lines->empty() || failed) break;
      in_comment = false;
      continue;
    }
    if (failed) continue;
    if (text[0] == ' ') {
      if (in_comment) continue;
      if (lines->empty()) {
        *error = at(line_, "continuation line without a line before it");
        failed = true;
        continue;
      }
      lines->back().text.append(text, 1, std::string::npos);
      continue;
    }
    in_comment = text[0] == '#';
    if (!in_comment) lines->push_back({line_, text});
  }
  return !failed;
}

bool Reader::next(Record *record, std::string *error) {
  error->clear();
  std::vector<Line> lines;
  for (;;) {
    if (!gather(&lines, error)) return false;
    if (lines.empty()) return false;
    if (first_) {
      first_ = false;
      Field f;
      if (lower(lines[0].text.substr(0, 8)) == "version:") {
        if (!parse_field(lines[0].number, lines[0].text, &f, error)) return false;
        if (f.value != "1") {
          *error = at(lines[0].number, "unsupported LDIF version \"" + f.value + "\"");
          return false;
        }
        lines.erase(lines.begin());
        if (lines.empty()) continue;
      }
    }
    break;
  }
  *record = Record();
  record->change = Change::None;
  Field f;
  if (!parse_field(lines[0].number, lines[0].text, &f, error)) return false;
  if (!same_name(f.name, "dn")) {
    *error = at(lines[0].number, "missing dn: a record begins with \"dn:\", found \"" + f.name + ":\"");
    return false;
  }
  record->line = lines[0].number;
  record->dn = f.value;
  size_t i = 1;
  if (i < lines.size() && lower(lines[i].text.substr(0, 8)) == "control:") {
    *error = at(lines[i].number, "controls are not supported");
    return false;
  }
  if (i < lines.size() && lower(lines[i].text.substr(0, 11)) == "changetype:") {
    if (!parse_field(lines[i].number, lines[i].text, &f, error)) return false;
    const std::string type = lower(f.value);
    if (type == "add")
      record->change = Change::Add;
    else if (type == "delete")
      record->change = Change::Delete;
    else if (type == "modify")
      record->change = Change::Modify;
    else if (type == "modrdn" || type == "moddn")
      record->change = Change::ModRdn;
    else {
      *error = at(lines[i].number, "unknown changetype \"" + f.value + "\"");
      return false;
    }
    ++i;
  }
  const Change kind = record->change == Change::None ? default_ : record->change;
  switch (kind) {
    case Change::None:
    case Change::Add:
      for (; i < lines.size(); ++i) {
        if (!parse_field(lines[i].number, lines[i].text, &f, error, files_)) return false;
        Mod *target = nullptr;
        for (auto &m : record->mods)
          if (same_name(m.type, f.name)) target = &m;
        if (target == nullptr) {
          record->mods.push_back({Mod::Add, f.name, {}});
          target = &record->mods.back();
        }
        target->values.push_back(std::move(f.value));
      }
      if (record->mods.empty()) {
        *error = at(record->line, "an entry to add needs attributes");
        return false;
      }
      break;
    case Change::Delete:
      if (i < lines.size()) {
        *error = at(lines[i].number, "a delete record has nothing after its changetype");
        return false;
      }
      break;
    case Change::ModRdn: {
      bool have_rdn = false, have_flag = false;
      for (; i < lines.size(); ++i) {
        if (!parse_field(lines[i].number, lines[i].text, &f, error)) return false;
        const std::string name = lower(f.name);
        bool *seen = name == "newrdn"         ? &have_rdn
                     : name == "deleteoldrdn" ? &have_flag
                     : name == "newsuperior"  ? &record->has_newsuperior
                                              : nullptr;
        if (seen == nullptr || *seen) {
          *error = at(lines[i].number, (seen ? "repeated \"" : "unexpected \"") + f.name + "\" in a modrdn record");
          return false;
        }
        *seen = true;
        if (name == "newrdn") {
          record->newrdn = f.value;
        } else if (name == "newsuperior") {
          record->newsuperior = f.value;
          record->newsuperior_line = lines[i].number;
        } else if (f.value == "0" || f.value == "1") {
          record->deleteoldrdn = f.value == "1";
        } else {
          *error = at(lines[i].number, "deleteoldrdn must be 0 or 1");
          return false;
        }
      }
      if (!have_rdn || !have_flag) {
        *error = at(record->line,
                    have_rdn ? "a modrdn record needs \"deleteoldrdn:\"" : "a modrdn record needs \"newrdn:\"");
        return false;
      }
      break;
    }
    case Change::Modify:
      while (i < lines.size()) {
        if (!parse_field(lines[i].number, lines[i].text, &f, error)) return false;
        const std::string op = lower(f.name);
        Mod m;
        if (op == "add")
          m.op = Mod::Add;
        else if (op == "delete")
          m.op = Mod::Delete;
        else if (op == "replace")
          m.op = Mod::Replace;
        else {
          *error = at(lines[i].number, "unknown modify operation \"" + f.name + "\" (add, delete or replace)");
          return false;
        }
        if (!valid_name(f.value)) {
          *error = at(lines[i].number, "bad attribute name \"" + f.value + "\" after \"" + f.name + ":\"");
          return false;
        }
        m.type = f.value;
        const int started = lines[i].number;
        for (++i; i < lines.size() && !is_separator(lines[i].text); ++i) {
          if (!parse_field(lines[i].number, lines[i].text, &f, error, files_)) return false;
          if (!same_name(f.name, m.type)) {
            *error = at(lines[i].number, "\"" + f.name + "\" inside the change of \"" + m.type + "\" begun at line " +
                                             std::to_string(started) + " (missing \"-\"?)");
            return false;
          }
          m.values.push_back(std::move(f.value));
        }
        if (i < lines.size()) ++i;  // the "-"; the record's end closes the last change too
        record->mods.push_back(std::move(m));
      }
      break;
  }
  record->change = kind == Change::None ? Change::Add : kind;
  return true;
}

}  // namespace tavldif
