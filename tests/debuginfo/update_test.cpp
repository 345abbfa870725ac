// Renumbering: simultaneous application (exchanges, chains), the four
// reasons for refusal, stamping, and a list left exactly as it was whenever a
// renumbering is refused.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
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

  // The tag of the image under `id` ("" when absent) and its address.
  std::string tagAt(const DebugInfoID& id) {
    auto it = list.entries.find(id);
    if (it == list.entries.end()) return "";
    auto names = it->second.elf.sectionNames();
    EXPECT_EQ(it->second.sectionAddrs.count(names.at(0)), 1u);
    return names.at(0);
  }

  bool update(std::vector<DebugInfoNewID> pairs) { return list.update(pairs); }

  std::map<std::string, ELF*> pointers() {
    std::map<std::string, ELF*> out;
    for (auto& e : list.entries) out[tagAt(e.first)] = &e.second.elf;
    return out;
  }

  DebugInfoList list;
};

TEST_F(UpdateTest, EmptySpanRebuildsWithContentUnchanged) {
  EXPECT_TRUE(update({}));
  EXPECT_TRUE(list.entries.empty());

  put(A, ".a", 1);
  put(B, ".b", 2);
  list.find(B)->debugInfoID.reset();
  EXPECT_TRUE(update({}));
  EXPECT_EQ(tagAt(A), ".a");
  EXPECT_EQ(tagAt(B), ".b");
  EXPECT_EQ(list.getSectionAddr(B, ".b"), 2u);
  EXPECT_EQ(list.find(A)->debugInfoID, A);
  EXPECT_FALSE(list.find(B)->debugInfoID.has_value());  // not renumbered, not stamped
  EXPECT_FLOAT_EQ(list.entries.max_load_factor(), 1.0f);
}

TEST_F(UpdateTest, ExchangeMovesImagesStampsAndCarriesAddresses) {
  put(A, ".a", 0x100);
  put(B, ".b", 0x200);
  put(C, ".c", 0x300);
  const long images = control().liveImplementations;

  ASSERT_TRUE(update({{A, B}, {B, A}}));
  EXPECT_EQ(tagAt(A), ".b");
  EXPECT_EQ(tagAt(B), ".a");
  EXPECT_EQ(tagAt(C), ".c");
  EXPECT_EQ(list.find(A)->debugInfoID, A);
  EXPECT_EQ(list.find(B)->debugInfoID, B);
  EXPECT_EQ(list.getSectionAddr(B, ".a"), 0x100u);
  EXPECT_EQ(list.getSectionAddr(A, ".b"), 0x200u);
  EXPECT_EQ(list.entries.size(), 3u);
  EXPECT_EQ(control().liveImplementations, images);  // moved, never copied
  EXPECT_EQ(control().saves, 0);
}

TEST_F(UpdateTest, ChainShiftsAlongIntoAFreeIdentifier) {
  put(A, ".a", 1);
  put(B, ".b", 2);
  ASSERT_TRUE(update({{A, B}, {B, C}}));
  EXPECT_EQ(tagAt(A), "");
  EXPECT_EQ(tagAt(B), ".a");
  EXPECT_EQ(tagAt(C), ".b");
  EXPECT_EQ(list.find(C)->debugInfoID, C);
}

TEST_F(UpdateTest, KindsAreRenumberedLikeAnyField) {
  const DebugInfoID kind0(0, 0xA, 0), kind7(7, 0xFFFF, 0xFFFF);
  put(A, ".a", 1);
  ASSERT_TRUE(update({{A, kind0}}));
  ASSERT_TRUE(update({{kind0, kind7}}));
  EXPECT_EQ(tagAt(kind7), ".a");
  EXPECT_EQ(list.entries.size(), 1u);
}

TEST_F(UpdateTest, IdentityPairStampsInPlace) {
  put(A, ".a", 1);
  list.find(A)->debugInfoID = D;
  ASSERT_TRUE(update({{A, A}}));
  EXPECT_EQ(tagAt(A), ".a");
  EXPECT_EQ(list.find(A)->debugInfoID, A);
}

