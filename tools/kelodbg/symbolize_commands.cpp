// `kelodbg addr2line` and `kelodbg map`.
//
// addr2line's text follows binutils' addr2line byte for byte: "??" for an
// unknown function, "??:0" for an address nothing is known about, "??:?"
// for one whose line is unknown, the address's own discriminator repeated
// on every line of an inline chain, and addresses as wide as the linked
// program's. Its JSON is that of LLVM's symbolizer (answers.h).
#include "symbolize_commands.h"

#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fmt/format.h>

#include "answers.h"
#include "kelo/symbolize.hpp"
#include "text.h"
#include "tool.h"

namespace kelodbg {
namespace {

using kelo_symbolize::Symbolizer;

// The state reused from one answer to the next.
struct Scratch {
  Answer answer;
  // Answers not written yet: each one at once when someone waits for it,
  // else in pieces of kBatch bytes.
  std::string text;
  static constexpr size_t kBatch = 64 * 1024;

  void write(std::FILE* file) {
    std::fwrite(text.data(), 1, text.size(), file);
    text.clear();
  }
};

// The value of a hex digit, or -1.
int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// `text` read as strtoull reads it in base 16. The usual form, 0x and at
// most 16 digits, is read here; anything else (blanks, a sign, more digits,
// none) by strtoull itself.
uint64_t parseHex(const char* text) {
  const char* p = text;
  if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) p += 2;
  uint64_t value = 0;
  int digits = 0;
  for (int d = hexDigit(*p); d >= 0; d = hexDigit(*++p)) {
    if (++digits > 16) return std::strtoull(text, nullptr, 16);
    value = value << 4 | static_cast<uint64_t>(d);
  }
  return digits > 0 ? value : std::strtoull(text, nullptr, 16);
}

void answer(Symbolizer& symbolizer, const Addr2lineOptions& options, const char* text, bool flush, Scratch& scratch,
            std::FILE* file, Json* all) {
  // Parsed as binutils parses it: hex, 0x optional, garbage giving 0, and
  // cut to the width of the program's addresses.
  uint64_t address = parseHex(text);
  const unsigned bits = symbolizer.addressBits();
  if (bits == 32) address &= 0xffffffffu;
  Answer& a = scratch.answer;
  a.address = a.lookup = address;
  a.resolve(symbolizer);
  if (!a.placed && address > 0xffffffffu) {
    // Answered as binutils would, and said why: no recorded address is that
    // large.
    complain(
        fmt::format("kelodbg: address 0x{:x} does not fit in 32 bits; the file records 32-bit addresses\n", address));
  }
  if (all != nullptr) {
    all->push(answerJson(a, options.answers, options.module));
    return;
  }
  std::string& out = scratch.text;
  if (options.json) {
    out += answerJson(a, options.answers, options.module).line();
    out += '\n';
  } else {
    appendText(a, options.answers, bits, out);
  }
  if (flush) {
    scratch.write(file);
    std::fflush(file);
  } else if (out.size() >= Scratch::kBatch) {
    scratch.write(file);
  }
}

}  // namespace

int addr2lineCommand(const kelo_debuginfo::DebugInfoList& list, const Addr2lineOptions& options,
                     const std::vector<std::string>& addresses, std::FILE* in, std::FILE* out) {
  kelo_symbolize::Options symbolizerOptions;
  symbolizerOptions.cacheBytes = options.answers.cacheBytes;
  symbolizerOptions.demangle = options.answers.demangle;
  symbolizerOptions.report = [](const kelo_elf::DebugInfoID& id, const std::string& why) {
    complain(fmt::format("kelodbg: entry {}: warning: {}\n", entryText(id), why));
  };
  Symbolizer symbolizer(list, symbolizerOptions);
  Scratch buffer;
  if (!addresses.empty()) {
    // Addresses given as arguments make one JSON array, as a document.
    Json all = Json::array();
    for (const std::string& text : addresses) {
      answer(symbolizer, options, text.c_str(), false, buffer, out, options.json ? &all : nullptr);
    }
    buffer.write(out);
    if (options.json) {
      const std::string text = all.line() + "\n";
      std::fwrite(text.data(), 1, text.size(), out);
    }
    return 0;
  }
  // binutils reads standard input in pieces of at most 99 characters, and
  // answers for each piece. Each answer is flushed at once for a program
  // that writes an address and waits (a pipe, a terminal); input read from
  // a file has no one waiting.
  struct stat st;
  const int fd = fileno(in);
  // A terminal shows each answer as it comes, in order with the warnings.
  const bool flush = !(fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) || isatty(fileno(out));
  char line[100];
  while (std::fgets(line, sizeof line, in) != nullptr) answer(symbolizer, options, line, flush, buffer, out, nullptr);
  buffer.write(out);
  if (std::ferror(in)) fail(Exit::kFileIo, "<stdin>", fmt::format("cannot read: {}", std::strerror(errno)));
  return 0;
}

int mapCommand(const kelo_debuginfo::DebugInfoList& list, const std::string& name, const std::string& version,
               bool json) {
  kelo_symbolize::Options options;
  options.demangle = false;
  const Symbolizer symbolizer(list, options);
  const std::vector<kelo_symbolize::Range>& ranges = symbolizer.ranges();
  // Each range lists only the first few ranges it overlaps, and how many
  // there are in all, so that the output grows with the ranges alone.
  if (json) {
    Json doc = Json::array();
    for (const kelo_symbolize::Range& r : ranges) {
      Json overlaps = Json::array();
      for (size_t k : r.overlaps) {
        overlaps.push(Json::object()
                          .set("id", entryText(ranges[k].id))
                          .set("kind", ranges[k].id.kind)
                          .set("number", ranges[k].id.number())
                          .set("section", ranges[k].section));
      }
      doc.push(Json::object()
                   .set("id", entryText(r.id))
                   .set("kind", r.id.kind)
                   .set("number", r.id.number())
                   .set("section", r.section)
                   .set("start", r.start)
                   .set("end", r.end)
                   .set("overlapCount", static_cast<uint64_t>(r.overlapCount))
                   .set("overlaps", std::move(overlaps)));
    }
    print(Json::object().set("file", name).set("version", version).set("ranges", std::move(doc)).dump());
    return 0;
  }

  size_t width = 7;  // "SECTION"
  for (const kelo_symbolize::Range& r : ranges) width = std::max(width, printable(r.section).size());
  print(fmt::format("{:<12}{:<12}{:<14}{:<{}}  OVERLAPS\n", "START", "END", "ENTRY", "SECTION", width));
  for (const kelo_symbolize::Range& r : ranges) {
    std::string overlaps;
    for (size_t k : r.overlaps) {
      overlaps +=
          fmt::format("{}{} {}", overlaps.empty() ? "" : ", ", entryText(ranges[k].id), printable(ranges[k].section));
    }
    if (r.overlapCount > r.overlaps.size()) overlaps += fmt::format(" and {} more", r.overlapCount - r.overlaps.size());
    print(fmt::format("0x{:08x}  0x{:08x}  {}  {:<{}}  {}\n", r.start, r.end, entryText(r.id), printable(r.section),
                      width, overlaps.empty() ? "-" : overlaps));
  }
  return 0;
}

}  // namespace kelodbg
