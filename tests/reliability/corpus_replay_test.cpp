// The fuzz targets' seed corpus, replayed in the ordinary test suite (and so
// under the sanitizers, valgrind and the 32-bit build): files named valid_*
// read, files named damaged_* are refused, and every image named elf* loads.
// Inputs that once made a fuzz target fail are kept there too.
#include <dirent.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "kelo/debuginfo.h"
#include "kelo/elf.hpp"

namespace {

const std::string kCorpus = std::string(KELO_TEST_SOURCE_DIR) + "/../fuzz/corpus/";

// readdir64: on 32-bit hosts plain readdir fails on file systems with 64-bit
// inode numbers.
std::vector<std::string> filesIn(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent64* e = readdir64(d)) {
      if (e->d_name[0] != '.') names.push_back(e->d_name);
    }
    closedir(d);
  }
  return names;
}

bool startsWith(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }

TEST(CorpusReplay, DebugInfoFilesReadOrAreRefusedAsTheirNamesSay) {
  const std::vector<std::string> names = filesIn(kCorpus + "read_file");
  ASSERT_FALSE(names.empty());
  for (const std::string& name : names) {
    keloDbgList list = keloDbgRead((kCorpus + "read_file/" + name).c_str());
    if (startsWith(name, "valid_")) {
      EXPECT_NE(list, nullptr) << name;
    }
    if (startsWith(name, "damaged_")) {
      EXPECT_EQ(list, nullptr) << name;
    }
    keloDbgFree(list);
  }
}

TEST(CorpusReplay, ImagesLoadOrAreRefusedAsTheirNamesSay) {
  const std::vector<std::string> names = filesIn(kCorpus + "elf_load");
  ASSERT_FALSE(names.empty());
  for (const std::string& name : names) {
    std::ifstream in(kCorpus + "elf_load/" + name, std::ios::binary);
    const std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const bool loaded = kelo_elf::ELF::load(bytes).has_value();
    if (startsWith(name, "elf")) {
      EXPECT_TRUE(loaded) << name;
    }
    if (startsWith(name, "damaged_")) {
      EXPECT_FALSE(loaded) << name;
    }
  }
}

}  // namespace
