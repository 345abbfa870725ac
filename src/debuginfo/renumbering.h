// Why a renumbering is refused. DebugInfoList::update() answers only true or
// false, after asking checkRenumbering() below; callers that want to explain
// a refusal (the tool) ask the same function, so the reason they give is the
// one update() met first.
#ifndef KELO_DEBUGINFO_RENUMBERING_H_
#define KELO_DEBUGINFO_RENUMBERING_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "absl/types/span.h"
#include "kelo/DebugInfoList.h"

namespace kelo_debuginfo {

enum class RenumberRefusal {
  kNone,         // update() applies these pairs
  kRepeatedOld,  // two pairs share an old identifier
  kAbsentOld,    // an old identifier is not filed
  kRepeatedNew,  // two pairs share a new identifier
  kTakenNew,     // a new identifier is held by an entry that keeps its own
};

struct RenumberDiagnosis {
  RenumberRefusal reason = RenumberRefusal::kNone;
  DebugInfoID id;  // the identifier at fault (for kTakenNew, the new one)
};

namespace detail {

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

}  // namespace detail

// Whether update() applies `pairs` to `entries`, and if not, the first
// reason it meets and the identifier at fault. update() itself asks this,
// so the order of the checks has one owner: the pairs in their order for a
// repeated or unfiled old identifier, then the pairs in their order for a
// repeated new one or one held by an entry that keeps its own.
//
// Whether an identifier is filed is asked of the map for each pair when the
// pairs are few; when they name a good part of the list, one walk over the
// list notes every filed identifier in the table instead, which costs less
// than two lookups a pair.
inline RenumberDiagnosis checkRenumbering(const DebugInfoList::Map& entries, absl::Span<const DebugInfoNewID> ids) {
  using detail::kAhead;
  using detail::RenumberingRoles;
  const bool walk = ids.size() * 4 >= entries.size();
  RenumberingRoles roles(2 * ids.size() + (walk ? entries.size() : 0));
  if (walk) {
    for (const auto& entry : entries) roles.mark(entry.first, RenumberingRoles::kFiled);
  }
  for (std::size_t i = 0; i < ids.size(); ++i) {
    if (i + kAhead < ids.size()) roles.prefetch(ids[i + kAhead].oldID);
    const uint8_t had = roles.mark(ids[i].oldID, RenumberingRoles::kOld);
    if (had & RenumberingRoles::kOld) return {RenumberRefusal::kRepeatedOld, ids[i].oldID};
    const bool filed = walk ? (had & RenumberingRoles::kFiled) != 0 : entries.count(ids[i].oldID) != 0;
    if (!filed) return {RenumberRefusal::kAbsentOld, ids[i].oldID};
  }
  for (std::size_t i = 0; i < ids.size(); ++i) {
    if (i + kAhead < ids.size()) roles.prefetch(ids[i + kAhead].newID);
    const uint8_t had = roles.mark(ids[i].newID, RenumberingRoles::kNew);
    if (had & RenumberingRoles::kNew) return {RenumberRefusal::kRepeatedNew, ids[i].newID};
    if (had & RenumberingRoles::kOld) continue;  // its entry moves away
    const bool filed = walk ? (had & RenumberingRoles::kFiled) != 0 : entries.count(ids[i].newID) != 0;
    if (filed) return {RenumberRefusal::kTakenNew, ids[i].newID};
  }
  return {};
}

}  // namespace kelo_debuginfo

#endif  // KELO_DEBUGINFO_RENUMBERING_H_
