// The one decoder of debug-info files, which says what is wrong and where.
//
// It walks a file field by field, one entry at a time, keeping the byte
// offset of every field, and reports the first fault it meets (which field,
// in which entry, at which offset) and everything that reads but is probably
// not what the writer meant: identifiers or section names that occur twice
// (the reader keeps the first), kinds that the C interface cannot reach,
// bytes after the last entry, and count or length prefixes whose high half
// the reader ignores. Three uses share it: reading a whole list
// (decodeList, behind keloDbgRead), checking a file (every image loaded,
// one entry held at a time), and indexing it (images skipped, each entry's
// place kept). A length is trusted only as far as the stream has shown
// bytes for it.
//
// Internal to this project: the debug-info library reads with it, and the
// store library and the tool check and index with it.
#ifndef KELO_FILE_INSPECT_H_
#define KELO_FILE_INSPECT_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "absl/types/optional.h"
#include "kelo/DebugInfoList.h"
#include "kelo/elf.hpp"
#include "kelo/file_report.hpp"
#include "serialize/orvel/io/File.h"

namespace kelo_debuginfo {
namespace file {

// The decoder's findings, as callers of the store library see them too.
using kelo_file::Fault;
using kelo_file::Finding;
using kelo_file::IndexedEntry;
using kelo_file::Place;
using kelo_file::Report;
using kelo_file::Warning;

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

// Reads a whole list from an open stream positioned at the header: the
// same walk, with every entry kept (the first of each identifier, the first
// record of each section name). Absent when the walk meets a fault, which
// `report` (when given) then holds, as it holds the warnings either way.
// Reads nothing after the last entry. Memory running out for an entry's
// node passes through as std::bad_alloc; inside an entry it fails the read.
absl::optional<kelo_debuginfo::DebugInfoList> decodeList(orvel_lib::io::File& file, Report* report = nullptr);

}  // namespace file
}  // namespace kelo_debuginfo

#endif  // KELO_FILE_INSPECT_H_
