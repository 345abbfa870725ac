// The C interface of the image library. Every function converts its
// arguments, calls the public C++ interface and converts the answer back;
// no exception leaves this file. A keloElf* is a kelo_elf::ELF* in disguise.
#include "kelo/elf.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "kelo/elf.hpp"

namespace {

using kelo_elf::ELF;

ELF* toCpp(keloElf* image) { return reinterpret_cast<ELF*>(image); }
const ELF* toCpp(const keloElf* image) { return reinterpret_cast<const ELF*>(image); }

keloElf* load(absl::Span<unsigned char const> bytes) noexcept {
  try {
    absl::optional<ELF> image = ELF::load(bytes);
    if (!image) return nullptr;
    return reinterpret_cast<keloElf*>(new (std::nothrow) ELF(std::move(*image)));
  } catch (...) {
    return nullptr;
  }
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
  if (data == nullptr && size != 0) return nullptr;
  return load(absl::Span<unsigned char const>(static_cast<const unsigned char*>(data), size));
}

keloElf* keloElfLoadFile(const char* path) {
  if (path == nullptr) return nullptr;
  try {
    std::vector<unsigned char> bytes;
    if (!readAll(path, bytes)) return nullptr;
    return load(bytes);
  } catch (...) {
    return nullptr;
  }
}

void keloElfFree(keloElf* image) { delete toCpp(image); }

bool keloElfHasSection(const keloElf* image, const char* name) {
  if (image == nullptr || name == nullptr) return false;
  try {
    return toCpp(image)->hasSection(std::string(name));
  } catch (...) {
    return false;
  }
}

}  // extern "C"
