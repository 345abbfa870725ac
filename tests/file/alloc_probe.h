// Records the largest single request made to the global operator new, so
// tests can prove that a forged length did not turn into a big allocation.
#ifndef KELO_TESTS_FILE_ALLOC_PROBE_H_
#define KELO_TESTS_FILE_ALLOC_PROBE_H_

#include <cstddef>

namespace alloc_probe {

// Forgets earlier requests.
void reset();

// The largest request since the last reset().
std::size_t largest();

}  // namespace alloc_probe

#endif  // KELO_TESTS_FILE_ALLOC_PROBE_H_
