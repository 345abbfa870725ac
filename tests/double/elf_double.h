// A test double of the image library. It implements the same kelo_elf::ELF
// interface as the real library, but its images are tiny: the bytes
// "KDBL" followed by NUL-terminated section names. Tests tell its save(),
// load() and hasSection() to fail or to throw, and read counters that prove
// images are moved, never copied, and never leaked.
//
// The control block is process-wide (test code only); call reset() at the
// start of every test.
#ifndef KELO_TESTS_ELF_DOUBLE_H_
#define KELO_TESTS_ELF_DOUBLE_H_

#include <string>
#include <vector>

#include "kelo/elf.hpp"

namespace elf_double {

enum class Fault {
  kNone,
  kFail,           // the operation answers its failure (an empty optional; false)
  kThrowBadAlloc,  // throws std::bad_alloc
  kThrowRuntime,   // throws std::runtime_error
  kThrowInt,       // throws an int: not derived from std::exception
};

struct Control {
  // Faults, applied to every call until reset; a load fault only once its
  // countdown has reached zero (with n, the call after n successful ones).
  Fault saveFault = Fault::kNone;
  Fault loadFault = Fault::kNone;  // load() and adopt()
  int loadCountdown = 0;
  Fault hasSectionFault = Fault::kNone;

  long liveObjects = 0;          // ELF objects, empty ones included
  long liveImplementations = 0;  // image contents: loaded, not yet destroyed
};

Control& control();
void reset();

// Bytes that the double's load() turns into an image with these sections.
std::vector<unsigned char> bytesWithSections(const std::vector<std::string>& sections);

// An image with these sections (load() of bytesWithSections()).
kelo_elf::ELF image(const std::vector<std::string>& sections = {".text", ".data"});

}  // namespace elf_double

#endif  // KELO_TESTS_ELF_DOUBLE_H_
