// kelodbg's symbolization commands: `addr2line`, `map` and `stack`. They depend only
// on the public headers, the symbolization library and fmt, so they can be
// wired into any command-line front end.
#ifndef KELODBG_SYMBOLIZE_COMMANDS_H_
#define KELODBG_SYMBOLIZE_COMMANDS_H_

#include <cstdio>
#include <string>
#include <vector>

#include "answers.h"
#include "files.h"
#include "kelo/DebugInfoList.h"
#include "kelo/symbolize.hpp"

namespace kelodbg {

struct Addr2lineOptions {
  AnswerOptions answers;
  bool json = false;   // --output-style=JSON
  std::string module;  // the file's name, for JSON
};

// Prints to `out` what binutils addr2line prints with the same options for
// a program linked from the list's entries at their recorded addresses, or
// with `json` what LLVM's symbolizer prints with --output-style=JSON (one
// array for addresses given as arguments, one line per address read).
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
struct StackOptions {
  AnswerOptions answers;  // functions, inlines and demangle are on
  bool json = false;
  std::string name;  // the store's name and format version, for JSON
  std::string version;
  // --module: the program or library whose frames are looked up, by their
  // offset in it; empty: every frame, by its address.
  std::string module;
};

// Reads the stack trace `trace` and prints
// each of its lines followed by the frames of the address it holds: the
// lines of gdb's backtrace ("#1  0x... in f () at x.c:3"), of sanitizer
// reports ("    #1 0x... in f x.c:3:5"), of glibc's backtrace_symbols
// ("prog(f+0x1d) [0x...]") and plain addresses (0x...), one a line. The
// first frame of a trace (#0, or the first line of a plain list) is looked
// up as it is; every later one is a return address, looked up less one.
// Returns the exit code (0).
int stackCommand(const kelo_debuginfo::DebugInfoList& list, const StackOptions& options, TextInput& trace);

int mapCommand(const kelo_debuginfo::DebugInfoList& list, const std::string& name, const std::string& version,
               bool json);

}  // namespace kelodbg

#endif  // KELODBG_SYMBOLIZE_COMMANDS_H_
