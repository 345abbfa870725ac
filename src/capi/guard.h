// The exception barrier of the C interfaces: the one place where a C call
// stops exceptions.
#ifndef KELO_CAPI_GUARD_H_
#define KELO_CAPI_GUARD_H_

#include <cxxabi.h>

#include <utility>

namespace kelo_capi {

// Runs `body` and turns every exception, of any type, into `failure`.
// Temporaries of the body are released by unwinding before the handler
// runs.
//
// The one exception let through is the forced unwinding with which the C
// library cancels a thread (a thread blocked on a FIFO in a file call, say):
// it must reach the thread's start, and swallowing it aborts the process. For
// the same reason neither this function nor the C calls built on it are
// noexcept: unwinding through a noexcept frame ends the process too.
template <typename Result, typename Body>
Result guarded(Result failure, Body&& body) {
  try {
    return std::forward<Body>(body)();
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
    std::forward<Body>(body)();
    return true;
  });
}

}  // namespace kelo_capi

#endif  // KELO_CAPI_GUARD_H_
