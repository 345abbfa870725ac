// Identifiers, numbers and the exit-code table.
#include <cctype>

#include <fmt/format.h>

#include "tool.h"

namespace kelodbg {

const char* exitCodeHelp() {
  return "Exit codes:\n"
         "   0  success\n"
         "   1  other failure (for instance, out of memory)\n"
         "   2  usage error\n"
         "   3  a file is missing, unreadable or cannot be written\n"
         "   4  not a debug-info file (wrong magic)\n"
         "   5  unsupported debug-info file version\n"
         "   6  damaged debug-info file\n"
         "   7  an ELF file does not load\n"
         "   8  no entry under that identifier\n"
         "   9  identifier already present\n"
         "  10  renumbering or merge refused (identifiers would collide)\n"
         "  11  the entry's image has no section of that name\n";
}

void fail(Exit code, std::string file, std::string message) {
  throw Failure{code, std::move(file), std::move(message)};
}

std::string format(const Id& id) { return fmt::format("{}:0x{:08x}", id.kind, id.number); }

std::string parseNumber(const std::string& text, uint32_t& out) {
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const size_t start = hex ? 2 : 0;
  const unsigned base = hex ? 16 : 10;
  if (text.size() == start) return fmt::format("'{}' is not a number", text);
  uint64_t value = 0;
  for (size_t i = start; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    unsigned digit;
    if (std::isdigit(c)) {
      digit = c - '0';
    } else if (hex && std::isxdigit(c)) {
      digit = static_cast<unsigned>(std::tolower(c) - 'a' + 10);
    } else {
      return fmt::format("'{}' is not a number (decimal, or hex with 0x)", text);
    }
    value = value * base + digit;
    if (value > UINT32_MAX) return fmt::format("'{}' does not fit in 32 bits", text);
  }
  out = static_cast<uint32_t>(value);
  return {};
}

std::string parseId(const std::string& text, Id& out) {
  Id id;
  std::string number = text;
  const size_t colon = text.find(':');
  if (colon != std::string::npos) {
    const std::string kind = text.substr(0, colon);
    if (kind != "0" && kind != "1") return fmt::format("'{}': the kind is 0 or 1", text);
    id.kind = kind == "0" ? 0 : 1;
    number = text.substr(colon + 1);
  }
  std::string error = parseNumber(number, id.number);
  if (!error.empty()) return fmt::format("'{}' is not an identifier: {}", text, error);
  out = id;
  return {};
}

std::string splitAssignment(const std::string& text, const char* form, std::string& left, std::string& right) {
  const size_t eq = text.find('=');
  if (eq == std::string::npos || eq == 0 || eq + 1 == text.size()) {
    return fmt::format("'{}' is not of the form {}", text, form);
  }
  left = text.substr(0, eq);
  right = text.substr(eq + 1);
  return {};
}

}  // namespace kelodbg
