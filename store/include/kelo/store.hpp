// Debug-info files for C++ programs: whole lists read and written, and a
// read-only view of a file of any size.
//
// A View indexes a file in one pass: each entry's identifier, where its
// image lies and its section records, without reading the images. An image
// is read only when it is asked for, so a view of a file of many gigabytes
// takes the memory of its index. A stream (a pipe) is read as it arrives.
//
// Reading a whole list, checking a file and indexing it are three uses of
// one decoder, which says why a file does not read (the fault, the entry,
// the byte offset and the field) and what it holds that a reader drops (the
// warnings). Lists read here are the lists that keloDbgRead gives.
//
// Link with kelo::store (CMake) or kelo-store (pkg-config).
#ifndef KELO_STORE_HPP_
#define KELO_STORE_HPP_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "absl/types/optional.h"
#include "kelo/DebugInfoList.h"
#include "kelo/elf.hpp"
#include "kelo/export.h"

namespace kelo_store {

using kelo_elf::DebugInfoID;

// What stops a file from being read, in the order the decoder meets them.
enum class Fault {
  kOpen,          // the file cannot be opened (errno in Report::error)
  kRead,          // reading failed (errno in Report::error)
  kNotDebugInfo,  // no debug-info magic at the start
  kVersion,       // a version this library does not read
  kTruncated,     // the file ends inside a field
  kTooLong,       // a section name length of 2^32 or more, which the reader refuses
  kTooBig,        // a length that this program cannot hold in memory (32-bit builds)
  kBadImage,      // an entry's image bytes do not load as an image
};

// What reads, but is probably not what the writer meant.
enum class Warning {
  kDuplicateId,       // a later entry under the same identifier is dropped
  kDuplicateSection,  // a later record of the same section name is dropped
  kKindAboveC,        // a kind the C interface neither takes nor gives
  kTrailingBytes,     // bytes after the last entry are ignored
  kHighHalf,          // a count or image length whose high 32 bits are ignored
};

// Where a finding is. `entry` is the 0-based entry index, absent for the
// header and the entry count; `offset` is the byte offset of the field.
struct Place {
  absl::optional<uint64_t> entry;
  uint64_t offset = 0;
  const char* field = "";  // "magic", "version", "entry count", "kind", "image length", ...
};

struct Finding {
  Place place;
  DebugInfoID id;      // the entry's identifier, when `place.entry` is set and it was read
  std::string name;    // the section name, for kDuplicateSection
  uint64_t value = 0;  // the count of trailing bytes, the full prefix of kHighHalf
};

// One entry as the file holds it, for reading it later without the rest:
// where its image lies and the section records the reader keeps (the first
// of each name), in file order. Offsets are from the start of the file.
struct IndexedEntry {
  DebugInfoID id;
  uint64_t offset = 0;       // where the entry starts
  uint64_t imageOffset = 0;  // where its image bytes start
  uint32_t imageSize = 0;
  uint64_t end = 0;  // where the entry ends
  std::vector<std::pair<std::string, uint32_t>> sections;
  bool repeated = false;  // an earlier entry has the same identifier: the reader drops this one
};

// What the decoder found.
struct Report {
  bool opened = false;
  absl::optional<uint8_t> major, minor, patch;  // once the header was read
  uint64_t entries = 0;                         // the entry count as the reader takes it
  uint64_t entriesRead = 0;                     // entries read completely
  uint64_t bytes = 0;                           // bytes read up to the last entry's end

  // The first error, if any; `errorFinding` says where, `error` holds errno
  // for kOpen and kRead, and `detail` any fact worth reporting (bytes that
  // were left, a length).
  absl::optional<Fault> fault;
  Finding errorFinding;
  int error = 0;
  uint64_t detail = 0;

  // At most kMaxWarnings are kept; `warningCount` counts them all.
  static constexpr std::size_t kMaxWarnings = 100;
  std::vector<std::pair<Warning, Finding>> warnings;
  uint64_t warningCount = 0;
  // The warnings about what the reader drops: all but kKindAboveC.
  uint64_t dropCount = 0;

