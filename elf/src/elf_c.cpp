// The C interface of the image library. Every function converts its
// arguments, calls the public C++ interface and converts the answer back,
// inside the one exception barrier (elf_internal/guard.h). A keloElf* is a
// kelo_elf::ELF (elf_internal/handles.h).
#include "kelo/elf.h"

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "elf_internal/guard.h"
#include "elf_internal/handles.h"
#include "kelo/elf.hpp"
#include "serialize/orvel/io/ReadBuffer.h"

namespace {

using kelo_capi::guarded;
using kelo_elf::ELF;
using kelo_elf_handles::toHandle;
using kelo_elf_handles::toImage;

// A heap copy of the image made from `bytes`, or null. Throws what loading
// throws.
keloElf* load(absl::Span<unsigned char const> bytes) {
  absl::optional<ELF> image = ELF::load(bytes);
  if (!image) return nullptr;
  return toHandle(new ELF(std::move(*image)));
}

struct FileClose {
  void operator()(std::FILE* f) const noexcept { std::fclose(f); }
};

// The image in the file at `path`, read into the block that the image then
// takes over: sized from the file's size for a regular file, grown as bytes
// arrive for any other. Null when the file cannot be read, holds more than
// an image can (refused before the memory for it is taken) or is no image.
keloElf* loadFile(const char* path) {
  std::unique_ptr<std::FILE, FileClose> file(std::fopen(path, "rb"));
  if (!file) return nullptr;
  // Unbuffered: the bytes go from the file straight into the block.
  std::setvbuf(file.get(), nullptr, _IONBF, 0);
  struct stat st;
  absl::optional<uint64_t> size;
  if (fstat(fileno(file.get()), &st) == 0 && S_ISREG(st.st_mode)) size = static_cast<uint64_t>(st.st_size);
  orvel_lib::io::Block block;
  if (!orvel_lib::io::readToEnd(file.get(), block, kelo_elf::ELFBytes::kMaxAdoptRoom, UINT32_MAX, size) ||
      block.size() == 0)
    return nullptr;
  file.reset();
  kelo_elf::ELFBytes bytes(block.data(), static_cast<uint32_t>(block.size()));
  block.release();
  absl::optional<ELF> image = ELF::adopt(std::move(bytes));
  if (!image) return nullptr;
  return toHandle(new ELF(std::move(*image)));
}

}  // namespace

extern "C" {

keloElf* keloElfLoad(const void* data, size_t size) {
  return guarded<keloElf*>(nullptr, [&]() -> keloElf* {
    if (data == nullptr && size != 0) return nullptr;
    return load(absl::Span<unsigned char const>(static_cast<const unsigned char*>(data), size));
  });
}

keloElf* keloElfLoadFile(const char* path) {
  return guarded<keloElf*>(nullptr, [&]() -> keloElf* { return path == nullptr ? nullptr : loadFile(path); });
}

void keloElfFree(keloElf* image) { delete toImage(image); }

bool keloElfHasSection(const keloElf* image, const char* name) {
  return guarded(false, [&] { return image != nullptr && name != nullptr && toImage(image)->hasSection(name); });
}

}  // extern "C"
