#include "catalog.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <utility>

#include <fmt/format.h>

#include "../text.h"

namespace kelodbg {
namespace serve {
namespace {

constexpr char kSuffix[] = ".kdbg";
constexpr size_t kSuffixLength = sizeof kSuffix - 1;
constexpr uint32_t kNote = 7;         // SHT_NOTE
constexpr uint32_t kBuildIdType = 3;  // NT_GNU_BUILD_ID

uint32_t read32(const unsigned char* p, bool little) {
  return little ? (uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24)
                : (uint32_t{p[3]} | uint32_t{p[2]} << 8 | uint32_t{p[1]} << 16 | uint32_t{p[0]} << 24);
}

// The GNU build-id of an image, as lowercase hex; empty when it has none.
std::string buildIdOf(const kelo_elf::ELF& image) {
  const absl::Span<const unsigned char> bytes = image.bytes();
  if (bytes.size() < 6) return {};
  const bool little = bytes[5] == 1;  // EI_DATA
  for (const kelo_elf::SectionHeader& h : image.sectionHeaders()) {
    if (h.type != kNote || h.offset > bytes.size() || h.size > bytes.size() - h.offset) continue;
    const unsigned char* p = bytes.data() + h.offset;
    uint64_t left = h.size;
    // Notes: namesz, descsz, type, then the name and the descriptor, each
    // padded to four bytes.
    while (left >= 12) {
      const uint64_t nameSize = read32(p, little), descSize = read32(p + 4, little), type = read32(p + 8, little);
      const uint64_t namePadded = (nameSize + 3) & ~uint64_t{3}, descPadded = (descSize + 3) & ~uint64_t{3};
      if (namePadded > left - 12 || descPadded > left - 12 - namePadded) break;
      if (type == kBuildIdType && nameSize == 4 && std::memcmp(p + 12, "GNU", 4) == 0 && descSize > 0) {
        std::string hex;
        for (uint64_t i = 0; i < descSize; ++i) hex += fmt::format("{:02x}", p[12 + namePadded + i]);
        return hex;
      }
      p += 12 + namePadded + descPadded;
      left -= 12 + namePadded + descPadded;
    }
  }
  return {};
}

}  // namespace

OpenStore::OpenStore(std::string name, kelo_store::View view, uint64_t size, size_t cacheBytes)
    : name_(std::move(name)),
      size_(size),
      view_(std::make_shared<const kelo_store::View>(std::move(view))),
      cacheBytes_(cacheBytes) {
  const kelo_store::Report& r = view_->report();
  if (r.major) version_ = fmt::format("{}.{}.{}", *r.major, *r.minor, *r.patch);
}

bool OpenStore::withSymbolizer(const std::function<void(kelo_symbolize::Symbolizer&)>& work) {
  kelo_symbolize::Symbolizer* symbolizer = nullptr;
  bool make = false;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    idleOne_.wait(lock, [this] { return !idle_.empty() || symbolizers_.size() + making_ < kSymbolizers; });
    if (!idle_.empty()) {
      symbolizer = idle_.back();
      idle_.pop_back();
    } else {
      make = true;
      ++making_;
    }
  }
  if (make) {
    // Made without the lock: reading the placed images takes a while.
    std::unique_ptr<kelo_symbolize::Symbolizer> made;
    try {
      kelo_symbolize::Options options;
      options.cacheBytes = std::max<size_t>(cacheBytes_.load() / kSymbolizers, 1);
      options.demangle = true;
      made = std::make_unique<kelo_symbolize::Symbolizer>(view_, options);
    } catch (...) {
      std::lock_guard<std::mutex> lock(mutex_);
      --making_;
      idleOne_.notify_one();
      throw;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    --making_;
    symbolizer = made.get();
    symbolizers_.push_back(std::move(made));
  }
  symbolizer->setCacheBytes(std::max<size_t>(cacheBytes_ / kSymbolizers, 1));
  // Given back whatever happens in `work`.
  struct GiveBack {
    OpenStore* store;
    kelo_symbolize::Symbolizer* symbolizer;
    ~GiveBack() {
      {
        std::lock_guard<std::mutex> lock(store->mutex_);
        store->cached_[symbolizer] = symbolizer->loadedBytes();
        store->idle_.push_back(symbolizer);
      }
      store->idleOne_.notify_one();
    }
  } giveBack{this, symbolizer};
  work(*symbolizer);
  return make;
}

bool OpenStore::imageOf(const kelo_elf::DebugInfoID& id, std::vector<unsigned char>& out) const {
  const kelo_store::IndexedEntry* entry = view_->find(id);
  return entry != nullptr && view_->readImage(*entry, out);
}

absl::optional<kelo_elf::DebugInfoID> OpenStore::findBuildId(const std::string& hex) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!buildIdsRead_) {
    buildIdsRead_ = true;
    for (const kelo_store::IndexedEntry* e : view_->entries()) {
      absl::optional<kelo_elf::ELF> image = view_->loadImage(*e);
      if (!image) continue;
      const std::string id = buildIdOf(*image);
      if (!id.empty()) buildIds_.emplace(id, e->id);
    }
  }
  auto found = buildIds_.find(hex);
  if (found == buildIds_.end()) return absl::nullopt;
  return found->second;
}

