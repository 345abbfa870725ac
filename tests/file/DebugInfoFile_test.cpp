#include "file/DebugInfoFile.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "double/elf_double.h"
#include "support/bytes.h"
#include "support/files.h"

namespace {

using kelo_debuginfo::DebugInfoList;
using kelo_debuginfo::file::readList;
using kelo_debuginfo::file::readVersion;
using kelo_debuginfo::file::writeList;
using kelo_elf::DebugInfoID;
using kelo_test::Bytes;
using kelo_test::fileHeader;
using kelo_test::le;
using kelo_test::text;
using kelo_test::operator+;
using Sections = std::unordered_map<std::string, unsigned>;
using elf_double::Fault;

// One entry as the file holds it; sections in the given order.
Bytes entry(DebugInfoID id, const Bytes& image, const std::vector<std::pair<std::string, uint32_t>>& sections = {},
            uint64_t imageLengthHigh = 0, uint64_t sectionCountHigh = 0) {
  return kelo_test::fileEntry(id.kind, id.lo, id.hi, image, sections, imageLengthHigh, sectionCountHigh);
}

Bytes imageBytes(const std::vector<std::string>& sections) { return elf_double::bytesWithSections(sections); }

class DebugInfoFileTest : public ::testing::Test {
 protected:
  void SetUp() override { elf_double::reset(); }

  void TearDown() override {
    // Every image that was loaded or moved has been destroyed again.
    EXPECT_EQ(elf_double::control().liveImplementations, 0);
  }

  std::string path(const std::string& name) const { return dir_.file(name); }
  void put(const std::string& name, const Bytes& bytes) const { ASSERT_TRUE(kelo_test::writeFile(path(name), bytes)); }
  Bytes get(const std::string& name) const { return kelo_test::readFile(path(name)); }

  absl::optional<DebugInfoList> readBytes(const Bytes& bytes) const {
    put("in.kdbg", bytes);
    return readList(path("in.kdbg").c_str());
  }

