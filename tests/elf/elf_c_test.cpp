#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "kelo/elf.h"
#include "support/files.h"

namespace {

using kelo_test::Bytes;

TEST(ElfC, LoadsFromMemoryAndAnswersSections) {
  const Bytes bytes = kelo_test::example("util.o");
  ASSERT_FALSE(bytes.empty());
  keloElf* image = keloElfLoad(bytes.data(), bytes.size());
  ASSERT_NE(image, nullptr);
  EXPECT_TRUE(keloElfHasSection(image, ".kelo.overlay"));
  EXPECT_FALSE(keloElfHasSection(image, ".kelo"));
  EXPECT_FALSE(keloElfHasSection(image, nullptr));
  EXPECT_FALSE(keloElfHasSection(nullptr, ".text"));
  keloElfFree(image);
  keloElfFree(nullptr);
}

TEST(ElfC, RefusesBadMemory) {
  const unsigned char junk[64] = {0x7f, 'E', 'L', 'F', 2, 1, 1};
  EXPECT_EQ(keloElfLoad(nullptr, 0), nullptr);
  EXPECT_EQ(keloElfLoad(nullptr, 100), nullptr);
  EXPECT_EQ(keloElfLoad(junk, 0), nullptr);
  EXPECT_EQ(keloElfLoad(junk, sizeof(junk)), nullptr);
}

// Regular files are read in one step of their own size, other files (a
// pipe) in growing steps; either way the image takes over what was read.
TEST(ElfC, LoadsRegularFilesAndPipes) {
  keloElf* image = keloElfLoadFile(kelo_test::examplePath("extra.o").c_str());
  ASSERT_NE(image, nullptr);
  EXPECT_TRUE(keloElfHasSection(image, ".kelo.constdata"));
  keloElfFree(image);

  kelo_test::TempDir dir;
  const std::string fifo = dir.file("pipe");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const Bytes bytes = kelo_test::example("main.o");
  std::FILE* writer = popen(("cat " + kelo_test::examplePath("main.o") + " > " + fifo).c_str(), "r");
  ASSERT_NE(writer, nullptr);
  image = keloElfLoadFile(fifo.c_str());
  pclose(writer);
  ASSERT_NE(image, nullptr);
  EXPECT_TRUE(keloElfHasSection(image, ".text"));
  keloElfFree(image);
}

TEST(ElfC, RefusesUnreadableAndForeignFiles) {
  EXPECT_EQ(keloElfLoadFile(nullptr), nullptr);
  EXPECT_EQ(keloElfLoadFile(kelo_test::examplePath("no-such-object.o").c_str()), nullptr);
  EXPECT_EQ(keloElfLoadFile(KELO_TEST_DATA_DIR), nullptr) << "a directory";

  kelo_test::TempDir dir;
  const std::string path = dir.file("truncated.o");
  Bytes bytes = kelo_test::example("main.o");
  ASSERT_FALSE(bytes.empty());
  bytes.resize(bytes.size() / 2);
  for (size_t size : {bytes.size(), size_t{0}}) {
    ASSERT_TRUE(kelo_test::writeFile(path, Bytes(bytes.begin(), bytes.begin() + size)));
    EXPECT_EQ(keloElfLoadFile(path.c_str()), nullptr) << size << " bytes";
  }
}

}  // namespace
