#include "demangle.h"

#include <csetjmp>
#include <cstring>
#include <utility>

// The C library declares basename() already (C++'s <cstring> its own way).
#define HAVE_DECL_BASENAME 1
#include <libiberty/demangle.h>

#include "kelo/symbolize.hpp"

namespace kelo_symbolize {
namespace internal {
namespace {

// Where the demangler's output goes. The demangler writes its text in
// pieces through a callback and keeps no heap memory of its own, so leaving
// it half way with longjmp loses nothing.
struct Sink {
  std::string text;
  std::jmp_buf* stop;
};

extern "C" void collect(const char* piece, size_t length, void* opaque) {
  Sink* sink = static_cast<Sink*>(opaque);
  if (length > kMaxDemangledName - sink->text.size()) std::longjmp(*sink->stop, 1);
  sink->text.append(piece, length);
}

// Demangles into sink->text; false when the name does not demangle or its
// text passes the bound. The only objects alive in this frame across the
// jump are plain values.
bool demangleInto(const char* name, Sink* sink) {
  std::jmp_buf stop;
  sink->stop = &stop;
  if (setjmp(stop) != 0) return false;
  return cplus_demangle_v3_callback(name, DMGL_PARAMS | DMGL_ANSI, collect, sink) != 0;
}

}  // namespace

std::string demangle(const char* name) {
  if (std::strncmp(name, "_Z", 2) != 0 && std::strncmp(name, "_GLOBAL_", 8) != 0) return name;
  // The demangler keeps a table proportional to the name on the stack.
  if (strnlen(name, kMaxMangledName + 1) > kMaxMangledName) return name;
  Sink sink;
  sink.text.reserve(64);
  if (!demangleInto(name, &sink)) return name;
  return std::move(sink.text);
}

}  // namespace internal
}  // namespace kelo_symbolize
