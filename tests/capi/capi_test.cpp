// The C interface against the image library's test double: conversions,
// ownership of copies, iteration, section addresses, renumbering, merging
// and the file calls.
#include <gtest/gtest.h>

#include "capi/capi_support.h"

namespace {

using namespace capi_test;

constexpr keloDbgID kA{1, 0x00011234};

class CApi : public ::testing::Test {
 protected:
  void SetUp() override { elf_double::reset(); }
  void TearDown() override {
    lists_.clear();
    EXPECT_EQ(elf_double::control().liveObjects, 0) << "images leaked";
    EXPECT_EQ(elf_double::control().liveImplementations, 0);
  }
  keloDbgList newList() {
    lists_.emplace_back(keloDbgAlloc());
    return lists_.back().get();
  }
  // A list holding kind 1 numbers 1, 2 and 3, each with .text recorded.
  keloDbgList threeEntries() {
    keloDbgList l = newList();
    for (uint16_t n = 1; n <= 3; ++n) {
      addImage(l, n, 0);
      keloDbgSetSectionAddr(l, keloDbgID{1, n}, ".text", 0x100u * n);
    }
    return l;
  }

 private:
  std::vector<ListPtr> lists_;
};

TEST_F(CApi, NullHandlesAndNamesGiveFailureResults) {
  keloDbgList l = threeEntries();
  const Snapshot before = snapshot(l);
  kelo_elf::ELF source = elf_double::image();
  keloDbgFree(nullptr);
  keloDbgIterFree(nullptr);
  keloDbgClear(nullptr);
  EXPECT_EQ(keloDbgAdd(nullptr, handle(source), 1, 0), nullptr);
  EXPECT_EQ(keloDbgAdd(l, nullptr, 9, 0), nullptr);
  EXPECT_FALSE(keloDbgMerge(nullptr, l));
  EXPECT_FALSE(keloDbgMerge(l, nullptr));
  EXPECT_EQ(keloDbgFind(nullptr, kA), nullptr);
  EXPECT_EQ(keloDbgIter(nullptr), nullptr);
  EXPECT_FALSE(keloDbgIterNext(nullptr));
  EXPECT_EQ(keloDbgIterID(nullptr).kind, 0u);
  EXPECT_EQ(keloDbgIterELF(nullptr), nullptr);
  EXPECT_EQ(keloDbgGetSectionAddr(nullptr, keloDbgID{1, 1}, ".text"), 0u);
  EXPECT_EQ(keloDbgGetSectionAddr(l, keloDbgID{1, 1}, nullptr), 0u);
  keloDbgSetSectionAddr(l, keloDbgID{1, 1}, nullptr, 7);
  EXPECT_FALSE(keloDbgWrite(nullptr, "/tmp/never"));
  EXPECT_FALSE(keloDbgWrite(l, nullptr));
  EXPECT_EQ(keloDbgRead(nullptr), nullptr);
  EXPECT_FALSE(keloDbgFileVersion(nullptr, nullptr, nullptr, nullptr));
  EXPECT_FALSE(keloDbgUpdate(nullptr, nullptr, 0));
  EXPECT_FALSE(keloDbgUpdate(l, nullptr, 1));
  EXPECT_EQ(snapshot(l), before);
  EXPECT_EQ(source.debugInfoID, absl::nullopt);
}

TEST_F(CApi, AddFilesACopyUnderKindOneAndLeavesTheCallersImageAlone) {
  keloDbgList l = newList();
  kelo_elf::ELF source = elf_double::image({".text", ".kelo.overlay"});
  source.debugInfoID = kelo_elf::DebugInfoID(0, 5, 6);
  keloDbgElf stored = keloDbgAddForCU(l, handle(source), 0x1234, 0x0001);
  ASSERT_NE(stored, nullptr);
  EXPECT_NE(image(stored), &source);
  EXPECT_EQ(image(stored)->debugInfoID, kelo_elf::DebugInfoID(1, 0x1234, 0x0001));
  EXPECT_EQ(image(stored)->sectionNames(), source.sectionNames());
  EXPECT_EQ(source.debugInfoID, kelo_elf::DebugInfoID(0, 5, 6));
  EXPECT_TRUE(source.hasSection(".kelo.overlay"));

  EXPECT_EQ(keloDbgFind(l, kA), stored);
  EXPECT_EQ(keloDbgFind(l, keloDbgID{0, 0x00011234}), nullptr);
  keloDbgIterator it = keloDbgIter(l);
  EXPECT_EQ(keloDbgIterID(it).kind, 1u);
  EXPECT_EQ(keloDbgIterID(it).id, 0x00011234u);
  keloDbgIterFree(it);

  // The same identifier again: the first copy stays, the new one is dropped.
  kelo_elf::ELF other = elf_double::image({".other"});
  EXPECT_EQ(keloDbgAdd(l, handle(other), 0x1234, 0x0001), stored);
  EXPECT_EQ(listOf(l).entries.size(), 1u);
  EXPECT_FALSE(image(stored)->hasSection(".other"));
  EXPECT_EQ(other.debugInfoID, absl::nullopt);
}

TEST_F(CApi, KindsOtherThanZeroAndOneAreRefusedEverywhere) {
  keloDbgList l = threeEntries();
  listOf(l).entries.emplace(kelo_elf::DebugInfoID(2, 1, 0), kelo_debuginfo::RelocELF(elf_double::image()));
  const Snapshot before = snapshot(l);
  // 0x101 must not pass as kind 1 cut to eight bits.
  for (uint32_t kind : {2u, 0x101u, 0xFFFFFFFFu}) {
    const keloDbgID bad{kind, 1};
    EXPECT_EQ(keloDbgFind(l, bad), nullptr);
    EXPECT_EQ(keloDbgGetSectionAddr(l, bad, ".constant"), 0u);
    keloDbgSetSectionAddr(l, bad, ".constant", 5);
    const keloDbgNewID badOld[] = {{{1, 1}, {1, 7}}, {bad, {1, 8}}};
    const keloDbgNewID badNew[] = {{{1, 1}, {1, 7}}, {{1, 2}, bad}};
    EXPECT_FALSE(keloDbgUpdate(l, badOld, 2));
    EXPECT_FALSE(keloDbgUpdate(l, badNew, 2));
  }
  EXPECT_EQ(snapshot(l), before);
  // Kind 0 and kind 1 with the same number are different entries.
  keloDbgSetSectionAddr(l, keloDbgID{0, 1}, ".text", 0x5000);
  EXPECT_EQ(keloDbgGetSectionAddr(l, keloDbgID{0, 1}, ".text"), 0u);
  EXPECT_EQ(keloDbgGetSectionAddr(l, keloDbgID{1, 1}, ".text"), 0x100u);

  // A kind that only the class interface or a file can bring in is handed
  // out unchanged by the iteration.
  bool sawKindTwo = false;
  keloDbgIterator it = keloDbgIter(l);
  do sawKindTwo |= keloDbgIterID(it).kind == 2 && keloDbgIterID(it).id == 1;
  while (keloDbgIterNext(it));
  keloDbgIterFree(it);
  EXPECT_TRUE(sawKindTwo);
}

TEST_F(CApi, IterationMeetsEveryEntryOnceAndStaysAtTheEnd) {
  keloDbgList l = newList();
  EXPECT_EQ(keloDbgIter(l), nullptr);
  addImage(l, 1, 0);
  keloDbgIterator one = keloDbgIter(l);
  ASSERT_NE(one, nullptr);
  EXPECT_FALSE(keloDbgIterNext(one));
  EXPECT_FALSE(keloDbgIterNext(one));
  EXPECT_EQ(keloDbgIterELF(one), nullptr);
  keloDbgIterFree(one);

  keloDbgList three = threeEntries();
  std::map<uint32_t, int> met;
  keloDbgIterator it = keloDbgIter(three);
  ASSERT_NE(it, nullptr);
  do {
    const keloDbgID id = keloDbgIterID(it);
    ++met[id.id];
    EXPECT_EQ(keloDbgIterELF(it), keloDbgFind(three, id));
  } while (keloDbgIterNext(it));
  keloDbgIterFree(it);
  EXPECT_EQ(met, (std::map<uint32_t, int>{{1, 1}, {2, 1}, {3, 1}}));

  keloDbgClear(three);
  EXPECT_EQ(keloDbgIter(three), nullptr);
  EXPECT_NE(addImage(three, 1, 0), nullptr);
}

TEST_F(CApi, UpdateConvertsRecordsAndRefusesWholeSets) {
  EXPECT_TRUE(keloDbgUpdate(newList(), nullptr, 0));
  keloDbgList l = threeEntries();
  addImage(l, 0x1234, 1, {".text", ".only_a"});
  keloDbgSetSectionAddr(l, kA, ".constant", 0xC0);
  EXPECT_TRUE(keloDbgUpdate(l, nullptr, 0));
  EXPECT_EQ(listOf(l).entries.size(), 4u);

  // A set with one bad record changes nothing.
  const Snapshot before = snapshot(l);
  const keloDbgNewID refused[] = {{kA, {0, 7}}, {{1, 99}, {1, 10}}};
  EXPECT_FALSE(keloDbgUpdate(l, refused, 2));
  EXPECT_EQ(snapshot(l), before);

  // Kind 0 and kind 1 identifiers are converted both ways.
  const keloDbgNewID records[] = {{kA, {0, 7}}, {{1, 1}, {1, 2}}, {{1, 2}, {1, 1}}};
  ASSERT_TRUE(keloDbgUpdate(l, records, 3));
  EXPECT_EQ(keloDbgFind(l, kA), nullptr);
  keloDbgElf moved = keloDbgFind(l, keloDbgID{0, 7});
  ASSERT_NE(moved, nullptr);
  EXPECT_TRUE(image(moved)->hasSection(".only_a"));
  EXPECT_EQ(image(moved)->debugInfoID, kelo_elf::DebugInfoID(0, 7, 0));
  EXPECT_EQ(keloDbgGetSectionAddr(l, keloDbgID{0, 7}, ".constant"), 0xC0u);
  EXPECT_EQ(keloDbgGetSectionAddr(l, keloDbgID{1, 1}, ".text"), 0x200u);
  EXPECT_EQ(keloDbgGetSectionAddr(l, keloDbgID{1, 2}, ".text"), 0x100u);
}

}  // namespace
