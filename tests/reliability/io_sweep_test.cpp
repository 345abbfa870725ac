// I/O failure sweep of the debug-info file: every proper prefix of a valid
// file, and a stream that stops accepting bytes after k of them, for every k.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "counting_new.h"
#include "file/DebugInfoFile.h"
#include "kelo/DebugInfoList.h"
#include "kelo/debuginfo.h"
#include "reliability_support.h"
#include "serialize/orvel/io/File.h"
#include "support/files.h"

namespace {

using kelo_debuginfo::DebugInfoList;

// A list of three entries with section addresses: a multi-entry file.
DebugInfoList threeEntries() {
  DebugInfoList list;
  for (int i = 0; i < 3; ++i) {
    const kelo_elf::DebugInfoID id(static_cast<uint8_t>(i == 2 ? 0 : 1), static_cast<uint16_t>(0x10 + i), 1);
    list.add(id, reliability::makeImage(i));
    list.setSectionAddr(id, ".constant", 0x100u + i);
    list.setSectionAddr(id, ".local", 0x200u + i);
  }
  return list;
}

TEST(IoSweep, EveryProperPrefixOfAValidFileFailsToRead) {
  const std::string path = reliability::tempPath("io_full");
  {
    DebugInfoList list = threeEntries();
    ASSERT_TRUE(kelo_debuginfo::file::writeList(list, path.c_str()));
  }
  const std::vector<unsigned char> bytes = kelo_test::readFile(path);
  ASSERT_GT(bytes.size(), 100u);
  const std::string cut = reliability::tempPath("io_cut");
  for (std::size_t n = 0; n < bytes.size(); ++n) {
    ASSERT_TRUE(kelo_test::writeFile(cut, std::vector<unsigned char>(bytes.begin(), bytes.begin() + n)));
    const long live = counting_new::liveCount();
    const long images = reliability::liveImages();
    keloDbgList read = keloDbgRead(cut.c_str());
    EXPECT_EQ(read, nullptr) << "prefix of " << n << " bytes";
    keloDbgFree(read);
    EXPECT_EQ(counting_new::liveCount(), live) << "prefix of " << n << " bytes";
    EXPECT_EQ(reliability::liveImages(), images) << "prefix of " << n << " bytes";
    if (HasFailure()) break;
  }
  ASSERT_TRUE(kelo_test::writeFile(cut, bytes));
  keloDbgList whole = keloDbgRead(cut.c_str());
  EXPECT_NE(whole, nullptr);
  keloDbgFree(whole);
  std::printf("[ io sweep ] %zu proper prefixes read and refused\n", bytes.size());
}

// A stream that takes `limit` bytes and then refuses every write. (The write
// function reports failure as 0 bytes taken: fopencookie does not allow a
// negative answer, and glibc mishandles one on unbuffered streams.)
struct Sink {
  std::size_t limit;
  std::vector<unsigned char> got;
  int closes = 0;
};

FILE* openSink(Sink& sink) {
  cookie_io_functions_t io{};
  io.write = [](void* c, const char* data, size_t n) -> ssize_t {
    Sink& s = *static_cast<Sink*>(c);
    const std::size_t room = s.limit - s.got.size();
    if (room == 0) return 0;
    const std::size_t take = n < room ? n : room;
    s.got.insert(s.got.end(), data, data + take);
    return static_cast<ssize_t>(take);
  };
  io.close = [](void* c) -> int {
    ++static_cast<Sink*>(c)->closes;
    return 0;
  };
  return fopencookie(&sink, "wb", io);
}

// Writes the list into a sink of `limit` bytes; `buffered` false makes every
// field reach the sink at once.
bool writeInto(DebugInfoList& list, Sink& sink, bool buffered) {
  bool ok;
  {
    orvel_lib::io::File file(openSink(sink));
    EXPECT_TRUE(file);
    if (!buffered) std::setvbuf(file.get(), nullptr, _IONBF, 0);
    ok = kelo_debuginfo::file::writeListTo(list, file);
  }
  EXPECT_EQ(sink.closes, 1) << "the stream is closed exactly once";
  return ok;
}

TEST(IoSweep, AWriteThatFailsAfterKBytesFailsForEveryK) {
  DebugInfoList list = threeEntries();
  Sink full{SIZE_MAX, {}, 0};
  ASSERT_TRUE(writeInto(list, full, true));
  const std::vector<unsigned char> expected = full.got;
  const reliability::Snapshot before = reliability::snapshot(list);

  for (bool buffered : {true, false}) {
    for (std::size_t k = 0; k < expected.size(); ++k) {
      Sink sink{k, {}, 0};
      EXPECT_FALSE(writeInto(list, sink, buffered)) << "limit " << k << (buffered ? " buffered" : " unbuffered");
      // What got through is the start of the file, nothing else.
      EXPECT_TRUE(std::equal(sink.got.begin(), sink.got.end(), expected.begin())) << "limit " << k;
      if (HasFailure()) return;
    }
    Sink exact{expected.size(), {}, 0};
    EXPECT_TRUE(writeInto(list, exact, buffered));
    EXPECT_EQ(exact.got, expected);
  }
  EXPECT_EQ(reliability::snapshot(list), before) << "writing changed the list";
  std::printf("[ io sweep ] %zu failing write limits, buffered and not\n", expected.size());
}

}  // namespace