  kelo_test::TempDir dir_;
};

// A list whose entries have the given section tables (all names recordable:
// the images have them).
DebugInfoList listOf(const std::vector<std::pair<DebugInfoID, Sections>>& entries) {
  DebugInfoList list;
  for (const auto& e : entries) {
    std::vector<std::string> names;
    for (const auto& s : e.second) names.push_back(s.first);
    list.add(e.first, elf_double::image(names));
    for (const auto& s : e.second) list.setSectionAddr(e.first, s.first, s.second);
  }
  return list;
}

TEST_F(DebugInfoFileTest, WritesTheExactBytesOfTheFormat) {
  DebugInfoList empty;
  ASSERT_TRUE(writeList(empty, path("empty.kdbg").c_str()));
  EXPECT_EQ(get("empty.kdbg"), (Bytes{0x80, 0x4B, 0x45, 0x4C, 0x4F, 0x44, 0x42, 0x47, 1, 1, 2, 0} + le(8, 0)));
  absl::optional<DebugInfoList> read = readList(path("empty.kdbg").c_str());
  ASSERT_TRUE(read.has_value());
  EXPECT_TRUE(read->entries.empty());

  const DebugInfoID id(1, 2, 1);
  DebugInfoList one = listOf({{id, {{".text", 0x11223344}}}});
  ASSERT_TRUE(writeList(one, path("one.kdbg").c_str()));
  const Bytes file = get("one.kdbg");
  EXPECT_EQ(file, fileHeader() + le(8, 1) + entry(id, imageBytes({".text"}), {{".text", 0x11223344}}));
  EXPECT_EQ(Bytes(file.begin() + 20, file.begin() + 25), (Bytes{0x01, 0x02, 0x00, 0x01, 0x00}));
}

TEST_F(DebugInfoFileTest, EveryOneDotOneVersionIsReadOthersOnlyReported) {
  const Bytes body = le(8, 1) + entry(DebugInfoID(0, 9, 0), imageBytes({".a"}));
  for (const Bytes& h : {fileHeader(1, 1, 7), fileHeader(1, 1, 2, 0xFF)}) {
    absl::optional<DebugInfoList> read = readBytes(h + body);
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(read->entries.size(), 1u);
  }
  struct Refused {
    uint8_t major, minor;
  };
  for (Refused v : {Refused{1, 2}, Refused{2, 1}}) {
    EXPECT_FALSE(readBytes(fileHeader(v.major, v.minor, 0) + body).has_value());
    auto version = readVersion(path("in.kdbg").c_str());
    ASSERT_TRUE(version.has_value());
    EXPECT_EQ(version->major, v.major);
    EXPECT_EQ(version->minor, v.minor);
    EXPECT_EQ(version->patch, 0);
  }
}

TEST_F(DebugInfoFileTest, MissingShortOrForeignFilesAreRefused) {
  EXPECT_FALSE(readList(path("missing").c_str()).has_value());
  EXPECT_FALSE(readVersion(path("missing").c_str()).has_value());

  Bytes wrongMagic = fileHeader() + le(8, 0);
  wrongMagic[0] = 0x00;
  const Bytes good = fileHeader();
  const Bytes shortHeader(good.begin(), good.end() - 1);
  for (const Bytes& bytes : {Bytes{}, shortHeader, wrongMagic}) {
    EXPECT_FALSE(readBytes(bytes).has_value());
    EXPECT_FALSE(readVersion(path("in.kdbg").c_str()).has_value());
  }

  // A good header followed by a body that does not decode: only the version
  // can be read.
  EXPECT_FALSE(readBytes(fileHeader() + le(8, 1) + Bytes{1, 2}).has_value());
  EXPECT_TRUE(readVersion(path("in.kdbg").c_str()).has_value());
}

TEST_F(DebugInfoFileTest, RepeatedEntriesKeepTheFirstAndTrailingBytesAreIgnored) {
  const DebugInfoID id(1, 5, 0);
  absl::optional<DebugInfoList> read =
      readBytes(fileHeader() + le(8, 2) + entry(id, imageBytes({".first"}), {{".x", 1}, {".y", 2}, {".x", 3}}) +
                entry(id, imageBytes({".second"}), {{".x", 4}}) + text("trailing garbage") + le(8, 99));
  ASSERT_TRUE(read.has_value());
  ASSERT_EQ(read->entries.size(), 1u);
  const auto& e = read->entries.at(id);
  EXPECT_TRUE(e.elf.hasSection(".first"));
  EXPECT_EQ(e.sectionAddrs, (Sections{{".x", 1}, {".y", 2}}));
}

TEST_F(DebugInfoFileTest, HighHalfIsIgnoredInCountsButRefusedInNames) {
  const DebugInfoID id(1, 1, 0);
  const uint64_t high = uint64_t{0xDEAD} << 32;
  const Bytes image = imageBytes({".a"});

  Bytes counts = fileHeader() + le(8, high | 1) + entry(id, image, {{".a", 9}}, high, high);
  absl::optional<DebugInfoList> read = readBytes(counts);
  ASSERT_TRUE(read.has_value());
  EXPECT_EQ(read->getSectionAddr(id, ".a"), 9u);

  Bytes name = fileHeader() + le(8, 1) + entry(id, image);
  name.resize(name.size() - 8);  // replace the empty section table
  name = name + le(8, 1) + le(8, high | 2) + text(".a") + le(4, 9);
  EXPECT_FALSE(readBytes(name).has_value());
}

TEST_F(DebugInfoFileTest, AnImageThatDoesNotLoadFailsTheWholeRead) {
  const Bytes good = entry(DebugInfoID(1, 1, 0), imageBytes({".a"}));
  EXPECT_FALSE(readBytes(fileHeader() + le(8, 2) + good + entry(DebugInfoID(1, 2, 0), text("XXXX"))).has_value());
  EXPECT_FALSE(readBytes(fileHeader() + le(8, 2) + good + entry(DebugInfoID(1, 2, 0), {})).has_value());

  // Failures and exceptions of the image library on the second image.
  const Bytes file = fileHeader() + le(8, 2) + good + entry(DebugInfoID(1, 2, 0), imageBytes({".b"}));
  const int fds = kelo_test::openFds();
  for (Fault fault : {Fault::kFail, Fault::kThrowBadAlloc, Fault::kThrowRuntime, Fault::kThrowInt}) {
    elf_double::control().loadFault = fault;
    elf_double::control().loadCountdown = 1;
    absl::optional<DebugInfoList> read;
    EXPECT_NO_THROW(read = readBytes(file));
    EXPECT_FALSE(read.has_value());
    EXPECT_EQ(elf_double::control().liveImplementations, 0);
  }
  EXPECT_EQ(kelo_test::openFds(), fds);
}

// A file that cannot be created, or an empty image (a placeholder: no ELF
// file), fails the write. The file is closed, and what it had before is
// gone: it holds at most what came before the empty image.
TEST_F(DebugInfoFileTest, AFailedWriteClosesAndLeavesTheFileTruncated) {
  DebugInfoList list = listOf({{DebugInfoID(1, 1, 0), {{".a", 1}}}});
  EXPECT_FALSE(writeList(list, path("no/such/dir/f.kdbg").c_str()));
  EXPECT_FALSE(writeList(list, nullptr));
  EXPECT_FALSE(readList(nullptr).has_value());
  EXPECT_FALSE(readVersion(nullptr).has_value());

  put("old.kdbg", Bytes(4096, 'z'));
  list.entries.emplace(DebugInfoID(1, 2, 0), kelo_debuginfo::RelocELF());
  const int fds = kelo_test::openFds();
  EXPECT_FALSE(writeList(list, path("old.kdbg").c_str()));
  EXPECT_EQ(kelo_test::openFds(), fds);

  const Bytes left = get("old.kdbg");
  // At most the header, the count, the first entry and the second identifier.
  EXPECT_LE(left.size(), 20 + entry(DebugInfoID(), imageBytes({".a"}), {{".a", 1}}).size() + 5);
  ASSERT_GE(left.size(), 12u);
  EXPECT_EQ(Bytes(left.begin(), left.begin() + 12), fileHeader());
}

}  // namespace
