// GNU ld link maps (ld -Map): the input sections they place, by object.
#ifndef KELODBG_LINK_MAP_H_
#define KELODBG_LINK_MAP_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kelodbg {

// One input section that a link map places.
struct MapSection {
  std::string name;
  uint64_t address = 0;
  uint64_t size = 0;
};

// The input sections of a link map by the object they come from, in the
// map's order, and the objects in the order the map first names them.
struct LinkMap {
  std::vector<std::string> objects;
  std::map<std::string, std::vector<MapSection>> sections;
};

// Reads a map a line at a time. Only the memory map part counts: every
// input section line " NAME ADDRESS SIZE OBJECT", where a long NAME stands
// alone on its line and the rest follows on the next. Output sections (at
// the start of the line), fill, patterns, symbols, sections of size 0, and
// the discarded input sections listed before the memory map are not input
// sections placed.
class LinkMapReader {
 public:
  // The map's next line, without its newline.
  void line(std::string text);
  // Whether the memory map has begun.
  bool sawMemoryMap() const { return inMemoryMap_; }
  LinkMap take() { return std::move(map_); }

 private:
  LinkMap map_;
  bool inMemoryMap_ = false;
  std::string pending_;  // a section name whose numbers are on the next line
};

}  // namespace kelodbg

#endif  // KELODBG_LINK_MAP_H_
