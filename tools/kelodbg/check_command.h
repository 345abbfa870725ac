// `kelodbg check`: whether a debug-info file reads, what is wrong and where,
// and what it holds that answers nothing.
#ifndef KELODBG_CHECK_COMMAND_H_
#define KELODBG_CHECK_COMMAND_H_

#include <string>
#include <utility>
#include <vector>

#include "kelo/elf.hpp"
#include "tool.h"

namespace kelodbg {

struct CheckOptions {
  std::string file;
  bool json = false;
  bool quiet = false;   // no output, no warnings: the exit code tells
  bool strict = false;  // warnings make the exit code 15
};
// Returns the exit code: a result (warnings with --strict), not a failure.
int checkCommand(const CheckOptions& o);

// Warnings about an entry placed in part (it records some addresses):
// allocated sections with bytes that have no address, and allocated
// sections whose name an earlier one has.
std::vector<std::string> placementWarnings(const Id& id, const kelo_elf::ELF& image,
                                           const std::vector<std::pair<std::string, uint32_t>>& recorded);

}  // namespace kelodbg

#endif  // KELODBG_CHECK_COMMAND_H_
