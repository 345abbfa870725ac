#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "elf/elf_images.h"
#include "kelo/elf.h"

namespace {

using elf_test::Bytes;

TEST(ElfC, LoadsFromMemoryAndAnswersSections) {
  const Bytes bytes = elf_test::readFile(elf_test::examplePath("util.o"));
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

TEST(ElfC, LoadsFiles) {
  keloElf* image = keloElfLoadFile(elf_test::examplePath("extra.o").c_str());
  ASSERT_NE(image, nullptr);
  EXPECT_TRUE(keloElfHasSection(image, ".kelo.constdata"));
  keloElfFree(image);
}

TEST(ElfC, RefusesUnreadableAndForeignFiles) {
  EXPECT_EQ(keloElfLoadFile(nullptr), nullptr);
  EXPECT_EQ(keloElfLoadFile(elf_test::examplePath("no-such-object.o").c_str()), nullptr);
  EXPECT_EQ(keloElfLoadFile(KELO_TEST_DATA_DIR), nullptr) << "a directory";

  const std::string path = testing::TempDir() + "kelo_elf_c_test_truncated.o";
  Bytes bytes = elf_test::readFile(elf_test::examplePath("main.o"));
  ASSERT_FALSE(bytes.empty());
  bytes.resize(bytes.size() / 2);
  for (size_t size : {bytes.size(), size_t{0}}) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(std::fwrite(bytes.data(), 1, size, f), size);
    std::fclose(f);
    EXPECT_EQ(keloElfLoadFile(path.c_str()), nullptr) << size << " bytes";
  }
  std::remove(path.c_str());
}

}  // namespace
