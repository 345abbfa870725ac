// A small binary codec over a C standard-I/O stream.
//
// Encodings: integers are fixed-width little-endian whatever the host;
// strings, sequences and maps carry an unsigned 64-bit little-endian count or
// length prefix whose upper four bytes the writer always leaves 0. Fields
// follow each other with no fill, tags or checksums.
//
// Every operation returns a Result; a short read or write, end of file and a
// malformed prefix all give the coder's empty ErrTy. The codec raises no
// exception for I/O; memory exhaustion (std::bad_alloc) and lengths beyond
// what one buffer can hold (io::LengthError) pass through the generic
// readers. Buffers for strings and byte blocks are sized by the rule of
// io/ReadBuffer.h, so a forged length cannot make a reader allocate far
// beyond what the stream delivered.
//
// Types take part through the customisation points Encodable<T> and
// Decodable<T>:
//   template <> struct Encodable<T> {
//     template <typename Enc, typename Res = Result<absl::monostate, typename Enc::ErrTy>>
//     static Res encode(const T& value, Enc& enc);
//   };
//   template <> struct Decodable<T> {
//     template <typename Dec, typename Res = Result<T, typename Dec::ErrTy>>
//     static Res decode(Dec& dec);
//   };
#ifndef ORVEL_SERIALIZE_BINARY_H_
#define ORVEL_SERIALIZE_BINARY_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "absl/strings/string_view.h"
#include "absl/types/span.h"
#include "absl/types/variant.h"
#include "serialize/orvel/Result.h"
#include "serialize/orvel/io/File.h"
#include "serialize/orvel/io/ReadBuffer.h"
#include "serialize/orvel/serialize/ByteReader.h"

namespace orvel_lib {
namespace serialize {

template <typename T>
struct Encodable;
template <typename T>
struct Decodable;

namespace binary {

namespace detail {

template <typename T>
constexpr bool isCodecInt() {
  return std::is_same<T, std::uint8_t>::value || std::is_same<T, std::uint16_t>::value ||
         std::is_same<T, std::uint32_t>::value || std::is_same<T, std::uint64_t>::value;
}

// Counts and lengths are 32-bit on the writing side; anything larger cannot
// be written in a form the reader accepts.
inline bool fitsCount(std::size_t n) {
  if constexpr (sizeof(std::size_t) > sizeof(unsigned)) {
    return n <= std::numeric_limits<unsigned>::max();
  } else {
    static_cast<void>(n);
    return true;
  }
}

}  // namespace detail

template <typename Stream>
class Encoder;
template <typename Stream>
class Decoder;

// Both coders use the unlocked stdio calls: a stream belongs to the one call
// that opened it, so stdio's per-call stream lock buys nothing. Integers and
// prefixes go byte by byte through getc_unlocked/putc_unlocked, which work
// on the stream's buffer inline; runs of bytes go in one call.

template <>
class Encoder<io::File> {
 public:
  struct ErrTy {};
  using Res = Result<absl::monostate, ErrTy>;

  explicit Encoder(io::File& file) noexcept : file_(file) {}

  // One fixed-width unsigned integer (8, 16, 32 or 64 bits), little-endian.
  template <typename T>
  Res emitInt(T value) {
    static_assert(detail::isCodecInt<T>(), "emitInt takes uint8_t, uint16_t, uint32_t or uint64_t");
    std::FILE* stream = file_.get();
    for (std::size_t i = 0; i < sizeof(T); ++i) {
      const int byte = static_cast<unsigned char>(static_cast<std::uint64_t>(value) >> (8 * i));
      if (putc_unlocked(byte, stream) == EOF) return ErrTy{};
    }
    return absl::monostate{};
  }

  // Length prefix, then the bytes; any byte values, no terminator.
  Res emitStr(absl::string_view s) {
    if (!detail::fitsCount(s.size())) return ErrTy{};
    Res prefix = emitPrefix(static_cast<unsigned>(s.size()));
    if (!prefix.isOk()) return prefix;
    return emitRaw(s.data(), s.size());
  }

  // The bytes of a byte sequence's body, all at once (no prefix).
  Res emitBytes(absl::Span<unsigned char const> bytes) { return emitRaw(bytes.data(), bytes.size()); }

  // Count prefix, then f(*this), which writes exactly `count` elements.
  // Returns the prefix's error or else f's result.
  template <typename F>
  Res emitSeq(unsigned count, F f) {
    Res prefix = emitPrefix(count);
    if (!prefix.isOk()) return prefix;
    return f(*this);
  }

  // Count prefix, then f(*this), which writes `count` key/value pairs.
  template <typename F>
  Res emitMap(unsigned count, F f) {
    return emitSeq(count, std::move(f));
  }

 private:
  Res emitPrefix(unsigned count) { return emitInt<std::uint64_t>(count); }

