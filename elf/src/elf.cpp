// The ELF image: one heap block holding the image's bytes and an index of
// its section names.
//
// Loading checks the file's own header fields (identification, the section
// header table's place and size) before libelf sees the bytes, so libelf only
// ever parses tables that lie inside them. Section names are then read through
// libelf and checked against the section-name string table. The block keeps
// each name as an offset and length into the image's own bytes, once in
// section-header order and once sorted, so a lookup is a binary search and a
// load makes no allocation per name.
#include "kelo/elf.hpp"

#include <gelf.h>
#include <libelf.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

namespace kelo_elf {

namespace {

// One section name inside the image's bytes. Names never contain NUL and
// are NUL-terminated in the bytes, but the length is kept so that lookups
// need not scan.
struct NameRef {
  uint32_t offset;
  uint32_t length;
};

// The fields of the file header that loading needs, in host byte order.
struct Header {
  bool is64;
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

  // The section header table is required: it names the sections.
  const uint64_t shdrSize = h.is64 ? sizeof(Elf64_Shdr) : sizeof(Elf32_Shdr);
  if (shoff == 0 || shentsize != shdrSize || !inside(shoff, shdrSize, bytes.size())) return false;
  // Section 0 holds the real counts when they do not fit the header.
  const uint64_t sh0 = shoff;
  if (shnum == 0 && !r.read(sh0 + (h.is64 ? 32 : 20), addr, shnum)) return false;
  if (shstrndx == SHN_XINDEX && !r.read(sh0 + (h.is64 ? 40 : 24), 4, shstrndx)) return false;
  if (phnum == PN_XNUM && !r.read(sh0 + (h.is64 ? 44 : 28), 4, phnum)) return false;
  if (shnum == 0 || shnum > bytes.size() / shdrSize || !inside(shoff, shnum * shdrSize, bytes.size())) return false;
  if (shstrndx == SHN_UNDEF || shstrndx >= shnum) return false;

