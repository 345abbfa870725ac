#include "relocate.h"

#include <elf.h>
#include <gelf.h>

#include <cstring>

namespace kelo_symbolize {
namespace internal {
namespace {

// The bytes a relocation type writes, for the types libdwfl applies to
// debugging sections (absolute values of 1 to 8 bytes); 0 for the others,
// which it leaves alone.
unsigned relocationSize(unsigned machine, unsigned type) {
  if (machine == EM_X86_64) {
    switch (type) {
      case R_X86_64_64:
        return 8;
      case R_X86_64_32:
      case R_X86_64_32S:
        return 4;
      case R_X86_64_16:
        return 2;
      case R_X86_64_8:
        return 1;
      default:
        return 0;
    }
  }
  switch (type) {
    case R_386_32:
      return 4;
    case R_386_16:
      return 2;
    case R_386_8:
      return 1;
    default:
      return 0;
  }
}

struct SymbolTable {
  Elf_Data* symbols = nullptr;
  Elf_Data* extended = nullptr;  // SHT_SYMTAB_SHNDX, if any
};

SymbolTable symbolTable(Elf* elf, size_t index) {
  SymbolTable table;
  Elf_Scn* scn = elf_getscn(elf, index);
  GElf_Shdr shdr;
  if (scn == nullptr || gelf_getshdr(scn, &shdr) == nullptr || shdr.sh_type != SHT_SYMTAB) return table;
  table.symbols = elf_getdata(scn, nullptr);
  for (Elf_Scn* s = elf_nextscn(elf, nullptr); s != nullptr; s = elf_nextscn(elf, s)) {
    GElf_Shdr h;
    if (gelf_getshdr(s, &h) != nullptr && h.sh_type == SHT_SYMTAB_SHNDX && h.sh_link == index) {
      table.extended = elf_getdata(s, nullptr);
      break;
    }
  }
  return table;
}

// Where each section's symbols are, in the module's layout; kUnusual for a
// section libdwfl would place otherwise (one the file places itself).
constexpr uint64_t kUnusual = ~uint64_t{0};

std::vector<uint64_t> sectionAddresses(Elf* elf, const std::vector<uint64_t>& base, uint64_t noBase) {
  size_t count = 0;
  if (elf_getshdrnum(elf, &count) != 0) return {};
  std::vector<uint64_t> at(count, kUnusual);
  for (size_t i = 1; i < count; ++i) {
    GElf_Shdr shdr;
    Elf_Scn* scn = elf_getscn(elf, i);
    if (scn == nullptr || gelf_getshdr(scn, &shdr) == nullptr) continue;
    if ((shdr.sh_flags & SHF_ALLOC) == 0) {
      at[i] = shdr.sh_addr;
    } else if (shdr.sh_addr == 0 && i < base.size()) {
      at[i] = base[i] == noBase ? 0 : base[i];
    }
  }
  return at;
}

enum class Value { kKnown, kUndefined, kUnusual };

// The address symbol `index` stands for in the module's layout.
template <typename Sym>
Value symbolValue(const SymbolTable& table, size_t index, const std::vector<uint64_t>& sections, uint64_t* value) {
  // The null symbol stands for nothing; what libdwfl makes of it is left to
  // libdwfl.
  if (index == 0 || index >= table.symbols->d_size / sizeof(Sym)) return Value::kUnusual;
  const Sym& sym = static_cast<const Sym*>(table.symbols->d_buf)[index];
  size_t section = sym.st_shndx;
  if (section == SHN_XINDEX) {
    if (table.extended == nullptr || index >= table.extended->d_size / sizeof(Elf32_Word)) return Value::kUnusual;
    section = static_cast<const Elf32_Word*>(table.extended->d_buf)[index];
  } else if (section == SHN_UNDEF) {
    return Value::kUndefined;  // nothing else in the module set defines it
  } else if (section == SHN_ABS) {
    *value = sym.st_value;
    return Value::kKnown;
  } else if (section >= SHN_LORESERVE) {
    return Value::kUnusual;
  }
  if (section >= sections.size() || sections[section] == kUnusual) return Value::kUnusual;
  *value = sym.st_value + sections[section];
  return Value::kKnown;
}

template <typename T>
bool aligned(const void* p) {
  return reinterpret_cast<uintptr_t>(p) % alignof(T) == 0;
}

// Applies one section's relocations of type Rel (Elf64_Rela, Elf32_Rel...)
// to `data`.
template <typename Sym, typename Rel, bool kRela>
bool apply(unsigned machine, const Elf_Data& relocations, const SymbolTable& symbols,
           const std::vector<uint64_t>& sections, Elf_Data& data) {
  // libelf leaves a table where the file has it, aligned or not.
  if (!aligned<Rel>(relocations.d_buf) || !aligned<Sym>(symbols.symbols->d_buf) ||
      (symbols.extended != nullptr && !aligned<Elf32_Word>(symbols.extended->d_buf))) {
    return false;
  }
  auto* bytes = static_cast<unsigned char*>(data.d_buf);
  const Rel* rel = static_cast<const Rel*>(relocations.d_buf);
  for (const Rel* last = rel + relocations.d_size / sizeof(Rel); rel != last; ++rel) {
    const uint64_t info = rel->r_info;
    const auto type = static_cast<unsigned>(sizeof(Sym) == sizeof(Elf64_Sym) ? ELF64_R_TYPE(info) : ELF32_R_TYPE(info));
    const size_t symbol = sizeof(Sym) == sizeof(Elf64_Sym) ? ELF64_R_SYM(info) : ELF32_R_SYM(info);
    const unsigned size = relocationSize(machine, type);
    if (size == 0) continue;
    uint64_t value = 0;
    const Value known = symbolValue<Sym>(symbols, symbol, sections, &value);
    if (known == Value::kUndefined) continue;
    if (known == Value::kUnusual || rel->r_offset > data.d_size || data.d_size - rel->r_offset < size) return false;
    unsigned char* at = bytes + rel->r_offset;
    uint64_t addend = 0;
    if constexpr (kRela) {
      addend = static_cast<uint64_t>(rel->r_addend);
    } else {
      // REL keeps the addend in the bytes relocated.
      for (unsigned k = 0; k < size; ++k) addend |= static_cast<uint64_t>(at[k]) << (8 * k);
    }
    value += addend;
    for (unsigned k = 0; k < size; ++k) at[k] = static_cast<unsigned char>(value >> (8 * k));
  }
  return true;
}

}  // namespace

bool relocateDebugSections(Elf* elf, const std::vector<uint64_t>& base, uint64_t noBase) {
  GElf_Ehdr ehdr;
  if (gelf_getehdr(elf, &ehdr) == nullptr || ehdr.e_type != ET_REL || ehdr.e_ident[EI_DATA] != ELFDATA2LSB) {
    return false;
  }
  const int elfClass = gelf_getclass(elf);
  if (!(ehdr.e_machine == EM_X86_64 && elfClass == ELFCLASS64) &&
      !(ehdr.e_machine == EM_386 && elfClass == ELFCLASS32)) {
    return false;
  }
  size_t names = 0;
  if (elf_getshdrstrndx(elf, &names) != 0) return false;
  size_t tableIndex = 0;  // the symbol table read last (0: none yet)
  SymbolTable symbols;
  std::vector<uint64_t> sections;  // made at the first relocations

  for (Elf_Scn* scn = elf_nextscn(elf, nullptr); scn != nullptr; scn = elf_nextscn(elf, scn)) {
    GElf_Shdr shdr;
    if (gelf_getshdr(scn, &shdr) == nullptr) return false;
    if (shdr.sh_type != SHT_REL && shdr.sh_type != SHT_RELA) continue;
    Elf_Scn* target = elf_getscn(elf, shdr.sh_info);
    GElf_Shdr targetHeader;
    if (target == nullptr || gelf_getshdr(target, &targetHeader) == nullptr) return false;
    // Code and data keep their bytes; only what the DWARF reads changes.
    if ((targetHeader.sh_flags & SHF_ALLOC) || targetHeader.sh_type == SHT_NOBITS) continue;
    const char* name = elf_strptr(elf, names, targetHeader.sh_name);
    if (name == nullptr || std::strncmp(name, ".zdebug", 7) == 0) return false;
    if ((targetHeader.sh_flags & SHF_COMPRESSED) && elf_compress(target, 0, 0) < 0) return false;
    Elf_Data* data = elf_getdata(target, nullptr);
    Elf_Data* relocations = elf_getdata(scn, nullptr);
    if (shdr.sh_link != tableIndex || tableIndex == 0) {
      tableIndex = shdr.sh_link;
      symbols = symbolTable(elf, tableIndex);
    }
    if (data == nullptr || relocations == nullptr || symbols.symbols == nullptr) return false;
    if (data->d_buf == nullptr || data->d_size == 0) continue;

    if (sections.empty()) sections = sectionAddresses(elf, base, noBase);
    // libelf gives the tables in memory's layout: arrays of its structures.
    const bool rela = shdr.sh_type == SHT_RELA;
    bool applied = false;
    if (elfClass == ELFCLASS64) {
      applied = rela ? apply<Elf64_Sym, Elf64_Rela, true>(ehdr.e_machine, *relocations, symbols, sections, *data)
                     : apply<Elf64_Sym, Elf64_Rel, false>(ehdr.e_machine, *relocations, symbols, sections, *data);
    } else {
      applied = rela ? apply<Elf32_Sym, Elf32_Rela, true>(ehdr.e_machine, *relocations, symbols, sections, *data)
                     : apply<Elf32_Sym, Elf32_Rel, false>(ehdr.e_machine, *relocations, symbols, sections, *data);
    }
    if (!applied) return false;
  }
  return true;
}

}  // namespace internal
}  // namespace kelo_symbolize
