// A debug-info file read as an index: one pass records each entry's
// identifier, where its image lies and its section records, without reading
// the images; an image is read only when a command asks for it. Commands
// that look at a few entries of a large file read only what they show, and
// changes copy the entries they do not touch byte for byte.
#ifndef KELODBG_STORE_H_
#define KELODBG_STORE_H_

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "file/inspect.h"
#include "files.h"
#include "kelo/elf.hpp"
#include "tool.h"

namespace kelodbg {

using kelo_debuginfo::file::IndexedEntry;

class Store;

// One entry of a file being written by streaming: its identifier, where its
// image comes from (an entry of a store, copied byte for byte, or a loaded
// image) and the section records to write, in order.
struct PlannedEntry {
  kelo_elf::DebugInfoID id;
  const Store* store = nullptr;
  const IndexedEntry* from = nullptr;
  const kelo_elf::ELF* image = nullptr;
  std::vector<std::pair<std::string, uint32_t>> sections;
};

// Writes a whole debug-info file of `entries` to `fd`, in their order. False
// (errno set) when writing fails.
bool writePlanned(const std::vector<PlannedEntry>& entries, int fd);

class Store {
 public:
  // Indexes the file `input` names. A stream is checked and kept first (it
  // can be read only once). Throws Failure with the checker's reason when
  // the file does not read.
  explicit Store(const Input& input);
  // The same for a path that the tool itself opened (a locked file), and
  // the file's name for messages.
  Store(const std::string& path, const std::string& name);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  const std::string& name() const { return name_; }
  const Report& report() const { return report_; }
  // "1.1.2".
  std::string version() const;

  // The entries that the reader keeps (the first of each identifier), in
  // file order.
  const std::vector<const IndexedEntry*>& entries() const { return kept_; }
  // Sorted by identifier.
  std::vector<Id> ids() const;
  const IndexedEntry* find(const Id& id) const;
  // Throws Failure (exit 8) when there is no such entry, with a hint when
  // an entry of another kind has the number.
  const IndexedEntry& entry(const Id& id) const;
  std::string kindHint(const Id& id) const;

  // The image's bytes, read now. Throws Failure when they cannot be read.
  std::vector<unsigned char> imageBytes(const IndexedEntry& entry) const;
  // The image, loaded now. Throws Failure (exit 6) when it does not load.
  kelo_elf::ELF image(const IndexedEntry& entry) const;
  // Whether `entry`'s image has the same bytes as `otherEntry`'s in `other`
  // (read a piece at a time).
  bool sameImage(const IndexedEntry& entry, const Store& other, const IndexedEntry& otherEntry) const;
  // Writes the image's bytes to `fd`; false when writing fails (errno set).
  bool copyImage(const IndexedEntry& entry, int fd) const;

  // Every kept entry, as it is, for a plan.
  std::vector<PlannedEntry> plan() const;

  // A list of the entries that have at least one recorded address, their
  // images loaded: all that symbolization can use.
  ListPtr placedList() const;

  // The open file.
  int fd() const { return fd_; }

 private:
  void index(const std::string& path);

  std::string name_;
  int fd_ = -1;
  Report report_;
  std::vector<const IndexedEntry*> kept_;
  std::unordered_map<uint64_t, const IndexedEntry*> byKey_;
};

}  // namespace kelodbg

#endif  // KELODBG_STORE_H_
