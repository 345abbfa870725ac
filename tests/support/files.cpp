#include "support/files.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace kelo_test {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/kelo_test_XXXXXX";
  if (mkdtemp(&pattern[0]) != nullptr) path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

Bytes readFile(const std::string& path) {
  Bytes out;
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return out;
  unsigned char buf[1 << 14];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.insert(out.end(), buf, buf + n);
  std::fclose(f);
  return out;
}

bool writeFile(const std::string& path, const Bytes& bytes) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  const bool written = bytes.empty() || std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  return std::fclose(f) == 0 && written;
}

bool isRegularFile(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string examplePath(const std::string& name) { return std::string(KELO_TEST_DATA_DIR) + "/" + name; }

Bytes example(const std::string& name) { return readFile(examplePath(name)); }

int openFds() {
  int n = 0;
  // readdir64: on 32-bit hosts plain readdir fails on file systems with
  // 64-bit inode numbers.
  if (DIR* d = opendir("/proc/self/fd")) {
    while (readdir64(d) != nullptr) ++n;
    closedir(d);
  }
  return n;
}

}  // namespace kelo_test
