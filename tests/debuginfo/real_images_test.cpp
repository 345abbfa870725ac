// The list with real ELF objects built from examples/ and the real image
// library behind the shared library.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "kelo/DebugInfoList.h"

namespace {

using kelo_debuginfo::DebugInfoList;
using kelo_elf::DebugInfoID;
using kelo_elf::ELF;

std::vector<unsigned char> readExample(const std::string& name) {
  std::ifstream in(std::string(KELO_TEST_DATA_DIR) + "/" + name, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

ELF loadExample(const std::string& name) {
  std::vector<unsigned char> bytes = readExample(name);
  absl::optional<ELF> elf = ELF::load(bytes);
  if (!elf) throw std::runtime_error("cannot load example " + name);
  return std::move(*elf);
}

TEST(RealImages, SectionNamesOfTheObjectDecideWhatIsRecorded) {
  DebugInfoList list;
  const DebugInfoID util(1, 0x1234, 1), extra(1, 7, 0);
  list.add(util, loadExample("util.o"));
  list.add(extra, loadExample("extra.o"));

  list.setSectionAddr(util, ".text", 0x80001000);
  list.setSectionAddr(util, ".kelo.overlay", 0x80002000);
  list.setSectionAddr(util, ".kelo.constdata", 0x1);  // extra.o has it, util.o has not
  list.setSectionAddr(util, ".constant", 0x80003000);
  list.setSectionAddr(extra, ".kelo.constdata", 0x90000000);
  list.setSectionAddr(extra, ".text.cold", 0x90001000);

  EXPECT_EQ(list.getSectionAddr(util, ".text"), 0x80001000u);
  EXPECT_EQ(list.getSectionAddr(util, ".kelo.overlay"), 0x80002000u);
  EXPECT_EQ(list.getSectionAddr(util, ".kelo.constdata"), 0u);
  EXPECT_EQ(list.getSectionAddr(util, ".constant"), 0x80003000u);
  EXPECT_EQ(list.getSectionAddr(extra, ".kelo.constdata"), 0x90000000u);
  EXPECT_EQ(list.getSectionAddr(extra, ".text.cold"), 0x90001000u);
}

TEST(RealImages, StoredImagesSaveTheBytesTheyCameFrom) {
  DebugInfoList list;
  const DebugInfoID a(1, 1, 0), b(1, 2, 0);
  list.add(a, loadExample("main.o"));
  list.add(b, loadExample("util.o"));
  ASSERT_TRUE(list.update(std::vector<kelo_debuginfo::DebugInfoNewID>{{a, b}, {b, a}}));

  absl::optional<kelo_elf::ELFBytes> saved = list.find(b)->save();
  ASSERT_TRUE(saved.has_value());
  const std::vector<unsigned char> original = readExample("main.o");
  ASSERT_EQ(saved->size, original.size());
  EXPECT_TRUE(std::equal(original.begin(), original.end(), saved->data));
  EXPECT_EQ(list.find(b)->debugInfoID, b);
}

}  // namespace