size_t OpenStore::cachedBytes() {
  std::lock_guard<std::mutex> lock(mutex_);
  size_t total = 0;
  for (const auto& c : cached_) total += c.second;
  return total;
}

Catalog::Catalog(std::string dir, size_t cacheBytes, std::function<void(const std::string&)> log)
    : dir_(std::move(dir)), cacheBytes_(cacheBytes), log_(std::move(log)) {}

bool Catalog::validName(const std::string& name) {
  if (name.empty() || name[0] == '.' || name.size() > 200) return false;
  for (unsigned char c : name) {
    if (c == '/' || c < 0x20 || c == 0x7f) return false;
  }
  return true;
}

void Catalog::refresh() {
  std::lock_guard<std::mutex> one(refreshing_);
  DIR* dir = opendir(dir_.c_str());
  if (dir == nullptr) {
    log_(fmt::format("cannot read the folder {}: {}", escapeControls(dir_), std::strerror(errno)));
    return;
  }
  std::set<std::string> seen;
  std::map<std::string, Slot> changed;
  while (const dirent* d = readdir(dir)) {
    const std::string file = d->d_name;
    if (file.size() <= kSuffixLength || file.compare(file.size() - kSuffixLength, kSuffixLength, kSuffix) != 0) {
      continue;
    }
    const std::string name = file.substr(0, file.size() - kSuffixLength);
    if (!validName(name)) continue;
    const std::string path = dir_ + "/" + file;
    // Opened once, and looked at through that descriptor: a rename over
    // the name while it is read cannot mix two files.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) continue;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
      close(fd);
      continue;
    }
    seen.insert(name);
    const Identity identity{st.st_dev, st.st_ino, st.st_size,
                            static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec};
    {
      std::shared_lock<std::shared_mutex> lock(mutex_);
      auto old = slots_.find(name);
      if (old != slots_.end() && old->second.identity == identity) {
        close(fd);
        continue;
      }
    }
    kelo_store::Report report;
    absl::optional<kelo_store::View> view = kelo_store::View::open(fd, &report);
    close(fd);
    Slot slot{identity, nullptr};
    if (view) {
      slot.store = std::make_shared<OpenStore>(name, std::move(*view), static_cast<uint64_t>(st.st_size), cacheBytes_);
      log_(fmt::format("store {}: {} entries, version {}, {} bytes", escapeControls(name), slot.store->entries(),
                       slot.store->version(), slot.store->size()));
    } else {
      log_(fmt::format("store {}: refused: the file does not read (fault at offset {}); the others keep serving",
                       escapeControls(name), report.errorFinding.place.offset));
    }
    changed[name] = std::move(slot);
  }
  closedir(dir);
  std::unique_lock<std::shared_mutex> lock(mutex_);
  for (auto& c : changed) slots_[c.first] = std::move(c.second);
  for (auto it = slots_.begin(); it != slots_.end();) {
    if (seen.count(it->first) == 0) {
      log_(fmt::format("store {}: gone", escapeControls(it->first)));
      it = slots_.erase(it);
    } else {
      ++it;
    }
  }
  // One cache for the server, shared equally by the open stores.
  size_t open = 0;
  for (const auto& slot : slots_) open += slot.second.store != nullptr;
  for (auto& slot : slots_) {
    if (slot.second.store) slot.second.store->setCacheShare(cacheBytes_ / std::max<size_t>(open, 1));
  }
}

std::shared_ptr<OpenStore> Catalog::find(const std::string& name) const {
  std::shared_lock<std::shared_mutex> lock(mutex_);
  auto found = slots_.find(name);
  return found == slots_.end() ? nullptr : found->second.store;
}

std::vector<std::shared_ptr<OpenStore>> Catalog::all() const {
  std::shared_lock<std::shared_mutex> lock(mutex_);
  std::vector<std::shared_ptr<OpenStore>> out;
  for (const auto& s : slots_) {
    if (s.second.store) out.push_back(s.second.store);
  }
  return out;
}

}  // namespace serve
}  // namespace kelodbg
