// `kelodbg place`: addresses for all allocated sections of entries at once.
#ifndef KELODBG_PLACE_COMMAND_H_
#define KELODBG_PLACE_COMMAND_H_

#include <string>

#include "changes.h"

namespace kelodbg {

struct PlaceOptions {
  ChangeTarget target;
  std::string id, base;  // ID --base ADDRESS: one entry laid out from a base
  std::string map;       // --map LINKMAP: every stored object the map places
};
void placeCommand(const PlaceOptions& o);

}  // namespace kelodbg

#endif  // KELODBG_PLACE_COMMAND_H_
