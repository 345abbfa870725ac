#include "elf/elf_images.h"

#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <iterator>

namespace elf_test {

Bytes readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string examplePath(const std::string& name) { return std::string(KELO_EXAMPLES_DIR) + "/" + name; }

bool fileExists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

Layout layoutOf(const Bytes& elf) {
  Layout l{};
  l.is64 = elf.size() > 4 && elf[4] == 2;
  l.big = elf.size() > 5 && elf[5] == 2;
  l.addr = l.is64 ? 8 : 4;
  l.shoffAt = l.is64 ? 40 : 32;
  l.shentsizeAt = l.is64 ? 58 : 46;
  l.shnumAt = l.shentsizeAt + 2;
  l.shstrndxAt = l.shentsizeAt + 4;
  l.shdrSize = l.is64 ? 64 : 40;
  l.shNameAt = 0;
  l.shTypeAt = 4;
  l.shOffsetAt = l.is64 ? 24 : 16;
  l.shSizeAt = l.is64 ? 32 : 20;
  l.shLinkAt = l.is64 ? 40 : 24;
  return l;
}

uint64_t get(const Bytes& b, size_t at, unsigned width, bool big) {
  uint64_t v = 0;
  for (unsigned i = 0; i < width; ++i) v = (v << 8) | b.at(at + (big ? i : width - 1 - i));
  return v;
}

void put(Bytes& b, size_t at, unsigned width, uint64_t value, bool big) {
  for (unsigned i = 0; i < width; ++i) {
    b.at(at + (big ? width - 1 - i : i)) = static_cast<unsigned char>(value & 0xff);
    value >>= 8;
  }
}

size_t sectionHeaderAt(const Bytes& elf, uint64_t index) {
  const Layout l = layoutOf(elf);
  return static_cast<size_t>(get(elf, l.shoffAt, l.addr, l.big) + index * l.shdrSize);
}

Bytes craft(const Crafted& want) {
  Bytes out(want.is64 ? 64 : 52, 0);
  const Layout l = layoutOf(Bytes{0x7f, 'E', 'L', 'F', static_cast<unsigned char>(want.is64 ? 2 : 1),
                                  static_cast<unsigned char>(want.big ? 2 : 1)});
  const unsigned char ident[] = {
      0x7f, 'E', 'L', 'F', static_cast<unsigned char>(want.is64 ? 2 : 1), static_cast<unsigned char>(want.big ? 2 : 1),
      1};
  std::copy(std::begin(ident), std::end(ident), out.begin());
  put(out, 16, 2, 1, want.big);                               // e_type: relocatable
  put(out, 18, 2, 2, want.big);                               // e_machine: any
  put(out, 20, 4, 1, want.big);                               // e_version
  put(out, l.shoffAt + l.addr + 4, 2, out.size(), want.big);  // e_ehsize

  // Section contents, then the name table.
  std::vector<size_t> contentAt, nameAt;
  for (size_t i = 0; i < want.sections.size(); ++i) {
    contentAt.push_back(out.size());
    for (unsigned char c : {0xde, 0xad, 0xbe, 0xef}) out.push_back(c);
  }
  const size_t strtabAt = out.size();
  out.push_back(0);
  std::vector<std::string> names = want.sections;
  names.push_back(".shstrtab");
  for (const std::string& n : names) {
    nameAt.push_back(out.size() - strtabAt);
    out.insert(out.end(), n.begin(), n.end());
    out.push_back(0);
  }
  const size_t strtabSize = out.size() - strtabAt;
  while (out.size() % 8 != 0) out.push_back(0);

  const size_t shoff = out.size();
  const uint64_t count = names.size() + 1;
  out.resize(out.size() + count * l.shdrSize, 0);
  auto header = [&](size_t index, uint64_t name, uint64_t type, uint64_t offset, uint64_t size) {
    const size_t at = shoff + index * l.shdrSize;
    put(out, at + l.shNameAt, 4, name, want.big);
    put(out, at + l.shTypeAt, 4, type, want.big);
    put(out, at + l.shOffsetAt, l.addr, offset, want.big);
    put(out, at + l.shSizeAt, l.addr, size, want.big);
  };
  for (size_t i = 0; i < want.sections.size(); ++i) header(i + 1, nameAt[i], 1 /* PROGBITS */, contentAt[i], 4);
  header(count - 1, nameAt.back(), 3 /* STRTAB */, strtabAt, strtabSize);

  put(out, l.shoffAt, l.addr, shoff, want.big);
  put(out, l.shentsizeAt, 2, l.shdrSize, want.big);
  if (want.extendedNumbering) {
    put(out, l.shnumAt, 2, 0, want.big);
    put(out, l.shstrndxAt, 2, 0xffff, want.big);  // SHN_XINDEX
    put(out, shoff + l.shSizeAt, l.addr, count, want.big);
    put(out, shoff + l.shLinkAt, 4, count - 1, want.big);
  } else {
    put(out, l.shnumAt, 2, count, want.big);
    put(out, l.shstrndxAt, 2, count - 1, want.big);
  }
  return out;
}

}  // namespace elf_test
