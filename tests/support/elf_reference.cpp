#include "support/elf_reference.h"

#include <gelf.h>
#include <libelf.h>

#include <cstring>
#include <memory>

namespace kelo_test {
namespace {

// The fields of the file header that loading needs, in host byte order.
struct Header {
  bool is64;
  bool noSections;  // an executable or shared object without a section header table
  uint64_t phoff;
  uint64_t shoff;
  uint32_t phentsize;
  uint32_t shentsize;
  uint32_t phnum;
  uint32_t shnum;
  uint32_t shstrndx;
};

// Reads unsigned integers of the file's byte order from a bounded view.
class Reader {
 public:
  Reader(const unsigned char* data, size_t size, bool big) : data_(data), size_(size), big_(big) {}

  // False when [offset, offset + width) is not inside the view.
  bool read(uint64_t offset, unsigned width, uint64_t& out) const {
    if (offset > size_ || size_ - offset < width) return false;
    uint64_t v = 0;
    for (unsigned i = 0; i < width; ++i) {
      unsigned char b = data_[offset + (big_ ? i : width - 1 - i)];
      v = (v << 8) | b;
    }
    out = v;
    return true;
  }

 private:
  const unsigned char* data_;
  size_t size_;
  bool big_;
};

bool inside(uint64_t offset, uint64_t length, uint64_t size) { return offset <= size && size - offset >= length; }

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

  h.is64 = id[EI_CLASS] == ELFCLASS64;
  const Reader r(bytes.data(), bytes.size(), id[EI_DATA] == ELFDATA2MSB);
  // Offsets of e_version, e_phoff, e_shoff and e_phentsize; the address-sized
  // fields are 4 or 8 bytes wide, the fields after them follow in 2-byte steps.
  const unsigned addr = h.is64 ? 8 : 4;
  const uint64_t phoffAt = 24 + addr;
  const uint64_t shoffAt = phoffAt + addr;
  const uint64_t halvesAt = shoffAt + addr + 4 + 2;  // after e_flags and e_ehsize
  uint64_t version, phoff, shoff, phentsize, phnum, shentsize, shnum, shstrndx;
  if (!r.read(20, 4, version) || !r.read(phoffAt, addr, phoff) || !r.read(shoffAt, addr, shoff) ||
      !r.read(halvesAt, 2, phentsize) || !r.read(halvesAt + 2, 2, phnum) || !r.read(halvesAt + 4, 2, shentsize) ||
      !r.read(halvesAt + 6, 2, shnum) || !r.read(halvesAt + 8, 2, shstrndx))
    return false;
  if (version != EV_CURRENT) return false;

  const uint64_t shdrSize = h.is64 ? sizeof(Elf64_Shdr) : sizeof(Elf32_Shdr);
  const uint64_t phdrSize = h.is64 ? sizeof(Elf64_Phdr) : sizeof(Elf32_Phdr);
  // An executable or shared object stripped of its section header table is
  // a file without sections; anything else needs the table, which names the
  // sections.
  uint64_t type;
  if (!r.read(16, 2, type)) return false;
  h.noSections = shoff == 0 && shnum == 0 && shstrndx == 0 && (type == ET_EXEC || type == ET_DYN);
  if (h.noSections) {
    return phnum != PN_XNUM && (phnum == 0 || (phentsize == phdrSize && phnum <= bytes.size() / phdrSize &&
                                               inside(phoff, phnum * phdrSize, bytes.size())));
  }
  if (shoff == 0 || shentsize != shdrSize || !inside(shoff, shdrSize, bytes.size())) return false;
  // Section 0 holds the real counts when they do not fit the header.
  const uint64_t sh0 = shoff;
  if (shnum == 0 && !r.read(sh0 + (h.is64 ? 32 : 20), addr, shnum)) return false;
  if (shstrndx == SHN_XINDEX && !r.read(sh0 + (h.is64 ? 40 : 24), 4, shstrndx)) return false;
  if (phnum == PN_XNUM && !r.read(sh0 + (h.is64 ? 44 : 28), 4, phnum)) return false;
  if (shnum == 0 || shnum > bytes.size() / shdrSize || !inside(shoff, shnum * shdrSize, bytes.size())) return false;
  if (shstrndx == SHN_UNDEF || shstrndx >= shnum) return false;

  if (phnum != 0) {
    if (phentsize != phdrSize || phnum > bytes.size() / phdrSize || !inside(phoff, phnum * phdrSize, bytes.size()))
      return false;
  }

  h.phoff = phoff;
  h.shoff = shoff;
  h.phentsize = static_cast<uint32_t>(phentsize);
  h.shentsize = static_cast<uint32_t>(shentsize);
  h.phnum = static_cast<uint32_t>(phnum);
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

// A private, 8-byte aligned copy of the bytes for libelf, which may convert
// tables in place. Small images stay on the stack.
class Scratch {
 public:
  explicit Scratch(absl::Span<unsigned char const> bytes) {
    uint64_t* words = small_;
    if (bytes.size() > sizeof(small_)) {
      heap_.reset(new uint64_t[bytes.size() / sizeof(uint64_t) + 1]);
      words = heap_.get();
    }
    data_ = reinterpret_cast<char*>(words);
    std::memcpy(data_, bytes.data(), bytes.size());
  }
  char* data() const { return data_; }

 private:
  uint64_t small_[512];
  std::unique_ptr<uint64_t[]> heap_;
  char* data_;
};

}  // namespace

absl::optional<std::vector<std::string>> libelfSectionNames(absl::Span<unsigned char const> bytes) {
  Header h{};
  if (!readHeader(bytes, h) || !libelfReady()) return absl::nullopt;

  Scratch scratch(bytes);
  ElfPtr elf(elf_memory(scratch.data(), bytes.size()));
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
