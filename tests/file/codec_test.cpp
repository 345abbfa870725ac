// The binary codec's readers on long lengths, over temporary files and
// memory streams. (The encodings themselves are pinned by the exact bytes of
// whole files in DebugInfoFile_test.cpp.)
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "serialize/orvel/io/File.h"
#include "serialize/orvel/io/ReadBuffer.h"
#include "serialize/orvel/serialize/binary.h"
#include "support/bytes.h"

namespace {

using kelo_test::Bytes;
using kelo_test::le;
using kelo_test::operator+;
using orvel_lib::io::Block;
using orvel_lib::io::File;
using orvel_lib::serialize::Decodable;
using Decoder = orvel_lib::serialize::binary::Decoder<File>;

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

// Long lengths on a regular file are read in one step; on a stream of
// unknown size (a memory stream) in growing steps. Either way the bytes
// arrive whole, and byte blocks keep the room asked for after them.
TEST(Decoding, LongSequencesAndStringsArriveWholeOnEveryKindOfStream) {
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
