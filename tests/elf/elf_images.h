// Test inputs for the image library: the example objects read from disk and
// small ELF files crafted byte by byte in either class and byte order.
#ifndef KELO_TESTS_ELF_ELF_IMAGES_H_
#define KELO_TESTS_ELF_ELF_IMAGES_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace elf_test {

using Bytes = std::vector<unsigned char>;

// The whole file at `path`; empty when it cannot be read.
Bytes readFile(const std::string& path);
// The path of an example object, e.g. "main.o".
std::string examplePath(const std::string& name);
bool fileExists(const std::string& path);

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

}  // namespace elf_test

#endif  // KELO_TESTS_ELF_ELF_IMAGES_H_