TEST_F(UpdateTest, TargetHeldByAnEntryNotRenumberedIsRefusedUntilItMovesToo) {
  put(A, ".a", 1);
  put(C, ".c", 3);
  EXPECT_FALSE(update({{A, C}}));
  ASSERT_TRUE(update({{A, C}, {C, D}}));
  EXPECT_EQ(tagAt(C), ".a");
  EXPECT_EQ(tagAt(D), ".c");
}

// Every refusal reason, alone and hidden behind valid pairs: the list, its
// images, their identifiers and addresses, and every pointer stay as they
// were.
TEST_F(UpdateTest, RefusalsLeaveEverythingAsItWas) {
  put(A, ".a", 1);
  put(B, ".b", 2);
  put(C, ".c", 3);
  const auto before = pointers();
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
    EXPECT_EQ(pointers(), before);
    EXPECT_EQ(tagAt(A), ".a");
    EXPECT_EQ(tagAt(B), ".b");
    EXPECT_EQ(tagAt(C), ".c");
    EXPECT_EQ(list.find(B)->debugInfoID, B);
  }
}

TEST_F(UpdateTest, AnyNonEmptySpanOnAnEmptyListIsRefused) {
  EXPECT_FALSE(update({{A, A}}));
  EXPECT_FALSE(update({{A, B}}));
}

// The renumbering against an independent model: random lists, random pairs
// (mostly valid, some with each kind of fault), checked entry by entry.
TEST_F(UpdateTest, AgreesWithASimpleModelOnRandomRenumberings) {
  std::mt19937 rng(20261122);
  auto randomId = [&](int range) {
    return DebugInfoID(static_cast<uint8_t>(rng() % 2), static_cast<uint16_t>(rng() % range), 0);
  };
  for (int round = 0; round < 300; ++round) {
    list.clear();
    std::map<std::pair<int, int>, std::string> model;  // (kind, number) -> tag
    const int range = 4 + static_cast<int>(rng() % 12);
    const int count = static_cast<int>(rng() % 10);
    for (int i = 0; i < count; ++i) {
      DebugInfoID id = randomId(range);
      std::string tag = ".t" + std::to_string(round) + "_" + std::to_string(i);
      if (model.emplace(std::make_pair(id.kind, id.lo), tag).second) put(id, tag, i);
    }
    std::vector<DebugInfoNewID> pairs;
    const int pairCount = static_cast<int>(rng() % 5);
    for (int i = 0; i < pairCount; ++i) pairs.push_back({randomId(range), randomId(range)});

    // The model: refuse on the four reasons, otherwise apply all at once.
    bool ok = true;
    std::set<std::pair<int, int>> olds, news;
    for (const auto& p : pairs) {
      auto o = std::make_pair(int{p.oldID.kind}, int{p.oldID.lo});
      auto n = std::make_pair(int{p.newID.kind}, int{p.newID.lo});
      if (!olds.insert(o).second || !model.count(o) || !news.insert(n).second) ok = false;
    }
    for (const auto& n : news) {
      if (model.count(n) && !olds.count(n)) ok = false;
    }
    std::map<std::pair<int, int>, std::string> expected = model;
    if (ok) {
      for (const auto& p : pairs) expected.erase({p.oldID.kind, p.oldID.lo});
      for (const auto& p : pairs) expected[{p.newID.kind, p.newID.lo}] = model.at({p.oldID.kind, p.oldID.lo});
    }

    ASSERT_EQ(update(pairs), ok) << "round " << round;
    ASSERT_EQ(list.entries.size(), expected.size());
    for (const auto& e : expected) {
      DebugInfoID id(static_cast<uint8_t>(e.first.first), static_cast<uint16_t>(e.first.second), 0);
      ASSERT_EQ(tagAt(id), e.second) << "round " << round;
    }
  }
}

}  // namespace
