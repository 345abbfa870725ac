// The Symbolizer: the address map of a list, and the entries' debug
// information loaded on demand into a bounded cache.
#include <algorithm>
#include <list>
#include <memory>
#include <utility>

#include "address_map.h"
#include "elf_reader.h"
#include "file/format.h"
#include "kelo/symbolize.hpp"
#include "object_info.h"

namespace kelo_symbolize {

using internal::AddressMap;
using internal::ObjectInfo;
using internal::SectionPlace;

struct Symbolizer::Impl {
  struct Entry {
    const kelo_debuginfo::RelocELF* stored = nullptr;
    DebugInfoID id;
    std::vector<SectionPlace> places;  // the placed allocated sections
    uint64_t low = 0, high = 0;        // their span
    std::unique_ptr<ObjectInfo> info;  // while cached
    std::list<size_t>::iterator useSlot;
  };

  std::vector<Entry> entries;
  AddressMap map;
  size_t capacity = 1;
  std::list<size_t> recentUse;  // entries with loaded info, most recent first
  unsigned addressBits = 64;

  void addEntry(const DebugInfoID& id, const kelo_debuginfo::RelocELF& stored, bool& any64, bool& any32) {
    kelo_elf::ELFBytes bytes = internal::copyOf(stored.elf);
    internal::ElfPtr elf = internal::openMemory(bytes);
    internal::ElfHeaderFacts facts;
    if (!elf || !internal::readHeader(elf.get(), facts)) return;
    (facts.elfClass == ELFCLASS64 ? any64 : any32) = true;
    const std::vector<internal::SectionHeader> sections = internal::readSections(elf.get());

    Entry entry;
    entry.stored = &stored;
    entry.id = id;
    const size_t index = entries.size();
    // A recorded name places the first allocated section of that name.
    for (const auto& recorded : stored.sectionAddrs) {
      // .constant and .local name no section of the image.
      if (kelo_debuginfo::format::isAlwaysAcceptedSection(recorded.first)) continue;
      for (size_t i = 1; i < sections.size(); ++i) {
        const internal::SectionHeader& s = sections[i];
        if (s.name != recorded.first || (s.flags & SHF_ALLOC) == 0) continue;
        const uint64_t start = recorded.second;
        entry.places.push_back({i, start});
        if (s.size != 0) {
          Range range;
          range.id = id;
          range.section = s.name;
          range.start = start;
          range.end = start + s.size;
          map.add(std::move(range), {index, i});
          entry.low = entry.high == 0 ? start : std::min(entry.low, start);
          entry.high = std::max(entry.high, start + s.size);
        }
        break;
      }
    }
    entries.push_back(std::move(entry));
  }

  ObjectInfo& load(size_t index) {
    Entry& entry = entries[index];
    if (entry.info) {
      recentUse.splice(recentUse.begin(), recentUse, entry.useSlot);
      return *entry.info;
    }
    if (recentUse.size() >= capacity) {
      entries[recentUse.back()].info.reset();
      recentUse.pop_back();
    }
    entry.info = std::make_unique<ObjectInfo>(entry.stored->elf, entry.places, entry.low, entry.high);
    recentUse.push_front(index);
    entry.useSlot = recentUse.begin();
    return *entry.info;
  }
};

Symbolizer::Symbolizer(const kelo_debuginfo::DebugInfoList& list, const Options& options)
    : impl_(std::make_unique<Impl>()) {
  elf_version(EV_CURRENT);
  impl_->capacity = std::max<size_t>(options.cachedEntries, 1);
  impl_->entries.reserve(list.entries.size());
  bool any64 = false, any32 = false;
  for (const auto& entry : list.entries) impl_->addEntry(entry.first, entry.second, any64, any32);
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
  const size_t i = impl_->map.find(address);
  if (i == AddressMap::kNone) return absl::nullopt;
  const Range& range = impl_->map.ranges()[i];
  const internal::Placement& where = impl_->map.placement(i);
  Location loc;
  loc.id = range.id;
  loc.section = range.section;
  loc.offset = address - range.start;
  impl_->load(where.entry).describe(address, where.section, loc.offset, loc);
  return loc;
}

unsigned Symbolizer::addressBits() const noexcept { return impl_->addressBits; }

size_t Symbolizer::loadedEntries() const noexcept { return impl_->recentUse.size(); }

}  // namespace kelo_symbolize
