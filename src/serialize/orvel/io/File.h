// An owned C standard-I/O stream.
#ifndef ORVEL_IO_FILE_H_
#define ORVEL_IO_FILE_H_

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <new>
#include <utility>

#include "absl/types/optional.h"

namespace orvel_lib {
namespace io {

// Owns one open FILE* (or nothing) and, optionally, the buffer that stdio uses
// for it. Move-only; the destructor closes a non-null stream and ignores the
// result, so callers that must know whether buffered data reached the file
// call close() themselves.
class File {
 public:
  File() noexcept = default;

  // Takes ownership of `stream`, which may be null (an empty File).
  explicit File(std::FILE* stream) noexcept : stream_(stream) {}

  File(File&& other) noexcept : buffer_(std::move(other.buffer_)), stream_(other.stream_) { other.stream_ = nullptr; }

  File& operator=(File&& other) noexcept {
    if (this != &other) {
      reset();
      buffer_ = std::move(other.buffer_);
      stream_ = other.stream_;
      other.stream_ = nullptr;
    }
    return *this;
  }

  File(const File&) = delete;
  File& operator=(const File&) = delete;

  ~File() { reset(); }

  std::FILE* get() const noexcept { return stream_; }
  explicit operator bool() const noexcept { return stream_ != nullptr; }

  // Gives the stream a fully buffered stdio buffer of `size` bytes, owned by
  // this File. REQUIRES: no I/O on the stream yet. When the buffer cannot be
  // allocated or stdio refuses it, the stream keeps its default buffering;
  // the answer says which happened.
  bool setBuffer(std::size_t size) noexcept {
    if (stream_ == nullptr || size == 0) return false;
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[size]);
    if (!buffer || std::setvbuf(stream_, buffer.get(), _IOFBF, size) != 0) return false;
    buffer_ = std::move(buffer);
    return true;
  }

  // For a regular file, the number of bytes between the current position and
  // the end of the file as it is now; absent for every other kind of stream
  // (pipes, devices, memory streams). Only a hint for sizing buffers: the
  // file may still change.
  absl::optional<std::uint64_t> bytesLeft() const noexcept {
    if (stream_ == nullptr) return absl::nullopt;
    const int fd = fileno(stream_);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return absl::nullopt;
    const off_t pos = ftello(stream_);
    if (pos < 0) return absl::nullopt;
    return st.st_size > pos ? static_cast<std::uint64_t>(st.st_size - pos) : 0;
  }

  // Closes the stream now. True when there was a stream and fclose succeeded
  // (which includes writing out buffered data). The File is empty afterwards
  // in every case.
  bool close() noexcept {
    if (stream_ == nullptr) return false;
    const bool ok = std::fclose(stream_) == 0;
    stream_ = nullptr;
    buffer_.reset();
    return ok;
  }

 private:
  void reset() noexcept {
    if (stream_ != nullptr) std::fclose(stream_);
    stream_ = nullptr;
    buffer_.reset();  // only after the stream that used it is closed
  }

  std::unique_ptr<char[]> buffer_;
  std::FILE* stream_ = nullptr;
};

}  // namespace io
}  // namespace orvel_lib

#endif  // ORVEL_IO_FILE_H_
