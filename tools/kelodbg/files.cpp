// Reading and writing files with reasons for every failure. The library
// answers only success or failure; the tool looks at the file itself (magic,
// version bytes) to say which.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <functional>

#include <fmt/format.h>

#include "tool.h"

namespace kelodbg {
namespace {

constexpr unsigned char kMagic[8] = {0x80, 'K', 'E', 'L', 'O', 'D', 'B', 'G'};

std::string errnoText(int err) { return err != 0 ? std::strerror(err) : "unknown error"; }

struct FileCloser {
  void operator()(FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// Opens `path` for reading; a missing or unreadable file is kFileIo.
FilePtr openForReading(const std::string& path) {
  FilePtr f(std::fopen(path.c_str(), "rb"));
  if (!f) fail(Exit::kFileIo, path, errnoText(errno));
  return f;
}

// Checks the 12-byte header: magic, then four version bytes.
void checkHeader(const std::string& path) {
  FilePtr f = openForReading(path);
  unsigned char header[12];
  const size_t n = std::fread(header, 1, sizeof header, f.get());
  if (std::ferror(f.get())) fail(Exit::kFileIo, path, errnoText(errno));
  if (n < sizeof kMagic || std::memcmp(header, kMagic, sizeof kMagic) != 0) {
    fail(Exit::kNotDebugInfo, path, "not a debug-info file (wrong magic)");
  }
  if (n < sizeof header) fail(Exit::kDamaged, path, "damaged debug-info file (header cut short)");
}

// The directory part of `path` ("." when there is none).
std::string directoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string baseOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Follows a symbolic link at `path`, so that replacing the file keeps the
// link and changes what it points at.
std::string resolveLink(const std::string& path) {
  char resolved[PATH_MAX];
  struct stat st;
  if (lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode) && realpath(path.c_str(), resolved) != nullptr) {
    return resolved;
  }
  return path;
}

// Writes through `write` into a fresh temporary file next to `path`, then
// renames it over `path`. The new file gets the mode of the file it
// replaces, or the usual mode of a new file.
void replaceFile(const std::string& path, const std::function<bool(const std::string&)>& write) {
  const std::string target = resolveLink(path);
  std::string temp = directoryOf(target) + "/." + baseOf(target) + ".XXXXXX";
  const int fd = mkstemp(&temp[0]);
  if (fd < 0) fail(Exit::kFileIo, path, "cannot create a temporary file beside it: " + errnoText(errno));
  close(fd);

  mode_t mode;
  struct stat st;
  if (stat(target.c_str(), &st) == 0) {
    mode = st.st_mode & 07777;
  } else {
    const mode_t mask = umask(0);
    umask(mask);
    mode = 0666 & ~mask;
  }

  errno = 0;
  bool ok = false;
  try {
    ok = write(temp);
  } catch (...) {
    unlink(temp.c_str());
    throw;
  }
  const int err = errno;
  if (!ok) {
    unlink(temp.c_str());
    fail(Exit::kFileIo, path, "cannot write: " + errnoText(err));
  }
  if (chmod(temp.c_str(), mode) != 0 || rename(temp.c_str(), target.c_str()) != 0) {
    const int renameErr = errno;
    unlink(temp.c_str());
    fail(Exit::kFileIo, path, "cannot replace: " + errnoText(renameErr));
  }
}

}  // namespace

FileVersion readVersion(const std::string& path) {
  checkHeader(path);
  FileVersion v{};
  if (!keloDbgFileVersion(path.c_str(), &v.major, &v.minor, &v.patch)) {
    fail(Exit::kFileIo, path, "cannot read the version");
  }
  return v;
}

ListPtr readDebugInfo(const std::string& path) {
  const FileVersion v = readVersion(path);
  // The library reads every 1.1.x file.
  if (v.major != 1 || v.minor != 1) {
    fail(Exit::kVersion, path,
         fmt::format("unsupported version {}.{}.{} (this library reads 1.1.x)", v.major, v.minor, v.patch));
  }
  ListPtr list(keloDbgRead(path.c_str()));
  if (!list) fail(Exit::kDamaged, path, "damaged debug-info file (its entries cannot be decoded)");
  return list;
}

void writeDebugInfo(keloDbgList list, const std::string& path) {
  replaceFile(path, [list](const std::string& temp) { return keloDbgWrite(list, temp.c_str()); });
}

void writeBytes(const unsigned char* data, size_t size, const std::string& path) {
  replaceFile(path, [data, size](const std::string& temp) {
    FilePtr f(std::fopen(temp.c_str(), "wb"));
    if (!f) return false;
    const bool written = std::fwrite(data, 1, size, f.get()) == size;
    return std::fclose(f.release()) == 0 && written;
  });
}

ElfPtr loadElf(const std::string& path) {
  {
    FilePtr f = openForReading(path);
    char byte;
    if (std::fread(&byte, 1, 1, f.get()) != 1 && std::ferror(f.get())) {
      fail(Exit::kFileIo, path, errnoText(errno));
    }
  }
  ElfPtr image(keloElfLoadFile(path.c_str()));
  if (!image) fail(Exit::kBadElf, path, "not an ELF file that can be loaded");
  return image;
}

}  // namespace kelodbg
