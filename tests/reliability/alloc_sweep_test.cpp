// Allocation-failure sweep of the C interface.
//
// For every call that allocates, and for k = 1, 2, ... until the call gets
// through without meeting a failure, the k-th allocation of operator new
// inside the call throws std::bad_alloc. Each run starts from a fresh set of
// lists. A run that met the failure must end in the call's failure result,
// with no allocation or image left behind, no file left open, and every list
// exactly as it was (identifiers, image bytes, section tables). A call may
// also absorb a failure and succeed (a stream buffer that falls back to the
// default one); then its result must be complete and right.
//
// Built twice: with the image library's test double (which also counts live
// images) and with the real image library (whose own malloc calls are not
// covered by operator new).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "capi/handles.h"
#include "counting_new.h"
#include "kelo/DebugInfoList.h"
#include "kelo/debuginfo.h"
#include "reliability_support.h"
#include "support/files.h"

namespace {

using kelo_debuginfo::DebugInfoList;
using reliability::Snapshot;
using reliability::snapshot;

DebugInfoList& listOf(keloDbgList h) { return *kelo_handles::toList(h); }
keloDbgElf handle(kelo_elf::ELF& image) { return kelo_handles::toHandle(&image); }

// Two lists with entries and section addresses, a caller's image, and a file
// holding the first list; built with allocation failures disarmed.
struct World {
  keloDbgList list = keloDbgAlloc();
  keloDbgList other = keloDbgAlloc();
  kelo_elf::ELF image = reliability::makeImage(2);
  std::string longName = reliability::longSectionName();  // too long for a short string
  std::string file = reliability::tempPath("sweep_in");
  std::string out = reliability::tempPath("sweep_out");
  // What a successful call handed out, released with the world.
  keloDbgList made = nullptr;
  keloDbgIterator it = nullptr;

