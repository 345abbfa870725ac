// The one place where the debug-info library's C handles are looked through
// as the C++ objects behind them, and where identifier records meet
// identifiers:
//   keloDbgList  a heap kelo_debuginfo::DebugInfoList
//   keloDbgElf   a kelo_elf::ELF (the same object as a keloElf*)
//   keloDbgID    kind and 32-bit number of a kelo_elf::DebugInfoID
// A keloElf* is converted by the image library's own header, which this one
// passes on. The C layers above the image library, the tests and the
// benchmark convert through these functions and nowhere else.
#ifndef KELO_CAPI_HANDLES_H_
#define KELO_CAPI_HANDLES_H_

#include "absl/types/optional.h"
#include "elf_internal/handles.h"
#include "file/format.h"
#include "kelo/DebugInfoList.h"
#include "kelo/debuginfo.h"
#include "kelo/elf.h"
#include "kelo/elf.hpp"

namespace kelo_handles {

using kelo_elf_handles::toHandle;
using kelo_elf_handles::toImage;

inline kelo_debuginfo::DebugInfoList* toList(keloDbgList list) noexcept {
  return reinterpret_cast<kelo_debuginfo::DebugInfoList*>(list);
}
inline keloDbgList toHandle(kelo_debuginfo::DebugInfoList* list) noexcept {
  return reinterpret_cast<keloDbgList>(list);
}

inline const kelo_debuginfo::DebugInfoList* toList(const keloDbgListRec* list) noexcept {
  return reinterpret_cast<const kelo_debuginfo::DebugInfoList*>(list);
}

// Only kinds 0 and 1 come in through the C interfaces; any other kind is no
// identifier.
inline absl::optional<kelo_elf::DebugInfoID> toID(keloDbgID id) noexcept {
  if (id.kind > kelo_debuginfo::format::kMaxCKind) return absl::nullopt;
  return kelo_elf::DebugInfoID(static_cast<uint8_t>(id.kind), static_cast<uint16_t>(id.id & 0xFFFFu),
                               static_cast<uint16_t>(id.id >> 16));
}

// Any kind a list holds goes out as it is: kinds other than 0 and 1 can come
// from files and from the class interface.
inline keloDbgID toRecord(const kelo_elf::DebugInfoID& id) noexcept { return keloDbgID{id.kind, id.number()}; }

}  // namespace kelo_handles

#endif  // KELO_CAPI_HANDLES_H_
