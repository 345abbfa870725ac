#include "commands.h"

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
#include "check.h"
#include "debuginfo/renumbering.h"
#include "file/format.h"
#include "file/inspect.h"
#include "files.h"
#include "store.h"
#include "text.h"
#include "tool.h"

namespace kelodbg {
namespace {

using kelo_debuginfo::RelocELF;

unsigned kindFrom(const Request& r) {
  if (r.kind > 255) fail(Exit::kUsage, {}, fmt::format("--kind {}: kinds are 0 to 255", r.kind));
  return r.kind;
}

// An entry's section table, sorted by name.
std::map<std::string, unsigned> sortedSections(const IndexedEntry& entry) {
  return {entry.sections.begin(), entry.sections.end()};
}

Json idJson(const Id& id) { return Json::object().set("id", format(id)).set("kind", id.kind).set("number", id.number); }

Json sectionsJson(const IndexedEntry& entry) {
  Json sections = Json::array();
  for (const auto& s : sortedSections(entry)) {
    sections.push(Json::object().set("name", s.first).set("address", s.second));
  }
  return sections;
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

std::string listJson(const Store& store) {
  Json entries = Json::array();
  for (const Id& id : store.ids()) {
    const IndexedEntry& entry = *store.find(id);
    entries.push(idJson(id).set("size", entry.imageSize).set("sections", sectionsJson(entry)));
  }
  return Json::object()
      .set("file", store.name())
      .set("version", store.version())
      .set("entries", std::move(entries))
      .dump();
}

}  // namespace

std::vector<std::string> placementWarnings(const Id& id, const kelo_elf::ELF& image,
                                           const std::vector<std::pair<std::string, uint32_t>>& recorded) {
  constexpr uint64_t kAlloc = 0x2;  // SHF_ALLOC
  std::vector<std::string> out;
  std::set<std::string> seen;
  for (const kelo_elf::SectionHeader& h : image.sectionHeaders()) {
    if ((h.flags & kAlloc) == 0 || h.size == 0) continue;
    if (!seen.insert(h.name).second) {
      out.push_back(fmt::format("entry {} has several allocated sections {}; only the first can have an address",
                                format(id), quoted(h.name)));
      continue;
    }
    const bool placed =
        std::any_of(recorded.begin(), recorded.end(), [&h](const auto& r) { return r.first == h.name; });
    if (!placed) {
      out.push_back(
          fmt::format("entry {}: section {} ({} bytes) is allocated and has no address; its addresses "
                      "answer nothing",
                      format(id), quoted(h.name), h.size));
    }
  }
  return out;
}

namespace {

std::string leftoverMessage(const std::pair<std::string, uint64_t>& leftover) {
  return fmt::format(
      "{} ({} bytes) is a temporary file of a change that never finished; the next change of the file "
      "removes it",
      quoted(leftover.first), leftover.second);
}

}  // namespace

void createCommand(const Request& r) {
  std::vector<NewEntry> entries = parseEntries(r.args, kindFrom(r));
  std::vector<const Input*> inputs;
  for (const NewEntry& e : entries) inputs.push_back(e.input.get());
  Output out = Output::result(r.file, inputs, r.wait);
  ListPtr list = newList();
  addEntries(*list, r.file, entries);
  out.writeList(list);
}

void addCommand(const Request& r) {
  std::vector<NewEntry> entries = parseEntries(r.args, kindFrom(r));
  Changed c(r, r.file);
  refuseSameFile(c.out, entries, r.file);
  for (const NewEntry& e : entries) {
    if (c.store.find(e.id) != nullptr) {
      fail(Exit::kPresentId, r.file, fmt::format("identifier {} is already present", format(e.id)));
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

void removeCommand(const Request& r) {
  std::vector<Id> ids;
  for (const std::string& arg : r.args) ids.push_back(idFrom(arg));
  Changed c(r, r.file);
  std::set<const IndexedEntry*> gone;
  for (const Id& id : ids) gone.insert(&c.store.entry(id));  // all or nothing
  std::vector<PlannedEntry> plan;
  for (PlannedEntry& p : c.store.plan()) {
    if (gone.count(p.from) == 0) plan.push_back(std::move(p));
  }
  c.out.writeWith([&plan](int fd) { return kelo_store::writePlanned(plan, fd); });
}

namespace {

// The lines of a --from LIST: "ID SECTION=ADDRESS...", blank lines and
// lines starting with # skipped.
std::vector<std::pair<Id, std::vector<std::pair<std::string, uint32_t>>>> readAddressList(const std::string& name) {
  const TextInput text(name, "<stdin> (--from -)");
  std::FILE* in = text.get();
  const std::string& shown = text.name();
  std::vector<std::pair<Id, std::vector<std::pair<std::string, uint32_t>>>> lines;
  struct Line {
    char* data = nullptr;
    size_t room = 0;
    ~Line() { std::free(data); }
  } buffer;
  ssize_t got;
  uint64_t number = 0;
  while ((got = getline(&buffer.data, &buffer.room, in)) >= 0) {
    ++number;
    std::string line(buffer.data, static_cast<size_t>(got));
    if (line.find('\0') != std::string::npos)
      fail(Exit::kUsage, shown, fmt::format("line {} holds a NUL byte", number));
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
  if (std::ferror(in)) fail(Exit::kFileIo, shown, "cannot read");
  return lines;
}

}  // namespace

void setAddrCommand(const Request& r) {
  if (!r.from.empty()) {
    if (!r.second.empty() || !r.args.empty()) fail(Exit::kUsage, {}, "set-addr takes ID and addresses, or --from LIST");
    const auto lines = readAddressList(r.from);
    Changed c(r, r.file);
    std::vector<PlannedEntry> plan = c.store.plan();
    for (const auto& line : lines) recordAddresses(c, plan, line.first, line.second, r.file);
    c.out.writeWith([&plan](int fd) { return kelo_store::writePlanned(plan, fd); });
    return;
  }
  if (r.second.empty() || r.args.empty())
    fail(Exit::kUsage, {}, "set-addr needs ID and SECTION=ADDRESS (or --from LIST)");
  const Id id = idFrom(r.second);
  std::vector<std::pair<std::string, uint32_t>> pairs;
  if (r.args.size() == 2 && r.args[0].find('=') == std::string::npos) {
    // The one-pair form: SECTION ADDRESS.
    pairs.emplace_back(r.args[0], addressFrom(r.args[1]));
  } else {
    for (const std::string& arg : r.args) pairs.push_back(parseAddress(arg));
  }
  Changed c(r, r.file);
  std::vector<PlannedEntry> plan = c.store.plan();
  recordAddresses(c, plan, id, pairs, r.file);
  c.out.writeWith([&plan](int fd) { return kelo_store::writePlanned(plan, fd); });
}

void unsetAddrCommand(const Request& r) {
  const Id id = idFrom(r.second);
  Changed c(r, r.file);
  std::vector<PlannedEntry> plan = c.store.plan();
  PlannedEntry& entry = plannedOf(plan, c.store, id);
  const auto recorded = [&entry](const std::string& name) {
    return std::find_if(entry.sections.begin(), entry.sections.end(),
                        [&name](const auto& s) { return s.first == name; });
  };
  for (const std::string& name : r.args) {
    if (recorded(name) == entry.sections.end()) {
      fail(Exit::kNoSection, r.file, fmt::format("entry {} has no address for section {}", format(id), quoted(name)));
    }
  }
  for (const std::string& name : r.args) {
    auto found = recorded(name);
    if (found != entry.sections.end()) entry.sections.erase(found);
  }
  c.out.writeWith([&plan](int fd) { return kelo_store::writePlanned(plan, fd); });
}

void renumberCommand(const Request& r) {
  std::vector<kelo_debuginfo::DebugInfoNewID> pairs;
  for (const std::string& arg : r.args) {
    std::string oldText, newText;
    const std::string error = splitAssignment(arg, "OLD=NEW", oldText, newText);
    if (!error.empty()) fail(Exit::kUsage, {}, error);
    pairs.push_back({idFrom(oldText).key(), idFrom(newText).key()});
  }
  Changed c(r, r.file);
  // The list's own rules decide, on the identifiers alone, and say why.
  List ids;
  for (const IndexedEntry* e : c.store.entries()) ids.entries.try_emplace(e->id);
  const kelo_debuginfo::RenumberDiagnosis why = kelo_debuginfo::checkRenumbering(ids.entries, pairs);
  if (why.reason != kelo_debuginfo::RenumberRefusal::kNone) {
    using kelo_debuginfo::RenumberRefusal;
    const std::string id = format(Id::of(why.id));
    switch (why.reason) {
      case RenumberRefusal::kRepeatedOld:
        fail(Exit::kRefused, r.file, fmt::format("identifier {} is renumbered twice", id));
      case RenumberRefusal::kAbsentOld:
        fail(Exit::kAbsentId, r.file, fmt::format("no entry {}{}", id, c.store.kindHint(Id::of(why.id))));
      case RenumberRefusal::kRepeatedNew:
        fail(Exit::kRefused, r.file, fmt::format("two entries would be renumbered to {}", id));
      case RenumberRefusal::kTakenNew:
        fail(Exit::kRefused, r.file, fmt::format("{} is held by an entry that keeps its identifier", id));
      case RenumberRefusal::kNone:
        break;
    }
    fail(Exit::kRefused, r.file, "renumbering refused");
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

void mergeCommand(const Request& r) {
  std::vector<std::unique_ptr<Input>> inputs;
  std::vector<const Input*> views;
  for (const std::string& name : r.args) {
    inputs.push_back(std::make_unique<Input>(name));
    views.push_back(inputs.back().get());
  }
  const bool into = !r.into.empty();
  Output out = into ? Output::change(r.into, r.wait) : Output::result(r.file, views, r.wait);
  std::unique_ptr<Store> target;
  if (into) {
    target = std::make_unique<Store>(out.lockedFile(), r.into);
    if (!r.dropUnread) refuseDrops(target->report(), r.into);
    for (const Input* input : views) {
      if (out.isFileOf(*input))
        fail(Exit::kUnsafe, r.into, fmt::format("is also the input {}; refused", input->name()));
    }
  }
  // Which file holds each identifier, so that a collision names both.
  std::map<Id, std::string> owner;
  std::vector<PlannedEntry> plan;
  if (target) {
    for (const Id& id : target->ids()) owner.emplace(id, r.into);
    plan = target->plan();
  }
  std::vector<std::unique_ptr<Store>> stores;
  for (const auto& input : inputs) {
    stores.push_back(std::make_unique<Store>(*input));
    if (!r.dropUnread) refuseDrops(stores.back()->report(), input->name());
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

void listCommand(const Request& r) {
  const Input input(r.file);
  const Store store(input);
  if (r.json) return print(listJson(store));
  const std::vector<Id> ids = store.ids();
  size_t sizeWidth = 4;  // "SIZE"
  for (const IndexedEntry* entry : store.entries()) {
    sizeWidth = std::max(sizeWidth, fmt::formatted_size("{}", entry->imageSize));
  }
  print(fmt::format("KIND  NUMBER      {:>{}}  SECTIONS\n", "SIZE", sizeWidth));
  for (const Id& id : ids) {
    const IndexedEntry& entry = *store.find(id);
    std::string sections;
    for (const auto& s : sortedSections(entry)) {
      sections += fmt::format("{}{}=0x{:08x}", sections.empty() ? "" : " ", printable(s.first), s.second);
    }
    print(fmt::format("{:>4}  0x{:08x}  {:>{}}  {}\n", id.kind, id.number, entry.imageSize, sizeWidth,
                      sections.empty() ? "-" : sections));
  }
}

void showCommand(const Request& r) {
  const Input input(r.file);
  const Id id = idFrom(r.second);
  const Store store(input);
  const IndexedEntry& entry = store.entry(id);
  const kelo_elf::ELF image = store.image(entry);
  const std::vector<std::string> names = image.sectionNames();
  const std::map<std::string, unsigned> recorded = sortedSections(entry);
  const auto inImage = [&names](const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
  };

  if (r.json) {
    Json imageSections = Json::array();
    for (const std::string& name : names) imageSections.push(name);
    Json sections = Json::array();
    for (const auto& s : recorded) {
      sections.push(Json::object().set("name", s.first).set("address", s.second).set("in_image", inImage(s.first)));
    }
    return print(idJson(id)
                     .set("file", input.name())
                     .set("size", image.size())
                     .set("image_sections", std::move(imageSections))
                     .set("sections", std::move(sections))
                     .dump());
  }

  size_t width = 7;  // "SECTION"
  for (const std::string& name : names) width = std::max(width, printable(name).size());
  for (const auto& s : recorded) width = std::max(width, printable(s.first).size());
  print(fmt::format("identifier  {}\nimage size  {} bytes\nsections    {} in the image, {} with an address\n",
                    format(id), image.size(), names.size(), recorded.size()));
  if (names.empty()) print("            (the image has no section table)\n");
  print(fmt::format("\n{:<{}}  ADDRESS\n", "SECTION", width));
  for (const std::string& name : names) {
    auto found = recorded.find(name);
    print(fmt::format("{:<{}}  {}\n", printable(name), width,
                      found == recorded.end() ? std::string("-") : fmt::format("0x{:08x}", found->second)));
  }
  for (const auto& s : recorded) {
    if (!inImage(s.first))
      print(fmt::format("{:<{}}  0x{:08x}  (not an image section)\n", printable(s.first), width, s.second));
  }
}

void extractCommand(const Request& r) {
  const Input input(r.file);
  const Id id = idFrom(r.second);
  Output out = Output::result(r.output, {&input}, r.wait);
  const Store store(input);
  const IndexedEntry& entry = store.entry(id);
  // What is extracted is an image that loads.
  const kelo_elf::ELF image = store.image(entry);
  const absl::Span<unsigned char const> bytes = image.bytes();
  out.writeBytes(bytes.data(), bytes.size());
}

int diffCommand(const Request& r) {
  const Input a(r.file), b(r.second);
  const Store storeA(a), storeB(b);
  std::vector<Id> onlyA, onlyB;
  Json changed = Json::array();
  std::vector<std::string> lines;
  for (const Id& id : storeA.ids()) {
    const IndexedEntry* eb = storeB.find(id);
    if (eb == nullptr) {
      onlyA.push_back(id);
      continue;
    }
    const IndexedEntry& ea = *storeA.find(id);
    const bool imageChanged = !storeA.sameImage(ea, storeB, *eb);
    const std::map<std::string, unsigned> sa = sortedSections(ea), sb = sortedSections(*eb);
    std::set<std::string> names;
    for (const auto& s : sa) names.insert(s.first);
    for (const auto& s : sb) names.insert(s.first);
    Json sections = Json::array();
    size_t sectionChanges = 0;
    if (imageChanged) {
      lines.push_back(fmt::format("changed {}: image ({} -> {} bytes)", format(id), ea.imageSize, eb->imageSize));
    }
    for (const std::string& name : names) {
      auto fa = sa.find(name), fb = sb.find(name);
      if (fa != sa.end() && fb != sb.end() && fa->second == fb->second) continue;
      const auto text = [](auto it, const auto& map) {
        return it == map.end() ? std::string("-") : fmt::format("0x{:08x}", it->second);
      };
      const auto json = [](auto it, const auto& map) { return it == map.end() ? Json() : Json(it->second); };
      lines.push_back(fmt::format("changed {}: {} {} -> {}", format(id), printable(name), text(fa, sa), text(fb, sb)));
      sections.push(Json::object().set("name", name).set("a", json(fa, sa)).set("b", json(fb, sb)));
      ++sectionChanges;
    }
    if (imageChanged || sectionChanges != 0) {
      changed.push(idJson(id).set("image", imageChanged).set("sections", std::move(sections)));
    }
  }
  for (const Id& id : storeB.ids()) {
    if (storeA.find(id) == nullptr) onlyB.push_back(id);
  }
  const bool equal = onlyA.empty() && onlyB.empty() && lines.empty();
  if (r.json) {
    Json ja = Json::array(), jb = Json::array();
    for (const Id& id : onlyA) ja.push(idJson(id));
    for (const Id& id : onlyB) jb.push(idJson(id));
    print(Json::object()
              .set("a", a.name())
              .set("b", b.name())
              .set("equal", equal)
              .set("only_in_a", std::move(ja))
              .set("only_in_b", std::move(jb))
              .set("changed", std::move(changed))
              .dump());
  } else {
    for (const Id& id : onlyA) print(fmt::format("only in {}: {}\n", a.name(), format(id)));
    for (const Id& id : onlyB) print(fmt::format("only in {}: {}\n", b.name(), format(id)));
    for (const std::string& line : lines) print(line + "\n");
  }
  return equal ? 0 : static_cast<int>(Exit::kFailure);
}

int checkCommand(const Request& r) {
  const Input input(r.file);
  const Report report = input.check();
  if (report.fault == kelo_debuginfo::file::Fault::kOpen)
    fail(Exit::kFileIo, input.name(), std::strerror(report.error));
  // Temporary files of writers that died beside the file: the next change
  // removes them, but until then they take room.
  std::vector<std::pair<std::string, uint64_t>> leftovers;
  if (!input.isStream()) leftovers = leftoverTemporaries(r.file);
  for (const auto& l : r.quiet ? decltype(leftovers)() : leftovers) {
    complain(fmt::format("kelodbg: {}: warning: {}\n", escapeControls(input.name()), leftoverMessage(l)));
  }
  // Entries placed in part: allocated sections with bytes and no address
  // answer nothing, and of several sections of one name only the first can
  // have one.
  std::vector<std::string> placement;
  if (!input.isStream() && !report.fault) {
    const Store store(input);
    for (const IndexedEntry* e : store.entries()) {
      if (e->sections.empty()) continue;
      for (std::string& w : placementWarnings(Id::of(e->id), store.image(*e), e->sections)) placement.push_back(w);
    }
  }
  for (const std::string& w : r.quiet ? decltype(placement)() : placement) {
    complain(fmt::format("kelodbg: {}: warning: {}\n", escapeControls(input.name()), escapeControls(w)));
  }
  const uint64_t warningCount = report.warningCount + leftovers.size() + placement.size();
  const bool ok = !report.fault;
  const std::string version =
      report.major ? fmt::format("{}.{}.{}", *report.major, *report.minor, *report.patch) : std::string();
  for (const auto& w : r.quiet ? decltype(report.warnings)() : report.warnings)
    complain(fmt::format("kelodbg: {}: warning: {}\n", escapeControls(input.name()),
                         escapeControls(warningMessage(w.first, w.second))));
  if (!r.quiet && report.warningCount > report.warnings.size()) {
    complain(fmt::format("kelodbg: {}: {} more warnings\n", escapeControls(input.name()),
                         report.warningCount - report.warnings.size()));
  }
  if (r.json) {
    Json doc =
        Json::object().set("file", input.name()).set("ok", ok).set("version", version.empty() ? Json() : Json(version));
    doc.set("entries", report.entries).set("entries_read", report.entriesRead);
    if (ok) {
      doc.set("error", Json());
    } else {
      const auto& f = report.errorFinding;
      Json error = Json::object()
                       .set("code", static_cast<int>(faultCode(report)))
                       .set("reason", faultName(*report.fault))
                       .set("message", faultMessage(report))
                       .set("entry", f.place.entry ? Json(*f.place.entry) : Json())
                       .set("offset", f.place.offset)
                       .set("field", f.place.field);
      doc.set("error", std::move(error));
    }
    Json warnings = Json::array();
    for (const auto& w : report.warnings) {
      const auto& f = w.second;
      warnings.push(Json::object()
                        .set("reason", warningName(w.first))
                        .set("message", warningMessage(w.first, f))
                        .set("entry", f.place.entry ? Json(*f.place.entry) : Json())
                        .set("offset", f.place.offset)
                        .set("field", f.place.field));
    }
    for (const std::string& w : placement) {
      warnings.push(Json::object()
                        .set("reason", "unplaced-section")
                        .set("message", w)
                        .set("entry", Json())
                        .set("offset", Json())
                        .set("field", Json()));
    }
    for (const auto& l : leftovers) {
      warnings.push(Json::object()
                        .set("reason", "leftover-temporary")
                        .set("message", leftoverMessage(l))
                        .set("entry", Json())
                        .set("offset", Json())
                        .set("field", Json()));
    }
    doc.set("warnings", std::move(warnings)).set("warning_count", warningCount);
    print(doc.dump());
  }
  if (!ok) {
    if (r.json) return static_cast<int>(faultCode(report));
    fail(faultCode(report), input.name(), faultMessage(report));
  }
  if (!r.json && !r.quiet) {
    print(fmt::format(
        "{}: debug-info file version {}, {} {}{}\n", input.name(), version, report.entries,
        report.entries == 1 ? "entry" : "entries",
        warningCount == 0 ? "" : fmt::format(", {} warning{}", warningCount, warningCount == 1 ? "" : "s")));
  }
  return r.strict && warningCount != 0 ? static_cast<int>(Exit::kWarnings) : 0;
}

void versionCommand(const Request& r) {
  if (r.file.empty()) {
    uint32_t major = 0, minor = 0, patch = 0;
    const char* build = "";
    keloDbgVersion(&major, &minor, &patch, &build);
    const std::string library = fmt::format("{}.{}.{}", major, minor, patch);
    if (r.json) {
      return print(Json::object().set("kelodbg", KELODBG_VERSION).set("library", library).set("build", build).dump());
    }
    return print(fmt::format("kelodbg {} (debug-info library {}, build {})\n", KELODBG_VERSION, library, build));
  }
  const Input input(r.file);
  uint32_t major = 0, minor = 0, patch = 0;
  input.readVersion(major, minor, patch);
  const bool readable = kelo_debuginfo::format::isReadableVersion(major, minor);
  if (r.json) {
    return print(Json::object()
                     .set("file", input.name())
                     .set("version", fmt::format("{}.{}.{}", major, minor, patch))
                     .set("major", major)
                     .set("minor", minor)
                     .set("patch", patch)
                     .set("readable", readable)
                     .dump());
  }
  print(fmt::format("{}.{}.{}\n", major, minor, patch));
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
