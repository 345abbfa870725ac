// The one place where the C handles are looked through as the C++ objects
// behind them:
//   keloDbgList  a heap kelo_debuginfo::DebugInfoList
//   keloDbgElf   a kelo_elf::ELF (the same object as a keloElf*)
//   keloElf*     a kelo_elf::ELF
// The C layers of both libraries, the tool, the tests and the benchmark
// convert through these functions and nowhere else.
#ifndef KELO_CAPI_HANDLES_H_
#define KELO_CAPI_HANDLES_H_

#include "kelo/DebugInfoList.h"
#include "kelo/debuginfo.h"
#include "kelo/elf.h"
#include "kelo/elf.hpp"

namespace kelo_handles {

inline kelo_elf::ELF* toImage(keloElf* image) noexcept { return reinterpret_cast<kelo_elf::ELF*>(image); }
inline const kelo_elf::ELF* toImage(const keloElf* image) noexcept {
  return reinterpret_cast<const kelo_elf::ELF*>(image);
}
inline keloElf* toHandle(kelo_elf::ELF* image) noexcept { return reinterpret_cast<keloElf*>(image); }

inline kelo_debuginfo::DebugInfoList* toList(keloDbgList list) noexcept {
  return reinterpret_cast<kelo_debuginfo::DebugInfoList*>(list);
}
inline keloDbgList toHandle(kelo_debuginfo::DebugInfoList* list) noexcept {
  return reinterpret_cast<keloDbgList>(list);
}

}  // namespace kelo_handles

#endif  // KELO_CAPI_HANDLES_H_
