// A list of real ELF objects written to a file and read back, with the real
// image library behind the shared library (its section names decide which
// addresses are recorded); and what an empty image does to a write and to a
// copy.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "capi/handles.h"
#include "file/DebugInfoFile.h"
#include "kelo/DebugInfoList.h"
#include "kelo/debuginfo.h"
#include "support/files.h"

namespace {

using kelo_debuginfo::DebugInfoList;
using kelo_elf::DebugInfoID;
using kelo_elf::ELF;
using kelo_test::Bytes;

TEST(RealRoundTrip, IdentifiersAddressesAndImageBytesSurvive) {
  struct Object {
    const char* file;
    DebugInfoID id;
  };
  std::vector<Object> objects = {
      {"main.o", DebugInfoID(1, 1, 0)}, {"util.o", DebugInfoID(1, 0x1234, 1)}, {"extra.o", DebugInfoID(0, 7, 0xFFFF)}};
  if (kelo_test::isRegularFile(kelo_test::examplePath("util32.o")))
    objects.push_back({"util32.o", DebugInfoID(1, 32, 0)});

  DebugInfoList list;
  for (const Object& o : objects) {
    absl::optional<ELF> image = ELF::load(kelo_test::example(o.file));
    ASSERT_TRUE(image.has_value()) << o.file;
    list.add(o.id, std::move(*image));
    list.setSectionAddr(o.id, ".text", 0x80000000u + o.id.lo);
    list.setSectionAddr(o.id, ".constant", 0xFFFFFFFFu);
    list.setSectionAddr(o.id, ".kelo.missing", 1);  // no object has it: not recorded
  }

  kelo_test::TempDir dir;
  const std::string name = dir.file("list.kdbg");
  ASSERT_TRUE(kelo_debuginfo::file::writeList(list, name.c_str()));

  // Header, count, and per entry 21 bytes + the object + its section records.
  std::size_t expected = 20;
  for (const Object& o : objects) expected += 21 + kelo_test::example(o.file).size() + (12 + 5) + (12 + 9);
  EXPECT_EQ(kelo_test::readFile(name).size(), expected);

  absl::optional<DebugInfoList> read = kelo_debuginfo::file::readList(name.c_str());
  ASSERT_TRUE(read.has_value());
  ASSERT_EQ(read->entries.size(), objects.size());
  for (const Object& o : objects) {
    ELF* image = read->find(o.id);
    ASSERT_NE(image, nullptr) << o.file;
    EXPECT_EQ(read->getSectionAddr(o.id, ".text"), 0x80000000u + o.id.lo);
    EXPECT_EQ(read->getSectionAddr(o.id, ".constant"), 0xFFFFFFFFu);
    EXPECT_EQ(image->sectionNames(), list.find(o.id)->sectionNames());
    EXPECT_EQ(Bytes(image->bytes().begin(), image->bytes().end()), kelo_test::example(o.file)) << o.file;
  }
}

// An empty image is a placeholder, not an ELF file: it cannot be saved, so
// a list holding one cannot be written and the C interface files no copy
// of one.
TEST(RealRoundTrip, EmptyImagesAreNeverWrittenOrCopied) {
  keloDbgList list = keloDbgAlloc();
  absl::optional<ELF> image = ELF::load(kelo_test::example("main.o"));
  ASSERT_TRUE(image.has_value());
  ASSERT_NE(keloDbgAdd(list, kelo_handles::toHandle(&*image), 1, 0), nullptr);
  kelo_test::TempDir dir;
  EXPECT_TRUE(keloDbgWrite(list, dir.file("one.kdbg").c_str()));

  ELF empty;
  EXPECT_EQ(keloDbgAdd(list, kelo_handles::toHandle(&empty), 2, 0), nullptr);
  ELF moved(std::move(*image));
  EXPECT_EQ(keloDbgAdd(list, kelo_handles::toHandle(&*image), 3, 0), nullptr) << "a moved-from image";
  kelo_handles::toList(list)->entries.emplace(DebugInfoID(1, 2, 0), kelo_debuginfo::RelocELF());
  EXPECT_FALSE(keloDbgWrite(list, dir.file("two.kdbg").c_str()));
  keloDbgFree(list);
}

}  // namespace