  World() {
    for (int i = 0; i < 3; ++i) {
      kelo_elf::ELF img = reliability::makeImage(i);
      keloDbgAdd(list, handle(img), static_cast<uint16_t>(0x100 + i), 1);
      keloDbgSetSectionAddr(list, keloDbgID{1, 0x10100u + i}, ".constant", 0x1000u * (i + 1));
      keloDbgSetSectionAddr(list, keloDbgID{1, 0x10100u + i}, longName.c_str(), 0x40u + i);
    }
    // Enough entries that merging them into `list` makes its table grow.
    for (int i = 0; i < 16; ++i) {
      kelo_elf::ELF img = reliability::makeImage(i % 3);
      keloDbgAdd(other, handle(img), static_cast<uint16_t>(0x200 + i), 0);
      keloDbgSetSectionAddr(other, keloDbgID{1, 0x200u + i}, ".local", 7u + i);
    }
    if (!keloDbgWrite(list, file.c_str())) ADD_FAILURE() << "cannot write the input file";
  }
  ~World() {
    keloDbgIterFree(it);
    keloDbgFree(made);
    keloDbgFree(list);
    keloDbgFree(other);
  }
  World(const World&) = delete;
  World& operator=(const World&) = delete;
};

// A call to sweep, and the check of a successful run's outcome (which also
// releases what the call returned). The snapshots are of both lists before
// the call.
using Succeeded = std::function<void(World&, const Snapshot& list, const Snapshot& other)>;
struct Sweep {
  const char* name;
  std::function<bool(World&)> call;  // true when the call reports success
  Succeeded succeeded = [](World&, const Snapshot&, const Snapshot&) {};
};

// Sweeps one call: returns the number of allocation points swept (the
// allocations the call makes when nothing fails), or -1.
long sweepOne(const Sweep& s) {
  const std::string name = s.name;
  for (long k = 1; k < 100000; ++k) {
    World w;
    const Snapshot list = snapshot(listOf(w.list));
    const Snapshot other = snapshot(listOf(w.other));
    const long live = counting_new::liveCount();
    const long images = reliability::liveImages();
    const int fds = kelo_test::openFds();

    counting_new::failAt(k);
    const bool ok = s.call(w);
    const bool tripped = counting_new::tripped();
    counting_new::disarm();

    if (ok) {
      s.succeeded(w, list, other);
      if (::testing::Test::HasFailure()) {
        ADD_FAILURE() << name << ": wrong success with allocation " << k << (tripped ? " failed" : " not reached");
        return k;
      }
      if (!tripped) return k - 1;
      continue;  // the failure was absorbed, and the result is right
    }
    EXPECT_TRUE(tripped) << name << " failed without an allocation failure";
    EXPECT_EQ(counting_new::liveCount(), live) << name << ": allocations leaked, failing allocation " << k;
    EXPECT_EQ(reliability::liveImages(), images) << name << ": images leaked, failing allocation " << k;
    EXPECT_EQ(kelo_test::openFds(), fds) << name << ": a file left open, failing allocation " << k;
    EXPECT_EQ(snapshot(listOf(w.list)), list) << name << ": list changed, failing allocation " << k;
    EXPECT_EQ(snapshot(listOf(w.other)), other) << name << ": other list changed, failing allocation " << k;
    if (::testing::Test::HasFailure()) return k;
  }
  ADD_FAILURE() << name << " never got through";
  return -1;
}

void sweep(const std::vector<Sweep>& sweeps) {
  for (const Sweep& s : sweeps) {
    const long points = sweepOne(s);
    std::printf("[ sweep    ] %-28s %ld allocation points\n", s.name, points);
    EXPECT_GE(points, 0);
  }
}

// Renumbered images carry their new identifier.
uint64_t renumbered(uint64_t key) {
  using reliability::keyOf;
  if (key == keyOf({1, 0x100, 1})) return keyOf({1, 0x101, 1});
  if (key == keyOf({1, 0x101, 1})) return keyOf({1, 0x100, 1});
  if (key == keyOf({1, 0x102, 1})) return keyOf({0, 7, 0});
  return key;
}

TEST(AllocationSweep, AllocAndIterFailCleanly) {
  sweep({{"keloDbgAlloc", [](World& w) { return (w.made = keloDbgAlloc()) != nullptr; },
          [](World& w, const Snapshot&, const Snapshot&) { EXPECT_TRUE(listOf(w.made).entries.empty()); }},
         {"keloDbgIter", [](World& w) { return (w.it = keloDbgIter(w.list)) != nullptr; },
          [](World& w, const Snapshot&, const Snapshot&) { EXPECT_NE(keloDbgIterELF(w.it), nullptr); }}});
}

TEST(AllocationSweep, AddLeavesTheListAsItWasOnFailure) {
  sweep({{"keloDbgAdd (new)", [](World& w) { return keloDbgAdd(w.list, handle(w.image), 9, 0) != nullptr; },
          [](World& w, const Snapshot& before, const Snapshot&) {
            EXPECT_EQ(listOf(w.list).entries.size(), before.size() + 1);
            ASSERT_NE(listOf(w.list).find({1, 9, 0}), nullptr);
            // The caller's image is only read.
            EXPECT_EQ(reliability::bytesOf(w.image), reliability::bytesOf(*listOf(w.list).find({1, 9, 0})));
          }},
         {"keloDbgAdd (present)", [](World& w) { return keloDbgAdd(w.list, handle(w.image), 0x100, 1) != nullptr; },
          [](World& w, const Snapshot& before, const Snapshot&) { EXPECT_EQ(snapshot(listOf(w.list)), before); }}});
}

TEST(AllocationSweep, MergeAndUpdateAreAllOrNothing) {
  sweep({{"keloDbgMerge", [](World& w) { return keloDbgMerge(w.list, w.other); },
          [](World& w, const Snapshot& a, const Snapshot& b) {
            Snapshot both = a;
            both.insert(both.end(), b.begin(), b.end());
            std::sort(both.begin(), both.end());
            EXPECT_EQ(snapshot(listOf(w.list)), both);
            EXPECT_TRUE(listOf(w.other).entries.empty());
          }},
         // An exchange, and a rename into kind 0.
         {"keloDbgUpdate",
          [](World& w) {
            const keloDbgNewID records[] = {
                {{1, 0x10100}, {1, 0x10101}}, {{1, 0x10101}, {1, 0x10100}}, {{1, 0x10102}, {0, 7}}};
            return keloDbgUpdate(w.list, records, 3);
          },
          [](World& w, const Snapshot& before, const Snapshot&) {
            Snapshot expected = before;
            for (auto& e : expected) {
              std::get<0>(e) = renumbered(std::get<0>(e));
              std::get<1>(e) = static_cast<int64_t>(std::get<0>(e));
            }
            std::sort(expected.begin(), expected.end());
            EXPECT_EQ(snapshot(listOf(w.list)), expected);
          }}});
}

// Without a result, success is the address being there.
TEST(AllocationSweep, SectionCallsCopyNamesSafely) {
  sweep({{"keloDbgGetSectionAddr",
          [](World& w) {
            return keloDbgGetSectionAddr(w.list, keloDbgID{1, 0x10101}, w.longName.c_str()) == 0x41u;
          }},
         {"keloDbgSetSectionAddr", [](World& w) {
            keloDbgSetSectionAddr(w.list, keloDbgID{1, 0x10102}, w.longName.c_str(), 0x99);
            return listOf(w.list).getSectionAddr({1, 0x102, 1}, w.longName) == 0x99u;
          }}});
}

TEST(AllocationSweep, FileCallsCloseTheFileAndReturnNothingPartial) {
  using reliability::withoutStamps;
  sweep({{"keloDbgWrite", [](World& w) { return keloDbgWrite(w.list, w.out.c_str()); },
          [](World& w, const Snapshot& before, const Snapshot&) {
            EXPECT_EQ(snapshot(listOf(w.list)), before);
            w.made = keloDbgRead(w.out.c_str());
            ASSERT_NE(w.made, nullptr);
            EXPECT_EQ(withoutStamps(snapshot(listOf(w.made))), withoutStamps(before));
          }},
         {"keloDbgRead", [](World& w) { return (w.made = keloDbgRead(w.file.c_str())) != nullptr; },
          [](World& w, const Snapshot& before, const Snapshot&) {
            EXPECT_EQ(withoutStamps(snapshot(listOf(w.made))), withoutStamps(before));
          }},
         {"keloDbgFileVersion", [](World& w) {
            uint32_t major = 9, minor = 9, patch = 9;
            return keloDbgFileVersion(w.file.c_str(), &major, &minor, &patch) && major == 1 && minor == 1 && patch == 2;
          }}});
}

}  // namespace
