// The C interface. Each call converts its arguments, makes one call on the
// Symbolizer or reads one answer, and converts back; calls that can throw
// run inside guarded(), the one place where exceptions stop.
//
// Handles: a keloSym is a keloSymRec holding the Symbolizer, a keloSymResult
// a keloSymResultRec holding one Location; keloDbgList and identifier records
// convert through capi/handles.h.
#include "kelo/symbolize.h"

#include <utility>

#include "capi/handles.h"
#include "elf_internal/guard.h"
#include "kelo/DebugInfoList.h"
#include "kelo/symbolize.hpp"

struct keloSymRec {
  explicit keloSymRec(const kelo_debuginfo::DebugInfoList& list) : symbolizer(list) {}
  kelo_symbolize::Symbolizer symbolizer;
};

struct keloSymResultRec {
  kelo_symbolize::Location location;
};

using kelo_capi::guarded;
using kelo_handles::toRecord;

extern "C" {

keloSym keloSymOpen(keloDbgList list) {
  return guarded<keloSym>(nullptr, [list]() -> keloSym {
    if (list == nullptr) return nullptr;
    return new keloSymRec(*kelo_handles::toList(list));
  });
}

void keloSymClose(keloSym sym) { delete sym; }

uint32_t keloSymRangeCount(keloSym sym) {
  return sym != nullptr ? static_cast<uint32_t>(sym->symbolizer.ranges().size()) : 0;
}

bool keloSymGetRange(keloSym sym, uint32_t index, keloSymRange* out) {
  if (sym == nullptr || out == nullptr || index >= sym->symbolizer.ranges().size()) return false;
  const kelo_symbolize::Range& r = sym->symbolizer.ranges()[index];
  *out = keloSymRange{toRecord(r.id), r.section.c_str(), r.start, r.end, static_cast<uint32_t>(r.overlaps.size())};
  return true;
}

bool keloSymGetOverlap(keloSym sym, uint32_t index, uint32_t k, uint32_t* other) {
  if (sym == nullptr || other == nullptr || index >= sym->symbolizer.ranges().size()) return false;
  const kelo_symbolize::Range& r = sym->symbolizer.ranges()[index];
  if (k >= r.overlaps.size()) return false;
  *other = static_cast<uint32_t>(r.overlaps[k]);
  return true;
}

keloSymResult keloSymResolve(keloSym sym, uint64_t address) {
  return guarded<keloSymResult>(nullptr, [sym, address]() -> keloSymResult {
    if (sym == nullptr) return nullptr;
    absl::optional<kelo_symbolize::Location> loc = sym->symbolizer.resolve(address);
    if (!loc) return nullptr;
    return new keloSymResultRec{std::move(*loc)};
  });
}

bool keloSymResultPlace(keloSymResult result, keloDbgID* id, const char** section, uint64_t* offset) {
  if (result == nullptr) return false;
  if (id != nullptr) *id = toRecord(result->location.id);
  if (section != nullptr) *section = result->location.section.c_str();
  if (offset != nullptr) *offset = result->location.offset;
  return true;
}

uint32_t keloSymResultFrameCount(keloSymResult result) {
  return result != nullptr ? static_cast<uint32_t>(result->location.frames.size()) : 0;
}

bool keloSymResultFrame(keloSymResult result, uint32_t index, keloSymFrame* out) {
  if (result == nullptr || out == nullptr || index >= result->location.frames.size()) return false;
  const kelo_symbolize::Frame& f = result->location.frames[index];
  *out = keloSymFrame{f.function.c_str(), f.demangled.c_str(), f.file.c_str(), f.line, f.column, f.discriminator};
  return true;
}

void keloSymResultFree(keloSymResult result) { delete result; }

const char* keloSymResultVariable(keloSymResult result) {
  return result != nullptr ? result->location.variable.c_str() : nullptr;
}

bool keloSymResultFrameStart(keloSymResult result, uint32_t index, const char** file, uint32_t* line,
                             uint64_t* address) {
  if (result == nullptr || index >= result->location.frames.size()) {
    if (file != nullptr) *file = "";
    if (line != nullptr) *line = 0;
    if (address != nullptr) *address = 0;
    return false;
  }
  const kelo_symbolize::Frame& f = result->location.frames[index];
  if (file != nullptr) *file = f.startFile.c_str();
  if (line != nullptr) *line = f.startLine;
  if (address != nullptr) *address = f.hasStart ? f.startAddress : 0;
  return f.hasStart;
}

}  // extern "C"
