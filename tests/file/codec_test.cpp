// The binary codec on its own: encodings, prefixes and long lengths, over
// temporary files and memory streams.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <unordered_map>

#include "serialize/orvel/io/File.h"
#include "serialize/orvel/io/ReadBuffer.h"
#include "serialize/orvel/serialize/binary.h"
#include "support/bytes.h"

namespace {

using kelo_test::Bytes;
using kelo_test::le;
using kelo_test::text;
using kelo_test::operator+;
using orvel_lib::io::Block;
using orvel_lib::io::File;
using orvel_lib::serialize::Decodable;
using orvel_lib::serialize::Encodable;
using Encoder = orvel_lib::serialize::binary::Encoder<File>;
using Decoder = orvel_lib::serialize::binary::Decoder<File>;
using Sections = std::unordered_map<std::string, unsigned>;

Bytes contents(File& file) {
  std::fflush(file.get());
  std::rewind(file.get());
  Bytes out;
  int c;
  while ((c = std::fgetc(file.get())) != EOF) out.push_back(static_cast<unsigned char>(c));
  return out;
}

// What `write` puts into an empty stream.
Bytes encode(const std::function<Encoder::Res(Encoder&)>& write) {
  File file(std::tmpfile());
  Encoder enc(file);
  EXPECT_TRUE(write(enc).isOk());
  return contents(file);
}

// A temporary (regular) file holding `bytes`, positioned at its start.
File fileOf(const Bytes& bytes) {
  File file(std::tmpfile());
  if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), file.get());
  std::rewind(file.get());
  return file;
}

// A memory stream over `bytes` (kept alive by the caller): a stream whose
// size the decoder cannot learn.
File memoryOf(Bytes& bytes) { return File(fmemopen(bytes.data(), bytes.size(), "rb")); }

TEST(Encoding, IntegersAndCountPrefixesAreFixedWidthLittleEndian) {
  EXPECT_EQ(encode([](Encoder& e) { return e.emitInt<uint16_t>(258); }), (Bytes{0x02, 0x01}));
  EXPECT_EQ(encode([](Encoder& e) { return e.emitInt<uint64_t>(0x0102030405060708); }),
            (Bytes{8, 7, 6, 5, 4, 3, 2, 1}));
  Bytes seq = encode([](Encoder& e) {
    return e.emitSeq(3, [](Encoder& inner) {
      auto r = inner.emitInt<uint8_t>(7);
      if (r.isOk()) r = inner.emitInt<uint8_t>(8);
      if (r.isOk()) r = inner.emitInt<uint8_t>(0xFF);
      return r;
    });
  });
  EXPECT_EQ(seq, (Bytes{3, 0, 0, 0, 0, 0, 0, 0, 7, 8, 0xFF}));

  File file = fileOf({0x02, 0x01, 0x78, 0x56, 0x34, 0x12, 0xFF});
  Decoder dec(file);
  EXPECT_EQ(dec.readInt<uint16_t>().value(), 258u);
  EXPECT_EQ(dec.readInt<uint32_t>().value(), 0x12345678u);
  EXPECT_EQ(dec.readInt<uint8_t>().value(), 0xFFu);
  EXPECT_FALSE(dec.readInt<uint8_t>().isOk());
}

TEST(Encoding, StringsAnyBytesAndEmptyValuesEightZeroBytesEachWay) {
  const Bytes zeros(8, 0);
  const Sections none;
  EXPECT_EQ(encode([](Encoder& e) { return e.emitStr(""); }), zeros);
  EXPECT_EQ(encode([](Encoder& e) { return Encodable<absl::Span<unsigned char const>>::encode({}, e); }), zeros);
  EXPECT_EQ(encode([&](Encoder& e) { return Encodable<Sections>::encode(none, e); }), zeros);

  // Strings hold any bytes, NUL included.
  const std::string s("\0a\0\xff\0", 5);
  const Bytes bytes = encode([&](Encoder& e) { return e.emitStr(s); });
  EXPECT_EQ(bytes, le(8, 5) + text(s));
  File f = fileOf(bytes);
  Decoder dec(f);
  EXPECT_EQ(dec.readStr().value(), s);

  // Each reads back empty and consumes exactly its 8 bytes.
  const std::function<bool(Decoder&)> reads[] = {
      [](Decoder& d) { return d.readStr().value().empty(); },
      [](Decoder& d) { return Decodable<Block>::decode(d).value().size() == 0; },
      [](Decoder& d) { return Decodable<Sections>::decode(d).value().empty(); }};
  for (const auto& read : reads) {
    File f = fileOf(zeros + Bytes{0x5A});
    Decoder dec(f);
    EXPECT_TRUE(read(dec));
    EXPECT_EQ(std::ftell(f.get()), 8);
  }
}

// Long lengths on a regular file are read in one step; on a stream of
// unknown size (a memory stream) in growing steps. Either way the bytes
// arrive whole, and byte blocks keep the room asked for after them.
TEST(Decoding, LongSequencesAndStringsRoundTripOnEveryKindOfStream) {
  Bytes payload(5 * orvel_lib::io::buffers::kFirstStep + 5);
  for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<unsigned char>(i * 131 + (i >> 12));
  const Bytes stream = le(8, payload.size()) + payload;
  for (bool regular : {true, false}) {
    SCOPED_TRACE(regular ? "regular file" : "memory stream");
    Bytes backing = stream;
    File seq = regular ? fileOf(stream) : memoryOf(backing);
    Decoder seqDec(seq);
    Block block;
    ASSERT_TRUE(Decodable<Block>::decodeInto(seqDec, block, 40).isOk());
    EXPECT_EQ(Bytes(block.data(), block.data() + block.size()), payload);
    EXPECT_GE(block.capacity(), payload.size() + 40);

    File str = regular ? fileOf(stream) : memoryOf(backing);
    Decoder strDec(str);
    EXPECT_EQ(strDec.readStr().value(), std::string(payload.begin(), payload.end()));
  }
}

}  // namespace
