// The debug-info file reader on arbitrary bytes, through a memory stream.
// A file that reads must survive a round trip: written again and read back,
// it gives the same identifiers, images and section addresses.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "file/DebugInfoFile.h"
#include "kelo/DebugInfoList.h"
#include "memory_stream.h"

namespace {

using kelo_debuginfo::DebugInfoList;

void check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<unsigned char> bytes(data, data + size);
  absl::optional<DebugInfoList> list = kelo_fuzz::readList(bytes);
  if (!list) return 0;

  kelo_fuzz::MemoryOut out;
  check(kelo_debuginfo::file::writeListTo(*list, out.file()));
  std::vector<unsigned char> written = out.bytes();
  // A list never writes more than it was read from: repeated identifiers and
  // section names, and trailing bytes, are dropped.
  check(written.size() <= size);

  orvel_lib::io::File again = kelo_fuzz::readFrom(written);
  absl::optional<DebugInfoList> copy = kelo_debuginfo::file::readListFrom(again);
  check(copy.has_value() && copy->entries.size() == list->entries.size());
  for (auto& entry : list->entries) {
    auto it = copy->entries.find(entry.first);
    check(it != copy->entries.end());
    check(it->second.sectionAddrs == entry.second.sectionAddrs);
    check(it->second.elf.bytes() == entry.second.elf.bytes());
  }
  return 0;
}
