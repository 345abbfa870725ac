// The debug-info file: a whole DebugInfoList behind an 8-byte magic and a
// 4-byte version, written and read through the binary codec.
//
// Internal to the library; the C calls keloDbgWrite, keloDbgRead and
// keloDbgFileVersion run these procedures inside their exception barrier.
#ifndef KELO_FILE_DEBUGINFOFILE_H_
#define KELO_FILE_DEBUGINFOFILE_H_

#include <cstdint>
#include <string>

#include "absl/types/optional.h"
#include "kelo/DebugInfoList.h"
#include "serialize/orvel/io/File.h"

namespace kelo_debuginfo {
namespace file {

// The three version bytes of a file's header that callers see.
struct FileVersion {
  uint8_t major;
  uint8_t minor;
  uint8_t patch;
};

// Creates (or truncates) `name` and writes the header and every entry of
// `list`. True only when everything reached the file. A failed write leaves
// the file with whatever was written so far. Exceptions (from saving an
// image, or memory exhaustion) pass through after the file is closed.
bool writeList(DebugInfoList& list, const char* name);

// Reads the file `name` into a new list: absent when the file cannot be
// opened, its header is wrong, its version is not 1.1.x or its body does not
// decode. Exceptions from memory exhaustion pass through; the file is closed
// on every path.
absl::optional<DebugInfoList> readList(const char* name);

// The version bytes of the file `name`, whatever they are; absent when it
// cannot be opened or does not start with the magic and four version bytes.
absl::optional<FileVersion> readVersion(const char* name);

// The same procedures on an open stream of any kind (a memory stream in
// tests and fuzzers), positioned where the header starts. writeListTo writes
// header and entries and flushes; true only when all of it was written and
// the flush succeeded. Neither closes the stream.
bool writeListTo(DebugInfoList& list, orvel_lib::io::File& file);
absl::optional<DebugInfoList> readListFrom(orvel_lib::io::File& file);

// The file name as it is handed to fopen: runs of '/' collapsed into one,
// except that a leading "//" followed by another character stays. Null gives
// the empty name. The procedures above fail on a null name.
std::string normalizeFileName(const char* name);

}  // namespace file
}  // namespace kelo_debuginfo

#endif  // KELO_FILE_DEBUGINFOFILE_H_
