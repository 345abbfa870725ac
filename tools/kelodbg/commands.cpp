// The commands of kelodbg.
//
// Changes go through the C interface: read the file into a list, change the
// list, write it to a temporary file that then replaces the original. Every
// refusal is diagnosed before the list is touched, so the tool can say which
// identifier or section is at fault. Listings look through the list handle
// as the C++ class (list_bridge.h) for what the C interface does not show.
#include "commands.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

#include <fmt/format.h>

#include "list_bridge.h"
#include "text.h"
#include "tool.h"

namespace kelodbg {
namespace {

Id idFrom(const std::string& text) {
  Id id;
  const std::string error = parseId(text, id);
  if (!error.empty()) fail(Exit::kUsage, {}, error);
  return id;
}

// Every identifier of `list`, sorted, through the C iteration.
std::vector<Id> idsOf(keloDbgList list) {
  std::vector<Id> ids;
  keloDbgIterator it = keloDbgIter(list);
  if (it != nullptr) {
    do {
      const keloDbgID id = keloDbgIterID(it);
      ids.push_back(Id{id.kind, id.id});
    } while (keloDbgIterNext(it));
    keloDbgIterFree(it);
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

struct NewEntry {
  Id id;
  std::string path;
};

std::vector<NewEntry> parseEntries(const std::vector<std::string>& args) {
  std::vector<NewEntry> entries;
  std::set<Id> seen;
  for (const std::string& arg : args) {
    std::string idText, path;
    std::string error = splitAssignment(arg, "ID=ELF-FILE", idText, path);
    if (!error.empty()) fail(Exit::kUsage, {}, error);
    const Id id = idFrom(idText);
    if (id.kind != 1) fail(Exit::kUsage, {}, fmt::format("'{}': entries are added under kind 1", arg));
    if (!seen.insert(id).second) fail(Exit::kPresentId, {}, fmt::format("identifier {} is given twice", format(id)));
    entries.push_back({id, path});
  }
  return entries;
}

// Adds every entry to `list`, which is what `file` holds. Checks every
// identifier and loads every ELF file before the first one is added.
void addTo(keloDbgList list, const std::string& file, const std::vector<std::string>& args) {
  const std::vector<NewEntry> entries = parseEntries(args);
  std::vector<ElfPtr> images;
  for (const NewEntry& e : entries) {
    if (keloDbgFind(list, e.id.c()) != nullptr) {
      fail(Exit::kPresentId, file, fmt::format("identifier {} is already present", format(e.id)));
    }
    images.push_back(loadElf(e.path));
  }
  for (size_t i = 0; i < entries.size(); ++i) {
    const uint32_t number = entries[i].id.number;
    if (keloDbgAdd(list, images[i].get(), number & 0xFFFF, number >> 16) == nullptr) {
      fail(Exit::kFailure, entries[i].path, "cannot store the image (out of memory?)");
    }
  }
}

ListPtr newList() {
  ListPtr list(keloDbgAlloc());
  if (!list) fail(Exit::kFailure, {}, "out of memory");
  return list;
}

// The stored entry under `id`, through the class.
kelo_debuginfo::RelocELF& entryOf(keloDbgList list, const std::string& file, const Id& id) {
  auto& entries = classOf(list).entries;
  // The C conversion: kind 0 or 1, number split into halves.
  const kelo_elf::DebugInfoID key(static_cast<uint8_t>(id.kind), id.number & 0xFFFF, id.number >> 16);
  auto found = entries.find(key);
  if (found == entries.end()) fail(Exit::kAbsentId, file, fmt::format("no entry {}", format(id)));
  return found->second;
}

// An entry's section table, sorted by name.
std::map<std::string, unsigned> sortedSections(const kelo_debuginfo::RelocELF& entry) {
  return {entry.sectionAddrs.begin(), entry.sectionAddrs.end()};
}

std::string jsonSections(const std::map<std::string, unsigned>& sections) {
  std::string out = "{";
  for (const auto& s : sections) {
    if (out.size() > 1) out += ", ";
    out += fmt::format("{}: {}", jsonString(s.first), s.second);
  }
  return out + "}";
}

std::string jsonEntry(const Id& id, const kelo_debuginfo::RelocELF& entry) {
  return fmt::format(R"({{"id": {}, "kind": {}, "number": {}, "size": {}, "sections": {}}})", jsonString(format(id)),
                     id.kind, id.number, entry.elf.size(), jsonSections(sortedSections(entry)));
}

}  // namespace

void createFile(const std::string& file, const std::vector<std::string>& entries) {
  ListPtr list = newList();
  addTo(list.get(), file, entries);
  writeDebugInfo(list.get(), file);
}

void addEntries(const std::string& file, const std::vector<std::string>& entries) {
  ListPtr list = readDebugInfo(file);
  addTo(list.get(), file, entries);
  writeDebugInfo(list.get(), file);
}

void setAddress(const std::string& file, const std::string& idText, const std::string& section,
                const std::string& addrText) {
  const Id id = idFrom(idText);
  uint32_t addr = 0;
  const std::string error = parseNumber(addrText, addr);
  if (!error.empty()) fail(Exit::kUsage, {}, error);

  ListPtr list = readDebugInfo(file);
  keloDbgElf image = keloDbgFind(list.get(), id.c());
  if (image == nullptr) fail(Exit::kAbsentId, file, fmt::format("no entry {}", format(id)));
  // The names the library accepts: the image's own, and two that no image has.
  if (!keloElfHasSection(image, section.c_str()) && section != ".constant" && section != ".local") {
    fail(Exit::kNoSection, file,
         fmt::format("entry {} has no section '{}' (addresses go to the image's sections, .constant and .local)",
                     format(id), printable(section)));
  }
  keloDbgSetSectionAddr(list.get(), id.c(), section.c_str(), addr);
  writeDebugInfo(list.get(), file);
}

void renumber(const std::string& file, const std::vector<std::string>& pairs) {
  std::vector<keloDbgNewID> records;
  std::vector<std::pair<Id, Id>> moves;
  for (const std::string& arg : pairs) {
    std::string oldText, newText;
    const std::string error = splitAssignment(arg, "OLD=NEW", oldText, newText);
    if (!error.empty()) fail(Exit::kUsage, {}, error);
    const Id from = idFrom(oldText), to = idFrom(newText);
    moves.emplace_back(from, to);
    records.push_back(keloDbgNewID{from.c(), to.c()});
  }

  ListPtr list = readDebugInfo(file);

  // The library refuses without saying why; find the reason first, in the
  // order in which it checks.
  const std::vector<Id> held = idsOf(list.get());
  std::set<Id> olds, news;
  for (const auto& m : moves) {
    if (!olds.insert(m.first).second) {
      fail(Exit::kRefused, file, fmt::format("identifier {} is renumbered twice", format(m.first)));
    }
    if (!std::binary_search(held.begin(), held.end(), m.first)) {
      fail(Exit::kAbsentId, file, fmt::format("no entry {}", format(m.first)));
    }
  }
  for (const auto& m : moves) {
    if (!news.insert(m.second).second) {
      fail(Exit::kRefused, file, fmt::format("two entries would be renumbered to {}", format(m.second)));
    }
    if (std::binary_search(held.begin(), held.end(), m.second) && olds.count(m.second) == 0) {
      fail(Exit::kRefused, file,
           fmt::format("cannot renumber {} to {}: an entry that keeps its identifier holds it", format(m.first),
                       format(m.second)));
    }
  }
  if (!keloDbgUpdate(list.get(), records.data(), static_cast<uint32_t>(records.size()))) {
    fail(Exit::kRefused, file, "renumbering refused");
  }
  writeDebugInfo(list.get(), file);
}

void merge(const std::string& out, const std::vector<std::string>& inputs) {
  std::vector<ListPtr> lists;
  std::map<Id, std::string> owner;
  std::vector<std::string> collisions;
  for (const std::string& input : inputs) {
    lists.push_back(readDebugInfo(input));
    for (const Id& id : idsOf(lists.back().get())) {
      auto inserted = owner.emplace(id, input);
      if (!inserted.second) {
        collisions.push_back(
            fmt::format("identifier {} is in both {} and {}", format(id), inserted.first->second, input));
      }
    }
  }
  if (!collisions.empty()) {
    for (size_t i = 0; i + 1 < collisions.size(); ++i) fmt::print(stderr, "kelodbg: {}\n", collisions[i]);
    fail(Exit::kRefused, {}, collisions.back());
  }
  ListPtr all = newList();
  for (ListPtr& list : lists) {
    if (!keloDbgMerge(all.get(), list.get())) fail(Exit::kRefused, {}, "merge refused");
  }
  writeDebugInfo(all.get(), out);
}

void list(const std::string& file, bool json) {
  const FileVersion v = readVersion(file);
  ListPtr list = readDebugInfo(file);
  const std::vector<Id> ids = idsOf(list.get());

  if (json) {
    fmt::print("{{\n  \"file\": {},\n  \"version\": \"{}.{}.{}\",\n  \"entries\": [", jsonString(file), v.major,
               v.minor, v.patch);
    for (size_t i = 0; i < ids.size(); ++i) {
      fmt::print("{}\n    {}", i == 0 ? "" : ",", jsonEntry(ids[i], entryOf(list.get(), file, ids[i])));
    }
    fmt::print("{}]\n}}\n", ids.empty() ? "" : "\n  ");
    return;
  }

  size_t sizeWidth = 4;  // "SIZE"
  for (const Id& id : ids) {
    sizeWidth = std::max(sizeWidth, fmt::formatted_size("{}", entryOf(list.get(), file, id).elf.size()));
  }
  fmt::print("KIND  NUMBER      {:>{}}  SECTIONS\n", "SIZE", sizeWidth);
  for (const Id& id : ids) {
    const kelo_debuginfo::RelocELF& entry = entryOf(list.get(), file, id);
    std::string sections;
    for (const auto& s : sortedSections(entry)) {
      sections += fmt::format("{}{}=0x{:08x}", sections.empty() ? "" : " ", printable(s.first), s.second);
    }
    fmt::print("{:>4}  0x{:08x}  {:>{}}  {}\n", id.kind, id.number, entry.elf.size(), sizeWidth,
               sections.empty() ? "-" : sections);
  }
}

void show(const std::string& file, const std::string& idText, bool json) {
  const Id id = idFrom(idText);
  ListPtr list = readDebugInfo(file);
  const kelo_debuginfo::RelocELF& entry = entryOf(list.get(), file, id);
  const std::vector<std::string> names = entry.elf.sectionNames();
  const std::map<std::string, unsigned> recorded = sortedSections(entry);

  if (json) {
    std::string imageSections;
    for (const std::string& name : names) imageSections += (imageSections.empty() ? "" : ", ") + jsonString(name);
    fmt::print(
        "{{\"id\": {}, \"kind\": {}, \"number\": {}, \"size\": {}, \"image_sections\": [{}], \"sections\": {}}}\n",
        jsonString(format(id)), id.kind, id.number, entry.elf.size(), imageSections, jsonSections(recorded));
    return;
  }

  size_t width = 7;  // "SECTION"
  for (const std::string& name : names) width = std::max(width, printable(name).size());
  for (const auto& s : recorded) width = std::max(width, printable(s.first).size());

  fmt::print("identifier  {}\nimage size  {} bytes\nsections    {} in the image, {} with an address\n\n", format(id),
             entry.elf.size(), names.size(), recorded.size());
  fmt::print("{:<{}}  ADDRESS\n", "SECTION", width);
  for (const std::string& name : names) {
    auto found = recorded.find(name);
    fmt::print("{:<{}}  {}\n", printable(name), width,
               found == recorded.end() ? std::string("-") : fmt::format("0x{:08x}", found->second));
  }
  for (const auto& s : recorded) {
    if (std::find(names.begin(), names.end(), s.first) == names.end()) {
      fmt::print("{:<{}}  0x{:08x}  (not an image section)\n", printable(s.first), width, s.second);
    }
  }
}

void extract(const std::string& file, const std::string& idText, const std::string& out) {
  const Id id = idFrom(idText);
  ListPtr list = readDebugInfo(file);
  kelo_debuginfo::RelocELF& entry = entryOf(list.get(), file, id);
  absl::optional<kelo_elf::ELFBytes> bytes = entry.elf.save();
  if (!bytes) fail(Exit::kFailure, file, fmt::format("cannot save the image of {} (out of memory?)", format(id)));
  writeBytes(bytes->data, bytes->size, out);
}

void version(const std::string& file) {
  const FileVersion v = readVersion(file);
  fmt::print("{}.{}.{}\n", v.major, v.minor, v.patch);
}

void check(const std::string& file, bool quiet) {
  const FileVersion v = readVersion(file);
  ListPtr list = readDebugInfo(file);
  if (!quiet) {
    const size_t count = idsOf(list.get()).size();
    fmt::print("{}: debug-info file version {}.{}.{}, {} {}\n", file, v.major, v.minor, v.patch, count,
               count == 1 ? "entry" : "entries");
  }
}

}  // namespace kelodbg
