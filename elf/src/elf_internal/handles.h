// The one place where the image library's C handle is looked through as the
// C++ object behind it: a keloElf* is a kelo_elf::ELF. The libraries above
// convert their own handles in their own header, and this one's through it.
#ifndef KELO_ELF_INTERNAL_HANDLES_H_
#define KELO_ELF_INTERNAL_HANDLES_H_

#include "kelo/elf.h"
#include "kelo/elf.hpp"

namespace kelo_elf_handles {

inline kelo_elf::ELF* toImage(keloElf* image) noexcept { return reinterpret_cast<kelo_elf::ELF*>(image); }
inline const kelo_elf::ELF* toImage(const keloElf* image) noexcept {
  return reinterpret_cast<const kelo_elf::ELF*>(image);
}
inline keloElf* toHandle(kelo_elf::ELF* image) noexcept { return reinterpret_cast<keloElf*>(image); }

}  // namespace kelo_elf_handles

#endif  // KELO_ELF_INTERNAL_HANDLES_H_
