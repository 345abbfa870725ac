// The symbolization library: from a run-time address to the function, source
// file and line, across the images of a debug-info list.
//
// A Symbolizer looks at a list as it is when the Symbolizer is made. It
// places every allocated section of every entry at the address recorded for
// it, builds a sorted address map of those ranges, and answers, for an
// address, which entry and section hold it and which functions (inline
// frames first) and source lines it belongs to. Each entry's DWARF is read
// the first time one of its addresses is asked for and kept in a cache
// bounded in bytes; entries that are never hit cost only their address
// ranges.
//
// Names: the outermost frame (the function the code belongs to) is named by
// the entry's ELF symbol that covers the address, as a linked program's
// symbol table would name it (clones and split parts such as ".cold" or
// ".isra.0" included); without one, by the DWARF. Inlined frames are named
// by the DWARF: the linkage name, reached through DW_AT_abstract_origin and
// DW_AT_specification, else the plain name. Lines come only from the line
// table rows of the section that holds the address.
//
// Limits (hostile or damaged stores): compressed debug sections are
// inflated only up to kInflateFactor times the image's size in all (an
// entry over it answers from its symbols alone, and Options::report hears
// of it); a demangled name longer than kMaxDemangledName bytes, or a mangled
// one longer than kMaxMangledName, stays mangled; a range lists at most
// kListedOverlaps of the ranges it overlaps.
//
// Lifetime: a Symbolizer borrows its list. It must not outlive the list, and
// any change to the list (adding, removing, renumbering or merging entries,
// recording addresses) invalidates it, as it does iterators; make a new one.
//
// Errors: damaged or missing debug information is never an exception; it
// makes answers poorer (no function, no line). Only memory exhaustion
// throws (std::bad_alloc). A Symbolizer is not for concurrent use; distinct
// Symbolizers share nothing.
#ifndef KELO_SYMBOLIZE_HPP_
#define KELO_SYMBOLIZE_HPP_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "absl/types/optional.h"
#include "kelo/DebugInfoList.h"
#include "kelo/store.hpp"