  // For a view (and with DecodeOptions::index): every entry read
  // completely, in file order.
  std::vector<IndexedEntry> index;
};

// A read-only view of a debug-info file. Move-only; it keeps the file open.
class KELO_EXPORT View {
 public:
  // Indexes the file at `path`. Absent when the file does not read as far
  // as the index goes (the images are not loaded); `report` (when given)
  // says why, and holds the warnings either way.
  static absl::optional<View> open(const std::string& path, Report* report = nullptr);
  // The same for an open descriptor of a regular file, read from its start
  // with pread; the view keeps a duplicate of it.
  static absl::optional<View> open(int fd, Report* report = nullptr);

  View(View&& other) noexcept;
  View& operator=(View&& other) noexcept;
  ~View();
  View(const View&) = delete;
  View& operator=(const View&) = delete;

  // What the index pass found: the version, the warnings, every entry.
  const Report& report() const { return report_; }
  // The entries that a reader keeps (the first of each identifier), in
  // file order.
  const std::vector<const IndexedEntry*>& entries() const { return kept_; }
  const IndexedEntry* find(const DebugInfoID& id) const;

  // The image bytes of `entry`, read now. False on a read error (errno set).
  // Throws std::bad_alloc.
  bool readImage(const IndexedEntry& entry, std::vector<unsigned char>& out) const;
  // The image of `entry`, loaded now: absent when its bytes do not load as
  // an image or cannot be read (errno set then). Throws std::bad_alloc.
  absl::optional<kelo_elf::ELF> loadImage(const IndexedEntry& entry) const;
  // Writes the image bytes of `entry` to `fd` where it stands (in the
  // kernel where the file systems allow). False on an error (errno set).
  bool copyImage(const IndexedEntry& entry, int fd) const;
  // Whether two entries' images hold the same bytes (read a piece at a
  // time); absent on a read error.
  absl::optional<bool> sameImage(const IndexedEntry& entry, const View& other, const IndexedEntry& otherEntry) const;

  // The kept entries whose section records are not empty, their images
  // loaded: all that symbolization can use. Absent when one of those
  // images does not load (`failed` then names it). Throws std::bad_alloc.
  absl::optional<kelo_debuginfo::DebugInfoList> placedList(const IndexedEntry** failed = nullptr) const;

  int descriptor() const { return fd_; }

 private:
  View() = default;
  bool index(Report* report);

  int fd_ = -1;
  Report report_;
  std::vector<const IndexedEntry*> kept_;
  std::vector<std::pair<uint64_t, const IndexedEntry*>> byKey_;  // sorted by key: kind, then number
};

// An entry of a file written by streaming: its identifier, where its image
// comes from (an entry of a view, copied byte for byte, or an image) and
// the section records to write, in order.
struct PlannedEntry {
  DebugInfoID id;
  const View* view = nullptr;
  const IndexedEntry* from = nullptr;
  const kelo_elf::ELF* image = nullptr;
  std::vector<std::pair<std::string, uint32_t>> sections;
};

// Every kept entry of `view`, as it is.
KELO_EXPORT std::vector<PlannedEntry> planOf(const View& view);

// Writes a whole debug-info file of `entries`, in their order, to `fd`
// where it stands. False on an error (errno set).
KELO_EXPORT bool writePlanned(const std::vector<PlannedEntry>& entries, int fd);

// Reads the whole list of the file at `path`, as keloDbgRead does. Absent
// when it does not read; `report` (when given) then says why. Throws
// std::bad_alloc when memory runs out.
KELO_EXPORT absl::optional<kelo_debuginfo::DebugInfoList> readList(const std::string& path, Report* report = nullptr);

// Writes `list` as a debug-info file to `fd` where it stands, as
// keloDbgWrite does to a file. False on an error (errno set; 0 when an
// entry's image cannot be saved). Throws std::bad_alloc.
KELO_EXPORT bool writeList(kelo_debuginfo::DebugInfoList& list, int fd);

// Checks the file at `path` as a reader would read it, every image loaded,
// holding one entry at a time. Throws std::bad_alloc.
KELO_EXPORT Report check(const std::string& path);

}  // namespace kelo_store

#endif  // KELO_STORE_HPP_
