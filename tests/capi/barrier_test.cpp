// The exception barrier: every C call that reaches the image library, with
// the image double's save, load or section test failing or throwing (any
// exception type), answers its failure result, leaks no image and leaves the
// list as it was. Allocation failures are swept by the reliability tests.
#include <gtest/gtest.h>

#include <functional>

#include "capi/capi_support.h"

namespace {

using namespace capi_test;
using elf_double::Fault;

// `list` with three entries (section addresses recorded), a file holding a
// copy of it and a caller's image.
struct World {
  TempDir dir;
  std::string file = dir.file("list.kdi");
  ListPtr list{keloDbgAlloc()};
  kelo_elf::ELF source = elf_double::image({".text"});
  World() {
    for (uint16_t n = 1; n <= 3; ++n) {
      addImage(list.get(), n, 0);
      keloDbgSetSectionAddr(list.get(), keloDbgID{1, n}, ".text", n);
    }
    keloDbgWrite(list.get(), file.c_str());
  }
};

// The guarded calls that reach the image library, and whether each reported
// success. A call without a result is judged by `check`, made once the faults
// are disarmed.
struct Call {
  const char* name;
  std::function<bool(World&)> run;
  std::function<bool(World&)> check = nullptr;
  bool reachesSave = false, reachesLoad = false, reachesHasSection = false;
};

const std::vector<Call>& calls() {
  static const std::vector<Call> all = {
      {"Add", [](World& w) { return keloDbgAdd(w.list.get(), handle(w.source), 7, 0) != nullptr; }, nullptr, true,
       true},
      {"SetSectionAddr",
       [](World& w) {
         keloDbgSetSectionAddr(w.list.get(), keloDbgID{1, 1}, ".text", 0x99);
         return true;
       },
       [](World& w) {
         return keloDbgGetSectionAddr(w.list.get(), keloDbgID{1, 1}, ".text") == 0x99;
       },
       false, false, true},
      {"Read",
       [](World& w) {
         ListPtr l(keloDbgRead(w.file.c_str()));
         return l != nullptr && listOf(l.get()).entries.size() == 3;
       },
       nullptr, false, true},
  };
  return all;
}

enum class Where { kNowhere, kSave, kLoad, kHasSection };

TEST(Barrier, ImageFailuresAndExceptionsOfAnyTypeGiveTheFailureResult) {
  const Fault faults[] = {Fault::kFail, Fault::kThrowBadAlloc, Fault::kThrowRuntime, Fault::kThrowInt};
  for (const Call& call : calls()) {
    for (Where where : {Where::kNowhere, Where::kSave, Where::kLoad, Where::kHasSection}) {
      for (Fault fault : faults) {
        SCOPED_TRACE(std::string(call.name) + " fault " + std::to_string(static_cast<int>(fault)) + " at " +
                     std::to_string(static_cast<int>(where)));
        elf_double::reset();
        {
          World w;
          const Snapshot list = snapshot(w.list.get());
          const long live = elf_double::control().liveObjects;
          elf_double::Control& c = elf_double::control();
          (where == Where::kSave   ? c.saveFault
           : where == Where::kLoad ? c.loadFault
                                   : c.hasSectionFault) = where == Where::kNowhere ? Fault::kNone : fault;
          bool ok = call.run(w);
          c.saveFault = c.loadFault = c.hasSectionFault = Fault::kNone;
          if (call.check) ok = call.check(w);
          // A section test that merely answers "no" is not a failure.
          const bool mustFail = (where == Where::kSave && call.reachesSave) ||
                                (where == Where::kLoad && call.reachesLoad) ||
                                (where == Where::kHasSection && call.reachesHasSection && fault != Fault::kFail);
          EXPECT_TRUE(ok || where != Where::kNowhere);
          EXPECT_FALSE(ok && mustFail);
          if (!ok) {
            EXPECT_EQ(snapshot(w.list.get()), list);
            EXPECT_EQ(elf_double::control().liveObjects, live);
          }
        }
        EXPECT_EQ(elf_double::control().liveObjects, 0);
        EXPECT_EQ(elf_double::control().liveImplementations, 0);
      }
    }
  }
}

}  // namespace
