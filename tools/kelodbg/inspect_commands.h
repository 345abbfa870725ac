// The commands that read debug-info files and tell what they hold: list,
// show, diff and version. Each builds one result, which is printed as text
// for people or, with --json, as one JSON document.
#ifndef KELODBG_INSPECT_COMMANDS_H_
#define KELODBG_INSPECT_COMMANDS_H_

#include <string>

namespace kelodbg {

struct ListOptions {
  std::string file;
  bool json = false;
};
void listCommand(const ListOptions& o);

struct ShowOptions {
  std::string file;
  std::string id;
  bool json = false;
};
void showCommand(const ShowOptions& o);

struct DiffOptions {
  std::string a, b;
  bool json = false;
};
// Returns the exit code: 0 when the files hold the same entries, 1 when not.
int diffCommand(const DiffOptions& o);

struct VersionOptions {
  std::string file;  // empty: the tool's own version
  bool json = false;
};
void versionCommand(const VersionOptions& o);

}  // namespace kelodbg

#endif  // KELODBG_INSPECT_COMMANDS_H_
