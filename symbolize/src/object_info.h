// The debug information of one stored image, with the indexes that answer
// for an address in one of its sections.
#ifndef KELO_SYMBOLIZE_OBJECT_INFO_H_
#define KELO_SYMBOLIZE_OBJECT_INFO_H_

#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "elf_reader.h"
#include "kelo/elf.hpp"
#include "kelo/symbolize.hpp"

namespace kelo_symbolize {
namespace internal {

// An object's answers come from indexes of its own, built a unit at a time
// on the unit's first hit: the unit's line rows, its function DIEs with
// their names and call sites, and its variables at fixed addresses, with
// every string copied. Building them needs a session with libdw (a private,
// relocated copy of the image and libdw's state), which is opened when a
// unit not yet indexed is hit, may be closed at any time to save memory,
// and is closed by itself once every unit is indexed. The indexes stay.
//
// Where the sections were placed does not matter here: a relocatable
// object's allocated sections are laid out apart from each other in an
// address space of our own, and its DWARF is relocated to that layout, so
// that every address of the DWARF belongs to exactly one section, placed
// or not; a linked file's sections are read at their own addresses.
class ObjectInfo {
 public:
  // Reads the symbols and the list of units of `image`, which must outlive
  // the ObjectInfo. Never fails: an image without usable DWARF still
  // answers from its symbol table, and one that cannot be read answers
  // nothing; problem() says why DWARF was refused, if it was.
  ObjectInfo(const kelo_elf::ELF& image, bool demangle);
  ~ObjectInfo();
  ObjectInfo(const ObjectInfo&) = delete;
  ObjectInfo& operator=(const ObjectInfo&) = delete;

  // Sets loc.frames and loc.variable for the address at `offset` in
  // section `section` of the image, which a program has at run-time
  // `address`, reusing the frames `loc` holds.
  void describe(size_t section, uint64_t offset, uint64_t address, Location& loc);

  // Why the DWARF was not read (empty when it was, or there is none).
  const std::string& problem() const noexcept { return problem_; }

  // About how many bytes this object holds now, and how many of them the
  // session holds.
  size_t bytes() const noexcept { return indexBytes_ + sessionBytes(); }
  size_t sessionBytes() const noexcept;
  bool hasSession() const noexcept { return session_ != nullptr; }
  void closeSession() noexcept;

 private:
  struct Unit;
  struct Node;
  struct Row;
  struct Variable;
  struct Session;

  void layOut();
  bool checkCompressed(Elf* elf);
  Session* session();
  // Opens a session on `bytes`, the image's bytes unchanged, or on a copy
  // of its own if they are empty.
  std::unique_ptr<Session> openSession(kelo_elf::ELFBytes&& bytes);
  void listUnits(Dwarf* dwarf);
  bool indexUnit(Unit& unit);
  bool indexAllUnits();
  void unitIndexed(Unit& unit);
  bool describeFromUnit(Unit& unit, uint64_t at, uint64_t low, size_t section, uint64_t offset, Location& loc);
  bool describeVariable(uint64_t at, size_t section, uint64_t offset, Location& loc);
  void describeSymbol(size_t section, uint64_t offset, Location& loc);
  void describeAny(size_t section, uint64_t offset, Location& loc);
  Frame& addFrame(Location& loc);
  const CodeSymbol* symbolAt(size_t section, uint64_t offset) const;
  const std::string* intern(const char* text);
  void setFunction(Frame& frame, const std::string* name);
  void startAtSymbol(Frame& frame, const CodeSymbol& sym, uint64_t offset) const;

  const kelo_elf::ELF& image_;
  unsigned type_ = 0;  // e_type
  bool demangle_ = true;
  std::vector<kelo_elf::SectionHeader> sections_;
  // Each allocated section's address in the DWARF's address space (before
  // libdwfl's bias); kNoBase for the others.
  std::vector<uint64_t> base_;
  uint64_t low_ = 0, high_ = 0;  // the span of that layout
  Dwarf_Addr bias_ = 0;          // layout address = DWARF address + bias_
  bool dwarfUsable_ = false;
  size_t inflated_ = 0;  // bytes of compressed sections once inflated
  std::string problem_;
  std::unique_ptr<Session> session_;

  // Every string the indexes keep (names, paths), once; pointers to them
  // are stable.
  std::unordered_set<std::string> strings_;
  std::vector<std::vector<CodeSymbol>> symbols_;      // names point into strings_
  std::vector<std::vector<CodeSymbol>> dataSymbols_;  // the same
  std::vector<Unit> units_;
  // Address pieces of the units, sorted by start, with the running maximum
  // of their ends, so that a lookup can stop scanning backwards early.
  struct UnitPiece {
    uint64_t start, end, maxEnd;
    size_t unit;
  };
  std::vector<UnitPiece> unitPieces_;
  size_t unitsIndexed_ = 0;
  std::vector<Variable> variables_;  // every unit's, sorted by address once all are indexed
  std::unordered_map<const std::string*, std::string> demangled_;
  size_t indexBytes_ = 0;           // what the indexes take, roughly
  size_t framesUsed_ = 0;           // of the Location being described
  uint64_t address_ = 0;            // the run-time address being described
  std::vector<size_t> candidates_;  // units holding the address being described
  static constexpr size_t kSpareFrames = 64;
  std::vector<Frame> spareFrames_;  // frames an answer gave back, strings and all
};

}  // namespace internal
}  // namespace kelo_symbolize

#endif  // KELO_SYMBOLIZE_OBJECT_INFO_H_