  if (phnum != 0) {
    const uint64_t phdrSize = h.is64 ? sizeof(Elf64_Phdr) : sizeof(Elf32_Phdr);
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

// The one block an image owns: this header, the names in section-header
// order, the same names sorted, then the bytes.
struct ELF::Impl {
  uint32_t size;   // bytes of the image
  uint32_t count;  // section names (section 0 left out)

  NameRef* byHeader() { return reinterpret_cast<NameRef*>(this + 1); }
  const NameRef* byHeader() const { return reinterpret_cast<const NameRef*>(this + 1); }
  NameRef* sorted() { return byHeader() + count; }
  const NameRef* sorted() const { return byHeader() + count; }
  unsigned char* bytes() { return reinterpret_cast<unsigned char*>(sorted() + count); }
  const unsigned char* bytes() const { return reinterpret_cast<const unsigned char*>(sorted() + count); }

  std::string_view name(NameRef n) const {
    return std::string_view(reinterpret_cast<const char*>(bytes()) + n.offset, n.length);
  }

  // Allocates a block for `count` names and `size` bytes; throws
  // std::bad_alloc.
  static Impl* make(uint32_t count, uint32_t size) {
    const size_t names = size_t{2} * count * sizeof(NameRef);
    if (size > std::numeric_limits<size_t>::max() - sizeof(Impl) - names) throw std::bad_alloc();
    void* raw = ::operator new(sizeof(Impl) + names + size);
    Impl* impl = new (raw) Impl{size, count};
    for (uint32_t i = 0; i < 2 * count; ++i) new (impl->byHeader() + i) NameRef{0, 0};
    return impl;
  }
  static void destroy(Impl* impl) noexcept {
    // Impl and NameRef are trivially destructible.
    ::operator delete(impl);
  }
};

namespace {
struct ImplDelete {
  template <class T>
  void operator()(T* impl) const noexcept {
    T::destroy(impl);
  }
};
}  // namespace

ELF::ELF() noexcept = default;

ELF::ELF(ELF&& other) noexcept
    : debugInfoID(std::exchange(other.debugInfoID, absl::nullopt)), impl_(std::exchange(other.impl_, nullptr)) {}

ELF& ELF::operator=(ELF&& other) noexcept {
  if (this != &other) {
    Impl::destroy(impl_);
    impl_ = std::exchange(other.impl_, nullptr);
    debugInfoID = std::exchange(other.debugInfoID, absl::nullopt);
  }
  return *this;
}

ELF::~ELF() { Impl::destroy(impl_); }

absl::optional<ELFBytes> ELF::save() {
  if (impl_ == nullptr) return ELFBytes();
  auto* data = static_cast<unsigned char*>(std::malloc(impl_->size));
  if (data == nullptr) return absl::nullopt;
  std::memcpy(data, impl_->bytes(), impl_->size);
  return ELFBytes(data, impl_->size);
}

absl::optional<ELF> ELF::load(absl::Span<unsigned char const> bytes) {
  if (bytes.size() > std::numeric_limits<uint32_t>::max()) return absl::nullopt;
  Header h;
  if (!readHeader(bytes, h) || !libelfReady()) return absl::nullopt;

  Scratch scratch(bytes);
  ElfPtr elf(elf_memory(scratch.data(), bytes.size()));
  if (!elf || elf_kind(elf.get()) != ELF_K_ELF) return absl::nullopt;
  size_t shnum = 0, shstrndx = 0;
  if (elf_getshdrnum(elf.get(), &shnum) != 0 || elf_getshdrstrndx(elf.get(), &shstrndx) != 0) return absl::nullopt;
  if (shnum != h.shnum || shstrndx != h.shstrndx) return absl::nullopt;

  // The section-name string table: a string table inside the bytes, ending
  // in NUL so that every name read from it is terminated inside it.
  Elf_Scn* strScn = elf_getscn(elf.get(), shstrndx);
  GElf_Shdr strHdr;
  if (strScn == nullptr || gelf_getshdr(strScn, &strHdr) == nullptr) return absl::nullopt;
  if (strHdr.sh_type != SHT_STRTAB || strHdr.sh_size == 0 || !inside(strHdr.sh_offset, strHdr.sh_size, bytes.size()))
    return absl::nullopt;
  elf_errno();  // clear: a failed allocation inside elf_getdata shows only here
  Elf_Data* strData = elf_getdata(strScn, nullptr);
  if (strData == nullptr || elf_errno() != 0 || strData->d_buf == nullptr || strData->d_size != strHdr.sh_size)
    return absl::nullopt;
  const auto* table = static_cast<const unsigned char*>(strData->d_buf);
  if (table[strData->d_size - 1] != '\0') return absl::nullopt;

  std::unique_ptr<Impl, ImplDelete> impl(
      Impl::make(static_cast<uint32_t>(shnum - 1), static_cast<uint32_t>(bytes.size())));
  NameRef* names = impl->byHeader();
  Elf_Scn* scn = nullptr;
  uint32_t n = 0;
  while ((scn = elf_nextscn(elf.get(), scn)) != nullptr) {
    GElf_Shdr sh;
    if (n == impl->count || gelf_getshdr(scn, &sh) == nullptr) return absl::nullopt;
    if (sh.sh_type != SHT_NOBITS && sh.sh_type != SHT_NULL && !inside(sh.sh_offset, sh.sh_size, bytes.size()))
      return absl::nullopt;
    if (sh.sh_name >= strData->d_size) return absl::nullopt;
    const auto* start = table + sh.sh_name;
    const auto* end = static_cast<const unsigned char*>(std::memchr(start, 0, strData->d_size - sh.sh_name));
    // The string table's data are its bytes in the file, so the name is
    // found at the same place in the image's own copy.
    names[n++] = NameRef{static_cast<uint32_t>(strHdr.sh_offset + sh.sh_name), static_cast<uint32_t>(end - start)};
  }
  if (n != impl->count) return absl::nullopt;

  std::memcpy(impl->bytes(), bytes.data(), bytes.size());
  NameRef* sorted = impl->sorted();
  std::copy(names, names + n, sorted);
  const Impl& self = *impl;
  std::sort(sorted, sorted + n, [&self](NameRef a, NameRef b) { return self.name(a) < self.name(b); });

  ELF image;
  image.impl_ = impl.release();
  return absl::optional<ELF>(std::move(image));
}

bool ELF::hasSection(const std::string& name) const {
  if (impl_ == nullptr) return false;
  const std::string_view wanted(name);
  const Impl& self = *impl_;
  const NameRef* first = self.sorted();
  const NameRef* last = first + self.count;
  const NameRef* it =
      std::lower_bound(first, last, wanted, [&self](NameRef a, std::string_view b) { return self.name(a) < b; });
  return it != last && self.name(*it) == wanted;
}

std::vector<std::string> ELF::sectionNames() const {
  std::vector<std::string> out;
  if (impl_ == nullptr) return out;
  out.reserve(impl_->count);
  for (uint32_t i = 0; i < impl_->count; ++i) out.emplace_back(impl_->name(impl_->byHeader()[i]));
  return out;
}

uint32_t ELF::size() const noexcept { return impl_ == nullptr ? 0 : impl_->size; }

}  // namespace kelo_elf
