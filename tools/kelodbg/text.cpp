#include "text.h"

#include <cstring>

#include <fmt/format.h>

namespace kelodbg {
namespace {

// The length of the valid UTF-8 sequence of two or more bytes at s[i], or 0
// when there is none.
size_t utf8Length(absl::string_view s, size_t i) {
  const auto byte = [&s](size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned char lead = byte(i);
  size_t len;
  uint32_t cp;
  if (lead >= 0xC2 && lead <= 0xDF) {
    len = 2, cp = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    len = 3, cp = lead & 0x0F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    len = 4, cp = lead & 0x07;
  } else {
    return 0;
  }
  if (i + len > s.size()) return 0;
  for (size_t k = 1; k < len; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (byte(i + k) & 0x3F);
  }
  // Overlong forms, surrogates and values past U+10FFFF are not valid.
  if ((len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000) || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
    return 0;
  }
  return len;
}

}  // namespace

std::string printable(const std::string& s) {
  std::string out;
  for (const char ch : s) {
    const auto c = static_cast<unsigned char>(ch);
    if (c >= 0x21 && c < 0x7F && c != '\\') {
      out += ch;
    } else {
      out += fmt::format("\\x{:02x}", c);
    }
  }
  return out;
}

std::string escapeControls(const std::string& s) {
  std::string out;
  for (const char ch : s) {
    const auto c = static_cast<unsigned char>(ch);
    if (c < 0x20 || c == 0x7F) {
      out += fmt::format("\\x{:02x}", c);
    } else {
      out += ch;
    }
  }
  return out;
}

std::string quoted(const std::string& s) { return "'" + printable(s) + "'"; }

// Bytes that stand for themselves in a JSON string: printable ASCII but
// the quote and the backslash.
struct PlainBytes {
  bool plain[256] = {};
  constexpr PlainBytes() {
    for (int c = 0x20; c < 0x7F; ++c) plain[c] = c != '"' && c != '\\';
  }
};
constexpr PlainBytes kPlain;

// Whether any of the eight bytes of `w` is not plain: below 0x20, 0x7F and
// above, the quote or the backslash. Exact for "none"; a word it flags is
// looked at byte by byte.
bool anyNotPlain(uint64_t w) {
  constexpr uint64_t kOnes = 0x0101010101010101ull, kHigh = 0x8080808080808080ull;
  auto hasZero = [](uint64_t v) { return (v - kOnes) & ~v & kHigh; };
  // Bytes below 0x20 (exact once the high bytes are flagged on their own).
  const uint64_t low = (w - kOnes * 0x20) & ~w & kHigh;
  return ((w & kHigh) | low | hasZero(w ^ (kOnes * '"')) | hasZero(w ^ (kOnes * '\\')) | hasZero(w ^ (kOnes * 0x7F))) !=
         0;
}

void appendJsonString(std::string& out, absl::string_view s) {
  out.reserve(out.size() + s.size() + 2);
  out += '"';
  for (size_t i = 0; i < s.size();) {
    // Runs of plain ASCII go in one piece.
    size_t run = i;
    for (uint64_t w; run + 8 <= s.size(); run += 8) {
      std::memcpy(&w, s.data() + run, 8);
      if (anyNotPlain(w)) break;
    }
    while (run < s.size() && kPlain.plain[static_cast<unsigned char>(s[run])]) ++run;
    if (run > i) {
      out.append(s.data() + i, run - i);
      i = run;
      continue;
    }
    const auto c = static_cast<unsigned char>(s[i]);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += s[i++];
    } else if (c == '\n') {
      out += "\\n", ++i;
    } else if (c == '\t') {
      out += "\\t", ++i;
    } else if (c < 0x20 || c == 0x7F) {
      out += fmt::format("\\u{:04x}", c), ++i;
    } else if (const size_t len = utf8Length(s, i)) {
      out.append(s.data() + i, len), i += len;
    } else {
      out += fmt::format("\\udc{:02x}", c), ++i;
    }
  }
  out += '"';
}

std::string jsonString(const std::string& s) {
  std::string out;
  appendJsonString(out, s);
  return out;
}

Json& Json::set(std::string key, Json value) {
  for (auto& m : members_) {
    if (m.first == key) {
      m.second = std::move(value);
      return *this;
    }
  }
  if (members_.empty()) members_.reserve(8);
  members_.emplace_back(std::move(key), std::move(value));
  return *this;
}

Json& Json::push(Json value) {
  members_.emplace_back(std::string(), std::move(value));
  return *this;
}

std::string Json::dump() const {
  std::string out;
  write(out, 0);
  return out + "\n";
}

std::string Json::line() const {
  std::string out;
  writeLine(out);
  return out;
}

void Json::writeLine(std::string& out) const {
  if (kind_ == kString) {
    appendJsonString(out, text_);
    return;
  }
  if (kind_ != kArray && kind_ != kObject) {
    write(out, 0);
    return;
  }
  out += kind_ == kArray ? '[' : '{';
  for (size_t i = 0; i < members_.size(); ++i) {
    if (i != 0) out += ',';
    if (kind_ == kObject) {
      appendJsonString(out, members_[i].first);
      out += ':';
    }
    members_[i].second.writeLine(out);
  }
  out += kind_ == kArray ? ']' : '}';
}

void Json::write(std::string& out, int depth) const {
  switch (kind_) {
    case kNull:
      out += "null";
      return;
    case kBool:
      out += number_ != 0 ? "true" : "false";
      return;
    case kNumber:
      out += std::to_string(number_);
      return;
    case kString:
      appendJsonString(out, text_);
      return;
    case kRaw:
      out += text_;
      return;
    case kArray:
    case kObject:
      break;
  }
  const char open = kind_ == kArray ? '[' : '{';
  const char close = kind_ == kArray ? ']' : '}';
  if (members_.empty()) {
    out += open;
    out += close;
    return;
  }
  // Small containers of plain values stay on one line, inside a document.
  bool flat = depth > 0;
  for (const auto& m : members_) {
    flat = flat && m.second.kind_ != kArray && m.second.kind_ != kObject && m.second.kind_ != kRaw;
  }
  if (flat) {
    std::string line(1, open);
    for (size_t i = 0; i < members_.size(); ++i) {
      if (i != 0) line += ", ";
      if (kind_ == kObject) line += jsonString(members_[i].first) + ": ";
      members_[i].second.write(line, depth + 1);
    }
    line += close;
    if (line.size() + 2 * depth <= 100) {
      out += line;
      return;
    }
  }
  const std::string indent(2 * (depth + 1), ' ');
  out += open;
  for (size_t i = 0; i < members_.size(); ++i) {
    out += i == 0 ? "\n" : ",\n";
    out += indent;
    if (kind_ == kObject) out += jsonString(members_[i].first) + ": ";
    members_[i].second.write(out, depth + 1);
  }
  out += "\n" + std::string(2 * depth, ' ') + close;
}

}  // namespace kelodbg
