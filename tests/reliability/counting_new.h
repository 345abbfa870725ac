// A replacement of the global operator new and delete (every form) for the
// reliability tests: it counts live allocations and can be armed to fail one
// chosen allocation.
//
// Only test binaries link it. Its state is process-wide and the tests are
// single-threaded.
#ifndef KELO_TESTS_RELIABILITY_COUNTING_NEW_H_
#define KELO_TESTS_RELIABILITY_COUNTING_NEW_H_

namespace counting_new {

// Live allocations made through operator new.
long liveCount();

// Makes the k-th allocation from now (k >= 1) fail: the throwing forms throw
// std::bad_alloc, the nothrow forms return null. Allocations after it
// succeed again. disarm() cancels; tripped() tells whether it happened.
void failAt(long k);
void disarm();
bool tripped();

}  // namespace counting_new

#endif  // KELO_TESTS_RELIABILITY_COUNTING_NEW_H_
