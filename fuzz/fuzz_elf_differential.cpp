// The image library's own ELF reader against the libelf-based reference
// (tests/support/elf_reference.h), on arbitrary bytes: both must accept and
// refuse the same files and find the same section names. Whatever loads
// must behave like an image: it holds exactly the bytes it was loaded from,
// finds every name it lists and no name with a NUL in it, and loads again,
// by taking over its saved block, with the same names.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kelo/elf.hpp"
#include "serialize/orvel/serialize/ByteReader.h"
#include "support/elf_reference.h"

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

// libelf 0.188 cannot read the name table's index kept in section 0
// (e_shstrndx = SHN_XINDEX) of an image in memory whose byte order is not
// the host's; it refuses such files, which the image library reads.
bool referenceCannotRead(absl::Span<unsigned char const> bytes) {
  if (bytes.size() < 64 || bytes[5] != 2) return false;
  const unsigned at = bytes[4] == 2 ? 62 : 50;  // e_shstrndx
  return orvel_lib::serialize::unpack(bytes.data() + at, 2, true) == 0xffff;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const absl::Span<unsigned char const> bytes(data, size);
  absl::optional<kelo_elf::ELF> image = kelo_elf::ELF::load(bytes);
  const absl::optional<std::vector<std::string>> reference = kelo_test::libelfSectionNames(bytes);
  if (!reference && image && referenceCannotRead(bytes)) return 0;
  check(image.has_value() == reference.has_value());
  if (!image) return 0;

  const std::vector<std::string> names = image->sectionNames();
  check(names == *reference);
  check(image->size() == size && image->bytes().size() == size);
  check(std::memcmp(image->bytes().data(), data, size) == 0);
  for (const std::string& name : names) check(image->hasSection(name));
  check(!image->hasSection(std::string("\0never", 6)));

  absl::optional<kelo_elf::ELFBytes> saved = image->save();
  check(saved.has_value() && saved->size == size);
  absl::optional<kelo_elf::ELF> again = kelo_elf::ELF::adopt(std::move(*saved));
  check(again.has_value() && again->sectionNames() == names && saved->size == 0);
  return 0;
}
