// The ELF image: the file's bytes in one malloc'ed block, followed in the
// same block by a small trailer (ELF::Impl) that the image points at.
//
// Loading reads the file header and the section header table itself,
// through a bounded reader that checks every offset against the bytes
// (serialize/orvel/serialize/ByteReader.h), and builds nothing else: section
// names are found in the image's own bytes when asked for. Only images with
// many sections get an index of their names, sorted, in a block of its own,
// so that a lookup is a binary search.
#include "kelo/elf.hpp"

#include <malloc.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "serialize/orvel/serialize/ByteReader.h"

namespace kelo_elf {

namespace {

using orvel_lib::serialize::ByteReader;

// Values of the ELF format that loading needs.
constexpr unsigned char kMagic[4] = {0x7f, 'E', 'L', 'F'};
constexpr unsigned kIdentSize = 16;
constexpr unsigned char kClass32 = 1, kClass64 = 2;
constexpr unsigned char kLittle = 1, kBig = 2;
constexpr uint64_t kCurrentVersion = 1;
constexpr uint64_t kSectionNull = 0, kSectionStrtab = 3, kSectionNobits = 8;
constexpr uint64_t kTypeExec = 2, kTypeDyn = 3;
constexpr uint64_t kIndexEscape = 0xffff;  // e_shstrndx (SHN_XINDEX) and e_phnum (PN_XNUM) kept in section 0

// Images with more named sections than this get a sorted index of them;
// the others are searched section by section.
constexpr uint32_t kScanLimit = 16;

// Where the parts of a file lie, as found (and checked) by readLayout().
struct Layout {
  bool is64;
  bool big;
  uint64_t shoff;      // the section header table
  uint32_t shnum;      // its entries, section 0 included
  unsigned shdrSize;   // the size of one entry
  uint64_t strOffset;  // the section-name string table
  uint64_t strSize;
};

// Offsets of the section header fields that loading reads.
constexpr unsigned kShName = 0, kShType = 4;
unsigned shOffsetAt(bool is64) { return is64 ? 24 : 16; }
unsigned shSizeAt(bool is64) { return is64 ? 32 : 20; }

// Reads and checks the file header and the section-name string table:
// identification and version; the section header table (required, as it
// names the sections, but in an executable or shared object stripped of it)
// and the program header table inside the bytes with entries of the
// standard size; the counts that do not fit the header taken from section 0;
// a string table for the names, inside the bytes and ending in NUL, so that
// every name read from it ends inside it.
bool readLayout(const unsigned char* data, std::size_t size, Layout& out) {
  if (size < kIdentSize || std::memcmp(data, kMagic, sizeof kMagic) != 0) return false;
  if (data[4] != kClass32 && data[4] != kClass64) return false;
  if (data[5] != kLittle && data[5] != kBig) return false;
  if (data[6] != kCurrentVersion) return false;

  const bool is64 = data[4] == kClass64;
  ByteReader r(data, size, data[5] == kBig);
  // e_phoff and e_shoff follow e_entry; the 16-bit fields follow e_flags and
  // e_ehsize.
  const unsigned addr = is64 ? 8 : 4;
  const uint64_t halvesAt = 24 + 3 * addr + 4 + 2;
  const uint64_t version = r.read(20, 4);
  const uint64_t phoff = r.read(24 + addr, addr);
  const uint64_t shoff = r.read(24 + 2 * addr, addr);
  const uint64_t phentsize = r.read(halvesAt, 2);
  uint64_t phnum = r.read(halvesAt + 2, 2);
  const uint64_t shentsize = r.read(halvesAt + 4, 2);
  uint64_t shnum = r.read(halvesAt + 6, 2);
  uint64_t shstrndx = r.read(halvesAt + 8, 2);
  if (!r.ok() || version != kCurrentVersion) return false;

  const unsigned shdrSize = is64 ? 64 : 40;
  const unsigned phdrSize = is64 ? 56 : 32;
  const auto programHeadersFit = [&] {
    return phnum == 0 || (phentsize == phdrSize && phnum <= size / phdrSize && r.contains(phoff, phnum * phdrSize));
  };
  // Without a section header table an executable or shared object is still
  // a valid file: one with no sections. (Its program header count cannot be
  // kept in a section 0 it does not have.)
  const uint64_t type = r.read(16, 2);
  if (shoff == 0 && shnum == 0 && shstrndx == 0 && (type == kTypeExec || type == kTypeDyn)) {
    if (phnum == kIndexEscape || !programHeadersFit()) return false;
    out = Layout{is64, data[5] == kBig, 0, 1, shdrSize, 0, 0};
    return true;
  }
  if (shoff == 0 || shentsize != shdrSize || !r.contains(shoff, shdrSize)) return false;
  // Section 0 holds what does not fit: the section count in sh_size, the
  // name table's index in sh_link, the program header count in sh_info.
  if (shnum == 0) shnum = r.read(shoff + shSizeAt(is64), addr);
  if (shstrndx == kIndexEscape) shstrndx = r.read(shoff + (is64 ? 40 : 24), 4);
  if (phnum == kIndexEscape) phnum = r.read(shoff + (is64 ? 44 : 28), 4);
  if (shnum == 0 || shnum > size / shdrSize || !r.contains(shoff, shnum * shdrSize)) return false;
  if (shstrndx == 0 || shstrndx >= shnum) return false;
  if (!programHeadersFit()) return false;

  const uint64_t strHeader = shoff + shstrndx * shdrSize;
  const uint64_t strType = r.read(strHeader + kShType, 4);
  const uint64_t strOffset = r.read(strHeader + shOffsetAt(is64), addr);
  const uint64_t strSize = r.read(strHeader + shSizeAt(is64), addr);
  if (strType != kSectionStrtab || strSize == 0 || !r.contains(strOffset, strSize)) return false;
  if (data[strOffset + strSize - 1] != '\0') return false;

  out = Layout{is64, data[5] == kBig, shoff, static_cast<uint32_t>(shnum), shdrSize, strOffset, strSize};
  return true;
}

// Calls f(index, name offset in the name table) for sections 1 to shnum - 1,
// stopping (and answering false) when f does. The layout is one that
// readLayout() made from these bytes.
template <typename F>
bool forEachSection(const unsigned char* data, std::size_t size, const Layout& l, F f) {
  ByteReader r(data, size, l.big);
  for (uint32_t i = 1; i < l.shnum; ++i) {
    if (!f(i, r.read(l.shoff + uint64_t{i} * l.shdrSize + kShName, 4))) return false;
  }
  return true;
}

// Checks every section: its name inside the name table, and its contents
// inside the bytes unless it has none in the file.
bool checkSections(const unsigned char* data, std::size_t size, const Layout& l) {
  ByteReader r(data, size, l.big);
  const unsigned addr = l.is64 ? 8 : 4;
  return forEachSection(data, size, l, [&](uint32_t i, uint64_t name) {
    const uint64_t header = l.shoff + uint64_t{i} * l.shdrSize;
    const uint64_t type = r.read(header + kShType, 4);
    if (type != kSectionNobits && type != kSectionNull &&
        !r.contains(r.read(header + shOffsetAt(l.is64), addr), r.read(header + shSizeAt(l.is64), addr)))
      return false;
    return name < l.strSize;
  });
}

// One section name inside the image's bytes.
struct NameRef {
  uint32_t offset;
  uint32_t length;
};

std::string_view nameAt(const unsigned char* data, const Layout& l, uint64_t name) {
  const char* start = reinterpret_cast<const char*>(data + l.strOffset + name);
  // The table ends in NUL, so the name does too.
  return std::string_view(start, std::strlen(start));
}

// The sorted index of the names of an image with many sections; null for
// the others.
std::unique_ptr<NameRef[]> indexNames(const unsigned char* data, std::size_t size, const Layout& l) {
  const uint32_t count = l.shnum - 1;
  if (count <= kScanLimit) return nullptr;
  std::unique_ptr<NameRef[]> index(new NameRef[count]);
  forEachSection(data, size, l, [&](uint32_t i, uint64_t name) {
    const std::string_view n = nameAt(data, l, name);
    index[i - 1] = NameRef{static_cast<uint32_t>(l.strOffset + name), static_cast<uint32_t>(n.size())};
    return true;
  });
  auto text = [data](NameRef n) { return std::string_view(reinterpret_cast<const char*>(data) + n.offset, n.length); };
  std::sort(index.get(), index.get() + count, [&](NameRef a, NameRef b) { return text(a) < text(b); });
  return index;
}

}  // namespace

// The trailer of an image's block: it lies right after the file's bytes,
// which start the block.
struct alignas(8) ELF::Impl {
  uint32_t size;    // the file's bytes
  uint32_t count;   // named sections: all but section 0
  NameRef* sorted;  // the names in byte order, or null (see kScanLimit)

