// Files whose counts and lengths claim far more than they hold. Reading one
// must fail without allocating much more than the file's own size: buffers
// grow only as data arrives, whatever a prefix says.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "double/elf_double.h"
#include "file/DebugInfoFile.h"
#include "serialize/orvel/io/File.h"
#include "serialize/orvel/io/ReadBuffer.h"
#include "support/bytes.h"

namespace {

using kelo_test::Bytes;
using kelo_test::fileEntry;
using kelo_test::fileHeader;
using kelo_test::le;
using kelo_test::operator+;

// Heap in use, by malloc's own count: operator new and malloc alike.
std::size_t heapInUse() {
  const struct mallinfo2 m = mallinfo2();
  return m.uordblks + m.hblkhd;
}

// Whether the heap in use is malloc's own count (not under a sanitizer or
// valgrind, whose allocators keep their own).
bool mallocIsCounted() {
  const std::size_t before = heapInUse();
  void* volatile probe = std::malloc(1 << 20);
  const bool counted = heapInUse() >= before + (1 << 20);
  std::free(probe);
  return counted;
}

// A stream over `bytes` that notes the most heap in use whenever it is asked
// for data: a buffer is taken before the bytes meant for it are read, so the
// peak of a read is seen.
struct Watched {
  const Bytes& bytes;
  std::size_t at = 0;
  std::size_t peak = 0;
};

FILE* openWatched(Watched& w) {
  cookie_io_functions_t io{};
  io.read = [](void* c, char* buf, size_t n) -> ssize_t {
    Watched& w = *static_cast<Watched*>(c);
    w.peak = std::max(w.peak, heapInUse());
    const std::size_t take = std::min(n, w.bytes.size() - w.at);
    std::memcpy(buf, w.bytes.data() + w.at, take);
    w.at += take;
    return static_cast<ssize_t>(take);
  };
  return fopencookie(&w, "rb", io);
}

TEST(HostileLengths, ReadsAllocateLittleBeyondTheFileWhateverThePrefixesSay) {
  // Under a sanitizer or valgrind the allocator's statistics are not
  // malloc's: nothing to measure with.
  if (!mallocIsCounted()) GTEST_SKIP() << "malloc statistics are not available";
  // What a read may hold beyond the file: the stream's buffer, a first step
  // of a growing buffer, and small change.
  constexpr std::size_t kAllowance = orvel_lib::io::buffers::kFirstStep + (std::size_t{64} << 10);
  const Bytes one = fileHeader() + le(8, 1);
  // An entry (kind 1, number 3) up to its section count.
  const Bytes head = fileEntry(1, 3, 0, elf_double::bytesWithSections({".text"}));
  const Bytes entry(head.begin(), head.end() - 8);
  struct Case {
    const char* what;
    Bytes bytes;
  };
  const Case cases[] = {
      {"a 4 GiB image", one + le(5, 1) + le(8, 0xffffffffu)},
      {"a 2 GiB + 1 image", one + le(5, 1) + le(8, 0x80000001u)},
      {"a 4-billion-entry count", fileHeader() + le(8, 0xffffffffu)},
      {"a count with its high half set", fileHeader() + le(8, ~uint64_t{0})},
      {"a huge section count", one + entry + le(8, 0xffffffffu)},
      {"a huge section name", one + entry + le(8, 1) + le(8, 0xfffffff0u)},
      {"a name length above 2^32", one + entry + le(8, 1) + le(8, ~uint64_t{0})},
  };
  for (const Case& c : cases) {
    Bytes bytes = c.bytes;
    bytes.resize(std::max<std::size_t>(bytes.size(), 100), 0xAB);
    Watched w{bytes};
    const std::size_t base = heapInUse();
    {
      orvel_lib::io::File in(openWatched(w));
      ASSERT_TRUE(in);
      EXPECT_FALSE(kelo_debuginfo::file::readListFrom(in).has_value()) << c.what;
    }
    const std::size_t peak = w.peak > base ? w.peak - base : 0;
    EXPECT_LE(peak, bytes.size() + kAllowance) << c.what;
    std::printf("[ hostile  ] %-32s file %zu bytes, peak allocation %zu bytes\n", c.what, bytes.size(), peak);
  }
}

// In a child process: reads `path` with 512 MiB of address space, and exits
// 0 when the read fails as damaged, 1 when memory ran out, 2 when it read.
[[noreturn]] void readUnderLimit(const std::string& path) {
  const rlim_t bytes = rlim_t{512} << 20;
  const struct rlimit limit = {bytes, bytes};
  setrlimit(RLIMIT_AS, &limit);
  try {
    std::_Exit(kelo_debuginfo::file::readList(path.c_str()) ? 2 : 0);
  } catch (const std::bad_alloc&) {
    std::_Exit(1);
  }
}

// A regular file's size is known, and sizes the reader's first steps: what
// it reserves for an entry count is what the file can back, never the count.
// (A file claiming 2^28 entries in 20 bytes would otherwise reserve
// gigabytes, and fail as out of memory instead of as damaged.)
TEST(HostileLengths, ARegularFileReservesOnlyWhatItsSizeBacks) {
  // Address-space limits and sanitizers (or valgrind) do not mix.
  if (!mallocIsCounted()) GTEST_SKIP() << "malloc statistics are not available";
  const std::string path = ::testing::TempDir() + "kelo-claims-entries.kdbg";
  const Bytes bytes = fileHeader() + le(8, uint64_t{1} << 28);
  FILE* f = std::fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
  std::fclose(f);
  EXPECT_EXIT(readUnderLimit(path), ::testing::ExitedWithCode(0), "");
  std::remove(path.c_str());
}

}  // namespace
