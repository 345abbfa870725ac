// The ELF image library: whole ELF files held in memory as images.
//
// An image is made from the bytes of a well-formed ELF file (ELF32 or ELF64,
// either byte order) and keeps them in one block of its own: a copy, or a
// malloc'ed block that it takes over. It answers which sections the file has
// and gives the bytes back, unchanged, on request. Images are move-only; an
// independent copy is made by saving an image to bytes and loading a fresh
// one from them.
#ifndef KELO_ELF_HPP_
#define KELO_ELF_HPP_

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "absl/types/optional.h"
#include "absl/types/span.h"
#include "kelo/export.h"

namespace kelo_elf {

// The identifier under which one piece of debug information is filed: an
// 8-bit kind and a 32-bit number kept as two 16-bit halves.
struct DebugInfoID {
  uint8_t kind = 0;
  uint16_t lo = 0;  // low 16 bits of the number
  uint16_t hi = 0;  // high 16 bits of the number

  DebugInfoID() = default;
  constexpr DebugInfoID(uint8_t k, uint16_t l, uint16_t h) noexcept : kind(k), lo(l), hi(h) {}

  // The 32-bit number, hi << 16 | lo.
  constexpr uint32_t number() const noexcept { return (uint32_t{hi} << 16) | lo; }

  // A well-mixed function of kind, lo and hi alone: equal identifiers hash
  // alike. The 40 significant bits, packed, then the 64-bit finaliser of
  // MurmurHash3: every input bit reaches every output bit, the low 32
  // included. Inline, as every lookup of every map keyed by identifiers runs
  // it.
  constexpr size_t hash() const noexcept {
    uint64_t h = (uint64_t{kind} << 32) | (uint64_t{hi} << 16) | lo;
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdULL;
    h ^= h >> 33;
    h *= 0xc4ceb9fe1a85ec53ULL;
    h ^= h >> 33;
    return static_cast<size_t>(h);
  }

  friend constexpr bool operator==(const DebugInfoID& a, const DebugInfoID& b) noexcept {
    return a.kind == b.kind && a.lo == b.lo && a.hi == b.hi;
  }
  friend constexpr bool operator!=(const DebugInfoID& a, const DebugInfoID& b) noexcept { return !(a == b); }
};

// A block of saved image bytes, allocated with malloc(). The block owns its
// memory and releases it with free() when destroyed, exactly when size is
// not 0; a block of size 0 owns no memory. Move-only.
struct ELFBytes {
  unsigned char* data = nullptr;
  uint32_t size = 0;

  // An image keeps a 16-byte trailer of its own after its file bytes, at
  // the next multiple of 8, in the same block. A block with adoptRoom(size)
  // bytes of room after its `size` bytes is taken over by ELF::adopt() where
  // it lies; with less, the block may have to move. kMaxAdoptRoom is enough
  // for any size.
  static constexpr uint32_t adoptRoom(uint32_t size) noexcept { return (8 - size % 8) % 8 + 16; }
  static constexpr uint32_t kMaxAdoptRoom = 23;

  ELFBytes() = default;
  ELFBytes(unsigned char* d, uint32_t n) noexcept : data(d), size(n) {}
  ELFBytes(ELFBytes&& o) noexcept : data(o.data), size(o.size) {
    o.data = nullptr;
    o.size = 0;
  }
  ELFBytes& operator=(ELFBytes&& o) noexcept {
    if (this != &o) {
      release();
      data = o.data;
      size = o.size;
      o.data = nullptr;
      o.size = 0;
    }
    return *this;
  }
  ELFBytes(const ELFBytes&) = delete;
  ELFBytes& operator=(const ELFBytes&) = delete;
  ~ELFBytes() { release(); }

  absl::Span<unsigned char const> span() const noexcept { return {data, size}; }

 private:
  void release() noexcept {
    if (size != 0) std::free(data);
    data = nullptr;
    size = 0;
  }
};

// One section header of an image, as the file has it (sizes and addresses
// widened to 64 bits).
struct SectionHeader {
  std::string name;
  uint32_t type = 0;
  uint64_t flags = 0;
  uint64_t addr = 0;
  uint64_t offset = 0;
  uint64_t size = 0;
  uint32_t link = 0;
  uint32_t info = 0;
  uint64_t addralign = 0;
  uint64_t entsize = 0;
};

// One ELF image. A default-constructed or moved-from image is empty: a
// placeholder that has no sections and no bytes, and is not an ELF file.
class KELO_EXPORT ELF {
 public:
  ELF() noexcept;
  ELF(ELF&& other) noexcept;
  ELF& operator=(ELF&& other) noexcept;
  ELF(const ELF&) = delete;
  ELF& operator=(const ELF&) = delete;
  ~ELF();

  // A freshly malloc'ed copy of exactly the bytes the image holds (with
  // ELFBytes::adoptRoom() bytes of room after them). An empty optional when
  // the image cannot be serialised: when it is empty, or memory runs out.
  // Leaves the image as it was; may be called any number of times.
  absl::optional<ELFBytes> save();

  // A new image made from a copy of `bytes`, which must form a well-formed
  // ELF file; the caller keeps them. Anything else (too short, wrong magic,
  // tables out of bounds, no bytes at all) gives an empty optional. May
  // throw std::bad_alloc.
  static absl::optional<ELF> load(absl::Span<unsigned char const> bytes);

  // The same, but the new image takes over the block of `bytes` as its own
  // storage instead of copying it (for a block with ELFBytes::adoptRoom()
  // bytes of room it stays where it is). `bytes` is left empty then. When
  // they do not form an ELF file, or std::bad_alloc is thrown, `bytes` stays
  // as it was.
  static absl::optional<ELF> adopt(ELFBytes&& bytes);

  // The image's bytes where the image keeps them: valid until the image is
  // destroyed, moved from or assigned to. Empty for an empty image.
  absl::Span<unsigned char const> bytes() const noexcept;

  // True when the image has a section of exactly this name (byte for byte).
  bool hasSection(const std::string& name) const;

  // The names of the image's sections in section-header order; the null
  // section at index 0 is left out. Empty for an empty image.
  std::vector<std::string> sectionNames() const;

  // Every section header in section-header order, the null section at
  // index 0 included, so that a position is the section's index. Names come
  // from the checked name table; a section's contents lie inside the bytes
  // unless it is SHT_NOBITS or SHT_NULL. Empty for an empty image.
  std::vector<SectionHeader> sectionHeaders() const;
  // True for ELF64 (ELFCLASS64), false for ELF32 and for an empty image.
  bool is64() const noexcept;
  // The file's type (e_type: ET_REL, ET_EXEC, ET_DYN, ...); 0 for an empty
  // image.
  uint16_t fileType() const noexcept;
  // The number of bytes the image holds (0 for an empty image).
  uint32_t size() const noexcept;

  // Starts fetching what the image keeps beside its bytes into the cache,
  // for a caller about to use many images in turn. Only a hint.
  void prefetch() const noexcept {
#if defined(__GNUC__)
    __builtin_prefetch(impl_);
#endif
  }

  // The identifier the image is filed under, if any. Callers that file the
  // image assign it; the image itself never reads it, and it is not part of
  // the saved bytes.
  absl::optional<DebugInfoID> debugInfoID;

 private:
  struct Impl;
  Impl* impl_ = nullptr;
};

}  // namespace kelo_elf

namespace std {
template <>
struct hash<kelo_elf::DebugInfoID> {
  size_t operator()(const kelo_elf::DebugInfoID& id) const noexcept { return id.hash(); }
};
}  // namespace std

#endif  // KELO_ELF_HPP_
