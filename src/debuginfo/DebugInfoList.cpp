#include "kelo/DebugInfoList.h"

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>
#include <vector>

#include "debuginfo/renumbering.h"
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
  // Checks first, with nothing changed: the four refusals, in the one order
  // that explanations of a refusal follow too.
  if (checkRenumbering(entries, ids).reason != RenumberRefusal::kNone) return false;

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
