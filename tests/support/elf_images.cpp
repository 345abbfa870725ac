#include "support/elf_images.h"

namespace kelo_test {

void put(Bytes& b, size_t at, unsigned width, uint64_t value, bool big) {
  for (unsigned i = 0; i < width; ++i, value >>= 8) b.at(at + (big ? width - 1 - i : i)) = value & 0xff;
}

Bytes craft(const Crafted& want) {
  const bool big = want.big;
  const unsigned addr = want.is64 ? 8 : 4;  // width of offsets and sizes
  const size_t shoffAt = want.is64 ? 40 : 32, shentsizeAt = want.is64 ? 58 : 46;
  const size_t shdrSize = want.is64 ? 64 : 40, shOffsetAt = want.is64 ? 24 : 16;
  Bytes out = {
      0x7f, 'E', 'L', 'F', static_cast<unsigned char>(want.is64 ? 2 : 1), static_cast<unsigned char>(big ? 2 : 1), 1};
  out.resize(want.is64 ? 64 : 52, 0);
  put(out, 16, 2, 1, big);                           // e_type: relocatable
  put(out, 18, 2, 2, big);                           // e_machine: any
  put(out, 20, 4, 1, big);                           // e_version
  put(out, shoffAt + addr + 4, 2, out.size(), big);  // e_ehsize

  // Section contents, then the name table.
  std::vector<size_t> contentAt, nameAt;
  for (size_t i = 0; i < want.sections.size(); ++i) {
    contentAt.push_back(out.size());
    out.insert(out.end(), {0xde, 0xad, 0xbe, 0xef});
  }
  const size_t strtabAt = out.size();
  out.push_back(0);
  std::vector<std::string> names = want.sections;
  names.push_back(".shstrtab");
  for (const std::string& n : names) {
    nameAt.push_back(out.size() - strtabAt);
    out.insert(out.end(), n.c_str(), n.c_str() + n.size() + 1);
  }
  const size_t strtabSize = out.size() - strtabAt;
  out.resize((out.size() + 7) / 8 * 8, 0);

  const size_t shoff = out.size();
  const uint64_t count = names.size() + 1;
  out.resize(out.size() + count * shdrSize, 0);
  auto header = [&](size_t index, uint64_t name, uint64_t type, uint64_t offset, uint64_t size) {
    const size_t at = shoff + index * shdrSize;
    put(out, at, 4, name, big);
    put(out, at + 4, 4, type, big);
    put(out, at + shOffsetAt, addr, offset, big);
    put(out, at + shOffsetAt + addr, addr, size, big);
  };
  for (size_t i = 0; i < want.sections.size(); ++i) header(i + 1, nameAt[i], 1 /* PROGBITS */, contentAt[i], 4);
  header(count - 1, nameAt.back(), 3 /* STRTAB */, strtabAt, strtabSize);

  put(out, shoffAt, addr, shoff, big);
  put(out, shentsizeAt, 2, shdrSize, big);
  // e_shnum and e_shstrndx, or with extended numbering 0 and SHN_XINDEX
  // with the real values in section 0's size and link.
  put(out, shentsizeAt + 2, 2, want.extendedNumbering ? 0 : count, big);
  put(out, shentsizeAt + 4, 2, want.extendedNumbering ? 0xffff : count - 1, big);
  if (want.extendedNumbering) {
    put(out, shoff + shOffsetAt + addr, addr, count, big);
    put(out, shoff + shOffsetAt + 2 * addr, 4, count - 1, big);
  }
  return out;
}

}  // namespace kelo_test
