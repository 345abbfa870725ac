// Text for people and for scripts. Section names are arbitrary bytes, so
// both forms say exactly which bytes a name holds.
#ifndef KELODBG_TEXT_H_
#define KELODBG_TEXT_H_

#include <absl/strings/string_view.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace kelodbg {

// `s` with every byte outside printable ASCII (and the backslash) written
// as \xNN, so it stays on one line and in its column.
std::string printable(const std::string& s);

// `s` with its control bytes (below 0x20, and 0x7f) written as \xNN and
// everything else as it is: for messages, which may hold names.
std::string escapeControls(const std::string& s);

// printable(s) in single quotes.
std::string quoted(const std::string& s);

// A JSON value, built and then printed as one pretty document (two spaces a
// level, keys in the order they were set).
//
// Strings are byte strings. Valid UTF-8 passes through; every byte that is
// not part of valid UTF-8 is written as the escape \udcNN (NN its value), a
// lone surrogate that valid UTF-8 can never produce, so no two byte strings
// look alike (the convention of Python's "surrogateescape").
class Json {
 public:
  Json() : kind_(kNull) {}
  Json(bool b) : kind_(kBool), number_(b) {}                    // NOLINT: implicit by design
  Json(uint64_t n) : kind_(kNumber), number_(n) {}              // NOLINT
  Json(uint32_t n) : Json(uint64_t{n}) {}                       // NOLINT
  Json(int n) : Json(static_cast<uint64_t>(n)) {}               // NOLINT
  Json(std::string s) : kind_(kString), text_(std::move(s)) {}  // NOLINT
  Json(const char* s) : Json(std::string(s)) {}                 // NOLINT

  static Json object() { return Json(kObject); }
  static Json array() { return Json(kArray); }
  // JSON text written elsewhere, kept as it is (it must be valid JSON).
  static Json raw(std::string text) {
    Json j(kRaw);
    j.text_ = std::move(text);
    return j;
  }

  // Adds a member (objects; a key set before gets the new value) or an
  // element (arrays); returns *this.
  Json& set(std::string key, Json value);
  Json& push(Json value);

  std::string dump() const;
  // The value on one line, without spaces (and without a newline).
  std::string line() const;

 private:
  enum Kind { kNull, kBool, kNumber, kString, kArray, kObject, kRaw };
  explicit Json(Kind kind) : kind_(kind) {}
  void write(std::string& out, int depth) const;
  void writeLine(std::string& out) const;

  Kind kind_;
  uint64_t number_ = 0;
  std::string text_;
  std::vector<std::pair<std::string, Json>> members_;  // arrays leave the key empty
};

// The JSON string of `s` (quoted), as Json writes it.
std::string jsonString(const std::string& s);
void appendJsonString(std::string& out, absl::string_view s);

}  // namespace kelodbg

#endif  // KELODBG_TEXT_H_
