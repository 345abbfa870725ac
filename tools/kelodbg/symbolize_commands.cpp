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

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <vector>

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

// The address a piece of input asks about, parsed as binutils parses it:
// hex, 0x optional, garbage giving 0, and cut to the width of the
// program's addresses.
uint64_t addressOf(const Symbolizer& symbolizer, const char* text) {
  uint64_t address = parseHex(text);
  if (symbolizer.addressBits() == 32) address &= 0xffffffffu;
  return address;
}

// Answered as binutils would, and said why: no recorded address is that
// large.
void warnIfTooWide(const Answer& a) {
  if (!a.placed && a.address > 0xffffffffu) {
    complain(
        fmt::format("kelodbg: address 0x{:x} does not fit in 32 bits; the file records 32-bit addresses\n", a.address));
  }
}

// The answer for `address`, in `scratch.answer`, as text appended to `out`.
void render(Symbolizer& symbolizer, const Addr2lineOptions& options, uint64_t address, Scratch& scratch,
            std::string& out) {
  Answer& a = scratch.answer;
  a.address = a.lookup = address;
  a.resolve(symbolizer);
  if (options.json) {
    out += answerJson(a, options.answers, options.module).line();
    out += '\n';
  } else {
    appendText(a, options.answers, symbolizer.addressBits(), out);
  }
}

void answer(Symbolizer& symbolizer, const Addr2lineOptions& options, const char* text, bool flush, Scratch& scratch,
            std::FILE* file, Json* all) {
  const uint64_t address = addressOf(symbolizer, text);
  if (all != nullptr) {
    Answer& a = scratch.answer;
    a.address = a.lookup = address;
    a.resolve(symbolizer);
    warnIfTooWide(a);
    all->push(answerJson(a, options.answers, options.module));
    return;
  }
  render(symbolizer, options, address, scratch, scratch.text);
  warnIfTooWide(scratch.answer);
  if (flush) {
    scratch.write(file);
    std::fflush(file);
  } else if (scratch.text.size() >= Scratch::kBatch) {
    scratch.write(file);
  }
}

// Addresses read from a file, where no one waits for each answer: a batch
// of them is looked up in the order of the addresses, each distinct one
// once, so that each object's and unit's tables are used while they are in
// the processor's caches; the answers are written in the order of the
// input. Answers do not depend on the order they are found in.
void answerBatches(Symbolizer& symbolizer, const Addr2lineOptions& options, std::FILE* in, Scratch& scratch,
                   std::FILE* file) {
  constexpr size_t kPieces = 1 << 16;
  std::vector<uint64_t> addresses;
  std::vector<uint32_t> order;
  std::vector<size_t> textOf;  // of each piece: the start of its answer in `rendered`
  std::string rendered;
  char line[100];
  for (bool more = true; more;) {
    addresses.clear();
    while (addresses.size() < kPieces && std::fgets(line, sizeof line, in) != nullptr) {
      addresses.push_back(addressOf(symbolizer, line));
    }
    more = addresses.size() == kPieces;
    if (addresses.empty()) break;
    order.resize(addresses.size());
    for (uint32_t i = 0; i < order.size(); ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [&](uint32_t x, uint32_t y) { return addresses[x] < addresses[y]; });
    // Each distinct address is answered once; pieces asking the same share
    // its text, and whether it was placed.
    textOf.assign(addresses.size() + 1, 0);
    std::vector<bool> placed(addresses.size());
    rendered.clear();
    for (size_t k = 0; k < order.size(); ++k) {
      const uint32_t i = order[k];
      if (k > 0 && addresses[order[k - 1]] == addresses[i]) {
        textOf[i] = textOf[order[k - 1]];
        placed[i] = placed[order[k - 1]];
        continue;
      }
      textOf[i] = rendered.size();
      render(symbolizer, options, addresses[i], scratch, rendered);
      placed[i] = scratch.answer.placed;
    }
    // Each answer ends where the next one rendered begins.
    std::vector<size_t> ends(addresses.size());
    size_t end = rendered.size();
    for (size_t k = order.size(); k-- > 0;) {
      const uint32_t i = order[k];
      if (k + 1 < order.size() && addresses[order[k + 1]] == addresses[i]) {
        ends[i] = ends[order[k + 1]];
        continue;
      }
      ends[i] = end;
      end = textOf[i];
    }
    for (size_t i = 0; i < addresses.size(); ++i) {
      scratch.text.append(rendered, textOf[i], ends[i] - textOf[i]);
      Answer& a = scratch.answer;
      a.address = addresses[i];
      a.placed = placed[i];
      warnIfTooWide(a);
      if (scratch.text.size() >= Scratch::kBatch) scratch.write(file);
    }
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
  if (flush) {
    char line[100];
    while (std::fgets(line, sizeof line, in) != nullptr) answer(symbolizer, options, line, true, buffer, out, nullptr);
  } else {
    answerBatches(symbolizer, options, in, buffer, out);
  }
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
