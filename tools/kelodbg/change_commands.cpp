#include "change_commands.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>

#include <fmt/format.h>

#include "changes.h"
#include "debuginfo/renumbering.h"
#include "file/format.h"
#include "files.h"
#include "store.h"
#include "text.h"
#include "tool.h"

namespace kelodbg {
namespace {

unsigned kindFrom(unsigned kind) {
  if (kind > 255) fail(Exit::kUsage, {}, fmt::format("--kind {}: kinds are 0 to 255", kind));
  return kind;
}

// "ID=ELF-FILE" arguments, with identifiers of `kind` unless they name one.
struct NewEntry {
  Id id;
  std::unique_ptr<Input> input;
};

std::vector<NewEntry> parseEntries(const std::vector<std::string>& args, unsigned kind) {
  std::vector<NewEntry> entries;
  std::set<Id> seen;
  for (const std::string& arg : args) {
    std::string idText, path;
    const std::string error = splitAssignment(arg, "ID=ELF-FILE", idText, path);
    if (!error.empty()) fail(Exit::kUsage, {}, error);
    const Id id = idFrom(idText, kind);
    if (!seen.insert(id).second) fail(Exit::kPresentId, {}, fmt::format("identifier {} is given twice", format(id)));
    entries.push_back({id, nullptr});
  }
  // Opened only once every argument has its form.
  for (size_t i = 0; i < args.size(); ++i)
    entries[i].input = std::make_unique<Input>(args[i].substr(args[i].find('=') + 1));
  return entries;
}

void refuseSameFile(const Output& out, const std::vector<NewEntry>& entries, const std::string& file) {
  for (const NewEntry& e : entries) {
    if (out.isFileOf(*e.input)) {
      fail(Exit::kUnsafe, file, fmt::format("is also the ELF input of {}; refused", format(e.id)));
    }
  }
}

void addEntries(List& list, const std::string& file, std::vector<NewEntry>& entries) {
  for (const NewEntry& e : entries) {
    if (list.find(e.id.key()) != nullptr) {
      fail(Exit::kPresentId, file, fmt::format("identifier {} is already present", format(e.id)));
    }
  }
  std::vector<kelo_elf::ELF> images;
  images.reserve(entries.size());
  for (const NewEntry& e : entries) images.push_back(e.input->loadElf());
  for (size_t i = 0; i < entries.size(); ++i) list.add(entries[i].id.key(), std::move(images[i]));
}

// "SECTION=ADDRESS", split at the last '=': names may hold one, addresses
// never do.
std::pair<std::string, uint32_t> parseAddress(const std::string& arg) {
  const size_t eq = arg.rfind('=');
  if (eq == std::string::npos || eq == 0 || eq + 1 == arg.size()) {
    fail(Exit::kUsage, {}, fmt::format("'{}' is not of the form SECTION=ADDRESS", arg));
  }
  return {arg.substr(0, eq), addressFrom(arg.substr(eq + 1))};
}

// The lines of a --from LIST: "ID SECTION=ADDRESS...", blank lines and
// lines starting with # skipped; a line is at most kMaxListLine bytes.
constexpr size_t kMaxListLine = 1 << 20;

std::vector<std::pair<Id, std::vector<std::pair<std::string, uint32_t>>>> readAddressList(const std::string& name) {
  TextInput text(name, "<stdin> (--from -)");
  const std::string& shown = text.name();
  std::vector<std::pair<Id, std::vector<std::pair<std::string, uint32_t>>>> lines;
  std::string line;
  while (text.readLine(line, kMaxListLine, true)) {
    const uint64_t number = text.lineNumber();
    std::vector<std::string> words;
    size_t at = 0;
    while ((at = line.find_first_not_of(" \t\r\n", at)) != std::string::npos) {
      const size_t end = line.find_first_of(" \t\r\n", at);
      words.push_back(line.substr(at, end == std::string::npos ? std::string::npos : end - at));
      at = end;
    }
    if (words.empty() || words[0][0] == '#') continue;
    if (words.size() < 2) {
      fail(Exit::kUsage, shown, fmt::format("line {}: 'ID SECTION=ADDRESS...' expected", number));
    }
    std::vector<std::pair<std::string, uint32_t>> pairs;
    for (size_t k = 1; k < words.size(); ++k) pairs.push_back(parseAddress(words[k]));
    lines.emplace_back(idFrom(words[0]), std::move(pairs));
  }
  return lines;
}

}  // namespace

void createCommand(const CreateOptions& o) {
  std::vector<NewEntry> entries = parseEntries(o.entries, kindFrom(o.kind));
  std::vector<const Input*> inputs;
  for (const NewEntry& e : entries) inputs.push_back(e.input.get());
  Output out = Output::result(o.file, inputs, o.wait);
  ListPtr list = newList();
  addEntries(*list, o.file, entries);
  out.writeList(list);
}

void addCommand(const AddOptions& o) {
  std::vector<NewEntry> entries = parseEntries(o.entries, kindFrom(o.kind));
  Changed c(o.target);
  refuseSameFile(c.out, entries, o.target.file);
  for (const NewEntry& e : entries) {
    if (c.store.find(e.id) != nullptr) {
      fail(Exit::kPresentId, o.target.file, fmt::format("identifier {} is already present", format(e.id)));
    }
  }
  std::vector<kelo_elf::ELF> images;
  images.reserve(entries.size());
  for (const NewEntry& e : entries) images.push_back(e.input->loadElf());
  std::vector<PlannedEntry> plan = c.store.plan();
  for (size_t i = 0; i < entries.size(); ++i)
    plan.push_back(PlannedEntry{entries[i].id.key(), nullptr, nullptr, &images[i], {}});
  c.out.writeWith([&plan](int fd) { return kelo_store::writePlanned(plan, fd); });
}

void removeCommand(const RemoveOptions& o) {
  std::vector<Id> ids;
  for (const std::string& arg : o.ids) ids.push_back(idFrom(arg));
  Changed c(o.target);
  std::set<const IndexedEntry*> gone;
  for (const Id& id : ids) gone.insert(&c.store.entry(id));  // all or nothing
  std::vector<PlannedEntry> plan;
  for (PlannedEntry& p : c.store.plan()) {
    if (gone.count(p.from) == 0) plan.push_back(std::move(p));
  }
  c.out.writeWith([&plan](int fd) { return kelo_store::writePlanned(plan, fd); });
}

void setAddrCommand(const SetAddrOptions& o) {
  if (!o.from.empty()) {
    if (!o.id.empty() || !o.addresses.empty())
      fail(Exit::kUsage, {}, "set-addr takes ID and addresses, or --from LIST");
    const auto lines = readAddressList(o.from);
    Changed c(o.target);
    std::vector<PlannedEntry> plan = c.store.plan();
    for (const auto& line : lines) recordAddresses(c, plan, line.first, line.second, o.target.file);
    c.out.writeWith([&plan](int fd) { return kelo_store::writePlanned(plan, fd); });
    return;
  }
  if (o.id.empty() || o.addresses.empty())
    fail(Exit::kUsage, {}, "set-addr needs ID and SECTION=ADDRESS (or --from LIST)");
  const Id id = idFrom(o.id);
  std::vector<std::pair<std::string, uint32_t>> pairs;
  if (o.addresses.size() == 2 && o.addresses[0].find('=') == std::string::npos) {
    // The one-pair form: SECTION ADDRESS.
    pairs.emplace_back(o.addresses[0], addressFrom(o.addresses[1]));
  } else {
    for (const std::string& arg : o.addresses) pairs.push_back(parseAddress(arg));
  }
  Changed c(o.target);
  std::vector<PlannedEntry> plan = c.store.plan();
  recordAddresses(c, plan, id, pairs, o.target.file);
  c.out.writeWith([&plan](int fd) { return kelo_store::writePlanned(plan, fd); });
}

void unsetAddrCommand(const UnsetAddrOptions& o) {
  const Id id = idFrom(o.id);
  Changed c(o.target);
  std::vector<PlannedEntry> plan = c.store.plan();
  PlannedEntry& entry = plannedOf(plan, c.store, id);
  const auto recorded = [&entry](const std::string& name) {
    return std::find_if(entry.sections.begin(), entry.sections.end(),
                        [&name](const auto& s) { return s.first == name; });
  };
  for (const std::string& name : o.sections) {
    if (recorded(name) == entry.sections.end()) {
      fail(Exit::kNoSection, o.target.file,
           fmt::format("entry {} has no address for section {}", format(id), quoted(name)));
    }
  }
  for (const std::string& name : o.sections) {
    auto found = recorded(name);
    if (found != entry.sections.end()) entry.sections.erase(found);
  }
  c.out.writeWith([&plan](int fd) { return kelo_store::writePlanned(plan, fd); });
}

void renumberCommand(const RenumberOptions& o) {
  std::vector<kelo_debuginfo::DebugInfoNewID> pairs;
  for (const std::string& arg : o.renumberings) {
    std::string oldText, newText;
    const std::string error = splitAssignment(arg, "OLD=NEW", oldText, newText);
    if (!error.empty()) fail(Exit::kUsage, {}, error);
    pairs.push_back({idFrom(oldText).key(), idFrom(newText).key()});
  }
  Changed c(o.target);
  // The list's own rules decide, on the identifiers alone, and say why.
  List ids;
  for (const IndexedEntry* e : c.store.entries()) ids.entries.try_emplace(e->id);
  const kelo_debuginfo::RenumberDiagnosis why = kelo_debuginfo::checkRenumbering(ids.entries, pairs);
  if (why.reason != kelo_debuginfo::RenumberRefusal::kNone) {
    using kelo_debuginfo::RenumberRefusal;
    const std::string id = format(Id::of(why.id));
    switch (why.reason) {
      case RenumberRefusal::kRepeatedOld:
        fail(Exit::kRefused, o.target.file, fmt::format("identifier {} is renumbered twice", id));
      case RenumberRefusal::kAbsentOld:
        fail(Exit::kAbsentId, o.target.file, fmt::format("no entry {}{}", id, c.store.kindHint(Id::of(why.id))));
      case RenumberRefusal::kRepeatedNew:
        fail(Exit::kRefused, o.target.file, fmt::format("two entries would be renumbered to {}", id));
      case RenumberRefusal::kTakenNew:
        fail(Exit::kRefused, o.target.file, fmt::format("{} is held by an entry that keeps its identifier", id));
      case RenumberRefusal::kNone:
        break;
    }
    fail(Exit::kRefused, o.target.file, "renumbering refused");
  }
  std::unordered_map<kelo_elf::DebugInfoID, kelo_elf::DebugInfoID> renamed;
  for (const auto& pair : pairs) renamed.emplace(pair.oldID, pair.newID);
  std::vector<PlannedEntry> plan = c.store.plan();
  for (PlannedEntry& p : plan) {
    auto found = renamed.find(p.id);
    if (found != renamed.end()) p.id = found->second;
  }
  c.out.writeWith([&plan](int fd) { return kelo_store::writePlanned(plan, fd); });
}

void mergeCommand(const MergeOptions& o) {
  std::vector<std::unique_ptr<Input>> inputs;
  std::vector<const Input*> views;
  for (const std::string& name : o.inputs) {
    inputs.push_back(std::make_unique<Input>(name));
    views.push_back(inputs.back().get());
  }
  const bool into = !o.into.empty();
  Output out = into ? Output::change(o.into, o.wait) : Output::result(o.output, views, o.wait);
  std::unique_ptr<Store> target;
  if (into) {
    target = std::make_unique<Store>(out.lockedFile(), o.into);
    if (!o.dropUnread) refuseDrops(target->report(), o.into);
    for (const Input* input : views) {
      if (out.isFileOf(*input))
        fail(Exit::kUnsafe, o.into, fmt::format("is also the input {}; refused", input->name()));
    }
  }
  // Which file holds each identifier, so that a collision names both.
  std::map<Id, std::string> owner;
  std::vector<PlannedEntry> plan;
  if (target) {
    for (const Id& id : target->ids()) owner.emplace(id, o.into);
    plan = target->plan();
  }
  std::vector<std::unique_ptr<Store>> stores;
  for (const auto& input : inputs) {
    stores.push_back(std::make_unique<Store>(*input));
    if (!o.dropUnread) refuseDrops(stores.back()->report(), input->name());
    for (const Id& id : stores.back()->ids()) {
      auto inserted = owner.emplace(id, input->name());
      if (!inserted.second) {
        fail(Exit::kRefused, {},
             fmt::format("identifier {} is in both {} and {}", format(id), inserted.first->second, input->name()));
      }
    }
    for (PlannedEntry& p : stores.back()->plan()) plan.push_back(std::move(p));
  }
  out.writeWith([&plan](int fd) { return kelo_store::writePlanned(plan, fd); });
}

void extractCommand(const ExtractOptions& o) {
  const Input input(o.file);
  const Id id = idFrom(o.id);
  Output out = Output::result(o.output, {&input}, o.wait);
  const Store store(input);
  const IndexedEntry& entry = store.entry(id);
  // What is extracted is an image that loads.
  const kelo_elf::ELF image = store.image(entry);
  const absl::Span<unsigned char const> bytes = image.bytes();
  out.writeBytes(bytes.data(), bytes.size());
}

Id idFrom(const std::string& text, unsigned defaultKind) {
  Id id;
  const std::string error = parseId(text, static_cast<uint8_t>(defaultKind), id);
  if (!error.empty()) fail(Exit::kUsage, {}, error);
  return id;
}

uint32_t addressFrom(const std::string& text) {
  const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
  const bool hexDigits = !text.empty() && text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
  if (digits && (text.size() == 8 || text.size() == 16 || (text.size() > 1 && text[0] == '0'))) {
    fail(Exit::kUsage, {},
         fmt::format("'{}' could be hex (as nm and readelf print addresses) or decimal: write 0x{} for hex, or the "
                     "decimal number without leading zeros",
                     text, text));
  }
  if (hexDigits && !digits) fail(Exit::kUsage, {}, fmt::format("'{}' is hex without 0x: write 0x{}", text, text));
  uint32_t address = 0;
  const std::string error = parseNumber(text, address);
  if (!error.empty()) fail(Exit::kUsage, {}, error);
  return address;
}

void recordAddresses(const Changed& c, std::vector<PlannedEntry>& plan, const Id& id,
                     const std::vector<std::pair<std::string, uint32_t>>& pairs, const std::string& file) {
  PlannedEntry& entry = plannedOf(plan, c.store, id);
  const kelo_elf::ELF image = c.store.image(*entry.from);
  for (const auto& p : pairs) {
    if (!image.hasSection(p.first) && !kelo_debuginfo::format::isAlwaysAcceptedSection(p.first)) {
      fail(Exit::kNoSection, file,
           fmt::format("entry {} has no section {} (addresses go to the image's sections, .constant and .local)",
                       format(id), quoted(p.first)));
    }
  }
  for (const auto& p : pairs) {
    auto found =
        std::find_if(entry.sections.begin(), entry.sections.end(), [&p](const auto& s) { return s.first == p.first; });
    if (found != entry.sections.end()) {
      found->second = p.second;
    } else {
      entry.sections.push_back(p);
    }
  }
}

PlannedEntry& plannedOf(std::vector<PlannedEntry>& plan, const Store& store, const Id& id) {
  const IndexedEntry& entry = store.entry(id);
  for (PlannedEntry& p : plan) {
    if (p.from == &entry) return p;
  }
  fail(Exit::kAbsentId, store.name(), fmt::format("no entry {}", format(id)));
}

}  // namespace kelodbg
