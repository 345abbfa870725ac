// Identifiers, numbers, lists, and the output that never aborts.
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "tool.h"

namespace kelodbg {
namespace {

bool outputFailed = false;

}  // namespace

void fail(Exit code, std::string file, std::string message) {
  throw Failure{code, std::move(file), std::move(message)};
}

void complain(const std::string& text) {
  // Unbuffered and unchecked: there is nowhere left to report a failure.
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(2, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

void print(const std::string& text) {
  if (!outputFailed && std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) outputFailed = true;
}

void finishOutput() {
  if (std::fflush(stdout) != 0 || std::ferror(stdout) || outputFailed) {
    const int err = errno;
    fail(Exit::kFileIo, "<stdout>", std::string("cannot write: ") + (err != 0 ? std::strerror(err) : "error"));
  }
}

std::string format(const Id& id) { return fmt::format("{}:0x{:08x}", id.kind, id.number); }

std::string parseNumber(const std::string& text, uint32_t& out, uint32_t max) {
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
    if (value > max) return fmt::format("'{}' is larger than {}", text, max);
  }
  out = static_cast<uint32_t>(value);
  return {};
}

std::string parseId(const std::string& text, uint8_t defaultKind, Id& out) {
  Id id{defaultKind, 0};
  std::string number = text;
  const size_t colon = text.find(':');
  if (colon != std::string::npos) {
    uint32_t kind = 0;
    std::string error = parseNumber(text.substr(0, colon), kind, 255);
    if (!error.empty()) return fmt::format("'{}' is not an identifier: the kind is 0 to 255", text);
    id.kind = static_cast<uint8_t>(kind);
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

ListPtr newList() { return std::make_unique<List>(); }

}  // namespace kelodbg
