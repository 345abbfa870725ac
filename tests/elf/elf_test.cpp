// The image library: real objects and crafted files, read by the library's
// own ELF reader (as a copy and by taking over a block) and by the
// libelf-based reference, which must agree on every file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kelo/elf.hpp"
#include "support/elf_images.h"
#include "support/elf_reference.h"
#include "support/files.h"

namespace {

using kelo_elf::DebugInfoID;
using kelo_elf::ELF;
using kelo_elf::ELFBytes;
using kelo_test::Bytes;

Bytes bytesOf(const ELF& image) { return Bytes(image.bytes().begin(), image.bytes().end()); }

Bytes saved(ELF& image) {
  absl::optional<ELFBytes> block = image.save();
  if (!block) return {};
  return Bytes(block->data, block->data + block->size);
}

// A malloc'ed block holding `b`, with room for ELF::adopt to keep it in place.
ELFBytes blockOf(const Bytes& b) {
  if (b.empty()) return ELFBytes();
  auto* data =
      static_cast<unsigned char*>(std::malloc(b.size() + ELFBytes::adoptRoom(static_cast<uint32_t>(b.size()))));
  std::memcpy(data, b.data(), b.size());
  return ELFBytes(data, static_cast<uint32_t>(b.size()));
}

// Reads `b` as a copy, by taking over a block, and with the libelf-based
// reference; all three must agree on whether `b` is an image and on its
// section names (unless the reference is known to refuse it). An image that
// loads holds exactly `b`, and finds every name it lists.
absl::optional<ELF> load(const Bytes& b, bool referenceRefuses = false) {
  absl::optional<ELF> copied = ELF::load(b);
  const absl::optional<std::vector<std::string>> reference = kelo_test::libelfSectionNames(b);
  if (referenceRefuses) {
    EXPECT_FALSE(reference.has_value());
  } else {
    EXPECT_EQ(copied.has_value(), reference.has_value()) << "the reference disagrees";
    if (copied && reference) {
      EXPECT_EQ(copied->sectionNames(), *reference);
    }
  }

  ELFBytes block = blockOf(b);
  const unsigned char* where = block.data;
  absl::optional<ELF> adopted = ELF::adopt(std::move(block));
  EXPECT_EQ(adopted.has_value(), copied.has_value());
  if (!copied) {
    EXPECT_EQ(block.size, b.size()) << "a refused block stays the caller's";
    return copied;
  }
  EXPECT_EQ(block.size, 0u);
  if (adopted) {
    EXPECT_EQ(adopted->bytes().data(), where) << "a block with room is taken over where it lies";
    EXPECT_EQ(adopted->sectionNames(), copied->sectionNames());
  }
  EXPECT_EQ(copied->size(), b.size());
  EXPECT_EQ(bytesOf(*copied), b);
  for (const std::string& name : copied->sectionNames()) EXPECT_TRUE(copied->hasSection(name)) << name;
  return copied;
}

TEST(ElfRealObjects, LoadAndSaveGiveTheFileBytes) {
  for (const char* name : {"main.o", "util.o", "extra.o", "util32.o"}) {
    SCOPED_TRACE(name);
    if (!kelo_test::isRegularFile(kelo_test::examplePath(name))) {
      ASSERT_STREQ(name, "util32.o") << "example object missing";
      continue;  // no 32-bit compiler
    }
    const Bytes bytes = kelo_test::example(name);
    absl::optional<ELF> image = load(bytes);
    ASSERT_TRUE(image.has_value());
    EXPECT_EQ(saved(*image), bytes);
  }
}

TEST(ElfRealObjects, FindSectionsByExactName) {
  absl::optional<ELF> util = load(kelo_test::example("util.o"));
  absl::optional<ELF> extra = load(kelo_test::example("extra.o"));
  ASSERT_TRUE(util && extra);
  EXPECT_TRUE(util->hasSection(".text"));
  EXPECT_TRUE(util->hasSection(".kelo.overlay"));
  EXPECT_TRUE(util->hasSection(".symtab"));
  EXPECT_FALSE(util->hasSection(".kelo.constdata"));
  EXPECT_TRUE(extra->hasSection(".kelo.constdata"));
  EXPECT_TRUE(extra->hasSection(".text.cold"));
  for (const std::string& near :
       std::vector<std::string>{".TEXT", ".tex", "text", ".text ", ".text.", "", std::string(".text\0", 6)}) {
    EXPECT_FALSE(util->hasSection(near)) << '"' << near << '"';
  }
  // The null section at index 0 has the empty name but is not listed.
  const std::vector<std::string> names = util->sectionNames();
  EXPECT_EQ(std::count(names.begin(), names.end(), ".kelo.overlay"), 1);
  EXPECT_EQ(std::count(names.begin(), names.end(), ""), 0);
}

// Few sections are searched one by one, many through a sorted index: both,
// in every class, byte order and numbering, with repeated and empty names.
TEST(ElfCraftedImages, EveryClassByteOrderAndNumberingLoads) {
  const std::vector<std::string> few = {".text", "", ".data", ".text", ".kelo.overlay"};
  std::vector<std::string> many = {".text", "", ".text"};  // and 30 names in descending order
  for (int i = 30; i > 0; --i) many.push_back(".s" + std::to_string(i));
  for (bool is64 : {false, true}) {
    for (bool big : {false, true}) {
      for (bool extended : {false, true}) {
        for (const std::vector<std::string>& sections : {few, many}) {
          SCOPED_TRACE(testing::Message() << "is64=" << is64 << " big=" << big << " extended=" << extended
                                          << " sections=" << sections.size());
          // libelf 0.188 cannot read the name table's index kept in section
          // 0 of an image in memory of the other byte order.
          absl::optional<ELF> image = load(kelo_test::craft({is64, big, sections, extended}), big && extended);
          ASSERT_TRUE(image.has_value());
          std::vector<std::string> expected = sections;
          expected.push_back(".shstrtab");
          EXPECT_EQ(image->sectionNames(), expected);
          EXPECT_TRUE(image->hasSection(""));
          EXPECT_FALSE(image->hasSection(".bss"));
          EXPECT_FALSE(image->hasSection(".tex"));
          EXPECT_FALSE(image->hasSection(std::string(".text\0", 6)));
        }
      }
    }
  }
}

// An executable or shared object stripped of its section header table is a
// valid file with nothing to address; a relocatable object needs the table.
TEST(ElfCraftedImages, ExecutablesWithoutSectionTableLoadWithNoSections) {
  for (bool is64 : {false, true}) {
    Bytes stripped = kelo_test::craft({is64, !is64, {".text"}});
    const size_t shoffAt = is64 ? 40 : 32, shnumAt = is64 ? 60 : 48;
    kelo_test::put(stripped, shoffAt, is64 ? 8 : 4, 0, !is64);
    kelo_test::put(stripped, shnumAt, 2, 0, !is64);      // e_shnum
    kelo_test::put(stripped, shnumAt + 2, 2, 0, !is64);  // e_shstrndx
    for (uint64_t type : {2, 3}) {                       // ET_EXEC, ET_DYN
      kelo_test::put(stripped, 16, 2, type, !is64);
      absl::optional<ELF> image = load(stripped);
      ASSERT_TRUE(image.has_value()) << "e_type " << type;
      EXPECT_TRUE(image->sectionNames().empty());
      EXPECT_FALSE(image->hasSection(".text"));
    }
    kelo_test::put(stripped, 16, 2, 1, !is64);  // ET_REL
    EXPECT_FALSE(load(stripped).has_value());
  }
}

TEST(ElfEmptyImages, EmptyImagesCannotBeSavedAndMovesCarryTheWholeState) {
  ELF empty;
  EXPECT_EQ(empty.size(), 0u);
  EXPECT_TRUE(empty.bytes().empty());
  EXPECT_TRUE(empty.sectionNames().empty());
  EXPECT_FALSE(empty.hasSection(""));
  EXPECT_FALSE(empty.save().has_value()) << "an empty image is no ELF file";

  absl::optional<ELF> loaded = load(kelo_test::example("main.o"));
  ASSERT_TRUE(loaded.has_value());
  const Bytes bytes = bytesOf(*loaded);
  loaded->debugInfoID = DebugInfoID(1, 2, 3);
  ELF moved(std::move(*loaded));
  EXPECT_EQ(saved(moved), bytes);
  EXPECT_EQ(moved.debugInfoID, DebugInfoID(1, 2, 3));
  EXPECT_EQ(loaded->size(), 0u);
  EXPECT_FALSE(loaded->hasSection(".text"));
  EXPECT_FALSE(loaded->save().has_value());

  // Move assignment replaces the whole state, and survives self-assignment.
  absl::optional<ELF> other = load(kelo_test::example("extra.o"));
  ASSERT_TRUE(other.has_value());
  other->debugInfoID = DebugInfoID(0, 7, 0);
  moved = std::move(*other);
  EXPECT_TRUE(moved.hasSection(".text.cold"));
  EXPECT_EQ(moved.debugInfoID, DebugInfoID(0, 7, 0));
  EXPECT_EQ(other->size(), 0u);
  ELF& self = moved;
  moved = std::move(self);
  EXPECT_TRUE(moved.hasSection(".text.cold"));
  moved = ELF();
  EXPECT_EQ(moved.size(), 0u);
}

// One damage of each kind that loading must notice, in both classes and
// byte orders; run under the address sanitizer these also prove the reads
// stay inside the bytes. (Wider damage is the fuzz targets' job.)
TEST(ElfRefusal, OneDamageOfEachKindIsRefused) {
  for (bool is64 : {false, true}) {
    const bool big = !is64;
    SCOPED_TRACE(is64 ? "ELF64 little-endian" : "ELF32 big-endian");
    Bytes good = kelo_test::craft({is64, big, {".text", ".data"}});
    const unsigned addr = is64 ? 8 : 4;
    const size_t shoffAt = is64 ? 40 : 32, shnumAt = is64 ? 60 : 48, shdrSize = is64 ? 64 : 40;
    const size_t shoff = good.size() - 4 * shdrSize;  // the table ends the crafted file: null, 2 sections, names
    // Then a copy of the name table's header: an index one past the table would find a string table.
    const Bytes copy(good.end() - shdrSize, good.end());
    good.insert(good.end(), copy.begin(), copy.end());
    const size_t strHdr = shoff + 3 * shdrSize, offsetAt = is64 ? 24 : 16, sizeAt = is64 ? 32 : 20;
    const size_t strOffset = good[strHdr + offsetAt + (big ? addr - 1 : 0)];  // small: one byte holds it
    const size_t strSize = good[strHdr + sizeAt + (big ? addr - 1 : 0)];
    struct Damage {
      const char* what;
      size_t at;
      unsigned width;
      uint64_t value;
    };
    const Damage damages[] = {
        {"magic", 1, 1, 'e'},
        {"class", 4, 1, 3},
        {"data encoding", 5, 1, 0},
        {"section header table past the end", shoffAt, addr, good.size() + 8},
        {"name table index out of range", shnumAt + 2, 2, 4},
        {"name table past the end", strHdr + offsetAt, addr, good.size()},
        {"name table not a string table", strHdr + 4, 4, 1},
        {"name outside the name table", shoff + shdrSize, 4, 0xffffffffu},
        {"name one past the name table", shoff + shdrSize, 4, strSize},
        {"name table without its final NUL", strOffset + strSize - 1, 1, 'x'},
        {"section contents past the end", shoff + shdrSize + offsetAt, addr, good.size() - 2},
    };
    ASSERT_TRUE(load(good).has_value());
    for (const Damage& d : damages) {
      Bytes bad = good;
      kelo_test::put(bad, d.at, d.width, d.value, big);
      EXPECT_FALSE(load(bad).has_value()) << d.what;
    }
    {
      // No program headers: their offset is not looked at, by the library
      // nor by the reference.
      Bytes odd = good;
      kelo_test::put(odd, is64 ? 32 : 28, addr, is64 ? uint64_t{1} << 58 : 0xfffffff0u, big);
      EXPECT_TRUE(load(odd).has_value()) << "a program header offset with no program headers";
    }
    if (is64) {
      // A table offset that wraps round to just before the bytes, with the
      // count escaped to section 0: a bounds check that adds offset and
      // length would read there.
      Bytes bad = good;
      kelo_test::put(bad, shoffAt, addr, ~uint64_t{0} - 39, big);
      kelo_test::put(bad, shnumAt, 2, 0, big);
      EXPECT_FALSE(load(bad).has_value()) << "a wrapping section header table offset";
    }
  }
}

TEST(ElfRefusal, TruncatedForeignAndNoBytesAreRefused) {
  for (const Bytes& bytes : {kelo_test::example("main.o"), kelo_test::craft({true, true, {".text"}})}) {
    // Inside the identification, the file header, the contents, the
    // section header table, and one byte short.
    for (size_t cut : {size_t{0}, size_t{5}, size_t{40}, bytes.size() / 2, bytes.size() - 40, bytes.size() - 1}) {
      // Exactly sized heap copies, so a read past the cut is caught.
      EXPECT_FALSE(load(Bytes(bytes.begin(), bytes.begin() + cut)).has_value()) << "cut at " << cut;
    }
  }
  EXPECT_FALSE(ELF::load(absl::Span<unsigned char const>(nullptr, 0)).has_value());
  EXPECT_FALSE(ELF::adopt(ELFBytes()).has_value());
  EXPECT_FALSE(load(Bytes(4096, 0)).has_value());
  // An archive: libelf would open it, but it is not an image.
  Bytes archive = {'!', '<', 'a', 'r', 'c', 'h', '>', '\n'};
  archive.resize(200, ' ');
  EXPECT_FALSE(load(archive).has_value());
}

}  // namespace
