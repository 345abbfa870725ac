// Small ELF files crafted byte by byte, in either class and byte order.
#ifndef KELO_TESTS_SUPPORT_ELF_IMAGES_H_
#define KELO_TESTS_SUPPORT_ELF_IMAGES_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kelo_test {

using Bytes = std::vector<unsigned char>;

// Writes `value` as `width` bytes at `at` in the given byte order.
void put(Bytes& b, size_t at, unsigned width, uint64_t value, bool big);

struct Crafted {
  bool is64 = true;
  bool big = false;
  std::vector<std::string> sections;  // each a small PROGBITS section
  bool extendedNumbering = false;     // counts kept in section 0
};
// A minimal relocatable file: the file header, 4 bytes of contents per
// section, the section-name string table (last section, ".shstrtab"), then
// the section header table.
Bytes craft(const Crafted& want);

}  // namespace kelo_test

#endif  // KELO_TESTS_SUPPORT_ELF_IMAGES_H_