  Res emitRaw(const void* data, std::size_t n) {
    std::FILE* stream = file_.get();
    // A few bytes go faster one by one than through a call.
    if (n <= kByteByByte) {
      const auto* p = static_cast<const unsigned char*>(data);
      for (std::size_t i = 0; i < n; ++i) {
        if (putc_unlocked(p[i], stream) == EOF) return ErrTy{};
      }
      return absl::monostate{};
    }
    if (fwrite_unlocked(data, 1, n, stream) != n) return ErrTy{};
    return absl::monostate{};
  }

  static constexpr std::size_t kByteByByte = 16;

  io::File& file_;
};

// Reads fields back to back from the stream's current position. Holds only a
// reference to the File, which must outlive it. After an error the position
// is unspecified; the caller abandons the stream.
template <>
class Decoder<io::File> {
 public:
  struct ErrTy {};
  template <typename T>
  using Res = Result<T, ErrTy>;

  explicit Decoder(io::File& file) noexcept : file_(file) {}

  // Strings up to this long are read byte by byte.
  static constexpr std::size_t kByteByByte = 16;

  // One fixed-width unsigned integer, little-endian.
  template <typename T>
  Res<T> readInt() {
    static_assert(detail::isCodecInt<T>(), "readInt takes uint8_t, uint16_t, uint32_t or uint64_t");
    std::FILE* stream = file_.get();
    unsigned char bytes[sizeof(T)];
    for (std::size_t i = 0; i < sizeof(T); ++i) {
      const int c = getc_unlocked(stream);
      if (c == EOF) return ErrTy{};
      bytes[i] = static_cast<unsigned char>(c);
    }
    return static_cast<T>(unpack(bytes, sizeof(T), false));
  }

  // A length-prefixed string. A prefix of 2^32 or more is an error, found
  // after the string's bytes (its low 32 bits) have been read. A length
  // beyond the string's max_size() raises io::LengthError.
  Res<std::string> readStr() {
    Res<std::uint64_t> prefix = readInt<std::uint64_t>();
    if (!prefix.isOk()) return ErrTy{};
    const std::uint64_t n = prefix.value() & 0xffffffffu;
    std::string s;
    if (n > s.max_size()) throw io::LengthError();
    if ((prefix.value() >> 32) != 0) return ErrTy{};
    if (n <= kByteByByte) {
      // A short string goes faster byte by byte than through a call.
      s.resize(static_cast<std::size_t>(n));
      std::FILE* stream = file_.get();
      for (char& c : s) {
        const int got = getc_unlocked(stream);
        if (got == EOF) return ErrTy{};
        c = static_cast<char>(got);
      }
      return s;
    }
    if (!io::readExactly(file_.get(), s, static_cast<std::size_t>(n), leftIfLong(n))) return ErrTy{};
    return s;
  }

  // Exactly `n` bytes into `out`, with `spare` bytes of room after them (see
  // io::readExactly). On error `out` holds an unspecified part of them.
  Res<absl::monostate> readBytes(std::size_t n, io::Block& out, std::size_t spare = 0) {
    if (!io::readExactly(file_.get(), out, n, spare, leftIfLong(n))) return ErrTy{};
    return absl::monostate{};
  }

  // Reads the count prefix and returns f(*this, count), where count is the
  // prefix's low 32 bits (the high half is ignored). f reads the elements
  // and returns the container as a Result with this ErrTy. A failed prefix
  // read returns ErrTy without calling f.
  template <typename F>
  auto readSeq(F f) -> decltype(f(std::declval<Decoder&>(), 0u)) {
    Res<std::uint64_t> prefix = readInt<std::uint64_t>();
    if (!prefix.isOk()) return ErrTy{};
    return f(*this, static_cast<unsigned>(prefix.value() & 0xffffffffu));
  }

  // The same for a map: f reads `count` key/value pairs.
  template <typename F>
  auto readMap(F f) -> decltype(f(std::declval<Decoder&>(), 0u)) {
    return readSeq(std::move(f));
  }

  // How many of `count` entries, each at least `minEntryBytes` long, the rest
  // of a regular file could hold: a safe amount to reserve. 0 when the
  // stream's size is unknown.
  std::size_t backedCount(std::uint64_t count, std::uint64_t minEntryBytes) const {
    return io::buffers::backedCount(count, minEntryBytes, file_.bytesLeft());
  }

 private:
  // What the stream holds, asked only where the answer matters: for a
  // length too long to be trusted at once.
  absl::optional<std::uint64_t> leftIfLong(std::uint64_t n) const {
    if (n <= io::buffers::kFirstStep) return absl::nullopt;
    return file_.bytesLeft();
  }

