// Output of `kelodbg addr2line` and `kelodbg map`.
//
// addr2line follows binutils' addr2line byte for byte: "??" for an unknown
// function, "??:0" for an address nothing is known about, "??:?" for one
// whose line is unknown, the address's own discriminator repeated on every
// line of an inline chain, and addresses as wide as the linked program's.
#include "symbolize_commands.h"

#include <sys/stat.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include <fmt/format.h>

#include "kelo/symbolize.hpp"

namespace kelodbg {
namespace {

using kelo_symbolize::Frame;
using kelo_symbolize::Location;
using kelo_symbolize::Symbolizer;

std::string idText(const kelo_elf::DebugInfoID& id) { return fmt::format("{}:0x{:08x}", id.kind, id.number()); }

void printFrame(const Addr2lineOptions& options, const Frame& frame, unsigned discriminator, std::FILE* out) {
  if (options.functions) {
    const std::string& name = options.demangle ? frame.demangled : frame.function;
    fmt::print(out, "{}{}", name.empty() ? "??" : name, options.pretty ? " at " : "\n");
  }
  std::string file = frame.file.empty() ? "??" : frame.file;
  if (options.basenames && !frame.file.empty()) {
    const size_t slash = file.rfind('/');
    if (slash != std::string::npos) file.erase(0, slash + 1);
  }
  if (frame.line == 0) {
    fmt::print(out, "{}:?\n", file);
  } else if (discriminator != 0) {
    fmt::print(out, "{}:{} (discriminator {})\n", file, frame.line, discriminator);
  } else {
    fmt::print(out, "{}:{}\n", file, frame.line);
  }
}

void answer(Symbolizer& symbolizer, const Addr2lineOptions& options, const char* text, bool flush, std::FILE* out) {
  // Parsed as binutils parses it: hex, 0x optional, garbage giving 0, and
  // cut to the width of the program's addresses.
  uint64_t address = std::strtoull(text, nullptr, 16);
  const unsigned bits = symbolizer.addressBits();
  if (bits == 32) address &= 0xffffffffu;
  if (options.addresses) {
    fmt::print(out, "0x{:0{}x}{}", address, bits / 4, options.pretty ? ": " : "\n");
  }
  const absl::optional<Location> loc = symbolizer.resolve(address);
  if (!loc || loc->frames.empty()) {
    if (options.functions) fmt::print(out, "{}", options.pretty ? "?? " : "??\n");
    fmt::print(out, "??:0\n");
  } else {
    const size_t shown = options.inlines ? loc->frames.size() : 1;
    for (size_t i = 0; i < shown; ++i) {
      if (i > 0 && options.pretty) fmt::print(out, " (inlined by) ");
      printFrame(options, loc->frames[i], loc->frames[0].discriminator, out);
    }
  }
  if (flush) std::fflush(out);
}

// Section names are arbitrary bytes: the table shows other than printable
// ASCII (and the backslash) as \xNN.
std::string printable(const std::string& s) {
  std::string out;
  for (unsigned char c : s) {
    if (c >= 0x20 && c < 0x7f && c != '\\') {
      out += static_cast<char>(c);
    } else {
      out += fmt::format("\\x{:02x}", c);
    }
  }
  return out;
}

// The length of the valid UTF-8 sequence starting at s[i], or 0.
size_t utf8Length(const std::string& s, size_t i) {
  const unsigned char c = static_cast<unsigned char>(s[i]);
  size_t n = c >= 0xf0 && c <= 0xf4 ? 4 : c >= 0xe0 ? 3 : c >= 0xc2 && c < 0xe0 ? 2 : 0;
  if (n == 0 || i + n > s.size()) return 0;
  for (size_t k = 1; k < n; ++k) {
    if ((static_cast<unsigned char>(s[i + k]) & 0xc0) != 0x80) return 0;
  }
  const unsigned char c1 = static_cast<unsigned char>(s[i + 1]);
  if ((c == 0xe0 && c1 < 0xa0) || (c == 0xed && c1 >= 0xa0) || (c == 0xf0 && c1 < 0x90) || (c == 0xf4 && c1 >= 0x90)) {
    return 0;  // overlong forms, surrogates, beyond U+10FFFF
  }
  return n;
}

// A quoted JSON string: valid UTF-8 passes through, other bytes are taken
// as Latin-1.
std::string jsonString(const std::string& s) {
  std::string out = "\"";
  for (size_t i = 0; i < s.size();) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
      ++i;
    } else if (c < 0x20 || c == 0x7f) {
      out += fmt::format("\\u{:04x}", c);
      ++i;
    } else if (c < 0x80) {
      out += static_cast<char>(c);
      ++i;
    } else if (const size_t n = utf8Length(s, i)) {
      out.append(s, i, n);
      i += n;
    } else {
      out += fmt::format("\\u{:04x}", c);
      ++i;
    }
  }
  return out + "\"";
}

}  // namespace