  // Whether the block of an image of `size` bytes fits in an object (only
  // in doubt on 32-bit hosts).
  static bool fits(std::size_t size) {
    return size <= static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max()) - 64;
  }

  // Where the trailer of an image of `size` bytes lies in its block.
  // REQUIRES: fits(size).
  static std::size_t offsetFor(uint32_t size) {
    return (std::size_t{size} + alignof(Impl) - 1) / alignof(Impl) * alignof(Impl);
  }
  static std::size_t blockSize(uint32_t size) { return offsetFor(size) + sizeof(Impl); }

  const unsigned char* bytes() const { return reinterpret_cast<const unsigned char*>(this) - offsetFor(size); }

  // Builds the trailer in `block`, which holds the bytes and has room for
  // it; takes over `sorted`.
  static Impl* place(unsigned char* block, uint32_t size, uint32_t count, std::unique_ptr<NameRef[]> sorted) {
    return new (block + offsetFor(size)) Impl{size, count, sorted.release()};
  }

  static void destroy(Impl* impl) noexcept {
    if (impl == nullptr) return;
    delete[] impl->sorted;
    // The trailer and the bytes are trivially destructible.
    std::free(const_cast<unsigned char*>(impl->bytes()));
  }
};

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
  if (impl_ == nullptr) return absl::nullopt;
  auto* data = static_cast<unsigned char*>(std::malloc(std::size_t{impl_->size} + ELFBytes::adoptRoom(impl_->size)));
  if (data == nullptr) return absl::nullopt;
  std::memcpy(data, impl_->bytes(), impl_->size);
  return ELFBytes(data, impl_->size);
}

