// The exception barrier: every guarded call, made to fail at each step where
// the image double or an allocation can fail or throw, answers its failure
// result, leaks nothing and leaves every list as it was.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <new>

#include "capi/capi_support.h"

// Replaced global allocation for this test binary: when armed, the
// allocation after `countdown` successful ones throws std::bad_alloc, once.
namespace {
long gCountdown = -1;  // -1: disarmed
bool gTripped = false;
long gLiveBlocks = 0;
}  // namespace

void* operator new(std::size_t size) {
  if (gCountdown == 0) {
    gCountdown = -1;
    gTripped = true;
    throw std::bad_alloc();
  }
  if (gCountdown > 0) --gCountdown;
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
  ++gLiveBlocks;
  return p;
}
// The blocks come from malloc() in operator new above; GCC cannot see that
// pairing through the replacement and warns about it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpragmas"
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* p) noexcept {
  if (p == nullptr) return;
  --gLiveBlocks;
  std::free(p);
}
#pragma GCC diagnostic pop
void operator delete(void* p, std::size_t) noexcept { operator delete(p); }

namespace {

using namespace capi_test;
using elf_double::Fault;

// A section name long enough that copying it allocates.
const std::string kLongName = ".text" + std::string(64, 's');

// The state a guarded call runs on: `list` with three entries (section
// addresses recorded), `other` with two entries that `list` lacks, and a
// file holding a copy of `list`, and an image of the caller's.
struct World {
  TempDir dir;
  std::string file = dir.file("list.kdi");
  std::string out = dir.file("out.kdi");
  ListPtr list{keloDbgAlloc()};
  ListPtr other{keloDbgAlloc()};
  kelo_elf::ELF source = elf_double::image({".text"});  // a caller's image
  World() {
    for (uint16_t n = 1; n <= 3; ++n) {
      addImage(list.get(), n, 0, {".text", kLongName});
      keloDbgSetSectionAddr(list.get(), keloDbgID{1, n}, ".text", n);
    }
    keloDbgSetSectionAddr(list.get(), keloDbgID{1, 1}, kLongName.c_str(), 0x55);
    addImage(other.get(), 8, 0);
    addImage(other.get(), 9, 0);
    keloDbgWrite(list.get(), file.c_str());
  }
};

// One guarded call: `run` makes it and answers whether it reported success;
// for calls without a result, `check` answers that afterwards, once faults
// are disarmed. Only the calls themselves may allocate while a fault is
// armed.
struct Call {
  const char* name;
  std::function<bool(World&)> run;
  std::function<bool(World&)> check = nullptr;
};

const std::vector<Call>& calls() {
  static const std::vector<Call> all = {
      {"Alloc",
       [](World&) {
         ListPtr l(keloDbgAlloc());
         return l != nullptr;
       }},
      {"Clear",
       [](World& w) {
         keloDbgClear(w.list.get());
         return true;
       },
       [](World& w) { return keloDbgIter(w.list.get()) == nullptr; }},
      {"Add", [](World& w) { return keloDbgAdd(w.list.get(), handle(w.source), 7, 0) != nullptr; }},
      {"Merge", [](World& w) { return keloDbgMerge(w.list.get(), w.other.get()); }},
      {"Find",
       [](World& w) {
         return keloDbgFind(w.list.get(), keloDbgID{1, 2}) != nullptr;
       }},
      {"Iter",
       [](World& w) {
         keloDbgIterator it = keloDbgIter(w.list.get());
         keloDbgIterFree(it);
         return it != nullptr;
       }},
      {"GetSectionAddr",
       [](World& w) {
         return keloDbgGetSectionAddr(w.list.get(), keloDbgID{1, 1}, kLongName.c_str()) == 0x55;
       }},
      {"SetSectionAddr",
       [](World& w) {
         keloDbgSetSectionAddr(w.list.get(), keloDbgID{1, 1}, kLongName.c_str(), 0x99);
         return true;
       },
       [](World& w) {
         return keloDbgGetSectionAddr(w.list.get(), keloDbgID{1, 1}, kLongName.c_str()) == 0x99;
       }},
      {"Write", [](World& w) { return keloDbgWrite(w.list.get(), w.out.c_str()); }},
      {"Read",
       [](World& w) {
         ListPtr l(keloDbgRead(w.file.c_str()));
         return l != nullptr && listOf(l.get()).entries.size() == 3;
       }},
      {"FileVersion",
       [](World& w) {
         uint32_t major = 7;
         bool ok = keloDbgFileVersion(w.file.c_str(), &major, nullptr, nullptr);
         EXPECT_EQ(major, ok ? 1u : 7u);
         return ok;
       }},
      {"Update",
       [](World& w) {
         const keloDbgNewID records[] = {{{1, 1}, {1, 2}}, {{1, 2}, {1, 1}}};
         return keloDbgUpdate(w.list.get(), records, 2);
       }},
  };
  return all;
}

// Runs `call` on a fresh world with `arm` applied just before it. When the
// call reports failure, every list must be as it was; in every case, once
// the world is gone, nothing may be left alive. Returns whether the call
// reported failure.
bool runWithFault(const Call& call, const std::function<void()>& arm) {
  elf_double::reset();
  const long blocks = gLiveBlocks;
  bool failed = false;
  {
    World w;
    const Snapshot list = snapshot(w.list.get());
    const Snapshot other = snapshot(w.other.get());
    const long live = elf_double::control().live();
    arm();
    failed = !call.run(w);
    gCountdown = -1;
    elf_double::control().saveFault = elf_double::control().loadFault = elf_double::control().hasSectionFault =
        Fault::kNone;
    if (call.check) failed = !call.check(w);
    if (failed) {
      EXPECT_EQ(snapshot(w.list.get()), list) << call.name;
      EXPECT_EQ(snapshot(w.other.get()), other) << call.name;
      EXPECT_EQ(elf_double::control().live(), live) << call.name;
    }
  }
  EXPECT_EQ(elf_double::control().live(), 0) << call.name;
  EXPECT_EQ(elf_double::control().liveImplementations, 0) << call.name;
  EXPECT_EQ(gLiveBlocks, blocks) << call.name << ": heap blocks leaked";
  return failed;
}

TEST(Barrier, EveryCallSucceedsWithoutFaults) {
  for (const Call& call : calls()) EXPECT_FALSE(runWithFault(call, [] {})) << call.name;
}

TEST(Barrier, AnAllocationFailureAtAnyStepGivesTheFailureResult) {
  std::vector<std::string> failedSomewhere;
  for (const Call& call : calls()) {
    for (long step = 0;; ++step) {
      gTripped = false;
      bool failed = runWithFault(call, [step] { gCountdown = step; });
      if (!gTripped) break;  // the call got through all its allocations
      if (failed) failedSomewhere.push_back(call.name);
    }
  }
  for (const char* name : {"Alloc", "Add", "Merge", "Iter", "GetSectionAddr", "Write", "Read", "Update"}) {
    EXPECT_NE(std::find(failedSomewhere.begin(), failedSomewhere.end(), name), failedSomewhere.end()) << name;
  }
}

TEST(Barrier, ImageFailuresAndExceptionsOfAnyTypeGiveTheFailureResult) {
  const Fault faults[] = {Fault::kFail, Fault::kThrowBadAlloc, Fault::kThrowRuntime, Fault::kThrowInt};
  for (const Call& call : calls()) {
    for (Fault fault : faults) {
      for (int countdown = 0; countdown < 4; ++countdown) {
        runWithFault(call, [=] {
          elf_double::control().saveFault = fault;
          elf_double::control().saveCountdown = countdown;
        });
        runWithFault(call, [=] {
          elf_double::control().loadFault = fault;
          elf_double::control().loadCountdown = countdown;
        });
      }
      runWithFault(call, [=] { elf_double::control().hasSectionFault = fault; });
    }
  }
  // The calls that reach save, load and hasSection fail at their first one.
  auto firstFails = [](const char* name, const std::function<void()>& arm) {
    for (const Call& call : calls()) {
      if (std::string(call.name) == name) return runWithFault(call, arm);
    }
    return false;
  };
  for (Fault fault : faults) {
    EXPECT_TRUE(firstFails("Add", [=] { elf_double::control().saveFault = fault; }));
    EXPECT_TRUE(firstFails("Add", [=] { elf_double::control().loadFault = fault; }));
    EXPECT_TRUE(firstFails("Write", [=] { elf_double::control().saveFault = fault; }));
    EXPECT_TRUE(firstFails("Read", [=] { elf_double::control().loadFault = fault; }));
    if (fault != Fault::kFail) {
      EXPECT_TRUE(firstFails("SetSectionAddr", [=] { elf_double::control().hasSectionFault = fault; }));
    }
  }
}

}  // namespace