namespace kelo_symbolize {

using kelo_elf::DebugInfoID;

// One allocated section of one entry placed at its recorded address: the
// addresses [start, end), end = start + the section's size. Sections without
// bytes in the image (.bss) take part with their size; sections of size 0,
// sections without SHF_ALLOC, and the names ".constant" and ".local" (which
// name no section) take no part.
struct Range {
  DebugInfoID id;
  std::string section;
  uint64_t start = 0;
  uint64_t end = 0;
  // How many other ranges share at least one address with this one, and
  // the positions in Symbolizer::ranges() of the first of them (at most
  // kListedOverlaps), ascending. Overlaps are reported, not resolved: see
  // Symbolizer::rangeAt().
  size_t overlapCount = 0;
  std::vector<size_t> overlaps;
};

constexpr size_t kListedOverlaps = 8;
constexpr size_t kInflateFactor = 64;
constexpr size_t kMaxMangledName = 16 * 1024;
constexpr size_t kMaxDemangledName = 64 * 1024;

// One frame of the answer for an address.
struct Frame {
  // The function's name (mangled for C++): for the outermost frame the
  // entry's symbol covering the address, or the DWARF's name where no symbol
  // covers it; where the debug information knows no function, the nearest
  // preceding code symbol of the section. Inlined frames: the DWARF's
  // linkage name, else its plain name. Empty when nothing names it.
  std::string function;
  // With Options::demangle, `function` demangled when it is a mangled C++
  // name (within kMaxDemangledName), else equal to it. Empty without.
  std::string demangled;
  // The source file, absolute when the compilation directory is recorded;
  // empty when unknown.
  std::string file;
  unsigned line = 0;  // 0 when unknown
  unsigned column = 0;
  // The line table's discriminator for the innermost frame; the call site's
  // discriminator, where recorded, for the frames around it.
  unsigned discriminator = 0;
  // Where the frame's function begins: the file and line of its
  // declaration (empty, 0 when unknown), and the run-time address of its
  // DW_AT_low_pc when it has one in the section holding the address
  // (hasStart false otherwise; a function given as ranges has none). A
  // frame named by a symbol starts at the symbol.
  std::string startFile;
  unsigned startLine = 0;
  uint64_t startAddress = 0;
  bool hasStart = false;
};

// The answer for one address.
struct Location {
  DebugInfoID id;       // the entry holding the address
  std::string section;  // its section holding the address
  uint64_t offset = 0;  // the address's offset in that section
  // Innermost first: an inlined function, then the function it was inlined
  // into, and so on; the last frame is the function the code belongs to.
  // Each frame's file and line are where that frame stands: the line of the
  // address for the first, the call site for the others. For an address at
  // the start of a variable, one frame with the variable's declaration file
  // and line (and `function` naming a preceding code symbol, if any). Empty
  // when nothing is known about the address.
  std::vector<Frame> frames;
  // The name of the variable that starts at the address, if one does.
  std::string variable;
};

struct Options {
  // About how many bytes the entries' loaded debug information may take at
  // once (a private copy of each image, inflated sections, and the indexes
  // of the units used); the least recently used entries are dropped first.
  // The entry that answers last stays, whatever its size.
  size_t cacheBytes = size_t{1} << 30;
  // Whether Frame::demangled is filled; without it names are never
  // demangled (and Frame::demangled stays empty).
  bool demangle = true;
  // Told, once per entry, why an entry's debug information was refused
  // (e.g. compressed sections that would inflate past the limit). May be
  // empty.
  std::function<void(const DebugInfoID& id, const std::string& why)> report;
};

class KELO_EXPORT Symbolizer {
 public:
  // Builds the address map of `list`. Reads every entry's section headers,
  // nothing else. REQUIRES: `list` outlives the Symbolizer and does not
  // change while it is used.
  explicit Symbolizer(const kelo_debuginfo::DebugInfoList& list, const Options& options = Options());
  // The same for the entries of a view that record addresses (the only
  // ones an address can reach), whose images are loaded now and kept by
  // the Symbolizer; the view may go. An entry whose image does not load is
  // left out, and Options::report told why. Throws std::bad_alloc.
  explicit Symbolizer(const kelo_store::View& view, const Options& options = Options());
  // The same, sharing the view, whose images are read when an address
  // first reaches them and dropped with the rest of an entry's debug
  // information when the cache needs room: memory stays within
  // Options::cacheBytes (and the largest entry) whatever the file's size.
  // Each placed image is read once here, for its section headers. (A view
  // reads with pread and changes nothing: others may read it meanwhile.)
  explicit Symbolizer(std::shared_ptr<const kelo_store::View> view, const Options& options = Options());
  ~Symbolizer();
  Symbolizer(Symbolizer&&) noexcept;
  Symbolizer& operator=(Symbolizer&&) noexcept;
  Symbolizer(const Symbolizer&) = delete;
  Symbolizer& operator=(const Symbolizer&) = delete;

  // The address map: every range, sorted by start, then end, then entry
  // (kind, number), then section name.
  const std::vector<Range>& ranges() const noexcept;

  // The range that resolve() takes for `address`: among the ranges holding
  // it, the one that starts last (a range that begins inside another is
  // taken to be placed over it); for equal starts, the first in ranges().
  // Null when no range holds the address.
  const Range* rangeAt(uint64_t address) const noexcept;

  // What the entry's debug information says about `address`. Empty when no
  // range holds it. Loads the entry's DWARF on its first hit.
  absl::optional<Location> resolve(uint64_t address);

  // The same into `out`, whose frames and strings are reused (a caller
  // resolving many addresses keeps one Location); false, with no frames,
  // when no range holds the address.
  bool resolve(uint64_t address, Location& out);

  // 64 when any entry's image is ELF64 (or the list is empty), else 32: the
  // width of the addresses of a program linked from the entries.
  unsigned addressBits() const noexcept;

  // How many entries' debug information is held now, and about how many
  // bytes it takes (see Options::cacheBytes).
  size_t loadedEntries() const noexcept;
  size_t loadedBytes() const noexcept;

  // Changes Options::cacheBytes; a smaller bound takes effect when the next
  // answer is given (least recently used entries are dropped then).
  void setCacheBytes(size_t bytes) noexcept;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kelo_symbolize

#endif  // KELO_SYMBOLIZE_HPP_