absl::optional<ELF> ELF::load(absl::Span<unsigned char const> bytes) {
  if (bytes.size() > std::numeric_limits<uint32_t>::max()) return absl::nullopt;
  Layout l;
  if (!readLayout(bytes.data(), bytes.size(), l) || !checkSections(bytes.data(), bytes.size(), l)) return absl::nullopt;
  if (!Impl::fits(bytes.size())) throw std::bad_alloc();
  const uint32_t size = static_cast<uint32_t>(bytes.size());
  std::unique_ptr<NameRef[]> sorted = indexNames(bytes.data(), bytes.size(), l);
  auto* block = static_cast<unsigned char*>(std::malloc(Impl::blockSize(size)));
  if (block == nullptr) throw std::bad_alloc();
  std::memcpy(block, bytes.data(), size);
  ELF image;
  image.impl_ = Impl::place(block, size, l.shnum - 1, std::move(sorted));
  return absl::optional<ELF>(std::move(image));
}

absl::optional<ELF> ELF::adopt(ELFBytes&& bytes) {
  static_assert(sizeof(Impl) == 16 && alignof(Impl) == 8, "ELFBytes::adoptRoom() is the trailer's room");
  Layout l;
  if (!readLayout(bytes.data, bytes.size, l) || !checkSections(bytes.data, bytes.size, l)) return absl::nullopt;
  if (!Impl::fits(bytes.size)) throw std::bad_alloc();
  std::unique_ptr<NameRef[]> sorted = indexNames(bytes.data, bytes.size, l);
  // Room for the trailer: a block made with adoptRoom() to spare has it
  // already, others grow (and may move).
  void* block = bytes.data;
  if (malloc_usable_size(block) < Impl::blockSize(bytes.size)) {
    block = std::realloc(bytes.data, Impl::blockSize(bytes.size));
    if (block == nullptr) throw std::bad_alloc();
  }
  ELF image;
  image.impl_ = Impl::place(static_cast<unsigned char*>(block), bytes.size, l.shnum - 1, std::move(sorted));
  bytes.data = nullptr;
  bytes.size = 0;
  return absl::optional<ELF>(std::move(image));
}

