// The C interface of the image library. Every function converts its
// arguments, calls the public C++ interface and converts the answer back,
// inside the one exception barrier (capi/guard.h). A keloElf* is a
// kelo_elf::ELF (capi/handles.h).
#include "kelo/elf.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "capi/guard.h"
#include "capi/handles.h"
#include "kelo/elf.hpp"

namespace {

using kelo_capi::guarded;
using kelo_elf::ELF;
using kelo_handles::toHandle;
using kelo_handles::toImage;

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

// Reads the whole file. False on any read error and for files too large to
// be an image (the refusal comes before the memory for them is taken).
bool readAll(const char* path, std::vector<unsigned char>& out) {
  std::unique_ptr<std::FILE, FileClose> file(std::fopen(path, "rb"));
  if (!file) return false;
  constexpr size_t kChunk = 64 * 1024;
  constexpr uint64_t kMax = UINT32_MAX;
  size_t used = 0;
  for (;;) {
    if (out.size() - used < kChunk) {
      if (used > kMax) return false;
      out.resize(used + kChunk);
    }
    const size_t got = std::fread(out.data() + used, 1, kChunk, file.get());
    used += got;
    if (got < kChunk) break;
  }
  if (std::ferror(file.get()) || used > kMax) return false;
  out.resize(used);
  return true;
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
  return guarded<keloElf*>(nullptr, [&]() -> keloElf* {
    std::vector<unsigned char> bytes;
    if (path == nullptr || !readAll(path, bytes)) return nullptr;
    return load(bytes);
  });
}

void keloElfFree(keloElf* image) { delete toImage(image); }

bool keloElfHasSection(const keloElf* image, const char* name) {
  return guarded(false, [&] { return image != nullptr && name != nullptr && toImage(image)->hasSection(name); });
}

}  // extern "C"
