// A list of real ELF objects written to a file and read back, with the real
// image library behind the shared library.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "file/DebugInfoFile.h"
#include "kelo/DebugInfoList.h"

namespace {

namespace fs = std::filesystem;
using kelo_debuginfo::DebugInfoList;
using kelo_elf::DebugInfoID;
using kelo_elf::ELF;
using Bytes = std::vector<unsigned char>;

Bytes readWhole(const std::string& name) {
  std::ifstream in(name, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Bytes example(const std::string& name) { return readWhole(std::string(KELO_TEST_DATA_DIR) + "/" + name); }

TEST(RealRoundTrip, IdentifiersAddressesAndImageBytesSurvive) {
  struct Object {
    const char* file;
    DebugInfoID id;
  };
  std::vector<Object> objects = {
      {"main.o", DebugInfoID(1, 1, 0)}, {"util.o", DebugInfoID(1, 0x1234, 1)}, {"extra.o", DebugInfoID(0, 7, 0xFFFF)}};
  if (fs::exists(std::string(KELO_TEST_DATA_DIR) + "/util32.o")) objects.push_back({"util32.o", DebugInfoID(1, 32, 0)});

  DebugInfoList list;
  for (const Object& o : objects) {
    absl::optional<ELF> image = ELF::load(example(o.file));
    ASSERT_TRUE(image.has_value()) << o.file;
    list.add(o.id, std::move(*image));
    list.setSectionAddr(o.id, ".text", 0x80000000u + o.id.lo);
    list.setSectionAddr(o.id, ".constant", 0xFFFFFFFFu);
  }

  char tmpl[] = "/tmp/kelo-real-roundtrip-XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string name = std::string(tmpl) + "/list.kdbg";
  ASSERT_TRUE(kelo_debuginfo::file::writeList(list, name.c_str()));

  // Header, count, and per entry 21 bytes + the object + its section records.
  std::size_t expected = 20;
  for (const Object& o : objects) expected += 21 + example(o.file).size() + (12 + 5) + (12 + 9);
  EXPECT_EQ(readWhole(name).size(), expected);

  absl::optional<DebugInfoList> read = kelo_debuginfo::file::readList(name.c_str());
  fs::remove_all(tmpl);
  ASSERT_TRUE(read.has_value());
  ASSERT_EQ(read->entries.size(), objects.size());
  for (const Object& o : objects) {
    ELF* image = read->find(o.id);
    ASSERT_NE(image, nullptr) << o.file;
    EXPECT_EQ(read->getSectionAddr(o.id, ".text"), 0x80000000u + o.id.lo);
    EXPECT_EQ(read->getSectionAddr(o.id, ".constant"), 0xFFFFFFFFu);
    EXPECT_EQ(image->sectionNames(), list.find(o.id)->sectionNames());
    absl::optional<kelo_elf::ELFBytes> saved = image->save();
    ASSERT_TRUE(saved.has_value());
    const Bytes original = example(o.file);
    EXPECT_EQ(Bytes(saved->data, saved->data + saved->size), original) << o.file;
  }
}

}  // namespace
