#include "counting_new.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace counting_new {
namespace {

struct State {
  long live = 0;
  long failAt = 0;  // 0: disarmed
  long seen = 0;
  bool tripped = false;
};

State& state() {
  static State s;  // trivially constructed: usable before main
  return s;
}

// Answers whether this allocation is the one to fail.
bool fails() {
  State& s = state();
  if (s.failAt == 0) return false;
  if (++s.seen != s.failAt) return false;
  s.failAt = 0;
  s.tripped = true;
  return true;
}

void* take(std::size_t n, std::size_t align) {
  if (fails()) return nullptr;
  if (n == 0) n = 1;
  void* p = nullptr;
  if (align <= alignof(std::max_align_t)) {
    p = std::malloc(n);
  } else if (posix_memalign(&p, align, n) != 0) {
    p = nullptr;
  }
  if (p == nullptr) return nullptr;
  ++state().live;
  return p;
}

void give(void* p) noexcept {
  if (p == nullptr) return;
  --state().live;
  std::free(p);
}

void* takeOrThrow(std::size_t n, std::size_t align) {
  void* p = take(n, align);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}

}  // namespace

long liveCount() { return state().live; }
void failAt(long k) {
  state().failAt = k;
  state().seen = 0;
  state().tripped = false;
}
void disarm() { state().failAt = 0; }
bool tripped() { return state().tripped; }

}  // namespace counting_new

using counting_new::give;
using counting_new::take;
using counting_new::takeOrThrow;

// The replaceable allocation functions, every form.
void* operator new(std::size_t n) { return takeOrThrow(n, 0); }
void* operator new[](std::size_t n) { return takeOrThrow(n, 0); }
void* operator new(std::size_t n, const std::nothrow_t&) noexcept { return take(n, 0); }
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept { return take(n, 0); }
void* operator new(std::size_t n, std::align_val_t a) { return takeOrThrow(n, static_cast<std::size_t>(a)); }
void* operator new[](std::size_t n, std::align_val_t a) { return takeOrThrow(n, static_cast<std::size_t>(a)); }
void* operator new(std::size_t n, std::align_val_t a, const std::nothrow_t&) noexcept {
  return take(n, static_cast<std::size_t>(a));
}
void* operator new[](std::size_t n, std::align_val_t a, const std::nothrow_t&) noexcept {
  return take(n, static_cast<std::size_t>(a));
}

void operator delete(void* p) noexcept { give(p); }
void operator delete[](void* p) noexcept { give(p); }
void operator delete(void* p, std::size_t) noexcept { give(p); }
void operator delete[](void* p, std::size_t) noexcept { give(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { give(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { give(p); }
void operator delete(void* p, std::align_val_t) noexcept { give(p); }
void operator delete[](void* p, std::align_val_t) noexcept { give(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { give(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { give(p); }
void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept { give(p); }
void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept { give(p); }
