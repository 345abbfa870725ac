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
#include <iterator>

#include <fmt/format.h>

#include "kelo/symbolize.hpp"
#include "text.h"
#include "tool.h"

namespace kelodbg {
namespace {

using kelo_symbolize::Frame;
using kelo_symbolize::Location;
using kelo_symbolize::Symbolizer;

std::string idText(const kelo_elf::DebugInfoID& id) { return format(Id::of(id)); }

void printFrame(const Addr2lineOptions& options, const Frame& frame, unsigned discriminator, fmt::memory_buffer& out) {
  if (options.functions) {
    const std::string& name = options.demangle ? frame.demangled : frame.function;
    fmt::format_to(std::back_inserter(out), "{}{}", name.empty() ? "??" : name, options.pretty ? " at " : "\n");
  }
  std::string file = frame.file.empty() ? "??" : frame.file;
  if (options.basenames && !frame.file.empty()) {
    const size_t slash = file.rfind('/');
    if (slash != std::string::npos) file.erase(0, slash + 1);
  }
  if (frame.line == 0) {
    fmt::format_to(std::back_inserter(out), "{}:?\n", file);
  } else if (discriminator != 0) {
    fmt::format_to(std::back_inserter(out), "{}:{} (discriminator {})\n", file, frame.line, discriminator);
  } else {
    fmt::format_to(std::back_inserter(out), "{}:{}\n", file, frame.line);
  }
}

void answer(Symbolizer& symbolizer, const Addr2lineOptions& options, const char* text, bool flush, std::FILE* file) {
  // One answer is put together here and written at once.
  fmt::memory_buffer out;
  // Parsed as binutils parses it: hex, 0x optional, garbage giving 0, and
  // cut to the width of the program's addresses.
  uint64_t address = std::strtoull(text, nullptr, 16);
  const unsigned bits = symbolizer.addressBits();
  if (bits == 32) address &= 0xffffffffu;
  if (options.addresses) {
    fmt::format_to(std::back_inserter(out), "0x{:0{}x}{}", address, bits / 4, options.pretty ? ": " : "\n");
  }
  const absl::optional<Location> loc = symbolizer.resolve(address);
  if (!loc || loc->frames.empty()) {
    if (options.functions) fmt::format_to(std::back_inserter(out), "{}", options.pretty ? "?? " : "??\n");
    fmt::format_to(std::back_inserter(out), "??:0\n");
  } else {
    const size_t shown = options.inlines ? loc->frames.size() : 1;
    for (size_t i = 0; i < shown; ++i) {
      if (i > 0 && options.pretty) fmt::format_to(std::back_inserter(out), " (inlined by) ");
      printFrame(options, loc->frames[i], loc->frames[0].discriminator, out);
    }
  }
  std::fwrite(out.data(), 1, out.size(), file);
  if (flush) std::fflush(file);
}

}  // namespace

int addr2lineCommand(const kelo_debuginfo::DebugInfoList& list, const Addr2lineOptions& options,
                     const std::vector<std::string>& addresses, std::FILE* in, std::FILE* out) {
  kelo_symbolize::Options symbolizerOptions;
  symbolizerOptions.cacheBytes = options.cacheBytes;
  symbolizerOptions.demangle = options.demangle;
  symbolizerOptions.report = [](const kelo_elf::DebugInfoID& id, const std::string& why) {
    complain(fmt::format("kelodbg: entry {}: warning: {}\n", idText(id), why));
  };
  Symbolizer symbolizer(list, symbolizerOptions);
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

int mapCommand(const kelo_debuginfo::DebugInfoList& list, const std::string& name, bool json) {
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
        overlaps.push(Json::object().set("id", idText(ranges[k].id)).set("section", ranges[k].section));
      }
      doc.push(Json::object()
                   .set("id", idText(r.id))
                   .set("kind", r.id.kind)
                   .set("number", r.id.number())
                   .set("section", r.section)
                   .set("start", r.start)
                   .set("end", r.end)
                   .set("overlapCount", static_cast<uint64_t>(r.overlapCount))
                   .set("overlaps", std::move(overlaps)));
    }
    print(Json::object().set("file", name).set("ranges", std::move(doc)).dump());
    return 0;
  }

  size_t width = 7;  // "SECTION"
  for (const kelo_symbolize::Range& r : ranges) width = std::max(width, printable(r.section).size());
  print(fmt::format("{:<12}{:<12}{:<14}{:<{}}  OVERLAPS\n", "START", "END", "ENTRY", "SECTION", width));
  for (const kelo_symbolize::Range& r : ranges) {
    std::string overlaps;
    for (size_t k : r.overlaps) {
      overlaps +=
          fmt::format("{}{} {}", overlaps.empty() ? "" : ", ", idText(ranges[k].id), printable(ranges[k].section));
    }
    if (r.overlapCount > r.overlaps.size()) overlaps += fmt::format(" and {} more", r.overlapCount - r.overlaps.size());
    print(fmt::format("0x{:08x}  0x{:08x}  {}  {:<{}}  {}\n", r.start, r.end, idText(r.id), printable(r.section), width,
                      overlaps.empty() ? "-" : overlaps));
  }
  return 0;
}

}  // namespace kelodbg
