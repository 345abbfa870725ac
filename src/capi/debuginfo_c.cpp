// The C interface. Every call converts its plain arguments into the list's
// types, runs one list operation or file procedure, and converts the answer
// back. Calls that can throw run their whole body inside guarded(), the one
// place where exceptions are stopped; the others are plain noexcept code.
//
// Handles: a keloDbgList is a heap DebugInfoList and a keloDbgElf a
// kelo_elf::ELF (capi/handles.h converts them); a keloDbgIterator is the
// keloDbgIteratorRec defined here.
#include "kelo/debuginfo.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "absl/types/optional.h"
#include "capi/handles.h"
#include "elf_internal/guard.h"
#include "file/DebugInfoFile.h"
#include "file/format.h"
#include "kelo/DebugInfoList.h"
#include "kelo/elf.hpp"
#include "kelo_version.h"

using kelo_debuginfo::DebugInfoList;
using kelo_debuginfo::DebugInfoNewID;
using kelo_elf::DebugInfoID;

// Two positions in a list's map, taken when the iterator is made; valid only
// while the list's set of entries does not change.
struct keloDbgIteratorRec {
  DebugInfoList::Map::iterator current;
  DebugInfoList::Map::iterator end;
};

namespace {

using kelo_capi::guarded;
using kelo_handles::toHandle;
using kelo_handles::toID;
using kelo_handles::toImage;
using kelo_handles::toList;
using kelo_handles::toRecord;

}  // namespace

extern "C" {

// ---- Lists, entries and version ----

keloDbgList keloDbgAlloc(void) {
  return guarded<keloDbgList>(nullptr, [] { return toHandle(new DebugInfoList()); });
}

void keloDbgFree(keloDbgList list) noexcept { delete toList(list); }

void keloDbgClear(keloDbgList list) {
  guarded([list] {
    if (list != nullptr) toList(list)->clear();
  });
}

keloDbgElf keloDbgAdd(keloDbgList list, keloDbgElf image, uint16_t lo, uint16_t hi) {
  return guarded<keloDbgElf>(nullptr, [&]() -> keloDbgElf {
    if (list == nullptr || image == nullptr) return nullptr;
    // The list files a copy, made through the saved form: the caller's image
    // is only read, and the copy takes over the saved block. `bytes` frees
    // its block if the copy does not take it, and `copy` (moved from, or
    // left over when the identifier is already filed) is destroyed on every
    // path.
    absl::optional<kelo_elf::ELFBytes> bytes = toImage(image)->save();
    if (!bytes) return nullptr;
    absl::optional<kelo_elf::ELF> copy = kelo_elf::ELF::adopt(std::move(*bytes));
    if (!copy) return nullptr;
    return toHandle(toList(list)->add(DebugInfoID(1, lo, hi), std::move(*copy)));
  });
}

keloDbgElf keloDbgAddForCU(keloDbgList list, keloDbgElf image, uint16_t lo, uint16_t hi) {
  return keloDbgAdd(list, image, lo, hi);
}

bool keloDbgMerge(keloDbgList dst, keloDbgList src) {
  return guarded(false, [&] { return dst != nullptr && src != nullptr && toList(dst)->merge(*toList(src)); });
}

keloDbgElf keloDbgFind(keloDbgList list, keloDbgID id) {
  return guarded<keloDbgElf>(nullptr, [&]() -> keloDbgElf {
    absl::optional<DebugInfoID> key = toID(id);
    if (list == nullptr || !key) return nullptr;
    return toHandle(toList(list)->find(*key));
  });
}

void keloDbgVersion(uint32_t* major, uint32_t* minor, uint32_t* patch, const char** build) noexcept {
  static constexpr char kBuild[] = KELO_VERSION_BUILD;
  if (major != nullptr) *major = KELO_VERSION_MAJOR;
  if (minor != nullptr) *minor = KELO_VERSION_MINOR;
  if (patch != nullptr) *patch = KELO_VERSION_PATCH;
  if (build != nullptr) *build = kBuild;
}

// ---- Iteration and section addresses ----

keloDbgIterator keloDbgIter(keloDbgList list) {
  return guarded<keloDbgIterator>(nullptr, [list]() -> keloDbgIterator {
    if (list == nullptr || toList(list)->entries.empty()) return nullptr;
    DebugInfoList::Map& entries = toList(list)->entries;
    return new keloDbgIteratorRec{entries.begin(), entries.end()};
  });
}

bool keloDbgIterNext(keloDbgIterator it) noexcept {
  if (it == nullptr || it->current == it->end) return false;
  ++it->current;
  return it->current != it->end;
}

keloDbgID keloDbgIterID(keloDbgIterator it) noexcept {
  if (it == nullptr || it->current == it->end) return keloDbgID{0, 0};
  return toRecord(it->current->first);
}

keloDbgElf keloDbgIterELF(keloDbgIterator it) noexcept {
  if (it == nullptr || it->current == it->end) return nullptr;
  return toHandle(&it->current->second.elf);
}

void keloDbgIterFree(keloDbgIterator it) noexcept { delete it; }

uint32_t keloDbgGetSectionAddr(keloDbgList list, keloDbgID id, const char* name) {
  return guarded<uint32_t>(0, [&]() -> uint32_t {
    absl::optional<DebugInfoID> key = toID(id);
    if (list == nullptr || name == nullptr || !key) return 0;
    return toList(list)->getSectionAddr(*key, std::string(name));
  });
}

void keloDbgSetSectionAddr(keloDbgList list, keloDbgID id, const char* name, uint32_t addr) {
  guarded([&] {
    absl::optional<DebugInfoID> key = toID(id);
    if (list == nullptr || name == nullptr || !key) return;
    toList(list)->setSectionAddr(*key, std::string(name), addr);
  });
}

// ---- Files ----

bool keloDbgWrite(keloDbgList list, const char* path) {
  return guarded(false, [&] {
    return list != nullptr && path != nullptr && kelo_debuginfo::file::writeList(*toList(list), path);
  });
}

keloDbgList keloDbgRead(const char* path) {
  return guarded<keloDbgList>(nullptr, [path]() -> keloDbgList {
    if (path == nullptr) return nullptr;
    absl::optional<DebugInfoList> read = kelo_debuginfo::file::readList(path);
    if (!read) return nullptr;
    return toHandle(new DebugInfoList(std::move(*read)));
  });
}

bool keloDbgFileVersion(const char* path, uint32_t* major, uint32_t* minor, uint32_t* patch) {
  return guarded(false, [&] {
    if (path == nullptr) return false;
    absl::optional<kelo_debuginfo::file::FileVersion> version = kelo_debuginfo::file::readVersion(path);
    if (!version) return false;
    if (major != nullptr) *major = version->major;
    if (minor != nullptr) *minor = version->minor;
    if (patch != nullptr) *patch = version->patch;
    return true;
  });
}

// ---- Renumbering ----

bool keloDbgUpdate(keloDbgList list, const keloDbgNewID* records, uint32_t count) {
  return guarded(false, [&] {
    if (list == nullptr || (records == nullptr && count > 0)) return false;
    // Every kind is checked before anything is allocated or the list touched.
    for (uint32_t i = 0; i < count; ++i) {
      if (!toID(records[i].oldID) || !toID(records[i].newID)) return false;
    }
    std::vector<DebugInfoNewID> pairs;
    pairs.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
      pairs.push_back(DebugInfoNewID{*toID(records[i].oldID), *toID(records[i].newID)});
    }
    return toList(list)->update(pairs);
  });
}

}  // extern "C"
