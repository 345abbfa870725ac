// A checker for debug-info files that says what is wrong and where.
//
// The read procedure answers only whether a file reads; this walks the same
// bytes field by field, one entry at a time, and reports the first error it
// meets (which field, in which entry, at which byte offset) and everything
// that reads but is probably not what the writer meant: identifiers or
// section names that occur twice (the reader keeps the first), kinds that the
// C interface cannot reach, bytes after the last entry, and count or length
// prefixes whose high half the reader ignores. A file that this checker
// passes without an error is one that the read procedure reads, memory
// permitting.
//
// Internal to this project: the tool links it to explain failures and to
// implement `kelodbg check`.
#ifndef KELO_FILE_INSPECT_H_
#define KELO_FILE_INSPECT_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "absl/types/optional.h"
#include "kelo/elf.hpp"
#include "kelo/store.hpp"
#include "serialize/orvel/io/File.h"

namespace kelo_debuginfo {
namespace file {

// The decoder's findings are the public ones of the store library.
using kelo_store::Fault;
using kelo_store::Finding;
using kelo_store::IndexedEntry;
using kelo_store::Place;
using kelo_store::Report;
using kelo_store::Warning;

struct Options {
  // Load every image as the reader does (a check); otherwise image bytes
  // are skipped (seeked over where the stream can seek) and only their
  // presence is checked.
  bool loadImages = true;
  // Fill Report::index.
  bool index = false;
};

// Checks the file at `path` (normalised as the read procedure does). Holds
// one entry at a time. Throws std::bad_alloc when memory runs out.
Report inspectFile(const char* path, const Options& options = Options());

// The same on an open stream positioned at the header.
Report inspect(orvel_lib::io::File& file, const Options& options = Options());

}  // namespace file
}  // namespace kelo_debuginfo

#endif  // KELO_FILE_INSPECT_H_
