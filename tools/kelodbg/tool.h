// kelodbg: shared pieces of the command-line tool.
//
// Every command reports failure by throwing Failure; main() prints it as
// "kelodbg: <file>: <message>" and exits with its code. The codes are part of
// the tool's interface (documented in --help and the README), so keep them
// stable.
#ifndef KELODBG_TOOL_H_
#define KELODBG_TOOL_H_

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "kelo/debuginfo.h"
#include "kelo/elf.h"

namespace kelodbg {

enum class Exit : int {
  kOk = 0,
  kFailure = 1,       // anything not listed below (for instance, no memory)
  kUsage = 2,         // bad command line
  kFileIo = 3,        // a file is missing, unreadable or cannot be written
  kNotDebugInfo = 4,  // the file does not start with the debug-info magic
  kVersion = 5,       // the file's version is not one this library reads
  kDamaged = 6,       // the header is fine, the rest cannot be decoded
  kBadElf = 7,        // an input ELF file does not load
  kAbsentId = 8,      // no entry under the identifier
  kPresentId = 9,     // the identifier is already taken
  kRefused = 10,      // a renumbering or merge would make identifiers collide
  kNoSection = 11,    // the entry's image has no section of that name
};

// The exit-code table, as printed in --help.
const char* exitCodeHelp();

struct Failure {
  Exit code;
  std::string file;  // empty when the failure is not about one file
  std::string message;
};

[[noreturn]] void fail(Exit code, std::string file, std::string message);

// ---- Identifiers and numbers ----

struct Id {
  uint32_t kind = 1;
  uint32_t number = 0;

  keloDbgID c() const { return keloDbgID{kind, number}; }
  friend bool operator<(const Id& a, const Id& b) { return a.kind != b.kind ? a.kind < b.kind : a.number < b.number; }
  friend bool operator==(const Id& a, const Id& b) { return a.kind == b.kind && a.number == b.number; }
};

// "1:0x00011234": the form every message and listing uses.
std::string format(const Id& id);

// A 32-bit unsigned number in decimal or 0x hex. Empty string on success,
// else what is wrong with `text`.
std::string parseNumber(const std::string& text, uint32_t& out);

// `kind:number` or `number` (kind 1); kind is 0 or 1.
std::string parseId(const std::string& text, Id& out);

// `left=right` (described to the user as `form`), split at the first '='; both
// sides non-empty.
std::string splitAssignment(const std::string& text, const char* form, std::string& left, std::string& right);

// ---- Files ----

struct ListDeleter {
  void operator()(keloDbgList list) const { keloDbgFree(list); }
};
using ListPtr = std::unique_ptr<std::remove_pointer_t<keloDbgList>, ListDeleter>;

struct ElfDeleter {
  void operator()(keloElf* image) const { keloElfFree(image); }
};
using ElfPtr = std::unique_ptr<keloElf, ElfDeleter>;

// Reads a debug-info file, telling apart why it cannot be read: missing or
// unreadable, wrong magic, unsupported version, damaged body.
ListPtr readDebugInfo(const std::string& path);

// The version bytes of a debug-info file (magic checked, version not judged).
struct FileVersion {
  uint32_t major, minor, patch;
};
FileVersion readVersion(const std::string& path);

// Writes `list` to `path` without ever leaving a half-written file there:
// the list goes to a temporary file in the same directory, which then
// replaces `path`. On failure the temporary file is removed and `path` is
// as it was.
void writeDebugInfo(keloDbgList list, const std::string& path);

// Writes `bytes` to `path` the same way.
void writeBytes(const unsigned char* data, size_t size, const std::string& path);

// Loads the ELF file at `path`, telling a missing file from one that is not
// an ELF file the image library can load.
ElfPtr loadElf(const std::string& path);

}  // namespace kelodbg

#endif  // KELODBG_TOOL_H_
