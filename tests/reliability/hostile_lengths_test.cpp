// Files whose counts and lengths claim far more than they hold. Reading one
// must fail without allocating much more than the file's own size: the
// reader may keep a fixed stream buffer and grows buffers only as data
// arrives, whatever a prefix says.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "counting_new.h"
#include "kelo/debuginfo.h"
#include "reliability_support.h"
#include "serialize/orvel/io/File.h"
#include "serialize/orvel/serialize/binary.h"

namespace {

// What a read may hold beyond the file's bytes: the 1 MiB stream buffer that
// list files get, one 1 MiB step of a growing buffer, and small change for
// the list, the map and a few entries.
constexpr std::size_t kAllowance = (std::size_t{5} << 20) / 2;

struct Bytes {
  std::vector<unsigned char> b;
  Bytes& u(unsigned width, uint64_t v) {
    for (unsigned i = 0; i < width; ++i) b.push_back(static_cast<unsigned char>(v >> (8 * i)));
    return *this;
  }
  Bytes& header() {
    const unsigned char h[] = {0x80, 'K', 'E', 'L', 'O', 'D', 'B', 'G', 1, 1, 2, 0};
    b.insert(b.end(), std::begin(h), std::end(h));
    return *this;
  }
  Bytes& id(unsigned kind, unsigned lo, unsigned hi) { return u(1, kind).u(2, lo).u(2, hi); }
  Bytes& image() {
    kelo_elf::ELF img = reliability::makeImage(0);
    const std::vector<unsigned char> bytes = reliability::bytesOf(img);
    u(8, bytes.size());
    b.insert(b.end(), bytes.begin(), bytes.end());
    return *this;
  }
  // Pads to at least `size` bytes, as a file holding more than its fields.
  std::vector<unsigned char> padded(std::size_t size) {
    if (b.size() < size) b.resize(size, 0xAB);
    return b;
  }
};

void save(const std::string& path, const std::vector<unsigned char>& bytes) {
  FILE* f = std::fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
  ASSERT_EQ(std::fclose(f), 0);
}

// Reads `bytes` as a file through the C interface; the read must fail, and
// its peak allocation is returned.
std::size_t failedReadPeak(const std::vector<unsigned char>& bytes) {
  const std::string path = reliability::tempPath("hostile");
  save(path, bytes);
  const long live = counting_new::liveCount();
  const std::size_t base = counting_new::liveBytes();
  counting_new::resetPeak();
  keloDbgList list = keloDbgRead(path.c_str());
  const std::size_t peak = counting_new::peakBytes() - base;
  std::remove(path.c_str());
  EXPECT_EQ(list, nullptr);
  keloDbgFree(list);
  EXPECT_EQ(counting_new::liveCount(), live);
  return peak;
}

TEST(HostileLengths, ReadsAllocateLittleBeyondTheFileWhateverThePrefixesSay) {
  struct Case {
    const char* what;
    std::vector<unsigned char> bytes;
  };
  const Case cases[] = {
      {"a 4 GiB image", Bytes().header().u(8, 1).id(1, 1, 0).u(8, 0xffffffffu).padded(100)},
      {"a 2 GiB + 1 image", Bytes().header().u(8, 1).id(1, 1, 0).u(8, 0x80000001u).padded(100)},
      {"a 4-billion-entry count", Bytes().header().u(8, 0xffffffffu).padded(100)},
      {"a count with its high half set", Bytes().header().u(8, 0xffffffffffffffffu).padded(100)},
      {"a huge section count", Bytes().header().u(8, 1).id(1, 2, 0).image().u(8, 0xffffffffu).padded(100)},
      {"a huge section name", Bytes().header().u(8, 1).id(1, 3, 0).image().u(8, 1).u(8, 0xfffffff0u).padded(100)},
      {"a name length above 2^32", Bytes().header().u(8, 1).id(1, 3, 0).image().u(8, 1).u(8, ~uint64_t{0}).padded(100)},
  };
  for (const Case& c : cases) {
    const std::size_t peak = failedReadPeak(c.bytes);
    EXPECT_LE(peak, c.bytes.size() + kAllowance) << c.what;
    std::printf("[ hostile  ] %-32s file %zu bytes, peak allocation %zu bytes\n", c.what, c.bytes.size(), peak);
  }
}

// On a stream whose size the decoder cannot learn (a memory stream), string
// and byte buffers still grow only as the bytes arrive.
TEST(HostileLengths, ForgedLengthsOnAStreamOfUnknownSize) {
  using Decoder = orvel_lib::serialize::binary::Decoder<orvel_lib::io::File>;
  const uint64_t stringLength = std::min<uint64_t>(0xffffffffu, std::string().max_size());
  const uint64_t byteCount = std::min<uint64_t>(0xffffffffu, std::vector<unsigned char>().max_size());
  std::vector<unsigned char> str = Bytes().u(8, stringLength).padded(100);
  std::vector<unsigned char> seq = Bytes().u(8, byteCount).padded(100);
  orvel_lib::io::File strFile(fmemopen(str.data(), str.size(), "rb"));
  orvel_lib::io::File seqFile(fmemopen(seq.data(), seq.size(), "rb"));
  ASSERT_TRUE(strFile && seqFile);
  Decoder strDec(strFile);
  Decoder seqDec(seqFile);
  const std::size_t base = counting_new::liveBytes();
  counting_new::resetPeak();
  EXPECT_FALSE(strDec.readStr().isOk());
  EXPECT_FALSE(orvel_lib::serialize::Decodable<std::vector<unsigned char>>::decode(seqDec).isOk());
  EXPECT_LE(counting_new::peakBytes() - base, 2 * Decoder::kFirstStep + 4096);
}

// A byte-sequence count above 2^31 - 1 is beyond what a 32-bit vector can
// hold: there it raises the vector's length error (which the entry decoder
// turns into a failed read); on 64-bit hosts the bytes are simply not there.
TEST(HostileLengths, ByteSequenceAboveTheVectorLimitFails) {
  std::vector<unsigned char> bytes = Bytes().u(8, 0x80000001u).padded(64);
  orvel_lib::io::File file(fmemopen(bytes.data(), bytes.size(), "rb"));
  ASSERT_TRUE(file);
  orvel_lib::serialize::binary::Decoder<orvel_lib::io::File> dec(file);
  using Decode = orvel_lib::serialize::Decodable<std::vector<unsigned char>>;
  if (std::vector<unsigned char>().max_size() < 0x80000001u) {
    EXPECT_THROW(Decode::decode(dec), std::length_error);
  } else {
    EXPECT_FALSE(Decode::decode(dec).isOk());
  }
  // The whole read fails either way (above, "a 2 GiB + 1 image").
}

}  // namespace
