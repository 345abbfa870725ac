#include "kelo/DebugInfoList.h"

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>
#include <vector>

#include "file/format.h"

namespace kelo_debuginfo {
namespace {

// update() re-keys entries after all its checks have passed; that step must
// not throw, or the list would be left half renumbered. It hashes and
// compares identifiers and stamps images; nothing else.
static_assert(noexcept(std::declval<const DebugInfoID&>().hash()), "the identifier hash must not throw");
static_assert(noexcept(std::declval<const DebugInfoID&>() == std::declval<const DebugInfoID&>()),
              "identifier equality must not throw");
static_assert(std::is_nothrow_copy_assignable<decltype(kelo_elf::ELF::debugInfoID)>::value,
              "stamping an image must not throw");

// The identifiers that a renumbering deals with and the roles each plays:
// old or new in a pair, filed in the list. One flat open-addressing table:
// one allocation, no node per identifier.
class RenumberingRoles {
 public:
  enum Role : uint8_t { kOld = 1, kNew = 2, kFiled = 4 };

  // Room for `ids` identifiers, at most half of the slots used. (Far fewer
  // than SIZE_MAX / 4: no overflow.)
  explicit RenumberingRoles(std::size_t ids) : slots_(capacityFor(ids)), mask_(slots_.size() - 1) {}

  // Starts fetching the slot of `id`, to be marked soon.
  void prefetch(const DebugInfoID& id) const { __builtin_prefetch(&slots_[id.hash() & mask_]); }

  // Gives `id` the role; answers the roles it had before.
  uint8_t mark(const DebugInfoID& id, Role role) {
    Slot& slot = slots_[indexOf(id)];
    const uint8_t before = slot.roles;
    slot.id = id;
    slot.roles = static_cast<uint8_t>(before | role);
    return before;
  }

 private:
  struct Slot {
    DebugInfoID id;
    uint8_t roles = 0;  // 0: a free slot
  };

  static std::size_t capacityFor(std::size_t ids) {
    std::size_t capacity = 8;
    while (capacity < 2 * ids) capacity *= 2;
    return capacity;
  }

  // The slot holding `id`, or the free slot where it belongs.
  std::size_t indexOf(const DebugInfoID& id) const {
    for (std::size_t i = id.hash() & mask_;; i = (i + 1) & mask_) {
      const Slot& slot = slots_[i];
      if (slot.roles == 0 || slot.id == id) return i;
    }
  }

  std::vector<Slot> slots_;
  std::size_t mask_;
};

// Slots are fetched this many pairs ahead of their use.
constexpr std::size_t kAhead = 8;

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
  // Checks first, with nothing changed: the four refusals. Whether an
  // identifier is filed is asked of the map for each pair when the pairs are
  // few; when they name a good part of the list, one walk over the list
  // notes every filed identifier in the table instead, which costs less
  // than two lookups a pair.
  const bool walk = ids.size() * 4 >= entries.size();
  RenumberingRoles roles(2 * ids.size() + (walk ? entries.size() : 0));
  if (walk) {
    for (const auto& entry : entries) roles.mark(entry.first, RenumberingRoles::kFiled);
  }
  for (std::size_t i = 0; i < ids.size(); ++i) {
    if (i + kAhead < ids.size()) roles.prefetch(ids[i + kAhead].oldID);
    const uint8_t had = roles.mark(ids[i].oldID, RenumberingRoles::kOld);
    if (had & RenumberingRoles::kOld) return false;  // an old identifier twice
    const bool filed = walk ? (had & RenumberingRoles::kFiled) != 0 : entries.count(ids[i].oldID) != 0;
    if (!filed) return false;  // an old identifier not filed
  }
  for (std::size_t i = 0; i < ids.size(); ++i) {
    if (i + kAhead < ids.size()) roles.prefetch(ids[i + kAhead].newID);
    const uint8_t had = roles.mark(ids[i].newID, RenumberingRoles::kNew);
    if (had & RenumberingRoles::kNew) return false;  // a new identifier twice
    if (had & RenumberingRoles::kOld) continue;      // its entry moves away
    const bool filed = walk ? (had & RenumberingRoles::kFiled) != 0 : entries.count(ids[i].newID) != 0;
    if (filed) return false;  // held by an entry that keeps its identifier
  }

  // Re-keying. The renumbered entries' nodes are taken out of the map, given
  // their new keys and put back: entries stay where they are in memory and
  // nothing is allocated. The nodes go back as many as came out, so the
  // standard containers' rule (no rehash while the size stays within
  // max_load_factor() * bucket_count()) keeps the bucket array as it is; the
  // identifier hash and equality do not throw, and the checks above leave no
  // collision. This step cannot fail.
  std::vector<Map::node_type> nodes;
  nodes.reserve(ids.size());
  for (const DebugInfoNewID& pair : ids) nodes.push_back(entries.extract(pair.oldID));
  for (std::size_t i = 0; i < ids.size(); ++i) {
    Map::node_type& node = nodes[i];
    node.key() = ids[i].newID;
    node.mapped().elf.debugInfoID = ids[i].newID;
    entries.insert(std::move(node));
  }
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
