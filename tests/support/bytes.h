// Byte strings for tests: little-endian fields put together by hand, and
// debug-info files built field by field (layout in file/format.h).
#ifndef KELO_TESTS_SUPPORT_BYTES_H_
#define KELO_TESTS_SUPPORT_BYTES_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "file/format.h"

namespace kelo_test {

using Bytes = std::vector<unsigned char>;

// `value` as `width` bytes, least significant first.
inline Bytes le(unsigned width, uint64_t value) {
  Bytes out;
  for (unsigned i = 0; i < width; ++i) out.push_back(static_cast<unsigned char>(value >> (8 * i)));
  return out;
}

inline Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

inline Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// The 12-byte header of a debug-info file with these version bytes.
inline Bytes fileHeader(uint8_t major = 1, uint8_t minor = 1, uint8_t patch = 2, uint8_t reserved = 0) {
  Bytes out(std::begin(kelo_debuginfo::format::kMagic), std::end(kelo_debuginfo::format::kMagic));
  return out + Bytes{major, minor, patch, reserved};
}

// One entry of a debug-info file: identifier, image, section records in the
// given order. The high halves are or-ed into the image length and the
// section count.
inline Bytes fileEntry(uint8_t kind, uint16_t lo, uint16_t hi, const Bytes& image,
                       const std::vector<std::pair<std::string, uint32_t>>& sections = {}, uint64_t imageHigh = 0,
                       uint64_t countHigh = 0) {
  Bytes out = le(1, kind) + le(2, lo) + le(2, hi) + le(8, imageHigh | image.size()) + image +
              le(8, countHigh | sections.size());
  for (const auto& s : sections) out = out + le(8, s.first.size()) + text(s.first) + le(4, s.second);
  return out;
}

}  // namespace kelo_test

#endif  // KELO_TESTS_SUPPORT_BYTES_H_
