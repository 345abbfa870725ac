// A main() for the fuzz targets where libFuzzer is not at hand (gcc builds):
// it runs LLVMFuzzerTestOneInput on every file of the directories (or on
// the files) named on the command line, once each, in name order. A target
// that finds a fault aborts, which fails the run.
//
//   fuzz_<target> DIR|FILE...
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool readWhole(const std::string& path, std::vector<uint8_t>& out) {
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return false;
  out.clear();
  uint8_t buf[1 << 14];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.insert(out.end(), buf, buf + n);
  const bool ok = !std::ferror(f);
  std::fclose(f);
  return ok;
}

// The regular files directly inside `dir`, sorted. (readdir64: on 32-bit
// hosts plain readdir fails on file systems with 64-bit inode numbers.)
std::vector<std::string> filesIn(const std::string& dir) {
  std::vector<std::string> paths;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent64* e = readdir64(d)) {
      const std::string path = dir + "/" + e->d_name;
      struct stat st;
      if (e->d_name[0] != '.' && stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) paths.push_back(path);
    }
    closedir(d);
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t runs = 0;
  std::vector<uint8_t> bytes;
  for (int i = 1; i < argc; ++i) {
    struct stat st;
    if (stat(argv[i], &st) != 0) {
      std::fprintf(stderr, "%s: cannot find %s\n", argv[0], argv[i]);
      return 2;
    }
    const std::vector<std::string> paths = S_ISDIR(st.st_mode) ? filesIn(argv[i]) : std::vector<std::string>{argv[i]};
    for (const std::string& path : paths) {
      if (!readWhole(path, bytes)) {
        std::fprintf(stderr, "%s: cannot read %s\n", argv[0], path.c_str());
        return 2;
      }
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      ++runs;
    }
  }
  std::printf("%s: %zu inputs replayed\n", argv[0], runs);
  return runs == 0 ? 1 : 0;
}
