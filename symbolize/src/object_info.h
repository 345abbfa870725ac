// The debug information of one stored object, relocated to the addresses
// recorded for its sections, with the indexes that answer for an address.
#ifndef KELO_SYMBOLIZE_OBJECT_INFO_H_
#define KELO_SYMBOLIZE_OBJECT_INFO_H_

#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "elf_reader.h"
#include "kelo/elf.hpp"
#include "kelo/symbolize.hpp"

namespace kelo_symbolize {
namespace internal {

// A recorded load address for one section index.
struct SectionPlace {
  size_t section = 0;
  uint64_t address = 0;
};

class ObjectInfo {
 public:
  // Reads `image` (a private copy of its bytes is kept) with its sections
  // placed at `places`; `low`/`high` span every placed allocated section.
  // Never fails: an image without usable DWARF still answers from its
  // symbol table, and one that cannot be read answers nothing.
  ObjectInfo(const kelo_elf::ELF& image, std::vector<SectionPlace> places, uint64_t low, uint64_t high);
  ~ObjectInfo();
  ObjectInfo(const ObjectInfo&) = delete;
  ObjectInfo& operator=(const ObjectInfo&) = delete;

  // Fills loc.frames and loc.variable for `address`, which lies at `offset`
  // in section `section` of the image.
  void describe(uint64_t address, size_t section, uint64_t offset, Location& loc);

 private:
  struct Unit;
  struct Node;
  struct Row;
  struct Variable;

  static int findElf(Dwfl_Module* mod, void** userdata, const char* name, Dwarf_Addr base, char** fileName, Elf** elfp);
  static int sectionAddress(Dwfl_Module* mod, void** userdata, const char* name, Dwarf_Addr base, const char* section,
                            GElf_Word shndx, const GElf_Shdr* shdr, Dwarf_Addr* addr);

  void openDwarf(uint64_t low, uint64_t high);
  void listUnits();
  void indexUnit(Unit& unit);
  void indexAllUnits();
  bool describeFromUnit(Unit& unit, uint64_t at, size_t section, uint64_t offset, Location& loc);
  bool describeVariable(uint64_t at, size_t section, uint64_t offset, Location& loc);
  void describeSymbol(size_t section, uint64_t offset, Location& loc);
  const CodeSymbol* symbolAt(size_t section, uint64_t offset) const;
  const std::string& path(Unit& unit, const char* name);
  Node& node(Unit& unit, int32_t index);
  void setFunction(Frame& frame, const char* name);

  kelo_elf::ELFBytes bytes_;  // outlives everything that points into it
  unsigned type_ = 0;         // e_type
  std::vector<SectionHeader> sections_;
  std::vector<std::vector<CodeSymbol>> symbols_;
  std::vector<SectionPlace> places_;  // sorted by section index
  Dwfl* dwfl_ = nullptr;              // relocatable objects
  ElfPtr elf_;                        // linked files: the descriptor ownDwarf_ reads
  Dwarf* ownDwarf_ = nullptr;         // linked files, read as they are
  Dwarf* dwarf_ = nullptr;            // whichever of the two
  Dwarf_Addr bias_ = 0;               // run-time address = DWARF address + bias_ (relocatable objects)
  std::vector<Unit> units_;
  // Address pieces of the units, sorted by start, with the running maximum
  // of their ends, so that a lookup can stop scanning backwards early.
  struct UnitPiece {
    uint64_t start, end, maxEnd;
    size_t unit;
  };
  std::vector<UnitPiece> unitPieces_;
  bool allIndexed_ = false;
  std::vector<Variable> variables_;                         // every unit's, sorted by address once allIndexed_
  std::unordered_map<const char*, std::string> demangled_;  // by the name's (stable) pointer
};

}  // namespace internal
}  // namespace kelo_symbolize

#endif  // KELO_SYMBOLIZE_OBJECT_INFO_H_
