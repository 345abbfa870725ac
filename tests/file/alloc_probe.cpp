#include "alloc_probe.h"

#include <cstdlib>
#include <new>

namespace {
std::size_t largestRequest = 0;  // test binaries are single-threaded
}  // namespace

namespace alloc_probe {
void reset() { largestRequest = 0; }
std::size_t largest() { return largestRequest; }
}  // namespace alloc_probe

void* operator new(std::size_t n) {
  if (n > largestRequest) largestRequest = n;
  if (void* p = std::malloc(n != 0 ? n : 1)) return p;
  throw std::bad_alloc();
}

void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