absl::Span<unsigned char const> ELF::bytes() const noexcept {
  if (impl_ == nullptr) return {};
  return {impl_->bytes(), impl_->size};
}

bool ELF::hasSection(const std::string& name) const {
  if (impl_ == nullptr) return false;
  const std::string_view wanted(name);
  const unsigned char* data = impl_->bytes();
  if (impl_->sorted != nullptr) {
    auto text = [data](NameRef n) {
      return std::string_view(reinterpret_cast<const char*>(data) + n.offset, n.length);
    };
    const NameRef* first = impl_->sorted;
    const NameRef* last = first + impl_->count;
    const NameRef* it =
        std::lower_bound(first, last, wanted, [&](NameRef a, std::string_view b) { return text(a) < b; });
    return it != last && text(*it) == wanted;
  }
  // Names never hold NUL.
  if (wanted.find('\0') != std::string_view::npos) return false;
  Layout l;
  readLayout(data, impl_->size, l);
  return !forEachSection(data, impl_->size, l, [&](uint32_t, uint64_t name) {
    return name + wanted.size() >= l.strSize ||
           std::memcmp(data + l.strOffset + name, wanted.data(), wanted.size()) != 0 ||
           data[l.strOffset + name + wanted.size()] != '\0';
  });
}

std::vector<std::string> ELF::sectionNames() const {
  std::vector<std::string> out;
  if (impl_ == nullptr) return out;
  const unsigned char* data = impl_->bytes();
  Layout l;
  readLayout(data, impl_->size, l);
  out.reserve(impl_->count);
  forEachSection(data, impl_->size, l, [&](uint32_t, uint64_t name) {
    out.emplace_back(nameAt(data, l, name));
    return true;
  });
  return out;
}

std::vector<SectionHeader> ELF::sectionHeaders() const {
  std::vector<SectionHeader> out;
  if (impl_ == nullptr) return out;
  const unsigned char* data = impl_->bytes();
  Layout l;
  readLayout(data, impl_->size, l);
  ByteReader r(data, impl_->size, l.big);
  const unsigned w = l.is64 ? 8 : 4;  // the width of flags, addresses and sizes
  out.resize(l.shnum);
  forEachSection(data, impl_->size, l, [&](uint32_t i, uint64_t name) {
    const uint64_t at = l.shoff + uint64_t{i} * l.shdrSize;
    SectionHeader& s = out[i];
    s.name = std::string(nameAt(data, l, name));
    s.type = static_cast<uint32_t>(r.read(at + kShType, 4));
    s.flags = r.read(at + 8, w);
    s.addr = r.read(at + 8 + w, w);
    s.offset = r.read(at + 8 + 2 * w, w);
    s.size = r.read(at + 8 + 3 * w, w);
    s.link = static_cast<uint32_t>(r.read(at + 8 + 4 * w, 4));
    s.info = static_cast<uint32_t>(r.read(at + 12 + 4 * w, 4));
    s.addralign = r.read(at + 16 + 4 * w, w);
    s.entsize = r.read(at + 16 + 5 * w, w);
    return true;
  });
  return out;
}

bool ELF::is64() const noexcept { return impl_ != nullptr && impl_->bytes()[4] == kClass64; }

uint16_t ELF::fileType() const noexcept {
  if (impl_ == nullptr) return 0;
  ByteReader r(impl_->bytes(), impl_->size, impl_->bytes()[5] == kBig);
  return static_cast<uint16_t>(r.read(16, 2));
}

uint32_t ELF::size() const noexcept { return impl_ == nullptr ? 0 : impl_->size; }

}  // namespace kelo_elf
