// The Symbolizer: the address map of a list, and the entries' debug
// information loaded on demand into a cache bounded in bytes.
#include <algorithm>
#include <list>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "address_map.h"
#include "file/format.h"
#include "kelo/symbolize.hpp"
#include "object_info.h"

namespace kelo_symbolize {

using internal::AddressMap;
using internal::ObjectInfo;

struct Symbolizer::Impl {
  struct Entry {
    const kelo_debuginfo::RelocELF* stored = nullptr;  // null: read from `view` when needed
    DebugInfoID id;
    const kelo_store::IndexedEntry* indexed = nullptr;  // in `view`
    std::unique_ptr<kelo_elf::ELF> image;               // read from `view`, while cached
    std::unique_ptr<ObjectInfo> info;                   // while cached
    size_t cost = 0;                                    // what info took when last counted
    bool reported = false;                              // its problem was told
    std::list<size_t>::iterator useSlot;
  };

  Options options;
  std::unique_ptr<kelo_debuginfo::DebugInfoList> owned;  // a view's placed entries
  std::shared_ptr<const kelo_store::View> view;          // images read on demand
  std::vector<Entry> entries;
  AddressMap map;
  std::list<size_t> recentUse;  // entries with loaded info, most recent first
  size_t loadedBytes = 0;
  unsigned addressBits = 64;

  void addEntry(const DebugInfoID& id, const kelo_debuginfo::RelocELF& stored, bool& any64, bool& any32) {
    const kelo_elf::ELF& image = stored.elf;
    if (image.size() == 0) return;
    (image.is64() ? any64 : any32) = true;
    const size_t index = entries.size();
    Entry entry;
    entry.stored = &stored;
    entry.id = id;
    entries.push_back(std::move(entry));
    if (stored.sectionAddrs.empty()) return;

    // A recorded name places the first allocated section of that name; the
    // names are looked up in an index of the image's sections.
    const std::vector<kelo_elf::SectionHeader> sections = image.sectionHeaders();
    std::unordered_map<std::string_view, size_t> firstAllocated;
    firstAllocated.reserve(sections.size());
    for (size_t i = 1; i < sections.size(); ++i) {
      if (sections[i].flags & SHF_ALLOC) firstAllocated.emplace(sections[i].name, i);
    }
    for (const auto& recorded : stored.sectionAddrs) {
      // .constant and .local name no section of the image.
      if (kelo_debuginfo::format::isAlwaysAcceptedSection(recorded.first)) continue;
      auto found = firstAllocated.find(recorded.first);
      if (found == firstAllocated.end()) continue;
      const kelo_elf::SectionHeader& s = sections[found->second];
      if (s.size == 0) continue;
      Range range;
      range.id = id;
      range.section = s.name;
      range.start = recorded.second;
      // A size from a damaged header may reach past the address space.
      range.end = recorded.second + std::min<uint64_t>(s.size, UINT64_MAX - recorded.second);
      map.add(std::move(range), {index, found->second});
    }
  }

  ObjectInfo& load(size_t index) {
    Entry& entry = entries[index];
    if (entry.info) {
      recentUse.splice(recentUse.begin(), recentUse, entry.useSlot);
      return *entry.info;
    }
    const kelo_elf::ELF* image = entry.stored != nullptr ? &entry.stored->elf : nullptr;
    if (image == nullptr) {
      absl::optional<kelo_elf::ELF> read = view->loadImage(*entry.indexed);
      // It read when the map was made; a file that fails now answers
      // nothing from this entry.
      entry.image = std::make_unique<kelo_elf::ELF>(read ? std::move(*read) : kelo_elf::ELF());
      image = entry.image.get();
    }
    entry.info = std::make_unique<ObjectInfo>(*image, options.demangle);
    recentUse.push_front(index);
    entry.useSlot = recentUse.begin();
    if (!entry.reported && !entry.info->problem().empty() && options.report) {
      entry.reported = true;
      options.report(entry.id, entry.info->problem());
    }
    return *entry.info;
  }

  // Counts what the entry holds now and, while the cache holds more than
  // its bound, closes the libdw sessions of the least recently used other
  // entries (their indexes stay), then drops those entries whole.
  void account(size_t index) {
    recount(index);
    for (auto it = recentUse.rbegin(); loadedBytes > options.cacheBytes && it != recentUse.rend(); ++it) {
      if (*it == index || !entries[*it].info->hasSession()) continue;
      entries[*it].info->closeSession();
      recount(*it);
    }
    while (loadedBytes > options.cacheBytes && recentUse.back() != index) {
      Entry& old = entries[recentUse.back()];
      loadedBytes -= old.cost;
      old.cost = 0;
      old.info.reset();
      old.image.reset();
      recentUse.pop_back();
    }
  }

