// A C++ user of the installed store library: writes a list to a file, views
// it without loading images, and reads it back whole.
//
// Usage: store_consumer OBJECT.o FILE.kdbg
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

#include "kelo/store.hpp"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s OBJECT.o FILE.kdbg\n", argv[0]);
    return 2;
  }
  std::ifstream in(argv[1], std::ios::binary);
  const std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  absl::optional<kelo_elf::ELF> image = kelo_elf::ELF::load(bytes);
  if (!image) return 1;
  const kelo_elf::DebugInfoID id(1, 7, 0);
  kelo_debuginfo::DebugInfoList list;
  list.add(id, std::move(*image));
  list.setSectionAddr(id, ".text", 0x1000);

  const int fd = open(argv[2], O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0 || !kelo_store::writeList(list, fd) || close(fd) != 0) return 1;

  kelo_store::Report report;
  absl::optional<kelo_store::View> view = kelo_store::View::open(argv[2], &report);
  if (!view || view->entries().size() != 1 || report.warningCount != 0) return 1;
  const kelo_store::IndexedEntry* entry = view->find(id);
  if (entry == nullptr || entry->imageSize != bytes.size() || entry->sections.size() != 1) return 1;
  absl::optional<kelo_elf::ELF> loaded = view->loadImage(*entry);
  absl::optional<kelo_debuginfo::DebugInfoList> back = kelo_store::readList(argv[2]);
  const bool ok = loaded && loaded->hasSection(".text") && back && back->getSectionAddr(id, ".text") == 0x1000;
  std::printf("store: %s\n", ok ? "ok" : "FAILED");
  return ok ? 0 : 1;
}
