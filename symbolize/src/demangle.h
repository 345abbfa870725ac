// Demangling C++ names within a bound on the demangled text.
#ifndef KELO_SYMBOLIZE_DEMANGLE_H_
#define KELO_SYMBOLIZE_DEMANGLE_H_

#include <string>

namespace kelo_symbolize {
namespace internal {

// `name` demangled as binutils demangles function names (parameters
// included; "_Z..." and "_GLOBAL_..." names only), or `name` itself when it
// is not a mangled name, is longer than kMaxMangledName, or its demangled
// form would pass kMaxDemangledName. A few substitutions can make a short
// name demangle to gigabytes; the demangler stops as soon as the bound is
// passed, so time and memory stay within it.
std::string demangle(const char* name);

}  // namespace internal
}  // namespace kelo_symbolize

#endif  // KELO_SYMBOLIZE_DEMANGLE_H_