  void recount(size_t index) {
    Entry& entry = entries[index];
    const size_t cost = entry.info->bytes() + (entry.image ? entry.image->size() : 0);
    loadedBytes = loadedBytes - entry.cost + cost;
    entry.cost = cost;
  }
};

Symbolizer::Symbolizer(const kelo_debuginfo::DebugInfoList& list, const Options& options)
    : impl_(std::make_unique<Impl>()) {
  elf_version(EV_CURRENT);
  impl_->options = options;
  impl_->entries.reserve(list.entries.size());
  bool any64 = false, any32 = false;
  for (const auto& entry : list.entries) impl_->addEntry(entry.first, entry.second, any64, any32);
  impl_->addressBits = any32 && !any64 ? 32 : 64;
  impl_->map.finish();
}

Symbolizer::Symbolizer(const kelo_store::View& view, const Options& options) : impl_(std::make_unique<Impl>()) {
  auto list = std::make_unique<kelo_debuginfo::DebugInfoList>();
  for (const kelo_store::IndexedEntry* e : view.entries()) {
    if (e->sections.empty()) continue;
    absl::optional<kelo_elf::ELF> image = view.loadImage(*e);
    if (!image) {
      if (options.report) options.report(e->id, "its image does not load; left out");
      continue;
    }
    list->add(e->id, std::move(*image));
    auto& addresses = list->entries.find(e->id)->second.sectionAddrs;
    for (const auto& s : e->sections) addresses.emplace(s.first, s.second);
  }
  *this = Symbolizer(*list, options);
  impl_->owned = std::move(list);
}

Symbolizer::Symbolizer(std::shared_ptr<const kelo_store::View> view, const Options& options)
    : impl_(std::make_unique<Impl>()) {
  elf_version(EV_CURRENT);
  impl_->options = options;
  impl_->view = std::move(view);
  bool any64 = false, any32 = false;
  for (const kelo_store::IndexedEntry* e : impl_->view->entries()) {
    if (e->sections.empty()) continue;
    // Read once for its section headers, then let go.
    absl::optional<kelo_elf::ELF> image = impl_->view->loadImage(*e);
    if (!image) {
      if (options.report) options.report(e->id, "its image does not load; left out");
      continue;
    }
    kelo_debuginfo::RelocELF placed(std::move(*image));
    for (const auto& s : e->sections) placed.sectionAddrs.emplace(s.first, s.second);
    impl_->addEntry(e->id, placed, any64, any32);
    if (!impl_->entries.empty() && impl_->entries.back().stored == &placed) {
      impl_->entries.back().stored = nullptr;
      impl_->entries.back().indexed = e;
    }
  }
  impl_->addressBits = any32 && !any64 ? 32 : 64;
  impl_->map.finish();
}

Symbolizer::~Symbolizer() = default;
Symbolizer::Symbolizer(Symbolizer&&) noexcept = default;
Symbolizer& Symbolizer::operator=(Symbolizer&&) noexcept = default;

const std::vector<Range>& Symbolizer::ranges() const noexcept { return impl_->map.ranges(); }

const Range* Symbolizer::rangeAt(uint64_t address) const noexcept {
  const size_t i = impl_->map.find(address);
  return i == AddressMap::kNone ? nullptr : &impl_->map.ranges()[i];
}

absl::optional<Location> Symbolizer::resolve(uint64_t address) {
  Location loc;
  if (!resolve(address, loc)) return absl::nullopt;
  return loc;
}

bool Symbolizer::resolve(uint64_t address, Location& out) {
  const size_t i = impl_->map.find(address);
  if (i == AddressMap::kNone) {
    out.frames.clear();
    out.variable.clear();
    return false;
  }
  const Range& range = impl_->map.ranges()[i];
  const internal::Placement& where = impl_->map.placement(i);
  out.id = range.id;
  out.section = range.section;
  out.offset = address - range.start;
  impl_->load(where.entry).describe(where.section, out.offset, address, out);
  impl_->account(where.entry);
  return true;
}

unsigned Symbolizer::addressBits() const noexcept { return impl_->addressBits; }

size_t Symbolizer::loadedEntries() const noexcept { return impl_->recentUse.size(); }

size_t Symbolizer::loadedBytes() const noexcept { return impl_->loadedBytes; }

void Symbolizer::setCacheBytes(size_t bytes) noexcept { impl_->options.cacheBytes = bytes; }

}  // namespace kelo_symbolize
