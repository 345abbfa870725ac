// A debug-info file read as an index (the store library's view): one pass
// records each entry's identifier, where its image lies and its section
// records, without reading the images; an image is read only when a command
// asks for it. Commands that look at a few entries of a large file read only
// what they show, and changes copy the entries they do not touch byte for
// byte. Every failure becomes the tool's Failure, with the file's name.
#ifndef KELODBG_STORE_H_
#define KELODBG_STORE_H_

#include <string>
#include <vector>

#include "files.h"
#include "kelo/store.hpp"
#include "tool.h"

namespace kelodbg {

using kelo_store::IndexedEntry;
using kelo_store::PlannedEntry;

class Store {
 public:
  // Indexes the file `input` names. A stream is checked and kept first (it
  // can be read only once). Throws Failure with the decoder's reason when
  // the file does not read.
  explicit Store(const Input& input);
  // The same for a file that the tool itself opened (a locked file), and
  // the file's name for messages.
  Store(int fd, const std::string& name);

  const std::string& name() const { return name_; }
  const Report& report() const { return view_->report(); }
  const kelo_store::View& view() const { return *view_; }
  // "1.1.2".
  std::string version() const;

  // The entries that the reader keeps (the first of each identifier), in
  // file order.
  const std::vector<const IndexedEntry*>& entries() const { return view_->entries(); }
  // Sorted by identifier.
  std::vector<Id> ids() const;
  const IndexedEntry* find(const Id& id) const { return view_->find(id.key()); }
  // Throws Failure (exit 8) when there is no such entry, with a hint when
  // an entry of another kind has the number.
  const IndexedEntry& entry(const Id& id) const;
  std::string kindHint(const Id& id) const;

  // The image, loaded now. Throws Failure (exit 6) when it does not load.
  kelo_elf::ELF image(const IndexedEntry& entry) const;
  // Whether the two entries' images hold the same bytes.
  bool sameImage(const IndexedEntry& entry, const Store& other, const IndexedEntry& otherEntry) const;
  // Every kept entry, as it is, for a change to write.
  std::vector<PlannedEntry> plan() const { return kelo_store::planOf(*view_); }
  // A list of the entries that have at least one recorded address, their
  // images loaded: all that symbolization can use.
  ListPtr placedList() const;

 private:
  void open(const std::string& path, int fd);
  [[noreturn]] void badImage(const IndexedEntry& entry) const;

  std::string name_;
  absl::optional<kelo_store::View> view_;
};

}  // namespace kelodbg

#endif  // KELODBG_STORE_H_
