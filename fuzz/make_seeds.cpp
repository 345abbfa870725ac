// Writes the seed corpus of the fuzz targets: small valid ELF images made by
// hand, valid debug-info files written by the library, and hand-damaged
// variants of them.
//
//   fuzz_make_seeds <corpus dir>   (fills <dir>/elf_differential,
//                                   <dir>/read_file, <dir>/list_model)
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "file/DebugInfoFile.h"
#include "kelo/DebugInfoList.h"
#include "support/elf_images.h"

namespace {

using Bytes = std::vector<unsigned char>;

// A relocatable ELF file with one small PROGBITS section per name and the
// section-name string table, made by the image tests' crafter.
Bytes makeElf(bool is64, bool big, const std::vector<std::string>& names, bool extended = false) {
  return kelo_test::craft({is64, big, names, extended});
}

// Little-endian fields of a hand-made debug-info file.
struct FileBytes {
  Bytes b;
  void u(unsigned width, uint64_t v) {
    for (unsigned i = 0; i < width; ++i) b.push_back(static_cast<unsigned char>(v >> (8 * i)));
  }
  void header(unsigned char major = 1, unsigned char minor = 1) {
    const unsigned char magic[] = {0x80, 'K', 'E', 'L', 'O', 'D', 'B', 'G'};
    b.insert(b.end(), std::begin(magic), std::end(magic));
    b.insert(b.end(), {major, minor, 2, 0});
  }
  void id(unsigned kind, unsigned lo, unsigned hi) {
    u(1, kind);
    u(2, lo);
    u(2, hi);
  }
  void image(const Bytes& img) {
    u(8, img.size());
    b.insert(b.end(), img.begin(), img.end());
  }
  void str(const std::string& s) {
    u(8, s.size());
    b.insert(b.end(), s.begin(), s.end());
  }
};

void save(const std::string& path, const Bytes& b) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr || std::fwrite(b.data(), 1, b.size(), f) != b.size() || std::fclose(f) != 0) {
    std::fprintf(stderr, "cannot write %s\n", path.c_str());
    std::exit(1);
  }
}

Bytes slurp(const std::string& path) {
  Bytes b;
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) std::exit(1);
  int c;
  while ((c = std::fgetc(f)) != EOF) b.push_back(static_cast<unsigned char>(c));
  std::fclose(f);
  return b;
}

