// A C++ user of the installed package: the class DebugInfoList and the
// image library, built against the installed headers and libraries.
//
// Usage: cxx_consumer OBJECT.o
#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

#include "kelo/DebugInfoList.h"
#include "kelo/elf.hpp"

namespace {

int check(bool ok, const char* what) {
  if (!ok) std::fprintf(stderr, "failed: %s\n", what);
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s OBJECT.o\n", argv[0]);
    return 2;
  }
  std::ifstream in(argv[1], std::ios::binary);
  const std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  absl::optional<kelo_elf::ELF> image = kelo_elf::ELF::load(bytes);
  if (!image) return check(false, "load the object");

  using kelo_debuginfo::DebugInfoID;
  const DebugInfoID id(1, 0x1234, 0x0001), renumbered(0, 0x40, 0);
  kelo_debuginfo::DebugInfoList list;
  kelo_elf::ELF* stored = list.add(id, std::move(*image));
  int failures = check(stored == list.find(id), "find returns the added image");
  failures += check(stored->size() == bytes.size(), "the image keeps every byte");
  failures += check(stored->hasSection(".text"), "the object has .text");

  list.setSectionAddr(id, ".text", 0x80001000u);
  list.setSectionAddr(id, ".local", 0x10u);
  const kelo_debuginfo::DebugInfoNewID renumbering[] = {{id, renumbered}};
  failures += check(list.update(renumbering), "renumbering");
  failures += check(list.find(id) == nullptr && list.find(renumbered) != nullptr, "the entry moved");
  failures += check(list.getSectionAddr(renumbered, ".text") == 0x80001000u, "addresses follow the entry");

  kelo_debuginfo::DebugInfoList other;
  failures += check(other.merge(list) && list.entries.empty() && other.entries.size() == 1, "merge");

  std::printf("%zu sections, %s\n", other.find(renumbered)->sectionNames().size(), failures == 0 ? "ok" : "FAILED");
  return failures == 0 ? 0 : 1;
}
