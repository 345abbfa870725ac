// The stores a server answers from: every debug-info file of one folder,
// each opened once and kept until the file changes. Safe for use from
// several threads.
#ifndef KELODBG_SERVE_CATALOG_H_
#define KELODBG_SERVE_CATALOG_H_

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "absl/types/optional.h"
#include "kelo/store.hpp"
#include "kelo/symbolize.hpp"

namespace kelodbg {
namespace serve {

// One store as it was when it was opened. Requests hold it by shared_ptr,
// so that a store replaced while they run finishes with the old file.
class OpenStore {
 public:
  OpenStore(std::string name, kelo_store::View view, uint64_t size, size_t cacheBytes);

  const std::string& name() const { return name_; }
  const std::string& version() const { return version_; }
  size_t entries() const { return view_->entries().size(); }
  uint64_t size() const { return size_; }

  // Runs `work` with one of the store's symbolizers, which no other request
  // uses meanwhile; true when it had to be made first.
  bool withSymbolizer(const std::function<void(kelo_symbolize::Symbolizer&)>& work);
  // The image bytes of an entry; false when there is no such entry (or it
  // does not read).
  bool imageOf(const kelo_elf::DebugInfoID& id, std::vector<unsigned char>& out) const;
  // The entry whose image holds the GNU build-id `hex` (lowercase), if one
  // does. The build ids are read on the first call.
  absl::optional<kelo_elf::DebugInfoID> findBuildId(const std::string& hex);
  // Bytes of debug information the symbolizers held when last given back.
  size_t cachedBytes();
  // This store's share of the server's cache, split between its
  // symbolizers; applied when a symbolizer is next taken.
  void setCacheShare(size_t bytes) { cacheBytes_ = bytes; }

 private:
  std::string name_, version_;
  uint64_t size_ = 0;
  std::shared_ptr<const kelo_store::View> view_;
  std::atomic<size_t> cacheBytes_;
  // Symbolizers of the store, made on demand: up to kSymbolizers requests
  // look up addresses in parallel, each symbolizer with its share of the
  // cache.
  static constexpr size_t kSymbolizers = 2;
  std::mutex mutex_;  // guards everything below
  std::condition_variable idleOne_;
  std::vector<std::unique_ptr<kelo_symbolize::Symbolizer>> symbolizers_;
  std::vector<kelo_symbolize::Symbolizer*> idle_;
  size_t making_ = 0;                                           // symbolizers being made
  std::map<const kelo_symbolize::Symbolizer*, size_t> cached_;  // bytes each held when it was last given back
  bool buildIdsRead_ = false;
  std::map<std::string, kelo_elf::DebugInfoID> buildIds_;
};

class Catalog {
 public:
  // `log` hears of every store opened, refused or gone (one line each).
  // `cacheBytes` bounds the decoded debug information of all stores
  // together: each open store has an equal share.
  Catalog(std::string dir, size_t cacheBytes, std::function<void(const std::string&)> log);

  // Looks at the folder again: opens new and changed files (a file whose
  // identity, size or time changed: replaced by rename, or rewritten),
  // forgets removed ones. A file that does not read is refused, once per
  // version of it, and the others keep serving.
  void refresh();

  std::shared_ptr<OpenStore> find(const std::string& name) const;
  std::vector<std::shared_ptr<OpenStore>> all() const;

  // Whether `name` can name a store: a file name of the folder without
  // ".kdbg", no '/', no leading '.', no control bytes.
  static bool validName(const std::string& name);

 private:
  struct Identity {
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    int64_t mtimeNs = 0;
    bool operator==(const Identity& o) const {
      return dev == o.dev && ino == o.ino && size == o.size && mtimeNs == o.mtimeNs;
    }
  };
  struct Slot {
    Identity identity;
    std::shared_ptr<OpenStore> store;  // null: refused
  };

  std::string dir_;
  size_t cacheBytes_;
  std::function<void(const std::string&)> log_;
  std::mutex refreshing_;  // one refresh at a time
  mutable std::shared_mutex mutex_;
  std::map<std::string, Slot> slots_;
};

}  // namespace serve
}  // namespace kelodbg

#endif  // KELODBG_SERVE_CATALOG_H_
