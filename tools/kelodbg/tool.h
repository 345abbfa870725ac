// kelodbg: pieces shared by the commands.
//
// Every command reports failure by throwing Failure; main() prints it as
// "kelodbg: <file>: <message>" and exits with its code (exit_codes.h).
#ifndef KELODBG_TOOL_H_
#define KELODBG_TOOL_H_

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <type_traits>

#include "exit_codes.h"
#include "kelo/DebugInfoList.h"
#include "kelo/debuginfo.h"

namespace kelodbg {

struct Failure {
  Exit code;
  std::string file;  // empty when the failure is not about one file
  std::string message;
};

[[noreturn]] void fail(Exit code, std::string file, std::string message);

// Writes `text` to standard error, whatever happens: a closed or full
// standard error never ends the program or changes its exit code.
void complain(const std::string& text);

// Writes `text` to standard output. A failure is remembered and reported
// once, at the end, by finishOutput().
void print(const std::string& text);
// Flushes standard output; throws Failure when anything could not be
// written.
void finishOutput();

// ---- Identifiers and numbers ----

struct Id {
  uint8_t kind = 1;
  uint32_t number = 0;

  kelo_elf::DebugInfoID key() const {
    return kelo_elf::DebugInfoID(kind, static_cast<uint16_t>(number & 0xFFFF), static_cast<uint16_t>(number >> 16));
  }
  static Id of(const kelo_elf::DebugInfoID& id) { return Id{id.kind, id.number()}; }
  friend bool operator<(const Id& a, const Id& b) { return a.kind != b.kind ? a.kind < b.kind : a.number < b.number; }
  friend bool operator==(const Id& a, const Id& b) { return a.kind == b.kind && a.number == b.number; }
};

// "1:0x00011234": the form every message and listing uses.
std::string format(const Id& id);

// A number of at most `max` in decimal or 0x hex. Empty string on success,
// else what is wrong with `text`.
std::string parseNumber(const std::string& text, uint32_t& out, uint32_t max = UINT32_MAX);

// `kind:number` (kind 0 to 255) or `number` (kind `defaultKind`).
std::string parseId(const std::string& text, uint8_t defaultKind, Id& out);

// `left=right` split at the first '=' (described to the user as `form`); both
// sides non-empty.
std::string splitAssignment(const std::string& text, const char* form, std::string& left, std::string& right);

// ---- Lists ----

using List = kelo_debuginfo::DebugInfoList;

// A list owned by the tool.
using ListPtr = std::unique_ptr<List>;

// A new empty list.
ListPtr newList();

}  // namespace kelodbg

#endif  // KELODBG_TOOL_H_
