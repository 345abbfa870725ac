// The exception barrier of the C interfaces (the image library's and those
// of the libraries above it): the one place where a C call stops exceptions.
#ifndef KELO_ELF_INTERNAL_GUARD_H_
#define KELO_ELF_INTERNAL_GUARD_H_

#include <cxxabi.h>

#include <utility>

namespace kelo_capi {
namespace detail {

// The body runs in a frame of its own, so that it keeps every sanitizer
// check that guarded() below has to do without.
template <typename Body>
__attribute__((noinline)) decltype(auto) run(Body& body) {
  return body();
}

}  // namespace detail

// Runs `body` and turns every exception, of any type, into `failure`.
// Temporaries of the body are released by unwinding before the handler
// runs.
//
// The one exception let through is the forced unwinding with which the C
// library cancels a thread (a thread blocked on a FIFO in a file call, say):
// it must reach the thread's start, and swallowing it aborts the process. For
// the same reason neither this function nor the C calls built on it are
// noexcept: unwinding through a noexcept frame ends the process too.
//
// (That unwinding carries no C++ object, so the handler that lets it through
// binds its reference to null: correct, but the null-reference sanitizer
// reports it.)
template <typename Result, typename Body>
__attribute__((no_sanitize("null"))) Result guarded(Result failure, Body&& body) {
  try {
    return detail::run(body);
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    return failure;
  }
}

// The same barrier for calls without a result.
template <typename Body>
void guarded(Body&& body) {
  guarded(false, [&body] {
    body();
    return true;
  });
}

}  // namespace kelo_capi

#endif  // KELO_ELF_INTERNAL_GUARD_H_
