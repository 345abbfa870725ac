// The C++ class: store an ELF object, record an address, renumber, merge,
// and walk the entries.
//
// Usage: cpp_example OBJECT
#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

#include "kelo/DebugInfoList.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s OBJECT\n", argv[0]);
    return 2;
  }
  std::ifstream in(argv[1], std::ios::binary);
  std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)), {});
  absl::optional<kelo_elf::ELF> image = kelo_elf::ELF::load(bytes);  // empty if not ELF
  if (!image) {
    std::fprintf(stderr, "%s: not an ELF file\n", argv[1]);
    return 1;
  }

  kelo_debuginfo::DebugInfoList list;
  const kelo_elf::DebugInfoID id(/*kind=*/1, /*lo=*/0x1234, /*hi=*/0x0001);
  list.add(id, std::move(*image));               // stamps id into the stored image's debugInfoID
  list.setSectionAddr(id, ".text", 0x80001000);  // the image has .text; other names are ignored

  // Renumbering is all or nothing; afterwards pointers into the list are stale.
  const kelo_elf::DebugInfoID renumbered(0, 0x40, 0);
  const kelo_debuginfo::DebugInfoNewID moves[] = {{id, renumbered}};
  if (!list.update(moves)) return 1;

  // Merging moves every entry of `list` into `other`, or none on a shared
  // identifier (both lists are then unchanged).
  kelo_debuginfo::DebugInfoList other;
  if (!other.merge(list)) return 1;

  for (const auto& entry : other.entries) {  // sorted by identifier
    std::printf("entry %u:0x%08x .text=0x%08x\n", entry.first.kind, entry.first.number(),
                other.getSectionAddr(entry.first, ".text"));  // 0 when absent
  }
  return other.find(renumbered) != nullptr && list.entries.empty() ? 0 : 1;
}
