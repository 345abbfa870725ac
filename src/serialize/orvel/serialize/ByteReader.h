// Unsigned integers from bytes in memory, in either byte order.
//
// unpack() puts an integer together from byte shifts, whatever the host's
// own order; the codec's decoder and ByteReader both use it. ByteReader reads
// at offsets inside a bounded view of untrusted bytes: every read checks,
// without overflow, that it lies inside the view. A read outside gives 0 and
// leaves the reader failed (sticky), so a record can be read field by field
// and checked once.
#ifndef ORVEL_SERIALIZE_BYTEREADER_H_
#define ORVEL_SERIALIZE_BYTEREADER_H_

#include <cstddef>
#include <cstdint>

namespace orvel_lib {
namespace serialize {

// The `width` bytes at `p` (at most 8) as an unsigned integer, least
// significant byte first unless `bigEndian`.
inline std::uint64_t unpack(const unsigned char* p, unsigned width, bool bigEndian) noexcept {
  std::uint64_t v = 0;
  for (unsigned i = 0; i < width; ++i) {
    const unsigned char b = p[bigEndian ? i : width - 1 - i];
    v = (v << 8) | b;
  }
  return v;
}

class ByteReader {
 public:
  ByteReader(const unsigned char* data, std::size_t size, bool bigEndian) noexcept
      : data_(data), size_(size), big_(bigEndian) {}

  // True when [offset, offset + length) lies inside the view.
  bool contains(std::uint64_t offset, std::uint64_t length) const noexcept {
    return offset <= size_ && size_ - offset >= length;
  }

  // The unsigned integer of `width` bytes (1 to 8) at `offset`; 0, and the
  // reader failed, when it is not inside the view.
  std::uint64_t read(std::uint64_t offset, unsigned width) noexcept {
    if (!contains(offset, width)) {
      ok_ = false;
      return 0;
    }
    return unpack(data_ + offset, width, big_);
  }

  // False once any read has fallen outside the view.
  bool ok() const noexcept { return ok_; }

  const unsigned char* data() const noexcept { return data_; }
  std::size_t size() const noexcept { return size_; }

 private:
  const unsigned char* data_;
  std::size_t size_;
  bool big_;
  bool ok_ = true;
};

}  // namespace serialize
}  // namespace orvel_lib

#endif  // ORVEL_SERIALIZE_BYTEREADER_H_
