// LDIF (RFC 2849) for the command-line client: a reader of content and
// change records that reports problems with their line numbers, and a
// writer of entries with base64 for unsafe values and folded long lines.
#ifndef TAV_TOOLS_LDIF_H
#define TAV_TOOLS_LDIF_H

#include <string>
#include <string_view>
#include <vector>

namespace tavldif {

enum class Change { None, Add, Delete, Modify, ModRdn };  // None: not written

// One attribute of an add, or one change of a modify.
struct Mod {
  enum Op { Add = 0, Delete = 1, Replace = 2 };
  Op op = Add;
  std::string type;
  std::vector<std::string> values;  // may hold any bytes
};

struct Record {
  int line = 0;  // where the record's dn line starts
  std::string dn;
  Change change = Change::Add;  // as written, or the reader's default
  std::vector<Mod> mods;        // add: one per attribute, in first-seen order; modify: the changes
  std::string newrdn;           // modrdn
  bool deleteoldrdn = false;
  bool has_newsuperior = false;
  std::string newsuperior;
  int newsuperior_line = 0;
};

class Reader {
 public:
  // Records without a changetype line are taken as `default_change`
  // (Add: content records are entries to add).
  explicit Reader(std::string text, Change default_change = Change::Add)
      : text_(std::move(text)), default_(default_change) {}
  // The next record: true with *record set; false at the end (error empty)
  // or on a malformed record (*error = "line N: what").  After an error the
  // reader has skipped that record, so reading may go on.
  bool next(Record *record, std::string *error);
  // "name:< file://path" values are read unless switched off (the fuzz
  // target must not open files the input names).
  void allow_file_values(bool allow) { files_ = allow; }

 private:
  struct Line {
    int number;
    std::string text;
  };
  bool gather(std::vector<Line> *lines, std::string *error);

  std::string text_;
  Change default_;
  size_t pos_ = 0;
  int line_ = 0;
  bool first_ = true;
  bool files_ = true;
};

// Base64 (RFC 4648, padded); decode refuses anything else.
std::string base64_encode(std::string_view bytes);
bool base64_decode(std::string_view text, std::string *out);

// True when the value may be written after "name: " as it is.
bool is_safe_string(std::string_view value);
// "name: value" or "name:: base64", folded at 76 columns, with the newline.
std::string attr_line(std::string_view name, std::string_view value);

}  // namespace tavldif

#endif
