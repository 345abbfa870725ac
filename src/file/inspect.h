// A checker for debug-info files that says what is wrong and where.
//
// The read procedure answers only whether a file reads; this walks the same
// bytes field by field, one entry at a time, and reports the first error it
// meets (which field, in which entry, at which byte offset) and everything
// that reads but is probably not what the writer meant: identifiers or
// section names that occur twice (the reader keeps the first), kinds that the
// C interface cannot reach, bytes after the last entry, and count or length
// prefixes whose high half the reader ignores. A file that this checker
// passes without an error is one that the read procedure reads, memory
// permitting.
//
// Internal to this project: the tool links it to explain failures and to
// implement `kelodbg check`.
#ifndef KELO_FILE_INSPECT_H_
#define KELO_FILE_INSPECT_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "absl/types/optional.h"
#include "kelo/elf.hpp"
#include "serialize/orvel/io/File.h"

namespace kelo_debuginfo {
namespace file {

// What stops a file from being read, in the order the checker meets them.
enum class Fault {
  kOpen,          // the file cannot be opened (errno in `error`)
  kRead,          // reading failed (errno in `error`)
  kNotDebugInfo,  // no debug-info magic at the start
  kVersion,       // a version this library does not read
  kTruncated,     // the file ends inside a field
  kTooLong,       // a section name length of 2^32 or more, which the reader refuses
  kTooBig,        // a length that this program cannot hold in memory (32-bit builds)
  kBadImage,      // an entry's image bytes do not load as an image
};

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
  kelo_elf::DebugInfoID id;  // the entry's identifier, when `place.entry` is set and it was read
  std::string name;          // the section name, for kDuplicateSection
  uint64_t value = 0;        // the count of trailing bytes, the full prefix of kHighHalf
};

// One entry as the file holds it, for reading it later without the rest:
// where its image lies and the section records the reader keeps (the first
// of each name), in file order. Offsets are from the start of the file.
struct IndexedEntry {
  kelo_elf::DebugInfoID id;
  uint64_t offset = 0;       // where the entry starts
  uint64_t imageOffset = 0;  // where its image bytes start
  uint32_t imageSize = 0;
  uint64_t end = 0;  // where the entry ends
  std::vector<std::pair<std::string, uint32_t>> sections;
  bool repeated = false;  // an earlier entry has the same identifier: the reader drops this one
};

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

  // With Options::index: every entry read completely, in file order.
  std::vector<IndexedEntry> index;
};

struct Options {
  // Load every image as the reader does (a check); otherwise image bytes
  // are skipped (seeked over where the stream can seek) and only their
  // presence is checked.
  bool loadImages = true;
  // Fill Report::index.
  bool index = false;
};

// Checks the file at `path` (normalised as the read procedure does). Holds
// one entry at a time. Throws std::bad_alloc when memory runs out.
Report inspectFile(const char* path, const Options& options = Options());

// The same on an open stream positioned at the header.
Report inspect(orvel_lib::io::File& file, const Options& options = Options());

}  // namespace file
}  // namespace kelo_debuginfo

#endif  // KELO_FILE_INSPECT_H_
