// What the symbolizer reads of an image with libelf: its symbol table, from
// a private copy of the image's bytes. Section headers come from the image
// library.
#ifndef KELO_SYMBOLIZE_ELF_READER_H_
#define KELO_SYMBOLIZE_ELF_READER_H_

#include <gelf.h>
#include <libelf.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kelo/elf.hpp"

namespace kelo_symbolize {
namespace internal {

struct ElfEnd {
  void operator()(Elf* elf) const noexcept { elf_end(elf); }
};
using ElfPtr = std::unique_ptr<Elf, ElfEnd>;

// A malloc'ed, writable copy of an image's bytes (libdwfl applies
// relocations to the DWARF sections in place, so the bytes must be ours),
// with one NUL byte after them that is not part of the image: a string
// that runs to the image's end stops there. Empty when the image is.
kelo_elf::ELFBytes copyOf(const kelo_elf::ELF& image);

// libelf over `bytes`, which must outlive the result. Null when libelf does
// not take the bytes for an ELF file.
ElfPtr openMemory(kelo_elf::ELFBytes& bytes) noexcept;

// A symbol that can name an address, as a linked program's symbol table
// would hold it: defined in a section, not a section, file, common or
// thread-local symbol, not an assembler-local ".L" label, and not a hidden
// local untyped marker of size 0.
struct CodeSymbol {
  uint64_t offset = 0;  // value relative to its section
  uint64_t size = 0;    // st_size, or 1 when that is 0
  const char* name = nullptr;
  const std::string* kept = nullptr;  // the name, once its owner keeps a copy
  const char* file = nullptr;         // for local symbols, the file symbol before it
  uint32_t order = 0;                 // position in the symbol table
  bool function = false;              // STT_FUNC or STT_GNU_IFUNC
  bool untyped = false;               // STT_NOTYPE
  bool sized = false;                 // st_size is not 0

  // Whether the symbol reaches `offset` (one without a size reaches
  // everything after it).
  bool covers(uint64_t at) const noexcept { return !sized || at - offset < size; }
};

// The symbols of each section, by section index, each list sorted by offset
// and then table order: those that can name code, and the data objects
// (STT_OBJECT). Names point into `elf`'s data.
struct Symbols {
  std::vector<std::vector<CodeSymbol>> code;
  std::vector<std::vector<CodeSymbol>> data;
};
Symbols readSymbols(Elf* elf, const std::vector<kelo_elf::SectionHeader>& sections);

// The symbol that binutils' lookup takes for `offset` in a section whose
// code symbols are `symbols`: the nearest at or before the offset; among
// several there, one that covers the offset, a function before an untyped
// one, then the smaller (or, when none covers it, the larger), then the
// first in the table. Null when none is at or before the offset.
const CodeSymbol* bestSymbol(const std::vector<CodeSymbol>& symbols, uint64_t offset) noexcept;

// The data object that covers `offset`, as LLVM's lookup takes it: the
// largest of those at the nearest offset at or before it, when it reaches
// the offset. Null otherwise.
const CodeSymbol* coveringData(const std::vector<CodeSymbol>& symbols, uint64_t offset) noexcept;

}  // namespace internal
}  // namespace kelo_symbolize

#endif  // KELO_SYMBOLIZE_ELF_READER_H_
