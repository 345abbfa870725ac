// The commands that write debug-info files: create, add, remove, set-addr,
// unset-addr, renumber, merge and extract. Each checks every refusal
// before it writes anything, and a change of a file replaces it whole,
// under its lock (changes.h).
#ifndef KELODBG_CHANGE_COMMANDS_H_
#define KELODBG_CHANGE_COMMANDS_H_

#include <string>
#include <vector>

#include "changes.h"

namespace kelodbg {

struct CreateOptions {
  std::string file;
  std::vector<std::string> entries;  // ID=ELF-FILE
  unsigned kind = 1;                 // of identifiers given without one
  double wait = kDefaultWait;
};
void createCommand(const CreateOptions& o);

struct AddOptions {
  ChangeTarget target;
  std::vector<std::string> entries;  // ID=ELF-FILE
  unsigned kind = 1;
};
void addCommand(const AddOptions& o);

struct RemoveOptions {
  ChangeTarget target;
  std::vector<std::string> ids;
};
void removeCommand(const RemoveOptions& o);

struct SetAddrOptions {
  ChangeTarget target;
  std::string id;
  std::vector<std::string> addresses;  // SECTION=ADDRESS..., or SECTION ADDRESS
  std::string from;                    // --from LIST
};
void setAddrCommand(const SetAddrOptions& o);

struct UnsetAddrOptions {
  ChangeTarget target;
  std::string id;
  std::vector<std::string> sections;
};
void unsetAddrCommand(const UnsetAddrOptions& o);

struct RenumberOptions {
  ChangeTarget target;
  std::vector<std::string> renumberings;  // OLD=NEW
};
void renumberCommand(const RenumberOptions& o);

struct MergeOptions {
  std::string output;  // a new file; empty with `into`
  std::string into;    // --into FILE: merged in place
  std::vector<std::string> inputs;
  double wait = kDefaultWait;
  bool dropUnread = false;
};
void mergeCommand(const MergeOptions& o);

struct ExtractOptions {
  std::string file, id, output;
  double wait = kDefaultWait;
};
void extractCommand(const ExtractOptions& o);

}  // namespace kelodbg

#endif  // KELODBG_CHANGE_COMMANDS_H_
