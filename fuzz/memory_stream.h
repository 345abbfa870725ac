// Memory streams for the fuzz targets: lists are written into a growing
// buffer and read back from bytes without touching the file system.
#ifndef KELO_FUZZ_MEMORY_STREAM_H_
#define KELO_FUZZ_MEMORY_STREAM_H_

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "absl/types/optional.h"
#include "file/DebugInfoFile.h"
#include "kelo/DebugInfoList.h"
#include "serialize/orvel/io/File.h"

namespace kelo_fuzz {

// A stream that collects what is written to it.
class MemoryOut {
 public:
  MemoryOut() : file_(open_memstream(&data_, &size_)) {}
  ~MemoryOut() {
    file_.close();
    std::free(data_);
  }
  MemoryOut(const MemoryOut&) = delete;
  MemoryOut& operator=(const MemoryOut&) = delete;

  orvel_lib::io::File& file() { return file_; }

  // Everything written so far.
  std::vector<unsigned char> bytes() {
    std::fflush(file_.get());
    return std::vector<unsigned char>(data_, data_ + size_);
  }

 private:
  char* data_ = nullptr;
  std::size_t size_ = 0;
  orvel_lib::io::File file_;
};

// A read-only stream over `bytes`, which must outlive it.
inline orvel_lib::io::File readFrom(std::vector<unsigned char>& bytes) {
  // fmemopen refuses an empty buffer; an empty file reads the same.
  if (bytes.empty()) return orvel_lib::io::File(std::fopen("/dev/null", "rb"));
  return orvel_lib::io::File(fmemopen(bytes.data(), bytes.size(), "rb"));
}

// The list that `bytes` hold as a debug-info file, if they read; the stream
// is closed again before the list is returned.
inline absl::optional<kelo_debuginfo::DebugInfoList> readList(std::vector<unsigned char>& bytes) {
  orvel_lib::io::File in = readFrom(bytes);
  if (!in) std::abort();
  return kelo_debuginfo::file::readListFrom(in);
}

}  // namespace kelo_fuzz

#endif  // KELO_FUZZ_MEMORY_STREAM_H_
