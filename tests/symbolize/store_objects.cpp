// Files the objects of a linked program in a debug-info list, each with the
// addresses its sections were given in the link, taken from the linker's
// map (GNU ld -Map). Used by the symbolization tests and benchmarks.
//
// Usage: symbolize_store MAP OUT.kdbg OBJECT...
//   The objects are filed under kind 1, numbers 1, 2, ... in argument
//   order. Each must be named in MAP exactly as given here (as it was on
//   the link's command line). Prints how many addresses were recorded.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "kelo/debuginfo.h"
#include "kelo/elf.h"

namespace {

// (object, section) -> address of the first listing of that input section.
using Placements = std::map<std::pair<std::string, std::string>, uint64_t>;

bool isNumber(const std::string& s) { return s.size() > 2 && s[0] == '0' && s[1] == 'x'; }

// Input section lines are " NAME 0xADDR 0xSIZE FILE", or " NAME" with the
// rest on the next line when the name is long. Output sections start in
// column 0, patterns with " *", symbols with an address.
Placements readMap(const std::string& path) {
  std::ifstream in(path);
  Placements placements;
  std::string line, pending;
  bool inMemoryMap = false;
  while (std::getline(in, line)) {
    if (line.rfind("Linker script and memory map", 0) == 0) inMemoryMap = true;
    if (!inMemoryMap) continue;
    std::istringstream words(line);
    std::vector<std::string> w;
    for (std::string word; words >> word;) w.push_back(word);
    if (line.size() > 1 && line[0] == ' ' && line[1] != ' ' && line[1] != '*' && !w.empty()) {
      pending = w[0];
      w.erase(w.begin());
    } else if (pending.empty() || w.empty() || !isNumber(w[0])) {
      pending.clear();
      continue;
    }
    if (w.size() >= 3 && isNumber(w[0]) && isNumber(w[1])) {
      placements.emplace(std::make_pair(w[2], pending), std::strtoull(w[0].c_str(), nullptr, 16));
      pending.clear();
    }
  }
  return placements;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: %s MAP OUT.kdbg OBJECT...\n", argv[0]);
    return 2;
  }
  const Placements placements = readMap(argv[1]);
  keloDbgList list = keloDbgAlloc();
  int recorded = 0;
  for (int i = 3; i < argc; ++i) {
    keloElf* image = keloElfLoadFile(argv[i]);
    const uint32_t number = static_cast<uint32_t>(i - 2);
    if (image == nullptr || keloDbgAdd(list, image, number & 0xFFFF, number >> 16) == nullptr) {
      std::fprintf(stderr, "%s: cannot store\n", argv[i]);
      return 1;
    }
    keloElfFree(image);
    for (const auto& p : placements) {
      if (p.first.first != argv[i] ||
          !keloElfHasSection(keloDbgFind(list, keloDbgID{1, number}), p.first.second.c_str())) {
        continue;
      }
      keloDbgSetSectionAddr(list, keloDbgID{1, number}, p.first.second.c_str(), static_cast<uint32_t>(p.second));
      ++recorded;
    }
  }
  const bool written = keloDbgWrite(list, argv[2]);
  keloDbgFree(list);
  if (!written) {
    std::fprintf(stderr, "%s: cannot write\n", argv[2]);
    return 1;
  }
  std::printf("%d section addresses recorded for %d objects\n", recorded, argc - 3);
  return 0;
}
