#include "support/elf_reference.h"

#include <gelf.h>
#include <libelf.h>

#include <cstring>
#include <memory>

namespace kelo_test {
namespace {

// What the file header says about the section header table, in host byte
// order.
struct Header {
  bool noSections;  // an executable or shared object without a section header table
  uint32_t shnum;
  uint32_t shstrndx;
};

bool inside(uint64_t offset, uint64_t length, uint64_t size) { return offset <= size && size - offset >= length; }

// The unsigned integer of `width` bytes at `p`, in the file's byte order.
uint64_t field(const unsigned char* p, unsigned width, bool big) {
  uint64_t v = 0;
  for (unsigned i = 0; i < width; ++i) v = (v << 8) | p[big ? i : width - 1 - i];
  return v;
}

// Parses and checks the file header: identification, version, and that the
// program and section header tables lie inside the bytes with entries of the
// standard size. Resolves the extended numbering kept in section 0.
bool readHeader(absl::Span<unsigned char const> bytes, Header& h) {
  if (bytes.size() < EI_NIDENT) return false;
  const unsigned char* id = bytes.data();
  if (id[EI_MAG0] != ELFMAG0 || id[EI_MAG1] != ELFMAG1 || id[EI_MAG2] != ELFMAG2 || id[EI_MAG3] != ELFMAG3)
    return false;
  if (id[EI_CLASS] != ELFCLASS32 && id[EI_CLASS] != ELFCLASS64) return false;
  if (id[EI_DATA] != ELFDATA2LSB && id[EI_DATA] != ELFDATA2MSB) return false;
  if (id[EI_VERSION] != EV_CURRENT) return false;

  const bool is64 = id[EI_CLASS] == ELFCLASS64;
  // Every field read here lies in the file header, or in section 0 once the
  // table is known to be inside the bytes.
  if (bytes.size() < (is64 ? sizeof(Elf64_Ehdr) : sizeof(Elf32_Ehdr))) return false;
  const bool big = id[EI_DATA] == ELFDATA2MSB;
  const auto at = [&](uint64_t offset, unsigned width) { return field(bytes.data() + offset, width, big); };
  // The address-sized fields e_entry, e_phoff and e_shoff are 4 or 8 bytes
  // wide; the 2-byte fields follow e_flags and e_ehsize.
  const unsigned addr = is64 ? 8 : 4;
  const uint64_t halvesAt = 24 + 3 * addr + 4 + 2;
  const uint64_t phoff = at(24 + addr, addr), shoff = at(24 + 2 * addr, addr);
  const uint64_t phentsize = at(halvesAt, 2), shentsize = at(halvesAt + 4, 2);
  uint64_t phnum = at(halvesAt + 2, 2), shnum = at(halvesAt + 6, 2), shstrndx = at(halvesAt + 8, 2);
  if (at(20, 4) != EV_CURRENT) return false;

  const uint64_t shdrSize = is64 ? sizeof(Elf64_Shdr) : sizeof(Elf32_Shdr);
  const uint64_t phdrSize = is64 ? sizeof(Elf64_Phdr) : sizeof(Elf32_Phdr);
  const auto programHeadersFit = [&] {
    return phnum == 0 ||
           (phentsize == phdrSize && phnum <= bytes.size() / phdrSize && inside(phoff, phnum * phdrSize, bytes.size()));
  };
  // An executable or shared object stripped of its section header table is
  // a file without sections; anything else needs the table, which names the
  // sections.
  const uint64_t type = at(16, 2);
  h.noSections = shoff == 0 && shnum == 0 && shstrndx == 0 && (type == ET_EXEC || type == ET_DYN);
  if (h.noSections) return phnum != PN_XNUM && programHeadersFit();
  if (shoff == 0 || shentsize != shdrSize || !inside(shoff, shdrSize, bytes.size())) return false;
  // Section 0 holds the real counts when they do not fit the header.
  if (shnum == 0) shnum = at(shoff + (is64 ? 32 : 20), addr);
  if (shstrndx == SHN_XINDEX) shstrndx = at(shoff + (is64 ? 40 : 24), 4);
  if (phnum == PN_XNUM) phnum = at(shoff + (is64 ? 44 : 28), 4);
  if (shnum == 0 || shnum > bytes.size() / shdrSize || !inside(shoff, shnum * shdrSize, bytes.size())) return false;
  if (shstrndx == SHN_UNDEF || shstrndx >= shnum || !programHeadersFit()) return false;
  h.shnum = static_cast<uint32_t>(shnum);
  h.shstrndx = static_cast<uint32_t>(shstrndx);
  return true;
}

bool libelfReady() {
  // elf_version() sets libelf's one global; a static initialiser runs it
  // exactly once even when images are loaded from several threads.
  static const bool ready = elf_version(EV_CURRENT) != EV_NONE;
  return ready;
}

struct ElfEnd {
  void operator()(Elf* e) const noexcept { elf_end(e); }
};
using ElfPtr = std::unique_ptr<Elf, ElfEnd>;

}  // namespace

absl::optional<std::vector<std::string>> libelfSectionNames(absl::Span<unsigned char const> bytes) {
  Header h{};
  if (!readHeader(bytes, h) || !libelfReady()) return absl::nullopt;

  // A private, 8-byte aligned copy: libelf may convert tables in place.
  std::vector<uint64_t> copy(bytes.size() / sizeof(uint64_t) + 1);
  std::memcpy(copy.data(), bytes.data(), bytes.size());
  ElfPtr elf(elf_memory(reinterpret_cast<char*>(copy.data()), bytes.size()));
  if (!elf || elf_kind(elf.get()) != ELF_K_ELF) return absl::nullopt;
  size_t shnum = 0, shstrndx = 0;
  if (h.noSections) {
    if (elf_getshdrnum(elf.get(), &shnum) != 0 || shnum != 0) return absl::nullopt;
    return std::vector<std::string>();
  }
  if (elf_getshdrnum(elf.get(), &shnum) != 0 || elf_getshdrstrndx(elf.get(), &shstrndx) != 0) return absl::nullopt;
  if (shnum != h.shnum || shstrndx != h.shstrndx) return absl::nullopt;

  // The section-name string table: inside the bytes and ending in NUL.
  Elf_Scn* strScn = elf_getscn(elf.get(), shstrndx);
  GElf_Shdr strHdr;
  if (strScn == nullptr || gelf_getshdr(strScn, &strHdr) == nullptr) return absl::nullopt;
  if (strHdr.sh_type != SHT_STRTAB || strHdr.sh_size == 0 || !inside(strHdr.sh_offset, strHdr.sh_size, bytes.size()))
    return absl::nullopt;
  elf_errno();  // clear: a failed allocation inside elf_getdata shows only here
  Elf_Data* strData = elf_getdata(strScn, nullptr);
  if (strData == nullptr || elf_errno() != 0 || strData->d_buf == nullptr || strData->d_size != strHdr.sh_size)
    return absl::nullopt;
  // The names are read from the file's own bytes: libelf's copy of the
  // table differs from them where it converts (the header of a compressed
  // section of the other byte order).
  const unsigned char* table = bytes.data() + strHdr.sh_offset;
  if (table[strData->d_size - 1] != '\0') return absl::nullopt;

  std::vector<std::string> names;
  Elf_Scn* scn = nullptr;
  while ((scn = elf_nextscn(elf.get(), scn)) != nullptr) {
    GElf_Shdr sh;
    if (names.size() == shnum - 1 || gelf_getshdr(scn, &sh) == nullptr) return absl::nullopt;
    if (sh.sh_type != SHT_NOBITS && sh.sh_type != SHT_NULL && !inside(sh.sh_offset, sh.sh_size, bytes.size()))
      return absl::nullopt;
    if (sh.sh_name >= strData->d_size) return absl::nullopt;
    const auto* start = table + sh.sh_name;
    const auto* end = static_cast<const unsigned char*>(std::memchr(start, 0, strData->d_size - sh.sh_name));
    names.emplace_back(reinterpret_cast<const char*>(start), end - start);
  }
  if (names.size() != shnum - 1) return absl::nullopt;
  return names;
}

}  // namespace kelo_test
