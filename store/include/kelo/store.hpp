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
#include "kelo/file_report.hpp"

namespace kelo_store {

using kelo_elf::DebugInfoID;
using kelo_file::Fault;
using kelo_file::Finding;
using kelo_file::IndexedEntry;
using kelo_file::Place;
using kelo_file::Report;
using kelo_file::Warning;

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
