// kelodbg's exit codes: the one list. The help text and the README table
// are made from it (the README's copy is checked against `kelodbg help` by
// the tests), so a code's meaning is written down once.
#ifndef KELODBG_EXIT_CODES_H_
#define KELODBG_EXIT_CODES_H_

// X(name, value, meaning)
#define KELODBG_EXIT_CODES(X)                                                                                     \
  X(kOk, 0, "success (diff, check: the files are equal, the file reads)")                                         \
  X(kFailure, 1, "other failure; for diff: the files differ")                                                     \
  X(kUsage, 2, "usage error: unknown command, malformed identifier, number or argument")                          \
  X(kFileIo, 3, "a file is missing, unreadable or cannot be written")                                             \
  X(kNotDebugInfo, 4, "not a debug-info file (wrong magic)")                                                      \
  X(kVersion, 5, "unsupported debug-info file version")                                                           \
  X(kDamaged, 6, "damaged debug-info file (the message says where)")                                              \
  X(kBadElf, 7, "an ELF file does not load")                                                                      \
  X(kAbsentId, 8, "no entry under that identifier")                                                               \
  X(kPresentId, 9, "identifier already present")                                                                  \
  X(kRefused, 10, "renumbering or merge refused (identifiers would collide)")                                     \
  X(kNoSection, 11, "the entry has no section of that name")                                                      \
  X(kNoMemory, 12, "out of memory")                                                                               \
  X(kLocked, 13, "the file stayed locked by another change for longer than --wait")                               \
  X(kUnsafe, 14, "refused to protect a file: same file as an input, read-only, hard links, special file, stream") \
  X(kWarnings, 15, "check --strict: the file reads, with warnings")

namespace kelodbg {

enum class Exit : int {
#define KELODBG_EXIT_ENUM(name, value, meaning) name = value,
  KELODBG_EXIT_CODES(KELODBG_EXIT_ENUM)
#undef KELODBG_EXIT_ENUM
};

}  // namespace kelodbg

#endif  // KELODBG_EXIT_CODES_H_
