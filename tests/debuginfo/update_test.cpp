// Renumbering: simultaneous application (exchanges, chains), the four
// reasons for refusal, stamping, and a list left exactly as it was whenever a
// renumbering is refused. (The fuzz target fuzz_list_model checks random
// renumberings against a model.)
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "double/elf_double.h"
#include "kelo/DebugInfoList.h"

namespace {

using elf_double::control;
using kelo_debuginfo::DebugInfoList;
using kelo_debuginfo::DebugInfoNewID;
using kelo_elf::DebugInfoID;
using kelo_elf::ELF;

const DebugInfoID A(1, 0xA, 0), B(1, 0xB, 0), C(1, 0xC, 0), D(1, 0xD, 0);

class UpdateTest : public ::testing::Test {
 protected:
  void SetUp() override { elf_double::reset(); }
  void TearDown() override {
    list.clear();
    EXPECT_EQ(control().liveImplementations, 0);
  }

  // Files an image whose only section is named after `tag`, with one
  // recorded address, so each image can be followed through a renumbering.
  void put(const DebugInfoID& id, const std::string& tag, unsigned addr) {
    list.add(id, elf_double::image({tag}));
    list.setSectionAddr(id, tag, addr);
  }

  // The tag of the image under `id` ("" when absent), checking that its
  // address came along.
  std::string tagAt(const DebugInfoID& id) {
    auto it = list.entries.find(id);
    if (it == list.entries.end()) return "";
    const std::string tag = it->second.elf.sectionNames().at(0);
    EXPECT_EQ(it->second.sectionAddrs.count(tag), 1u);
    return tag;
  }

  bool update(std::vector<DebugInfoNewID> pairs) { return list.update(pairs); }

  void refusalsAndOneSuccess();

  DebugInfoList list;
};

TEST_F(UpdateTest, ExchangesChainsAndIdentityApplyAtOnceAndStamp) {
  put(A, ".a", 0x100);
  put(B, ".b", 0x200);
  put(C, ".c", 0x300);
  ASSERT_TRUE(update({{A, B}, {B, A}}));
  EXPECT_EQ(tagAt(A), ".b");
  EXPECT_EQ(tagAt(B), ".a");
  EXPECT_EQ(tagAt(C), ".c");
  EXPECT_EQ(list.find(A)->debugInfoID, A);
  EXPECT_EQ(list.find(B)->debugInfoID, B);
  EXPECT_EQ(control().liveImplementations, 3) << "moved, never copied";

  ASSERT_TRUE(update({{A, D}, {B, A}}));  // a chain into a free identifier
  EXPECT_EQ(tagAt(A), ".a");
  EXPECT_EQ(tagAt(B), "");
  EXPECT_EQ(tagAt(D), ".b");

  list.find(C)->debugInfoID = D;
  const DebugInfoID kind7(7, 0xFFFF, 0xFFFF);
  ASSERT_TRUE(update({{C, C}, {D, kind7}}));  // identity stamps in place; kinds are a field like any
  EXPECT_EQ(tagAt(C), ".c");
  EXPECT_EQ(list.find(C)->debugInfoID, C);
  EXPECT_EQ(tagAt(kind7), ".b");
  EXPECT_EQ(list.entries.size(), 3u);
}

// Every reason for refusal, alone and hidden behind valid pairs: the list,
// its images, their identifiers and addresses, and every pointer stay as
// they were. With few pairs in a long list the checks ask the map; with many
// pairs for the list's size they walk it: both ways.
TEST_F(UpdateTest, RefusalsLeaveEverythingAsItWas) {
  for (uint16_t n = 0x100; n < 0x100 + 40; ++n) put(DebugInfoID(0, n, 0), ".other" + std::to_string(n), n);
  refusalsAndOneSuccess();
  list.clear();
  refusalsAndOneSuccess();
}

void UpdateTest::refusalsAndOneSuccess() {
  put(A, ".a", 1);
  put(B, ".b", 2);
  put(C, ".c", 3);
  std::map<std::string, ELF*> before;
  for (auto& e : list.entries) before[tagAt(e.first)] = &e.second.elf;
  const std::vector<std::vector<DebugInfoNewID>> refused = {
      {{A, D}, {A, D}},  // exact repetition
      {{A, D}, {A, B}},  // two pairs share an old identifier
      {{B, A}, {D, C}},  // an old identifier that is not filed
      {{A, D}, {B, D}},  // two pairs share a new identifier
      {{A, B}, {B, D}, {C, A}, {D, A}},
      {{A, C}},                  // target held by an entry that stays
      {{A, B}, {B, A}, {C, A}},  // valid exchange plus a clash
  };
  for (const auto& pairs : refused) {
    EXPECT_FALSE(update(pairs));
    for (const auto& b : before) EXPECT_EQ(list.find(b.second->debugInfoID.value()), b.second);
    EXPECT_EQ(tagAt(A), ".a");
    EXPECT_EQ(tagAt(B), ".b");
    EXPECT_EQ(tagAt(C), ".c");
  }
  // The target held by C is free once C moves too.
  ASSERT_TRUE(update({{A, C}, {C, D}}));
  EXPECT_EQ(tagAt(C), ".a");
  EXPECT_EQ(tagAt(D), ".c");
}

}  // namespace
