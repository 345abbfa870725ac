// What the decoder of debug-info files says about a file: the first fault
// (what stops it from being read, and where), the warnings (what reads but
// is probably not what the writer meant, most of it what a reader drops),
// and the place of each entry. Types only: the store library's functions
// fill them, and the debug-info library's own reader walks files with the
// same decoder.
#ifndef KELO_FILE_REPORT_HPP_
#define KELO_FILE_REPORT_HPP_

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "absl/types/optional.h"
#include "kelo/elf.hpp"

namespace kelo_file {

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

}  // namespace kelo_file

#endif  // KELO_FILE_REPORT_HPP_
