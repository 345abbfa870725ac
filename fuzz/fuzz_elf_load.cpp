// ELF::load on arbitrary bytes. Whatever loads must behave like an image:
// it saves to exactly the bytes it was loaded from, has every section it
// names, and loads again from its saved bytes with the same sections.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kelo/elf.hpp"

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  absl::optional<kelo_elf::ELF> image = kelo_elf::ELF::load(absl::MakeConstSpan(data, size));
  if (!image) return 0;

  check(image->size() == size);
  const std::vector<std::string> names = image->sectionNames();
  for (const std::string& name : names) check(image->hasSection(name));
  check(!image->hasSection(std::string("\0never", 6)));

  absl::optional<kelo_elf::ELFBytes> saved = image->save();
  check(saved.has_value() && saved->size == size);
  check(size == 0 || std::memcmp(saved->data, data, size) == 0);

  absl::optional<kelo_elf::ELF> again = kelo_elf::ELF::load(saved->span());
  check(again.has_value() && again->sectionNames() == names);

  kelo_elf::ELF moved(std::move(*again));
  check(moved.sectionNames() == names && again->sectionNames().empty());
  return 0;
}
