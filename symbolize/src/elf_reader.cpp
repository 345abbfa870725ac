#include "elf_reader.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "search.h"

namespace kelo_symbolize {
namespace internal {

kelo_elf::ELFBytes copyOf(const kelo_elf::ELF& image) {
  // libelf may convert tables in place, and libdwfl applies relocations in
  // place: both get a private copy, never the stored bytes.
  const absl::Span<unsigned char const> stored = image.bytes();
  if (stored.empty()) return kelo_elf::ELFBytes();
  auto* data = static_cast<unsigned char*>(std::malloc(stored.size() + 1));
  if (data == nullptr) throw std::bad_alloc();
  std::memcpy(data, stored.data(), stored.size());
  data[stored.size()] = 0;
  return kelo_elf::ELFBytes(data, static_cast<uint32_t>(stored.size()));
}

ElfPtr openMemory(kelo_elf::ELFBytes& bytes) noexcept {
  if (bytes.size == 0) return nullptr;
  ElfPtr elf(elf_memory(reinterpret_cast<char*>(bytes.data), bytes.size));
  if (elf && elf_kind(elf.get()) != ELF_K_ELF) elf.reset();
  return elf;
}

Symbols readSymbols(Elf* elf, const std::vector<kelo_elf::SectionHeader>& sections) {
  Symbols out;
  out.code.resize(sections.size());
  out.data.resize(sections.size());
  std::vector<std::vector<CodeSymbol>>& bySection = out.code;
  Elf_Scn* symtab = nullptr;
  for (size_t i = 1; i < sections.size(); ++i) {
    if (sections[i].type == SHT_SYMTAB) symtab = elf_getscn(elf, i);
  }
  GElf_Shdr shdr;
  if (symtab == nullptr || gelf_getshdr(symtab, &shdr) == nullptr || shdr.sh_entsize == 0) return out;
  Elf_Data* data = elf_getdata(symtab, nullptr);
  if (data == nullptr) return out;
  // Extended section indexes, when the file has more sections than fit.
  Elf_Data* xndx = nullptr;
  for (size_t i = 1; i < sections.size(); ++i) {
    Elf_Scn* scn = elf_getscn(elf, i);
    GElf_Shdr x;
    if (sections[i].type == SHT_SYMTAB_SHNDX && scn != nullptr && gelf_getshdr(scn, &x) != nullptr &&
        x.sh_link == elf_ndxscn(symtab)) {
      xndx = elf_getdata(scn, nullptr);
    }
  }

  const size_t count = data->d_size / shdr.sh_entsize;
  const char* file = nullptr;
  for (size_t i = 1; i < count; ++i) {
    GElf_Sym sym;
    Elf32_Word shndxExt = 0;
    if (gelf_getsymshndx(data, xndx, static_cast<int>(i), &sym, &shndxExt) == nullptr) continue;
    const char* name = elf_strptr(elf, shdr.sh_link, sym.st_name);
    const unsigned type = GELF_ST_TYPE(sym.st_info);
    if (type == STT_FILE) {
      file = name;
      continue;
    }
    if (type == STT_SECTION || type == STT_COMMON || type == STT_TLS) continue;
    const size_t shndx = sym.st_shndx == SHN_XINDEX ? shndxExt : sym.st_shndx;
    if (shndx == SHN_UNDEF || shndx >= sections.size() ||
        (sym.st_shndx >= SHN_LORESERVE && sym.st_shndx != SHN_XINDEX)) {
      continue;
    }
    if (name == nullptr || std::strncmp(name, ".L", 2) == 0) continue;
    const bool local = GELF_ST_BIND(sym.st_info) == STB_LOCAL;
    if (sym.st_size == 0 && local && type == STT_NOTYPE && GELF_ST_VISIBILITY(sym.st_other) == STV_HIDDEN) continue;

    CodeSymbol s;
    // Relocatable objects hold section-relative values (their sections are
    // at 0), linked files addresses. A value below its section's start
    // wraps around and never names anything, as in binutils.
    s.offset = sym.st_value - sections[shndx].addr;
    s.size = sym.st_size != 0 ? sym.st_size : 1;
    s.sized = sym.st_size != 0;
    s.name = name;
    s.file = local ? file : nullptr;
    s.order = static_cast<uint32_t>(i);
    s.function = type == STT_FUNC || type == STT_GNU_IFUNC;
    s.untyped = type == STT_NOTYPE;
    (type == STT_OBJECT ? out.data : bySection)[shndx].push_back(s);
  }
  for (std::vector<CodeSymbol>& list : out.data) {
    std::sort(list.begin(), list.end(), [](const CodeSymbol& a, const CodeSymbol& b) {
      return a.offset != b.offset ? a.offset < b.offset : a.order < b.order;
    });
  }
  for (std::vector<CodeSymbol>& list : bySection) {
    std::sort(list.begin(), list.end(), [](const CodeSymbol& a, const CodeSymbol& b) {
      return a.offset != b.offset ? a.offset < b.offset : a.order < b.order;
    });
  }
  return out;
}

namespace {

// Whether `candidate`, at the same offset as `best`, replaces it.
bool betterAtSameOffset(const CodeSymbol& best, const CodeSymbol& candidate, uint64_t offset) {
  const bool bestCovers = best.offset + best.size > offset;
  if (!bestCovers) return candidate.size > best.size;
  if (candidate.offset + candidate.size <= offset) return false;
  if (best.function != candidate.function) return candidate.function;
  if (best.untyped != candidate.untyped) return best.untyped;
  return candidate.size < best.size;
}

}  // namespace

const CodeSymbol* bestSymbol(const std::vector<CodeSymbol>& symbols, uint64_t offset) noexcept {
  auto after = symbols.begin() +
               static_cast<ptrdiff_t>(countNotAfter(symbols, offset, [](const CodeSymbol& s) { return s.offset; }));
  if (after == symbols.begin()) return nullptr;
  const uint64_t at = (after - 1)->offset;
  // Most offsets have one symbol; the first of several is searched for.
  auto first = after - 1;
  if (first != symbols.begin() && (first - 1)->offset == at) {
    first =
        std::lower_bound(symbols.begin(), first, at, [](const CodeSymbol& s, uint64_t off) { return s.offset < off; });
  }
  const CodeSymbol* best = &*first;
  for (auto it = first + 1; it != after; ++it) {
    if (betterAtSameOffset(*best, *it, offset)) best = &*it;
  }
  return best;
}

const CodeSymbol* coveringData(const std::vector<CodeSymbol>& symbols, uint64_t offset) noexcept {
  auto after = std::upper_bound(symbols.begin(), symbols.end(), offset,
                                [](uint64_t off, const CodeSymbol& s) { return off < s.offset; });
  if (after == symbols.begin()) return nullptr;
  const uint64_t at = (after - 1)->offset;
  const CodeSymbol* best = nullptr;
  for (auto it = after; it != symbols.begin() && (it - 1)->offset == at; --it) {
    const CodeSymbol& s = *(it - 1);
    if (best == nullptr || s.size > best->size) best = &s;
  }
  return best->covers(offset) ? best : nullptr;
}

}  // namespace internal
}  // namespace kelo_symbolize
