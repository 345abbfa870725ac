// A list of ELF images filed under identifiers, each with a table of
// section load addresses.
//
// The list owns its entries; images enter it by move and are never copied.
// Pointers returned by add() and find() point at the image inside its entry
// and stay valid until that entry is destroyed or moved: by clear(), by the
// list's destruction, by a successful merge() with this list as the source,
// and by every successful update().
//
// Operations report refusal only through their results. Exceptions (memory
// exhaustion, the image library's own) are not caught here.
#ifndef KELO_DEBUGINFOLIST_H_
#define KELO_DEBUGINFOLIST_H_

#include <string>
#include <unordered_map>

#include "absl/types/span.h"
#include "kelo/elf.hpp"
#include "kelo/export.h"

namespace kelo_debuginfo {

using kelo_elf::DebugInfoID;

// One renumbering instruction for DebugInfoList::update(): the entry filed
// under oldID is to be filed under newID.
struct DebugInfoNewID {
  DebugInfoID oldID;
  DebugInfoID newID;
};

// A stored entry: one image and its section name -> load address table.
struct RelocELF {
  kelo_elf::ELF elf;  // first member: handles to an entry point here
  std::unordered_map<std::string, unsigned> sectionAddrs;

  RelocELF() = default;
  explicit RelocELF(kelo_elf::ELF&& image) noexcept : elf(std::move(image)) {}
  RelocELF(RelocELF&&) = default;
  RelocELF& operator=(RelocELF&&) = default;
  RelocELF(const RelocELF&) = delete;
  RelocELF& operator=(const RelocELF&) = delete;
};

class DebugInfoList {
 public:
  using Map = std::unordered_map<DebugInfoID, RelocELF>;

  // The entries, at most one per identifier. Public so that the file format
  // and the C iteration can walk and fill it; maximum load factor 1.0.
  Map entries;

  DebugInfoList() = default;
  DebugInfoList(DebugInfoList&&) = default;
  DebugInfoList& operator=(DebugInfoList&&) = default;
  DebugInfoList(const DebugInfoList&) = delete;
  DebugInfoList& operator=(const DebugInfoList&) = delete;

  // Files `image` under `id`, stamping id into image.debugInfoID, and returns
  // the stored image. When `id` is already filed, returns the image stored
  // under it and leaves both the list and `image` untouched. Never null.
  KELO_EXPORT kelo_elf::ELF* add(const DebugInfoID& id, kelo_elf::ELF&& image);

  // Moves every entry of `other` into this list, all or nothing: returns
  // false, with both lists unchanged, when any identifier of `other` is
  // already filed here. On success `other` is left empty and usable.
  KELO_EXPORT bool merge(DebugInfoList& other);

  // Destroys every entry.
  KELO_EXPORT void clear();

  // Refiles entries under new identifiers, all at once: exchanges and chains
  // are allowed. Returns false, with the list untouched, when two pairs share
  // an old identifier, an old identifier is not filed, two pairs share a new
  // identifier, or a new identifier is held by an entry not renumbered.
  // Renumbered images get their new identifier in debugInfoID. After every
  // success (an empty span included) pointers from add() and find() are to
  // be taken as invalid.
  KELO_EXPORT bool update(absl::Span<const DebugInfoNewID> ids);

  // The image filed under `id`, or null.
  KELO_EXPORT kelo_elf::ELF* find(const DebugInfoID& id);

  // The address recorded for section `name` of the entry `id`; 0 when there
  // is no such entry or no address recorded under that name.
  KELO_EXPORT unsigned getSectionAddr(const DebugInfoID& id, const std::string& name) const;

  // Records `addr` for section `name` of the entry `id`, replacing an earlier
  // address. Only names the image has, ".constant" and ".local" are
  // accepted; anything else, or an absent entry, changes nothing.
  KELO_EXPORT void setSectionAddr(const DebugInfoID& id, const std::string& name, unsigned addr);
};

}  // namespace kelo_debuginfo

#endif  // KELO_DEBUGINFOLIST_H_
