// What the commands that change a file share: reading the file under its
// lock, finding entries in the plan of what is written back, recording
// addresses, and reading identifiers and addresses from the command line.
#ifndef KELODBG_CHANGES_H_
#define KELODBG_CHANGES_H_

#include <string>
#include <utility>
#include <vector>

#include "files.h"
#include "store.h"
#include "tool.h"

namespace kelodbg {

// Seconds a change waits for a file that another change has locked.
constexpr double kDefaultWait = 10;

// The file a command changes in place, and how.
struct ChangeTarget {
  std::string file;
  double wait = kDefaultWait;  // --wait
  bool dropUnread = false;     // --drop-unread: the change may drop what reading drops
};

// The file a change reads: locked, indexed, and refused when it holds what
// reading drops (unless --drop-unread).
struct Changed {
  Output out;
  Store store;
  explicit Changed(const ChangeTarget& t) : out(Output::change(t.file, t.wait)), store(out.lockedFile(), t.file) {
    if (!t.dropUnread) refuseDrops(store.report(), t.file);
  }
};

// The planned entry `id`; throws Failure (exit 8) when there is none.
PlannedEntry& plannedOf(std::vector<PlannedEntry>& plan, const Store& store, const Id& id);

// Records `pairs` in the planned entry `id`, after checking every section
// name against the entry's image (loaded now); throws Failure before
// changing anything when one is not there.
void recordAddresses(const Changed& c, std::vector<PlannedEntry>& plan, const Id& id,
                     const std::vector<std::pair<std::string, uint32_t>>& pairs, const std::string& file);

// An identifier from the command line; a usage error when it is not one.
Id idFrom(const std::string& text, unsigned defaultKind = 1);

// An address: decimal, or hex with 0x. Digits as nm and readelf print
// addresses (hex without 0x: eight or sixteen of them, or a leading zero)
// could be read either way, and are refused with a hint, as is hex without
// its 0x.
uint32_t addressFrom(const std::string& text);

}  // namespace kelodbg

#endif  // KELODBG_CHANGES_H_
