// DebugInfoList with the image library's test double: identifiers and
// stamping, pointer stability, all-or-nothing merge, clear, and the rules for
// recording section addresses.
#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "double/elf_double.h"
#include "kelo/DebugInfoList.h"

namespace {

using elf_double::control;
using kelo_debuginfo::DebugInfoList;
using kelo_elf::DebugInfoID;
using kelo_elf::ELF;

class ListTest : public ::testing::Test {
 protected:
  void SetUp() override { elf_double::reset(); }
  void TearDown() override {
    // Every image made by a test is gone once the test's objects are.
    EXPECT_EQ(control().liveImplementations, 0);
  }
};

DebugInfoID id1(uint32_t number) { return DebugInfoID(1, number & 0xFFFF, number >> 16); }

// --- identifiers and stamping ---

TEST_F(ListTest, IdentifiersDifferingInAnyFieldAreDistinctEntries) {
  DebugInfoList list;
  const DebugInfoID ids[] = {{0, 5, 1}, {1, 5, 1}, {1, 6, 1}, {1, 5, 2}, {200, 5, 1}};
  std::vector<ELF*> stored;
  for (const DebugInfoID& id : ids) stored.push_back(list.add(id, elf_double::image()));
  ASSERT_EQ(list.entries.size(), 5u);
  for (size_t i = 0; i < stored.size(); ++i) EXPECT_EQ(list.find(ids[i]), stored[i]);
  EXPECT_EQ(list.find({2, 5, 1}), nullptr);
}

TEST_F(ListTest, AddStampsTheStoredImageAndMovesWithoutCopying) {
  DebugInfoList list;
  ELF image = elf_double::image({".text"});
  const long loadsBefore = control().loaded;
  ELF* stored = list.add(id1(0x00011234), std::move(image));

  ASSERT_NE(stored, nullptr);
  EXPECT_EQ(stored, list.find(id1(0x00011234)));
  ASSERT_TRUE(stored->debugInfoID.has_value());
  EXPECT_EQ(*stored->debugInfoID, DebugInfoID(1, 0x1234, 1));
  EXPECT_TRUE(stored->hasSection(".text"));
  EXPECT_TRUE(list.entries.begin()->second.sectionAddrs.empty());
  EXPECT_EQ(control().loaded, loadsBefore);  // no save/load round trip, no copy
  EXPECT_EQ(control().saves, 0);
  EXPECT_EQ(control().liveImplementations, 1);
}

TEST_F(ListTest, AddUnderAFiledIdentifierLeavesListAndImageAlone) {
  DebugInfoList list;
  ELF* first = list.add(id1(7), elf_double::image({".first"}));

  ELF second = elf_double::image({".second"});
  second.debugInfoID = DebugInfoID(0, 99, 0);
  EXPECT_EQ(list.add(id1(7), std::move(second)), first);

  EXPECT_EQ(list.entries.size(), 1u);
  EXPECT_TRUE(list.find(id1(7))->hasSection(".first"));
  // Not moved from, not stamped: the caller still has its image.
  EXPECT_TRUE(second.hasSection(".second"));
  EXPECT_EQ(second.debugInfoID, DebugInfoID(0, 99, 0));

  ELF unstamped = elf_double::image();
  list.add(id1(7), std::move(unstamped));
  EXPECT_FALSE(unstamped.debugInfoID.has_value());
}

TEST_F(ListTest, PointersSurviveBucketGrowth) {
  DebugInfoList list;
  std::vector<ELF*> stored;
  for (uint32_t n = 0; n < 2000; ++n) stored.push_back(list.add(id1(n * 65537u), elf_double::image()));
  for (uint32_t n = 0; n < 2000; ++n) ASSERT_EQ(list.find(id1(n * 65537u)), stored[n]) << n;
  EXPECT_LE(list.entries.load_factor(), 1.0f);
  EXPECT_FLOAT_EQ(list.entries.max_load_factor(), 1.0f);
}

// --- merge ---

TEST_F(ListTest, MergeMovesEverythingAndEmptiesTheSource) {
  DebugInfoList dst, src;
  ELF* kept = dst.add(id1(1), elf_double::image());
  src.add(id1(2), elf_double::image({".a"}));
  src.add(DebugInfoID(0, 2, 0), elf_double::image({".b"}));
  src.setSectionAddr(id1(2), ".a", 0x1000);
  src.find(id1(2))->debugInfoID = DebugInfoID(9, 9, 9);  // merge must not restamp
  const long moves = control().moveConstructed + control().moveAssigned;

  ASSERT_TRUE(dst.merge(src));
  EXPECT_TRUE(src.entries.empty());
  EXPECT_EQ(dst.entries.size(), 3u);
  EXPECT_EQ(dst.find(id1(1)), kept);
  EXPECT_EQ(dst.getSectionAddr(id1(2), ".a"), 0x1000u);
  EXPECT_EQ(dst.find(id1(2))->debugInfoID, DebugInfoID(9, 9, 9));
  EXPECT_TRUE(dst.find(DebugInfoID(0, 2, 0))->hasSection(".b"));
  // Whole entries change lists; the images themselves are not even moved.
  EXPECT_EQ(control().moveConstructed + control().moveAssigned, moves);

  // The source stays usable.
  src.add(id1(2), elf_double::image());
  EXPECT_EQ(src.entries.size(), 1u);
}

TEST_F(ListTest, MergeWithOneCollisionChangesNeitherList) {
  DebugInfoList dst, src;
  std::vector<ELF*> dstPtrs, srcPtrs;
  for (uint32_t n = 0; n < 50; ++n) dstPtrs.push_back(dst.add(id1(n), elf_double::image()));
  for (uint32_t n = 100; n < 150; ++n) srcPtrs.push_back(src.add(id1(n), elf_double::image()));
  src.add(id1(25), elf_double::image());  // the one collision

  EXPECT_FALSE(dst.merge(src));
  EXPECT_EQ(dst.entries.size(), 50u);
  EXPECT_EQ(src.entries.size(), 51u);
  for (uint32_t n = 0; n < 50; ++n) EXPECT_EQ(dst.find(id1(n)), dstPtrs[n]);
  for (uint32_t n = 100; n < 150; ++n) EXPECT_EQ(src.find(id1(n)), srcPtrs[n - 100]);
}

TEST_F(ListTest, MergeWithEmptyListsAndWithItself) {
  DebugInfoList list, empty;
  EXPECT_TRUE(empty.merge(empty));
  EXPECT_TRUE(list.merge(empty));
  list.add(id1(3), elf_double::image());
  EXPECT_TRUE(list.merge(empty));
  EXPECT_EQ(list.entries.size(), 1u);
  EXPECT_FALSE(list.merge(list));
  EXPECT_EQ(list.entries.size(), 1u);
  EXPECT_TRUE(empty.merge(list));
  EXPECT_EQ(empty.entries.size(), 1u);
  EXPECT_TRUE(list.entries.empty());
}

// --- clear ---

TEST_F(ListTest, ClearDestroysEntriesAndLeavesAUsableList) {
  DebugInfoList list;
  list.clear();
  for (uint32_t n = 0; n < 10; ++n) list.add(id1(n), elf_double::image());
  EXPECT_EQ(control().liveImplementations, 10);
  list.clear();
  EXPECT_TRUE(list.entries.empty());
  EXPECT_EQ(control().liveImplementations, 0);
  EXPECT_EQ(list.find(id1(1)), nullptr);
  ELF* again = list.add(id1(1), elf_double::image());
  EXPECT_EQ(list.find(id1(1)), again);
}

// --- section addresses ---

TEST_F(ListTest, SectionAddressesForNamesTheImageHas) {
  DebugInfoList list;
  list.add(id1(1), elf_double::image({".text", ".kelo.overlay"}));
  list.setSectionAddr(id1(1), ".text", 0x80001000);
  list.setSectionAddr(id1(1), ".kelo.overlay", 0x2000);
  EXPECT_EQ(list.getSectionAddr(id1(1), ".text"), 0x80001000u);
  EXPECT_EQ(list.getSectionAddr(id1(1), ".kelo.overlay"), 0x2000u);

  list.setSectionAddr(id1(1), ".text", 0x90000000);  // the second address wins
  EXPECT_EQ(list.getSectionAddr(id1(1), ".text"), 0x90000000u);

  list.setSectionAddr(id1(1), ".text", 0);  // a recorded 0 reads like a missing one
  EXPECT_EQ(list.getSectionAddr(id1(1), ".text"), 0u);
  EXPECT_EQ(list.getSectionAddr(id1(1), ".data"), 0u);
  EXPECT_EQ(list.getSectionAddr(id1(2), ".text"), 0u);
}

TEST_F(ListTest, ConstantAndLocalAreAcceptedExactlyAndNothingElse) {
  DebugInfoList list;
  list.add(id1(1), elf_double::image({".text"}));
  list.setSectionAddr(id1(1), ".constant", 0x10);
  list.setSectionAddr(id1(1), ".local", 0x20);
  EXPECT_EQ(list.getSectionAddr(id1(1), ".constant"), 0x10u);
  EXPECT_EQ(list.getSectionAddr(id1(1), ".local"), 0x20u);

  for (const char* name :
       {".Constant", ".constan", ".constants", "constant", ".local ", "local", ".LOCAL", ".tex", ".text.hot", ""}) {
    list.setSectionAddr(id1(1), name, 0x30);
    EXPECT_EQ(list.getSectionAddr(id1(1), name), 0u) << '"' << name << '"';
  }
  EXPECT_EQ(list.entries.begin()->second.sectionAddrs.size(), 2u);

  // Names with embedded NUL bytes are compared in full.
  list.setSectionAddr(id1(1), std::string(".local\0x", 8), 0x40);
  EXPECT_EQ(list.entries.begin()->second.sectionAddrs.size(), 2u);
}

TEST_F(ListTest, SetSectionAddrForAnAbsentEntryCreatesNothing) {
  DebugInfoList list;
  list.setSectionAddr(id1(1), ".constant", 0x10);
  EXPECT_TRUE(list.entries.empty());
}

TEST_F(ListTest, AnExceptionFromTheSectionTestLeavesTheTableAlone) {
  DebugInfoList list;
  list.add(id1(1), elf_double::image({".text"}));
  list.setSectionAddr(id1(1), ".text", 0x10);
  control().hasSectionFault = elf_double::Fault::kThrowRuntime;
  EXPECT_THROW(list.setSectionAddr(id1(1), ".text", 0x20), std::runtime_error);
  control().hasSectionFault = elf_double::Fault::kNone;
  EXPECT_EQ(list.getSectionAddr(id1(1), ".text"), 0x10u);
}

}  // namespace
