// The tool's readers of text that comes from elsewhere: the lines of stack
// traces (crash reports) and GNU ld link maps, a line at a time. Neither
// may read outside its line, and what they return must hold together.
#include <cstddef>
#include <cstdint>
#include <string>

#include "link_map.h"
#include "trace.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  kelodbg::LinkMapReader reader;
  for (size_t start = 0; start <= text.size();) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    const kelodbg::TraceLine t = kelodbg::parseTraceLine(line);
    if ((t.address || t.number >= 0 || t.signal) && !t.frame) __builtin_trap();
    if (t.inModule && (!t.address || t.module.find_first_of(" \t") != std::string::npos)) __builtin_trap();
    reader.line(line);
    start = end + 1;
  }
  const kelodbg::LinkMap map = reader.take();
  if (map.objects.size() != map.sections.size()) __builtin_trap();
  for (const std::string& object : map.objects) {
    const auto found = map.sections.find(object);
    if (found == map.sections.end() || found->second.empty()) __builtin_trap();
    for (const kelodbg::MapSection& s : found->second) {
      if (s.size == 0 || s.name.empty()) __builtin_trap();
    }
  }
  return 0;
}
