// The facts of the debug-info file and of the list's rules that more than one
// piece of code needs: the writer and reader, the checker behind
// `kelodbg check`, the tool, the benchmark and the fuzzers include this
// header instead of restating a magic number or a rule.
//
// Layout (all integers little-endian, no fill):
//   header   8-byte magic 80 'K' 'E' 'L' 'O' 'D' 'B' 'G', then the bytes
//            major, minor, patch, reserved (written 1, 1, 2, 0)
//   body     8-byte entry count N, then N entries
//   entry    kind (1), lo (2), hi (2), image length L (8), L image bytes,
//            section count S (8), S section records
//   section  name length K (8), K name bytes, address (4)
// Nothing follows the last entry; a reader ignores anything that does.
#ifndef KELO_FILE_FORMAT_H_
#define KELO_FILE_FORMAT_H_

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "kelo_version.h"

namespace kelo_debuginfo {
namespace format {

constexpr unsigned char kMagic[8] = {0x80, 'K', 'E', 'L', 'O', 'D', 'B', 'G'};
// The version bytes every file is written with: the library's own version
// and a reserved byte.
constexpr unsigned char kVersion[4] = {KELO_VERSION_MAJOR, KELO_VERSION_MINOR, KELO_VERSION_PATCH, 0};
constexpr std::size_t kHeaderSize = sizeof kMagic + sizeof kVersion;

// Widths of the fields, in bytes.
constexpr std::size_t kPrefixSize = 8;  // counts and lengths
constexpr std::size_t kIdSize = 5;      // kind, lo, hi
constexpr std::size_t kAddressSize = 4;

// The smallest entry: an identifier, an empty image, no section records.
constexpr std::size_t kMinEntrySize = kIdSize + 2 * kPrefixSize;
// The smallest section record: an empty name and an address.
constexpr std::size_t kMinSectionSize = kPrefixSize + kAddressSize;

// The kinds that the C interface accepts and hands out; the file and the
// class take any byte.
constexpr unsigned kMaxCKind = 1;

inline bool isMagic(const unsigned char* bytes) { return std::memcmp(bytes, kMagic, sizeof kMagic) == 0; }

// Files of the library's own major and minor version are read, whatever
// their patch level and reserved byte.
constexpr bool isReadableVersion(unsigned major, unsigned minor) {
  return major == KELO_VERSION_MAJOR && minor == KELO_VERSION_MINOR;
}

// Section names that every entry accepts an address for, whether or not its
// image has such a section. They stand for no section of the image, so they
// have no size.
constexpr const char* kAlwaysAcceptedSections[] = {".constant", ".local"};

template <typename String>
bool isAlwaysAcceptedSection(const String& name) {
  for (const char* accepted : kAlwaysAcceptedSections) {
    if (name == accepted) return true;
  }
  return false;
}

}  // namespace format
}  // namespace kelo_debuginfo

#endif  // KELO_FILE_FORMAT_H_
