#include "kelo/DebugInfoList.h"

#include <type_traits>
#include <utility>
#include <vector>

#include "file/format.h"

namespace kelo_debuginfo {
namespace {

// update() moves every entry's contents into its new slot after all checks
// have passed; that step must not throw, or the list would be left half
// moved. These are the only operations it uses.
static_assert(noexcept(std::declval<const DebugInfoID&>().hash()), "the identifier hash must not throw");
static_assert(std::is_nothrow_move_assignable<kelo_elf::ELF>::value, "image move assignment must not throw");
static_assert(std::is_nothrow_move_constructible<kelo_elf::ELF>::value, "image moves must not throw");
static_assert(std::is_nothrow_move_assignable<decltype(RelocELF::sectionAddrs)>::value,
              "moving a section table must not throw");

}  // namespace

kelo_elf::ELF* DebugInfoList::add(const DebugInfoID& id, kelo_elf::ELF&& image) {
  // try_emplace leaves `image` alone when the identifier is already filed,
  // and takes it only once the node exists, so a failed allocation leaves
  // the caller's image intact.
  auto inserted = entries.try_emplace(id, std::move(image));
  kelo_elf::ELF& stored = inserted.first->second.elf;
  if (inserted.second) stored.debugInfoID = id;
  return &stored;
}

bool DebugInfoList::merge(DebugInfoList& other) {
  for (const auto& entry : other.entries) {
    if (entries.find(entry.first) != entries.end()) return false;
  }
  if (other.entries.empty()) return true;

  // Make room first: this is the only step that can throw, and nothing has
  // moved yet. Then move the nodes themselves across; with the buckets
  // reserved, re-inserting a node neither allocates nor rehashes, and the
  // images are not even moved.
  entries.reserve(entries.size() + other.entries.size());
  while (!other.entries.empty()) {
    entries.insert(other.entries.extract(other.entries.begin()));
  }
  return true;
}

void DebugInfoList::clear() {
  if (!entries.empty()) entries.clear();
}

bool DebugInfoList::update(absl::Span<const DebugInfoNewID> ids) {
  // The new identifier of a renumbered entry, and the placeholder reserved
  // for it in the new map.
  struct Target {
    DebugInfoID newID;
    RelocELF* slot;
  };
  // One entry's contents on their way to their placeholder; newID is set
  // only for entries that are renumbered.
  struct Move {
    RelocELF* source;
    RelocELF* slot;
    const DebugInfoID* newID;
  };

  // Phase 1: old -> new; an old identifier may appear once.
  std::unordered_map<DebugInfoID, Target> renumbering;
  renumbering.reserve(ids.size());
  for (const DebugInfoNewID& pair : ids) {
    if (!renumbering.try_emplace(pair.oldID, Target{pair.newID, nullptr}).second) return false;
  }

  // Phase 2: every old identifier must be filed; reserve each new one once.
  Map next;
  next.reserve(entries.size());
  for (auto& mapping : renumbering) {
    if (entries.find(mapping.first) == entries.end()) return false;
    auto reserved = next.try_emplace(mapping.second.newID);
    if (!reserved.second) return false;
    mapping.second.slot = &reserved.first->second;
  }

  // Phase 3: entries not renumbered keep their identifiers, which must not
  // be taken by a new one. Where each entry goes is noted on the way, so
  // the moves below need no lookups.
  std::vector<Move> moves;
  moves.reserve(entries.size());
  for (auto& entry : entries) {
    auto mapping = renumbering.find(entry.first);
    if (mapping != renumbering.end()) {
      moves.push_back(Move{&entry.second, mapping->second.slot, &mapping->second.newID});
      continue;
    }
    auto reserved = next.try_emplace(entry.first);
    if (!reserved.second) return false;
    moves.push_back(Move{&entry.second, &reserved.first->second, nullptr});
  }

  // Phase 4: nothing here allocates or throws. Images and section tables
  // move into their placeholders, in the list's order; renumbered images
  // are stamped first.
  for (const Move& move : moves) {
    if (move.newID != nullptr) move.source->elf.debugInfoID = *move.newID;
    move.slot->elf = std::move(move.source->elf);
    move.slot->sectionAddrs = std::move(move.source->sectionAddrs);
  }

  // Phase 5: the new map replaces the old one.
  entries.clear();
  entries = std::move(next);
  return true;
}

kelo_elf::ELF* DebugInfoList::find(const DebugInfoID& id) {
  auto it = entries.find(id);
  return it == entries.end() ? nullptr : &it->second.elf;
}

unsigned DebugInfoList::getSectionAddr(const DebugInfoID& id, const std::string& name) const {
  auto it = entries.find(id);
  if (it == entries.end()) return 0;
  auto addr = it->second.sectionAddrs.find(name);
  return addr == it->second.sectionAddrs.end() ? 0 : addr->second;
}

void DebugInfoList::setSectionAddr(const DebugInfoID& id, const std::string& name, unsigned addr) {
  auto it = entries.find(id);
  if (it == entries.end()) return;
  RelocELF& entry = it->second;
  if (!entry.elf.hasSection(name) && !format::isAlwaysAcceptedSection(name)) return;
  entry.sectionAddrs.insert_or_assign(name, addr);
}

}  // namespace kelo_debuginfo
