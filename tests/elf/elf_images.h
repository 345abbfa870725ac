// Test inputs for the image library: the example objects read from disk and
// small ELF files crafted byte by byte in either class and byte order, with
// helpers to patch header fields in place.
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

// Where the fields that loading depends on sit, for one class.
struct Layout {
  bool is64;
  bool big;
  size_t shoffAt, shentsizeAt, shnumAt, shstrndxAt;  // file header fields
  size_t shdrSize;
  size_t shNameAt, shTypeAt, shOffsetAt, shSizeAt, shLinkAt;  // within a section header
  unsigned addr;                                              // width of offsets and sizes
};
// The layout of an ELF file, from its identification bytes.
Layout layoutOf(const Bytes& elf);

uint64_t get(const Bytes& b, size_t at, unsigned width, bool big);
void put(Bytes& b, size_t at, unsigned width, uint64_t value, bool big);

// Offset of section header `index`, from the file header.
size_t sectionHeaderAt(const Bytes& elf, uint64_t index);

struct Crafted {
  bool is64 = true;
  bool big = false;
  std::vector<std::string> sections;  // each a small PROGBITS section
  bool extendedNumbering = false;     // counts kept in section 0
};
// A minimal relocatable file: header, section contents, the section-name
// string table (last section, ".shstrtab"), then the section header table.
Bytes craft(const Crafted& want);

}  // namespace elf_test

#endif  // KELO_TESTS_ELF_ELF_IMAGES_H_
