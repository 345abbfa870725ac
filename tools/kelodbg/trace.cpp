#include "trace.h"

#include <cctype>

namespace kelodbg {
namespace {

bool isHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

// A hex number at `text[at]` (0x optional when `bare` allows it) that ends
// where a word ends; its value in `out`, and where it ends in `end`.
bool hexAt(const std::string& text, size_t at, bool bare, uint64_t& out, size_t& end) {
  size_t i = at;
  if (i + 1 < text.size() && text[i] == '0' && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
    i += 2;
  } else if (!bare) {
    return false;
  }
  const size_t digits = i;
  uint64_t value = 0;
  for (; i < text.size() && isHexDigit(text[i]); ++i) {
    if (i - digits == 16) return false;  // more than 64 bits
    const char c = text[i];
    value = value * 16 + static_cast<uint64_t>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
  }
  if (i == digits || (i < text.size() && (std::isalnum(static_cast<unsigned char>(text[i])) || text[i] == '_'))) {
    return false;
  }
  out = value;
  end = i;
  return true;
}

// Finds "(MODULE+0xOFFSET)" or "MODULE(+0xOFFSET)" in the line.
void findModuleOffset(const std::string& line, TraceLine& t) {
  for (size_t plus = line.rfind("+0x"); plus != std::string::npos && plus > 0; plus = line.rfind("+0x", plus - 1)) {
    uint64_t offset = 0;
    size_t end = 0;
    if (!hexAt(line, plus + 1, false, offset, end) || end >= line.size() || line[end] != ')') continue;
    const size_t open = line.rfind('(', plus);
    if (open == std::string::npos) continue;
    std::string module = line.substr(open + 1, plus - open - 1);
    if (module.empty()) {
      // glibc: the module stands before the parenthesis.
      const size_t space = line.find_last_of(" \t", open);
      const size_t start = space == std::string::npos ? 0 : space + 1;
      module = line.substr(start, open - start);
    } else if (module.find_first_of(" \t") != std::string::npos) {
      continue;
    }
    t.inModule = true;
    t.module = module;
    t.offset = offset;
    return;
  }
}

}  // namespace

TraceLine parseTraceLine(const std::string& line) {
  TraceLine t;
  size_t i = line.find_first_not_of(" \t");
  if (i == std::string::npos) return t;
  size_t end = 0;
  if (line[i] == '#' && i + 1 < line.size() && std::isdigit(static_cast<unsigned char>(line[i + 1]))) {
    // gdb ("#1  0x... in f () at x.c:3", "#0  f () at x.c:3") and the
    // sanitizers ("    #1 0x... in f x.c:3:5", "#2 0x... (lib.so+0x1d)").
    ++i;
    long n = 0;
    for (; i < line.size() && std::isdigit(static_cast<unsigned char>(line[i])); ++i) {
      n = n < 100000000 ? n * 10 + (line[i] - '0') : n;
    }
    t.frame = true;
    t.number = n;
    i = line.find_first_not_of(" \t", i);
    if (i == std::string::npos) return t;
    if (line.compare(i, 23, "<signal handler called>") == 0) t.signal = true;
    t.address = hexAt(line, i, false, t.value, end);
    if (t.address) findModuleOffset(line, t);
    return t;
  }
  // glibc's backtrace_symbols: "prog(f+0x1d) [0x401136]".
  const size_t bracket = line.rfind("[0x");
  if (bracket != std::string::npos && hexAt(line, bracket + 1, false, t.value, end) && end < line.size() &&
      line[end] == ']') {
    t.frame = t.address = true;
    findModuleOffset(line, t);
    return t;
  }
  // A plain address, 0x optional, alone on its line.
  if (hexAt(line, i, true, t.value, end) && line.find_first_not_of(" \t\r", end) == std::string::npos) {
    t.frame = t.address = true;
  }
  return t;
}

}  // namespace kelodbg
