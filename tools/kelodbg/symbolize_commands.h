// kelodbg's symbolization commands: `addr2line` and `map`. They depend only
// on the public headers, the symbolization library and fmt, so they can be
// wired into any command-line front end.
#ifndef KELODBG_SYMBOLIZE_COMMANDS_H_
#define KELODBG_SYMBOLIZE_COMMANDS_H_

#include <cstdio>
#include <string>
#include <vector>

#include "kelo/DebugInfoList.h"
#include "kelo/symbolize.hpp"

namespace kelodbg {

// The options of binutils' addr2line that the command takes, with their
// meaning there.
struct Addr2lineOptions {
  bool addresses = false;  // -a: print each address before its answer
  bool functions = false;  // -f: print function names
  bool inlines = false;    // -i: print the frames around inlined functions too
  bool pretty = false;     // -p: one line per address
  bool basenames = false;  // -s: file names without directories
  bool demangle = false;   // -C: demangle C++ names
  // --cache-size: bytes of decoded debug information kept at once.
  size_t cacheBytes = kelo_symbolize::Options().cacheBytes;
};

// Prints to `out` what binutils addr2line prints with the same options for
// a program linked from the list's entries at their recorded addresses.
// Addresses (hex, 0x optional) come from `addresses`, or, when it is empty,
// one per line from `in`, each answer flushed at once so that the command
// can serve another program through a pipe. Returns the exit code (0).
int addr2lineCommand(const kelo_debuginfo::DebugInfoList& list, const Addr2lineOptions& options,
                     const std::vector<std::string>& addresses, std::FILE* in, std::FILE* out);

// Prints the address map of the list read from `name` (a file of format
// `version`), sorted by address:
// for each placed section its start, end, entry, name, how many ranges it
// overlaps and the first of them; as a table, or as one JSON document.
// Returns the exit code (0).
int mapCommand(const kelo_debuginfo::DebugInfoList& list, const std::string& name, const std::string& version,
               bool json);

}  // namespace kelodbg

#endif  // KELODBG_SYMBOLIZE_COMMANDS_H_
