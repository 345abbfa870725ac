// Writes the seed corpus of the fuzz targets: small ELF files crafted by
// hand, valid debug-info files written by the library, and hand-damaged
// variants of them. (Run by hand when the file format or the seeds change;
// the corpus is kept in the repository.)
//
//   fuzz_make_seeds <corpus dir>   (fills <dir>/elf_differential,
//                                   <dir>/read_file, <dir>/list_model)
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "file/DebugInfoFile.h"
#include "kelo/DebugInfoList.h"
#include "support/bytes.h"
#include "support/elf_images.h"
#include "support/files.h"

namespace {

using kelo_test::Bytes;
using kelo_test::fileEntry;
using kelo_test::fileHeader;
using kelo_test::le;
using kelo_test::operator+;

void save(const std::string& path, const Bytes& b) {
  if (!kelo_test::writeFile(path, b)) {
    std::fprintf(stderr, "cannot write %s\n", path.c_str());
    std::exit(1);
  }
}

kelo_elf::ELF load(const Bytes& b) {
  absl::optional<kelo_elf::ELF> img = kelo_elf::ELF::load(b);
  if (!img) {
    std::fprintf(stderr, "a crafted image does not load\n");
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

  // Images: both classes and byte orders, counts kept in section 0, enough
  // sections for a sorted name index, and two damaged ones.
  const std::string el = root + "/elf_differential/";
  const Bytes le64 = kelo_test::craft({true, false, {".text", ".data"}});
  const Bytes be64 = kelo_test::craft({true, true, {".text"}});
  const Bytes le32 = kelo_test::craft({false, false, {".text", ".bss", ".local"}});
  const Bytes be32 = kelo_test::craft({false, true, {".data"}});
  save(el + "elf64_le", le64);
  save(el + "elf64_be", be64);
  save(el + "elf32_le", le32);
  save(el + "elf32_be", be32);
  save(el + "elf64_le_extended", kelo_test::craft({true, false, {".text", ".data"}, true}));
  save(el + "elf32_be_extended", kelo_test::craft({false, true, {".text"}, true}));
  std::vector<std::string> many;
  for (int i = 0; i < 20; ++i) many.push_back(".s" + std::to_string(i % 7));
  save(el + "elf64_be_many", kelo_test::craft({true, true, many}));
  Bytes noStrtab = le64;
  noStrtab[noStrtab.size() - 64 + 4] = 1;  // the name table is not a string table
  save(el + "damaged_strtab_type", noStrtab);
  Bytes shoffOut = le32;
  shoffOut[32] = 0xf0;  // section headers past the end
  save(el + "damaged_shoff", shoffOut);

  // Files written by the library, and damaged copies.
  const std::string rf = root + "/read_file/";
  {
    kelo_debuginfo::DebugInfoList empty;
    kelo_debuginfo::file::writeList(empty, (rf + "valid_empty").c_str());
    kelo_debuginfo::DebugInfoList list;
    list.add({1, 0x1234, 1}, load(le64));
    list.add({0, 7, 0}, load(be32));
    list.add({255, 0xffff, 0xffff}, load(le32));
    list.setSectionAddr({1, 0x1234, 1}, ".text", 0x1000);
    list.setSectionAddr({1, 0x1234, 1}, ".constant", 0x2000);
    list.setSectionAddr({255, 0xffff, 0xffff}, ".local", 0xfffffff0u);
    kelo_debuginfo::file::writeList(list, (rf + "valid_three").c_str());
  }
  const Bytes three = kelo_test::readFile(rf + "valid_three");
  save(rf + "damaged_truncated", Bytes(three.begin(), three.end() - 3));
  Bytes magic = three;
  magic[0] = 0x7f;
  save(rf + "damaged_magic", magic);
  Bytes version = three;
  version[9] = 2;
  save(rf + "damaged_version", version);
  save(rf + "valid_trailing_bytes", three + Bytes{1, 2, 3, 4, 5});
  // A 4-billion-entry count and nothing behind it; an image claiming almost
  // 4 GiB; a section name length with its high half set.
  save(rf + "damaged_huge_count", fileHeader() + le(8, 0xffffffffu));
  save(rf + "damaged_huge_image", fileHeader() + le(8, 1) + le(1, 1) + le(4, 1) + le(8, 0xfffffff0u) + le(8, 0));
  Bytes name = fileHeader() + le(8, 1) + fileEntry(1, 2, 0, be64);
  name.resize(name.size() - 8);
  save(rf + "damaged_name_length",
       name + le(8, 1) + le(8, (uint64_t{1} << 32) | 5) + kelo_test::text(".text") + le(4, 0x10));
  // The same identifier twice, the same name twice.
  save(rf + "valid_repeated_keys",
       fileHeader() + le(8, 2) + fileEntry(0, 9, 0, be64, {{".text", 1}, {".text", 2}}) + fileEntry(0, 9, 0, be32));
  // An image that is not ELF, and one of length 0.
  save(rf + "damaged_images",
       fileHeader() + le(8, 2) + fileEntry(1, 3, 0, kelo_test::text("not elf")) + fileEntry(1, 4, 0, {}));

  // The list model reads operations, not files; a few byte strings that
  // reach every operation are enough to start from.
  Bytes ops;
  for (unsigned i = 0; i < 200; ++i) ops.push_back(static_cast<unsigned char>(i * 37 + 11));
  save(root + "/list_model/ops_a", ops);
  save(root + "/list_model/ops_b", Bytes(64, 0x05));
  return 0;
}
