// The relocations of an x86 relocatable object's DWARF, applied by the
// symbolizer itself.
#ifndef KELO_SYMBOLIZE_RELOCATE_H_
#define KELO_SYMBOLIZE_RELOCATE_H_

#include <libelf.h>

#include <cstdint>
#include <vector>

namespace kelo_symbolize {
namespace internal {

// Applies the relocations of an x86-64 or i386 relocatable object to its
// sections that are not allocated (the DWARF), in place, with each
// allocated section i at address `base[i]` (`noBase` where it has none),
// giving the bytes libdwfl gives when it relocates such a module with
// those section addresses: relocation types it does not apply, and
// symbols it cannot resolve, are left as they are.
//
// False where the object holds something else (another machine, an
// unusual symbol, a reference past a section, a GNU-compressed section):
// some bytes may have changed by then, and the caller starts again from a
// fresh copy and lets libdwfl relocate it.
bool relocateDebugSections(Elf* elf, const std::vector<uint64_t>& base, uint64_t noBase);

}  // namespace internal
}  // namespace kelo_symbolize

#endif  // KELO_SYMBOLIZE_RELOCATE_H_