int addr2lineCommand(const kelo_debuginfo::DebugInfoList& list, const Addr2lineOptions& options,
                     const std::vector<std::string>& addresses, std::FILE* in, std::FILE* out) {
  Symbolizer symbolizer(list);
  if (!addresses.empty()) {
    for (const std::string& text : addresses) answer(symbolizer, options, text.c_str(), false, out);
    return 0;
  }
  // binutils reads standard input in pieces of at most 99 characters, and
  // answers for each piece. Each answer is flushed at once for a program
  // that writes an address and waits (a pipe, a terminal); input read from
  // a file has no one waiting.
  struct stat st;
  const int fd = fileno(in);
  const bool flush = !(fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode));
  char line[100];
  while (std::fgets(line, sizeof line, in) != nullptr) answer(symbolizer, options, line, flush, out);
  return 0;
}

int mapCommand(const kelo_debuginfo::DebugInfoList& list, bool json, std::FILE* out) {
  const Symbolizer symbolizer(list);
  const std::vector<kelo_symbolize::Range>& ranges = symbolizer.ranges();
  if (json) {
    fmt::print(out, "{{\n  \"ranges\": [");
    for (size_t i = 0; i < ranges.size(); ++i) {
      const kelo_symbolize::Range& r = ranges[i];
      std::string overlaps;
      for (size_t k : r.overlaps) {
        overlaps += fmt::format("{}{{\"id\": \"{}\", \"section\": {}}}", overlaps.empty() ? "" : ", ",
                                idText(ranges[k].id), jsonString(ranges[k].section));
      }
      fmt::print(out,
                 "{}\n    {{\"id\": \"{}\", \"kind\": {}, \"number\": {}, \"section\": {}, \"start\": {}, \"end\": {}, "
                 "\"overlaps\": [{}]}}",
                 i == 0 ? "" : ",", idText(r.id), r.id.kind, r.id.number(), jsonString(r.section), r.start, r.end,
                 overlaps);
    }
    fmt::print(out, "{}]\n}}\n", ranges.empty() ? "" : "\n  ");
    return 0;
  }

  size_t width = 7;
  for (const kelo_symbolize::Range& r : ranges) width = std::max(width, printable(r.section).size());
  fmt::print(out, "{:<12}{:<12}{:<14}{:<{}}  OVERLAPS\n", "START", "END", "ENTRY", "SECTION", width);
  for (const kelo_symbolize::Range& r : ranges) {
    std::string overlaps;
    for (size_t k : r.overlaps) {
      overlaps +=
          fmt::format("{}{} {}", overlaps.empty() ? "" : ", ", idText(ranges[k].id), printable(ranges[k].section));
    }
    fmt::print(out, "0x{:08x}  0x{:08x}  {}  {:<{}}  {}\n", r.start, r.end, idText(r.id), printable(r.section), width,
               overlaps.empty() ? "-" : overlaps);
  }
  return 0;
}

}  // namespace kelodbg
