// How much memory a read may take, and the blocks that reads fill.
//
// Lengths and counts read from a stream are untrusted: a forged one must not
// make a reader allocate more than the stream backs. The rule, in one place
// for every reader of this tree (the codec's strings and byte blocks, the
// image library's file reader):
//   - a buffer is sized at once for a length of at most kFirstStep, or for a
//     length that the rest of a regular file holds;
//   - otherwise it grows as the bytes arrive, each step at most as large as
//     what has arrived so far (and at least kFirstStep), so it never holds
//     more than about twice what the stream delivered.
// Buffers are the standard string, or a Block: malloc'ed memory that grows
// in place where the allocator can and whose bytes can be handed on, so that
// the bytes of an image land once, in the memory that finally keeps them.
#ifndef ORVEL_IO_READBUFFER_H_
#define ORVEL_IO_READBUFFER_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

#include "absl/types/optional.h"

namespace orvel_lib {
namespace io {

// A length that no buffer of this platform can hold. The codec raises it
// where the standard containers would raise their own length errors.
class LengthError : public std::length_error {
 public:
  LengthError() : std::length_error("orvel: a length beyond what one buffer can hold on this platform") {}
};

namespace buffers {

// The stdio buffer of streams that carry whole lists. Reads and writes of at
// least this size bypass it and go straight between the file and their own
// memory; smaller fields are gathered in it.
constexpr std::size_t kStreamBuffer = std::size_t{64} << 10;

// Lengths up to this are trusted at once.
constexpr std::size_t kFirstStep = std::size_t{64} << 10;

// The largest block: no object may be larger than PTRDIFF_MAX bytes.
constexpr std::size_t kMaxBlock = static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max());

// Whether a buffer for `want` bytes may be made at once, when `left` bytes
// follow in the stream (absent: not known).
inline bool trustAtOnce(std::uint64_t want, absl::optional<std::uint64_t> left) {
  return want <= kFirstStep || (left && *left >= want);
}

// The size to grow a buffer to when `have` of `want` bytes have arrived.
inline std::size_t nextSize(std::size_t have, std::size_t want) {
  return have + std::min(want - have, std::max(have, kFirstStep));
}

// How many of `count` records, each at least `minBytes` long, `left` more
// bytes can hold: what may be reserved for them ahead (0 when not known).
inline std::size_t backedCount(std::uint64_t count, std::uint64_t minBytes, absl::optional<std::uint64_t> left) {
  if (!left || minBytes == 0) return 0;
  return static_cast<std::size_t>(std::min(count, *left / minBytes));
}

}  // namespace buffers

// Bytes in one malloc'ed block, owned: released with free() by the
// destructor unless handed on with release(). Move-only.
class Block {
 public:
  Block() noexcept = default;
  Block(Block&& other) noexcept
      : data_(std::exchange(other.data_, nullptr)),
        size_(std::exchange(other.size_, 0)),
        capacity_(std::exchange(other.capacity_, 0)) {}
  Block& operator=(Block&& other) noexcept {
    if (this != &other) {
      std::free(data_);
      data_ = std::exchange(other.data_, nullptr);
      size_ = std::exchange(other.size_, 0);
      capacity_ = std::exchange(other.capacity_, 0);
    }
    return *this;
  }
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;
  ~Block() { std::free(data_); }

  unsigned char* data() const noexcept { return data_; }
  std::size_t size() const noexcept { return size_; }
  std::size_t capacity() const noexcept { return capacity_; }

  // Room for `capacity` bytes, the first size() kept. Throws LengthError
  // beyond kMaxBlock and std::bad_alloc when memory runs out; the block is
  // unchanged then.
  void reserve(std::size_t capacity) {
    if (capacity <= capacity_) return;
    if (capacity > buffers::kMaxBlock) throw LengthError();
    void* grown = std::realloc(data_, capacity);
    if (grown == nullptr) throw std::bad_alloc();
    data_ = static_cast<unsigned char*>(grown);
    capacity_ = capacity;
  }

  // REQUIRES: n <= capacity().
  void setSize(std::size_t n) noexcept { size_ = n; }

  // Hands the memory to the caller, who frees it; the block is empty after.
  unsigned char* release() noexcept {
    size_ = capacity_ = 0;
    return std::exchange(data_, nullptr);
  }

 private:
  unsigned char* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

// Reads exactly `n` bytes of `stream` into `block`, which then holds them
// (size n) with at least `spare` bytes of room after them. `left` is what
// the stream is known to hold (absent: unknown); the block grows by the
// rule above. False on a short read; the block's contents are then
// unspecified. Throws what Block::reserve throws.
inline bool readExactly(std::FILE* stream, Block& block, std::size_t n, std::size_t spare,
                        absl::optional<std::uint64_t> left) {
  if (n > buffers::kMaxBlock - spare) throw LengthError();
  block.setSize(0);
  std::size_t have = 0;
  std::size_t target = buffers::trustAtOnce(n, left) ? n : buffers::nextSize(0, n);
  for (;;) {
    block.reserve(target == n ? n + spare : target);
    const std::size_t step = target - have;
    if (step != 0 && fread_unlocked(block.data() + have, 1, step, stream) != step) return false;
    have = target;
    if (have == n) break;
    target = buffers::nextSize(have, n);
  }
  block.setSize(n);
  return true;
}

// The same for a string, resized to exactly `n` bytes.
inline bool readExactly(std::FILE* stream, std::string& s, std::size_t n, absl::optional<std::uint64_t> left) {
  if (n > s.max_size()) throw LengthError();
  s.clear();
  std::size_t have = 0;
  std::size_t target = buffers::trustAtOnce(n, left) ? n : buffers::nextSize(0, n);
  for (;;) {
    s.resize(target);
    const std::size_t step = target - have;
    if (step != 0 && fread_unlocked(&s[have], 1, step, stream) != step) return false;
    have = target;
    if (have == n) return true;
    target = buffers::nextSize(have, n);
  }
}

// Reads `stream` to its end into `block`, with at least `spare` bytes of
// room after the bytes. `left` is what the stream is known to hold (for a
// regular file, its size); it sizes the first step, and the block grows by
// the rule above for whatever else arrives. False on a read error or when
// more than `limit` bytes arrive (found before memory for them is taken).
inline bool readToEnd(std::FILE* stream, Block& block, std::size_t spare, std::uint64_t limit,
                      absl::optional<std::uint64_t> left) {
  if (limit > buffers::kMaxBlock - spare - 1) limit = buffers::kMaxBlock - spare - 1;
  if (left && *left > limit) return false;
  block.setSize(0);
  std::size_t have = 0;
  // One byte beyond what is expected, so that the end shows without a
  // second step.
  std::size_t target = left ? static_cast<std::size_t>(*left) + 1 : buffers::kFirstStep;
  for (;;) {
    block.reserve(target + spare);
    const std::size_t step = target - have;
    const std::size_t got = fread_unlocked(block.data() + have, 1, step, stream);
    have += got;
    if (got < step) break;
    if (have > limit) return false;
    target = buffers::nextSize(have, static_cast<std::size_t>(limit) + 1);
  }
  if (std::ferror(stream) || have > limit) return false;
  block.setSize(have);
  return true;
}

}  // namespace io
}  // namespace orvel_lib

#endif  // ORVEL_IO_READBUFFER_H_
