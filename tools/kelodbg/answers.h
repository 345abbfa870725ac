// Answers for run-time addresses, built once and rendered as text (the
// lines binutils' addr2line prints, or a stack trace's) or as JSON (the
// objects LLVM's symbolizer prints with --output-style=JSON, plus the entry,
// section and offset).
#ifndef KELODBG_ANSWERS_H_
#define KELODBG_ANSWERS_H_

#include <cstdint>
#include <string>

#include "kelo/symbolize.hpp"
#include "text.h"

namespace kelodbg {

// What is asked about each address, and how it is shown.
struct AnswerOptions {
  bool addresses = false;  // -a: print each address before its answer
  bool functions = false;  // -f: print function names
  bool inlines = false;    // -i: print the frames around inlined functions too
  bool pretty = false;     // -p: one line per address
  bool basenames = false;  // -s: file names without directories
  bool demangle = false;   // -C: demangle C++ names
  bool columns = false;    // --column: file:line:column
  bool where = false;      // --where: entry, section, offset, variable
  // JSON: an address in no stored section has no frames ("Symbol": []),
  // where LLVM's form has one empty frame.
  bool noEmptyFrame = false;
  // --cache-size: bytes of decoded debug information kept at once.
  size_t cacheBytes = kelo_symbolize::Options().cacheBytes;
};

// One address and what the store knows about it.
struct Answer {
  uint64_t address = 0;  // as given, and as printed
  uint64_t lookup = 0;   // as looked up (a return address less one)
  bool placed = false;   // a stored section holds `lookup`
  kelo_symbolize::Location location;

  // Looks `lookup` up, reusing what `location` holds.
  void resolve(kelo_symbolize::Symbolizer& symbolizer) { placed = symbolizer.resolve(lookup, location); }
};

// The lines addr2line prints for the answer, appended to `out`; addresses
// `bits` wide.
void appendText(const Answer& answer, const AnswerOptions& options, unsigned bits, std::string& out);

// The answer's frames as a stack trace shows them under the trace's line:
// each frame on a line of its own, indented, "function at file:line".
void appendStackText(const Answer& answer, const AnswerOptions& options, std::string& out);

// {"Address", "ModuleName", "Symbol": [frames], "Entry", "Section",
// "Offset"[, "Variable"]}, each frame {"Column", "Discriminator",
// "FileName", "FunctionName", "Line", "StartAddress", "StartFileName",
// "StartLine"}, innermost first; an address no section holds has one
// frame with empty values (none with noEmptyFrame) and no entry. `module`
// is the file's name. Written on one line, without spaces, onto `out`; as
// a Json value, the same text.
void appendAnswerJson(std::string& out, const Answer& answer, const AnswerOptions& options, const std::string& module);
Json answerJson(const Answer& answer, const AnswerOptions& options, const std::string& module);

// The entry's identifier as every listing prints it.
std::string entryText(const kelo_elf::DebugInfoID& id);

}  // namespace kelodbg

#endif  // KELODBG_ANSWERS_H_
