// The binary codec on its own: encodings, prefixes, truncation and forged
// lengths, over temporary files and memory streams.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "serialize/orvel/io/File.h"
#include "serialize/orvel/serialize/binary.h"

namespace {

using orvel_lib::io::File;
using orvel_lib::serialize::Decodable;
using orvel_lib::serialize::Encodable;
using Encoder = orvel_lib::serialize::binary::Encoder<File>;
using Decoder = orvel_lib::serialize::binary::Decoder<File>;
using Bytes = std::vector<unsigned char>;
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

Bytes le64(uint64_t v) {
  Bytes out;
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<unsigned char>(v >> (8 * i)));
  return out;
}

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

TEST(Encoding, IntegersAndCountPrefixesAreFixedWidthLittleEndian) {
  EXPECT_EQ(encode([](Encoder& e) { return e.emitInt<uint16_t>(258); }), (Bytes{0x02, 0x01}));
  EXPECT_EQ(encode([](Encoder& e) { return e.emitInt<uint64_t>(0x0102030405060708); }),
            (Bytes{8, 7, 6, 5, 4, 3, 2, 1}));
  Bytes seq = encode([](Encoder& e) {
    return e.emitSeq(3, [](Encoder& inner) {
      auto r = inner.emitInt<uint8_t>(7);
      if (r.isOk()) r = inner.emitInt<uint8_t>(8);
      if (r.isOk()) r = inner.emitInt<uint8_t>(9);
      return r;
    });
  });
  EXPECT_EQ(seq, (Bytes{3, 0, 0, 0, 0, 0, 0, 0, 7, 8, 9}));

  File file = fileOf({0x02, 0x01, 0x78, 0x56, 0x34, 0x12, 0xFF});
  Decoder dec(file);
  EXPECT_EQ(dec.readInt<uint16_t>().value(), 258u);
  EXPECT_EQ(dec.readInt<uint32_t>().value(), 0x12345678u);
  EXPECT_EQ(dec.readInt<uint8_t>().value(), 0xFFu);
  EXPECT_FALSE(dec.readInt<uint8_t>().isOk());
}

TEST(Encoding, EmptyStringSequenceAndMapAreEightZeroBytesEachWay) {
  const Bytes zeros(8, 0);
  const Sections none;
  EXPECT_EQ(encode([](Encoder& e) { return e.emitStr(""); }), zeros);
  EXPECT_EQ(encode([](Encoder& e) { return Encodable<absl::Span<unsigned char const>>::encode({}, e); }), zeros);
  EXPECT_EQ(encode([&](Encoder& e) { return Encodable<Sections>::encode(none, e); }), zeros);

  // Each reads back empty and consumes exactly its 8 bytes.
  const std::function<bool(Decoder&)> reads[] = {
      [](Decoder& d) { return d.readStr().value().empty(); },
      [](Decoder& d) { return Decodable<Bytes>::decode(d).value().empty(); },
      [](Decoder& d) { return Decodable<Sections>::decode(d).value().empty(); }};
  for (const auto& read : reads) {
    File f = fileOf(zeros + Bytes{0x5A});
    Decoder dec(f);
    EXPECT_TRUE(read(dec));
    EXPECT_EQ(std::ftell(f.get()), 8);
  }
}

TEST(Encoding, StringsWithNulBytesRoundTrip) {
  const std::string s("\0a\0\xff\0", 5);
  const Bytes bytes = encode([&](Encoder& e) { return e.emitStr(s); });
  EXPECT_EQ(bytes, le64(5) + text(s));
  File f = fileOf(bytes);
  Decoder dec(f);
  EXPECT_EQ(dec.readStr().value(), s);
}

TEST(Decoding, LongSequencesAndStringsSpanningManyStepsRoundTrip) {
  Bytes payload(3 * Decoder::kReadStep + 5);
  for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<unsigned char>(i * 131 + (i >> 12));
  const Bytes stream = le64(payload.size()) + payload;
  for (bool regular : {true, false}) {
    Bytes backing = stream;
    File seq = regular ? fileOf(stream) : memoryOf(backing);
    Decoder seqDec(seq);
    EXPECT_EQ(Decodable<Bytes>::decode(seqDec).value(), payload) << "regular " << regular;

    File str = regular ? fileOf(stream) : memoryOf(backing);
    Decoder strDec(str);
    EXPECT_EQ(strDec.readStr().value(), std::string(payload.begin(), payload.end())) << "regular " << regular;
  }
}

TEST(File, MoveTransfersOwnership) {
  File a(std::tmpfile());
  std::FILE* stream = a.get();
  File b(std::move(a));
  EXPECT_EQ(a.get(), nullptr);
  EXPECT_EQ(b.get(), stream);
  EXPECT_TRUE(b.close());
  EXPECT_FALSE(b);
}

}  // namespace
