#include "support/elf_reference.h"

#include <gelf.h>
#include <libelf.h>

#include <cstring>
#include <memory>

namespace kelo_test {
namespace {

bool inside(uint64_t offset, uint64_t length, uint64_t size) { return offset <= size && size - offset >= length; }

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
  if (!libelfReady()) return absl::nullopt;
  // A private, 8-byte aligned copy: libelf may convert tables in place.
  std::vector<uint64_t> copy(bytes.size() / sizeof(uint64_t) + 1);
  if (!bytes.empty()) std::memcpy(copy.data(), bytes.data(), bytes.size());
  ElfPtr elf(elf_memory(reinterpret_cast<char*>(copy.data()), bytes.size()));
  if (!elf || elf_kind(elf.get()) != ELF_K_ELF) return absl::nullopt;

  // Every fact about the file comes from libelf: the header, and the counts
  // with their extended numbering resolved. What is checked here are the
  // rules an image must meet beyond what libelf asks: the version, headers
  // of the standard size, and tables that lie inside the bytes.
  GElf_Ehdr eh;
  const int cls = gelf_getclass(elf.get());
  if (gelf_getehdr(elf.get(), &eh) == nullptr || (cls != ELFCLASS32 && cls != ELFCLASS64)) return absl::nullopt;
  const unsigned char data = eh.e_ident[EI_DATA];
  if ((data != ELFDATA2LSB && data != ELFDATA2MSB) || eh.e_ident[EI_VERSION] != EV_CURRENT ||
      eh.e_version != EV_CURRENT) {
    return absl::nullopt;
  }
  const bool is64 = cls == ELFCLASS64;
  const uint64_t shdrSize = is64 ? sizeof(Elf64_Shdr) : sizeof(Elf32_Shdr);
  const uint64_t phdrSize = is64 ? sizeof(Elf64_Phdr) : sizeof(Elf32_Phdr);
  size_t phnum = 0, shnum = 0, shstrndx = 0;
  // An executable or shared object stripped of its section header table is
  // a file without sections; anything else needs the table, which names the
  // sections.
  const bool noSections =
      eh.e_shoff == 0 && eh.e_shnum == 0 && eh.e_shstrndx == 0 && (eh.e_type == ET_EXEC || eh.e_type == ET_DYN);
  if (!noSections) {
    if (eh.e_shoff == 0 || eh.e_shentsize != shdrSize || !inside(eh.e_shoff, shdrSize, bytes.size()))
      return absl::nullopt;
    if (elf_getshdrnum(elf.get(), &shnum) != 0 || elf_getshdrstrndx(elf.get(), &shstrndx) != 0) return absl::nullopt;
    if (shnum == 0 || shnum > bytes.size() / shdrSize || !inside(eh.e_shoff, shnum * shdrSize, bytes.size()))
      return absl::nullopt;
    if (shstrndx == SHN_UNDEF || shstrndx >= shnum) return absl::nullopt;
  } else if (eh.e_phnum == PN_XNUM) {
    return absl::nullopt;
  }
  // The program header count, with its extended form read from section 0
  // (libelf's own elf_getphdrnum also judges e_phoff when the count is 0,
  // which an image need not meet).
  phnum = eh.e_phnum;
  if (phnum == PN_XNUM) {
    GElf_Shdr zero;
    Elf_Scn* first = elf_getscn(elf.get(), 0);
    if (first == nullptr || gelf_getshdr(first, &zero) == nullptr) return absl::nullopt;
    phnum = zero.sh_info;
  }
  if (phnum != 0 && (eh.e_phentsize != phdrSize || phnum > bytes.size() / phdrSize ||
                     !inside(eh.e_phoff, phnum * phdrSize, bytes.size())))
    return absl::nullopt;
  if (noSections) return std::vector<std::string>();

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
