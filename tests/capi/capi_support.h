// Helpers shared by the C interface tests, which run against the image
// library's test double and look through handles into the list.
#ifndef KELO_TESTS_CAPI_CAPI_SUPPORT_H_
#define KELO_TESTS_CAPI_CAPI_SUPPORT_H_

#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "capi/handles.h"
#include "double/elf_double.h"
#include "kelo/DebugInfoList.h"
#include "kelo/debuginfo.h"
#include "support/files.h"

namespace capi_test {

inline keloDbgElf handle(kelo_elf::ELF& image) { return kelo_handles::toHandle(&image); }
inline kelo_elf::ELF* image(keloDbgElf h) { return kelo_handles::toImage(h); }
inline kelo_debuginfo::DebugInfoList& listOf(keloDbgList l) { return *kelo_handles::toList(l); }

struct ListFree {
  void operator()(keloDbgListRec* l) const { keloDbgFree(l); }
};
using ListPtr = std::unique_ptr<keloDbgListRec, ListFree>;

// Adds a copy of a fresh double image with these sections under kind 1.
inline keloDbgElf addImage(keloDbgList list, uint16_t lo, uint16_t hi,
                           const std::vector<std::string>& sections = {".text", ".data"}) {
  kelo_elf::ELF source = elf_double::image(sections);
  return keloDbgAdd(list, handle(source), lo, hi);
}

// Everything observable about a list: per identifier the image's address,
// its sections, its debugInfoID and the recorded section addresses.
using Key = std::tuple<unsigned, unsigned, unsigned>;
struct EntryState {
  const kelo_elf::ELF* elf;
  std::vector<std::string> sections;
  absl::optional<kelo_elf::DebugInfoID> stamp;
  std::map<std::string, unsigned> addrs;
  bool operator==(const EntryState& o) const {
    return elf == o.elf && sections == o.sections && stamp == o.stamp && addrs == o.addrs;
  }
};
using Snapshot = std::map<Key, EntryState>;

inline Snapshot snapshot(keloDbgList list) {
  Snapshot s;
  for (auto& e : listOf(list).entries) {
    const kelo_elf::ELF& elf = e.second.elf;
    s[Key{e.first.kind, e.first.lo, e.first.hi}] = EntryState{
        &elf, elf.sectionNames(), elf.debugInfoID, {e.second.sectionAddrs.begin(), e.second.sectionAddrs.end()}};
  }
  return s;
}

using kelo_test::TempDir;

}  // namespace capi_test

#endif  // KELO_TESTS_CAPI_CAPI_SUPPORT_H_