kelo_elf::ELF load(const Bytes& b) {
  absl::optional<kelo_elf::ELF> img = kelo_elf::ELF::load(b);
  if (!img) {
    std::fprintf(stderr, "a hand-made image does not load\n");
    std::exit(1);
  }
  return std::move(*img);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <corpus dir>\n", argv[0]);
    return 2;
  }
  const std::string root = argv[1];
  for (const char* sub : {"", "/elf_differential", "/read_file", "/list_model"}) mkdir((root + sub).c_str(), 0755);

  // Images.
  const Bytes le64 = makeElf(true, false, {".text", ".data"});
  const Bytes be64 = makeElf(true, true, {".text"});
  const Bytes le32 = makeElf(false, false, {".text", ".bss", ".local"});
  const Bytes be32 = makeElf(false, true, {".data"});
  const std::string el = root + "/elf_differential/";
  save(el + "elf64_le", le64);
  save(el + "elf64_be", be64);
  save(el + "elf32_le", le32);
  save(el + "elf32_be", be32);
  // Counts kept in section 0, and enough sections for a sorted name index.
  save(el + "elf64_le_extended", makeElf(true, false, {".text", ".data"}, true));
  save(el + "elf32_be_extended", makeElf(false, true, {".text"}, true));
  std::vector<std::string> many;
  for (int i = 0; i < 20; ++i) many.push_back(".s" + std::to_string(i % 7));
  save(el + "elf64_be_many", makeElf(true, true, many));
  save(el + "elf32_le_many", makeElf(false, false, many));
  Bytes noStrtab = le64;
  noStrtab[noStrtab.size() - 64 + 4] = 1;  // the name table is not a string table
  save(el + "damaged_strtab_type", noStrtab);
  Bytes shoffOut = le32;
  shoffOut[32] = 0xf0;  // section headers past the end
  save(el + "damaged_shoff", shoffOut);

  // Files written by the library.
  const std::string rf = root + "/read_file/";
  {
    kelo_debuginfo::DebugInfoList empty;
    kelo_debuginfo::file::writeList(empty, (rf + "valid_empty").c_str());
  }
  {
    kelo_debuginfo::DebugInfoList list;
    list.add({1, 0x1234, 1}, load(le64));
    list.add({0, 7, 0}, load(be32));
    list.add({255, 0xffff, 0xffff}, load(le32));
    list.setSectionAddr({1, 0x1234, 1}, ".text", 0x1000);
    list.setSectionAddr({1, 0x1234, 1}, ".constant", 0x2000);
    list.setSectionAddr({255, 0xffff, 0xffff}, ".local", 0xfffffff0u);
    kelo_debuginfo::file::writeList(list, (rf + "valid_three").c_str());
  }
  const Bytes three = slurp(rf + "valid_three");

  // Damaged files.
  Bytes cut(three.begin(), three.end() - 3);
  save(rf + "damaged_truncated", cut);
  Bytes magic = three;
  magic[0] = 0x7f;
  save(rf + "damaged_magic", magic);
  Bytes version = three;
  version[9] = 2;
  save(rf + "damaged_version", version);
  Bytes trailing = three;
  trailing.insert(trailing.end(), {1, 2, 3, 4, 5});
  save(rf + "valid_trailing_bytes", trailing);
  {
    FileBytes f;  // a 4-billion-entry count and nothing behind it
    f.header();
    f.u(8, 0xffffffffu);
    save(rf + "damaged_huge_count", f.b);
  }
  {
    FileBytes f;  // an image claiming almost 4 GiB
    f.header();
    f.u(8, 1);
    f.id(1, 1, 0);
    f.u(8, 0xfffffff0u);
    f.u(8, 0);
    save(rf + "damaged_huge_image", f.b);
  }
  {
    FileBytes f;  // a section name length with its high half set
    f.header();
    f.u(8, 1);
    f.id(1, 2, 0);
    f.image(be64);
    f.u(8, 1);
    f.u(8, (uint64_t{1} << 32) | 5);
    f.b.insert(f.b.end(), {'.', 't', 'e', 'x', 't'});
    f.u(4, 0x10);
    save(rf + "damaged_name_length", f.b);
  }
  {
    FileBytes f;  // the same identifier twice, the same name twice
    f.header();
    f.u(8, 2);
    f.id(0, 9, 0);
    f.image(be64);
    f.u(8, 2);
    f.str(".text");
    f.u(4, 1);
    f.str(".text");
    f.u(4, 2);
    f.id(0, 9, 0);
    f.image(be32);
    f.u(8, 0);
    save(rf + "valid_repeated_keys", f.b);
  }
  {
    FileBytes f;  // an image that is not ELF, and one of length 0
    f.header();
    f.u(8, 2);
    f.id(1, 3, 0);
    f.image(Bytes{'n', 'o', 't', ' ', 'e', 'l', 'f'});
    f.u(8, 0);
    f.id(1, 4, 0);
    f.u(8, 0);
    f.u(8, 0);
    save(rf + "damaged_images", f.b);
  }

  // The differential target reads operations, not files; a few byte strings
  // that reach every operation are enough to start from.
  Bytes ops;
  for (unsigned i = 0; i < 200; ++i) ops.push_back(static_cast<unsigned char>(i * 37 + 11));
  save(root + "/list_model/ops_a", ops);
  Bytes ops2(64, 0x05);
  save(root + "/list_model/ops_b", ops2);
  return 0;
}
