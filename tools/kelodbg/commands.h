// kelodbg's commands. The command line arrives parsed into a Request; each
// command works through the C++ class on lists read and written by the C
// calls, and throws Failure with the reason when it cannot do its work.
// Nothing is written before every refusal has been checked.
#ifndef KELODBG_COMMANDS_H_
#define KELODBG_COMMANDS_H_

#include <string>
#include <utility>
#include <vector>

#include "tool.h"

namespace kelodbg {

struct Request {
  std::string file;               // FILE, or A for diff, or OUTPUT for merge
  std::string second;             // ID (show, extract, set-addr, unset-addr) or B (diff)
  std::string output;             // -o (extract)
  std::string into;               // merge --into
  std::vector<std::string> args;  // the rest of the positional arguments
  unsigned kind = 1;              // --kind: the kind of identifiers written without one
  double wait = 10;               // --wait: seconds to wait for a locked file
  bool json = false;
  bool quiet = false;
  bool strict = false;
  bool dropUnread = false;  // --drop-unread: a change may drop what reading drops
  std::string from;         // set-addr --from LIST
  std::string base;         // place --base ADDRESS
  std::string map;          // place --map LINKMAP
};

// Warnings about an entry placed in part (it records some addresses):
// allocated sections with bytes that have no address, and allocated
// sections whose name an earlier one has.
std::vector<std::string> placementWarnings(const Id& id, const kelo_elf::ELF& image,
                                           const std::vector<std::pair<std::string, uint32_t>>& recorded);

void createCommand(const Request& r);
void addCommand(const Request& r);
void removeCommand(const Request& r);
void setAddrCommand(const Request& r);
void placeCommand(const Request& r);
void unsetAddrCommand(const Request& r);
void renumberCommand(const Request& r);
void mergeCommand(const Request& r);
void listCommand(const Request& r);
void showCommand(const Request& r);
void extractCommand(const Request& r);
// Return the exit code: they tell a result (different files, warnings), not
// a failure.
int diffCommand(const Request& r);
int checkCommand(const Request& r);
void versionCommand(const Request& r);

}  // namespace kelodbg

#endif  // KELODBG_COMMANDS_H_
