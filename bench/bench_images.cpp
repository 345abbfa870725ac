#include "bench_images.h"

namespace kelo_bench {
namespace {

constexpr std::size_t kFiller = 16;  // bytes in every section but the big one

void put(std::vector<unsigned char>& b, std::size_t at, uint64_t value, unsigned width) {
  for (unsigned i = 0; i < width; ++i) b[at + i] = static_cast<unsigned char>(value >> (8 * i));
}

struct Shape {
  std::size_t ehdr, shdr, addr;  // header sizes and the width of address fields
};

Shape shapeOf(bool is64) { return is64 ? Shape{64, 64, 8} : Shape{52, 40, 4}; }

}  // namespace

std::vector<unsigned char> makeElf(bool is64, std::size_t total, const std::vector<std::string>& names,
                                   std::size_t bigIndex) {
  const Shape s = shapeOf(is64);
  // Section-name string table: "\0" then every name and ".shstrtab".
  std::string strtab(1, '\0');
  std::vector<std::size_t> nameAt;
  for (const std::string& n : names) {
    nameAt.push_back(strtab.size());
    strtab += n;
    strtab += '\0';
  }
  const std::size_t strtabName = strtab.size();
  strtab += ".shstrtab";
  strtab += '\0';

  const std::size_t shnum = names.size() + 2;  // null section, names, .shstrtab
  const std::size_t fixed = s.ehdr + kFiller * (names.empty() ? 0 : names.size() - 1) + strtab.size();
  const std::size_t tableSize = shnum * s.shdr;
  // The big section (or the filler) needs room for a stamp (4 bytes); the
  // section header table closes the file.
  if ((!names.empty() && bigIndex >= names.size()) || total < fixed + 4 + tableSize) return {};
  const std::size_t shoff = total - tableSize;
  const std::size_t bigSize = shoff - fixed;

  std::vector<unsigned char> b(total, 0);
  const unsigned char ident[] = {0x7f, 'E', 'L', 'F', static_cast<unsigned char>(is64 ? 2 : 1), 1, 1, 0};
  for (std::size_t i = 0; i < sizeof(ident); ++i) b[i] = ident[i];
  put(b, 16, 1, 2);                                              // e_type: ET_REL
  put(b, 18, is64 ? 62 : 3, 2);                                  // e_machine: x86-64 or i386
  put(b, 20, 1, 4);                                              // e_version
  const std::size_t after = 24 + s.addr;                         // e_entry is 0; e_phoff is 0
  put(b, after + s.addr, shoff, static_cast<unsigned>(s.addr));  // e_shoff
  const std::size_t halves = after + 2 * s.addr + 4;             // after e_flags
  put(b, halves, s.ehdr, 2);                                     // e_ehsize
  put(b, halves + 6, s.shdr, 2);                                 // e_shentsize
  put(b, halves + 8, shnum, 2);                                  // e_shnum
  put(b, halves + 10, shnum - 1, 2);                             // e_shstrndx

  std::size_t offset = s.ehdr;
  auto header = [&](std::size_t index, std::size_t name, uint32_t type, uint64_t flags, std::size_t off,
                    std::size_t size) {
    const std::size_t h = shoff + index * s.shdr;
    const unsigned w = static_cast<unsigned>(s.addr);
    put(b, h, name, 4);
    put(b, h + 4, type, 4);
    put(b, h + 8, flags, w);
    put(b, h + 8 + 2 * s.addr, off, w);   // sh_offset (after sh_flags, sh_addr)
    put(b, h + 8 + 3 * s.addr, size, w);  // sh_size
    put(b, h + 16 + 4 * s.addr, 1, w);    // sh_addralign
  };
  if (names.empty()) offset += bigSize;
  for (std::size_t i = 0; i < names.size(); ++i) {
    const std::size_t size = i == bigIndex ? bigSize : kFiller;
    const bool text = names[i] == ".text";
    for (std::size_t k = 0; k < size; ++k) b[offset + k] = text ? 0x90 : static_cast<unsigned char>(k * 7 + i);
    header(i + 1, nameAt[i], 1 /* SHT_PROGBITS */, text ? 6 : 3 /* ALLOC|EXEC or ALLOC|WRITE */, offset, size);
    offset += size;
  }
  for (std::size_t k = 0; k < strtab.size(); ++k) b[offset + k] = static_cast<unsigned char>(strtab[k]);
  header(shnum - 1, strtabName, 3 /* SHT_STRTAB */, 0, offset, strtab.size());
  return b;
}

void stampElf(std::vector<unsigned char>& image, bool is64, std::size_t bigIndex, uint32_t value) {
  put(image, shapeOf(is64).ehdr + kFiller * bigIndex, value, 4);
}

}  // namespace kelo_bench
