// Files for tests: temporary directories, whole files read and written, and
// the paths of the example objects that the test tree builds.
#ifndef KELO_TESTS_SUPPORT_FILES_H_
#define KELO_TESTS_SUPPORT_FILES_H_

#include <string>
#include <vector>

namespace kelo_test {

using Bytes = std::vector<unsigned char>;

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it
// when the object dies.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // The path of `name` inside the directory.
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// The whole file at `path`; empty when it cannot be read.
Bytes readFile(const std::string& path);
// Creates or replaces `path` with exactly `bytes`; false when that fails.
bool writeFile(const std::string& path, const Bytes& bytes);
bool isRegularFile(const std::string& path);

// The path of an example object built for the tests ("main.o", "util.o",
// "extra.o", and "util32.o" where a 32-bit compiler exists), and its bytes.
std::string examplePath(const std::string& name);
Bytes example(const std::string& name);

// The number of open file descriptors of this process.
int openFds();

}  // namespace kelo_test

#endif  // KELO_TESTS_SUPPORT_FILES_H_