  io::File& file_;
};

}  // namespace binary

// ---- Generic encodings ----

// A byte sequence: count prefix, then the bytes.
template <>
struct Encodable<absl::Span<unsigned char const>> {
  template <typename Enc, typename Res = Result<absl::monostate, typename Enc::ErrTy>>
  static Res encode(absl::Span<unsigned char const> bytes, Enc& enc) {
    if (!binary::detail::fitsCount(bytes.size())) return typename Enc::ErrTy{};
    return enc.emitSeq(static_cast<unsigned>(bytes.size()), [bytes](Enc& e) { return e.emitBytes(bytes); });
  }
};

// A byte sequence, into a block. A count of 0 reads nothing after the
// prefix.
template <>
struct Decodable<io::Block> {
  template <typename Dec, typename Res = Result<io::Block, typename Dec::ErrTy>>
  static Res decode(Dec& dec) {
    io::Block bytes;
    Result<absl::monostate, typename Dec::ErrTy> r = decodeInto(dec, bytes);
    if (!r.isOk()) return typename Dec::ErrTy{};
    return Res(std::move(bytes));
  }

  // The same into `out`, with `spare` bytes of room after the bytes.
  template <typename Dec, typename Res = Result<absl::monostate, typename Dec::ErrTy>>
  static Res decodeInto(Dec& dec, io::Block& out, std::size_t spare = 0) {
    return dec.readSeq([&out, spare](Dec& d, unsigned count) -> Res { return d.readBytes(count, out, spare); });
  }
};

template <>
struct Encodable<std::string> {
  template <typename Enc, typename Res = Result<absl::monostate, typename Enc::ErrTy>>
  static Res encode(const std::string& s, Enc& enc) {
    return enc.emitStr(s);
  }
};

template <>
struct Decodable<std::string> {
  template <typename Dec, typename Res = Result<std::string, typename Dec::ErrTy>>
  static Res decode(Dec& dec) {
    return dec.readStr();
  }
};

template <>
struct Encodable<unsigned> {
  template <typename Enc, typename Res = Result<absl::monostate, typename Enc::ErrTy>>
  static Res encode(unsigned value, Enc& enc) {
    static_assert(sizeof(unsigned) == 4, "unsigned is written as 32 bits");
    return enc.template emitInt<std::uint32_t>(value);
  }
};

template <>
struct Decodable<unsigned> {
  template <typename Dec, typename Res = Result<unsigned, typename Dec::ErrTy>>
  static Res decode(Dec& dec) {
    auto r = dec.template readInt<std::uint32_t>();
    if (!r.isOk()) return typename Dec::ErrTy{};
    return Res(r.value());
  }
};

// A map: count prefix, then key and value of each entry in the map's own
// iteration order. Values are passed by non-const reference when the map is
// not const, for value types whose encoding needs it.
template <typename K, typename V, typename H, typename Eq, typename A>
struct Encodable<std::unordered_map<K, V, H, Eq, A>> {
  template <typename Enc, typename M, typename Res = Result<absl::monostate, typename Enc::ErrTy>>
  static Res encode(M& map, Enc& enc) {
    if (!binary::detail::fitsCount(map.size())) return typename Enc::ErrTy{};
    return enc.emitMap(static_cast<unsigned>(map.size()), [&map](Enc& e) -> Res {
      for (auto& entry : map) {
        Res key = Encodable<K>::encode(entry.first, e);
        if (!key.isOk()) return key;
        Res value = Encodable<V>::encode(entry.second, e);
        if (!value.isOk()) return value;
      }
      return absl::monostate{};
    });
  }
};

// A map of `count` entries. A key read twice keeps the value read first; the
// later pair is dropped and is not an error.
template <typename K, typename V, typename H, typename Eq, typename A>
struct Decodable<std::unordered_map<K, V, H, Eq, A>> {
  using Map = std::unordered_map<K, V, H, Eq, A>;

  template <typename Dec, typename Res = Result<Map, typename Dec::ErrTy>>
  static Res decode(Dec& dec) {
    Map map;
    if (!decodeInto(dec, map).isOk()) return typename Dec::ErrTy{};
    return Res(std::move(map));
  }

  // The same into `map`, which starts empty. On error it holds an
  // unspecified part of the entries.
  template <typename Dec, typename Res = Result<absl::monostate, typename Dec::ErrTy>>
  static Res decodeInto(Dec& dec, Map& map) {
    return dec.readMap([&map](Dec& d, unsigned count) -> Res {
      for (unsigned i = 0; i < count; ++i) {
        auto key = Decodable<K>::decode(d);
        if (!key.isOk()) return typename Dec::ErrTy{};
        auto value = Decodable<V>::decode(d);
        if (!value.isOk()) return typename Dec::ErrTy{};
        map.try_emplace(std::move(key.value()), std::move(value.value()));
      }
      return absl::monostate{};
    });
  }
};

}  // namespace serialize
}  // namespace orvel_lib

#endif  // ORVEL_SERIALIZE_BINARY_H_
