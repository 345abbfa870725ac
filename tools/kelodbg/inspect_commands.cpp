#include "inspect_commands.h"

#include <algorithm>
#include <map>
#include <set>
#include <vector>

#include <fmt/format.h>

#include "changes.h"
#include "file/format.h"
#include "files.h"
#include "store.h"
#include "text.h"
#include "tool.h"

namespace kelodbg {
namespace {

// Prints a result as text or as one JSON document: the one place where the
// two forms part.
template <typename Result>
void emit(const Result& result, bool json) {
  print(json ? toJson(result).dump() : toText(result));
}

// An entry's section table, sorted by name.
std::map<std::string, unsigned> sortedSections(const IndexedEntry& entry) {
  return {entry.sections.begin(), entry.sections.end()};
}

Json idJson(const Id& id) { return Json::object().set("id", format(id)).set("kind", id.kind).set("number", id.number); }

// ---- list ----

struct ListResult {
  std::string file, version;
  struct Entry {
    Id id;
    uint32_t size;
    std::map<std::string, unsigned> sections;
  };
  std::vector<Entry> entries;  // sorted by identifier
};

Json toJson(const ListResult& r) {
  Json entries = Json::array();
  for (const ListResult::Entry& e : r.entries) {
    Json sections = Json::array();
    for (const auto& s : e.sections) sections.push(Json::object().set("name", s.first).set("address", s.second));
    entries.push(idJson(e.id).set("size", e.size).set("sections", std::move(sections)));
  }
  return Json::object().set("file", r.file).set("version", r.version).set("entries", std::move(entries));
}

std::string toText(const ListResult& r) {
  size_t sizeWidth = 4;  // "SIZE"
  for (const ListResult::Entry& e : r.entries) sizeWidth = std::max(sizeWidth, fmt::formatted_size("{}", e.size));
  std::string out = fmt::format("KIND  NUMBER      {:>{}}  SECTIONS\n", "SIZE", sizeWidth);
  for (const ListResult::Entry& e : r.entries) {
    std::string sections;
    for (const auto& s : e.sections) {
      sections += fmt::format("{}{}=0x{:08x}", sections.empty() ? "" : " ", printable(s.first), s.second);
    }
    out += fmt::format("{:>4}  0x{:08x}  {:>{}}  {}\n", e.id.kind, e.id.number, e.size, sizeWidth,
                       sections.empty() ? "-" : sections);
  }
  return out;
}

// ---- show ----

struct ShowResult {
  std::string file;
  Id id;
  size_t size = 0;
  std::vector<std::string> imageSections;     // in the image's order
  std::map<std::string, unsigned> addresses;  // recorded, by name
  bool inImage(const std::string& name) const {
    return std::find(imageSections.begin(), imageSections.end(), name) != imageSections.end();
  }
};

Json toJson(const ShowResult& r) {
  Json imageSections = Json::array();
  for (const std::string& name : r.imageSections) imageSections.push(name);
  Json sections = Json::array();
  for (const auto& s : r.addresses) {
    sections.push(Json::object().set("name", s.first).set("address", s.second).set("in_image", r.inImage(s.first)));
  }
  return idJson(r.id)
      .set("file", r.file)
      .set("size", static_cast<uint64_t>(r.size))
      .set("image_sections", std::move(imageSections))
      .set("sections", std::move(sections));
}

std::string toText(const ShowResult& r) {
  size_t width = 7;  // "SECTION"
  for (const std::string& name : r.imageSections) width = std::max(width, printable(name).size());
  for (const auto& s : r.addresses) width = std::max(width, printable(s.first).size());
  std::string out =
      fmt::format("identifier  {}\nimage size  {} bytes\nsections    {} in the image, {} with an address\n",
                  format(r.id), r.size, r.imageSections.size(), r.addresses.size());
  if (r.imageSections.empty()) out += "            (the image has no section table)\n";
  out += fmt::format("\n{:<{}}  ADDRESS\n", "SECTION", width);
  for (const std::string& name : r.imageSections) {
    auto found = r.addresses.find(name);
    out += fmt::format("{:<{}}  {}\n", printable(name), width,
                       found == r.addresses.end() ? std::string("-") : fmt::format("0x{:08x}", found->second));
  }
  for (const auto& s : r.addresses) {
    if (!r.inImage(s.first)) {
      out += fmt::format("{:<{}}  0x{:08x}  (not an image section)\n", printable(s.first), width, s.second);
    }
  }
  return out;
}

// ---- diff ----

struct DiffResult {
  std::string a, b;
  std::vector<Id> onlyA, onlyB;
  struct Section {
    std::string name;
    absl::optional<unsigned> a, b;  // absent: no address there
  };
  struct Changed {
    Id id;
    bool image = false;
    uint32_t sizeA = 0, sizeB = 0;
    std::vector<Section> sections;
  };
  std::vector<Changed> changed;
  bool equal() const { return onlyA.empty() && onlyB.empty() && changed.empty(); }
};

Json toJson(const DiffResult& r) {
  Json ja = Json::array(), jb = Json::array(), changed = Json::array();
  for (const Id& id : r.onlyA) ja.push(idJson(id));
  for (const Id& id : r.onlyB) jb.push(idJson(id));
  const auto address = [](const absl::optional<unsigned>& a) { return a ? Json(*a) : Json(); };
  for (const DiffResult::Changed& c : r.changed) {
    Json sections = Json::array();
    for (const DiffResult::Section& s : c.sections) {
      sections.push(Json::object().set("name", s.name).set("a", address(s.a)).set("b", address(s.b)));
    }
    changed.push(idJson(c.id).set("image", c.image).set("sections", std::move(sections)));
  }
  return Json::object()
      .set("a", r.a)
      .set("b", r.b)
      .set("equal", r.equal())
      .set("only_in_a", std::move(ja))
      .set("only_in_b", std::move(jb))
      .set("changed", std::move(changed));
}

std::string toText(const DiffResult& r) {
  std::string out;
  for (const Id& id : r.onlyA) out += fmt::format("only in {}: {}\n", r.a, format(id));
  for (const Id& id : r.onlyB) out += fmt::format("only in {}: {}\n", r.b, format(id));
  const auto address = [](const absl::optional<unsigned>& a) {
    return a ? fmt::format("0x{:08x}", *a) : std::string("-");
  };
  for (const DiffResult::Changed& c : r.changed) {
    if (c.image) out += fmt::format("changed {}: image ({} -> {} bytes)\n", format(c.id), c.sizeA, c.sizeB);
    for (const DiffResult::Section& s : c.sections) {
      out += fmt::format("changed {}: {} {} -> {}\n", format(c.id), printable(s.name), address(s.a), address(s.b));
    }
  }
  return out;
}

// ---- version ----

struct VersionResult {
  std::string file;  // empty: the tool's own
  uint32_t major = 0, minor = 0, patch = 0;
  std::string build;  // the tool's
  bool readable = false;
  std::string number() const { return fmt::format("{}.{}.{}", major, minor, patch); }
};

Json toJson(const VersionResult& r) {
  if (r.file.empty())
    return Json::object().set("kelodbg", KELODBG_VERSION).set("library", r.number()).set("build", r.build);
  return Json::object()
      .set("file", r.file)
      .set("version", r.number())
      .set("major", r.major)
      .set("minor", r.minor)
      .set("patch", r.patch)
      .set("readable", r.readable);
}

std::string toText(const VersionResult& r) {
  if (r.file.empty())
    return fmt::format("kelodbg {} (debug-info library {}, build {})\n", KELODBG_VERSION, r.number(), r.build);
  return r.number() + "\n";
}

}  // namespace

void listCommand(const ListOptions& o) {
  const Input input(o.file);
  const Store store(input);
  ListResult r{store.name(), store.version(), {}};
  for (const Id& id : store.ids()) {
    const IndexedEntry& entry = *store.find(id);
    r.entries.push_back({id, entry.imageSize, sortedSections(entry)});
  }
  emit(r, o.json);
}

void showCommand(const ShowOptions& o) {
  const Input input(o.file);
  const Id id = idFrom(o.id);
  const Store store(input);
  const IndexedEntry& entry = store.entry(id);
  const kelo_elf::ELF image = store.image(entry);
  emit(ShowResult{input.name(), id, image.size(), image.sectionNames(), sortedSections(entry)}, o.json);
}

int diffCommand(const DiffOptions& o) {
  const Input a(o.a), b(o.b);
  const Store storeA(a), storeB(b);
  DiffResult r;
  r.a = a.name();
  r.b = b.name();
  for (const Id& id : storeA.ids()) {
    const IndexedEntry* eb = storeB.find(id);
    if (eb == nullptr) {
      r.onlyA.push_back(id);
      continue;
    }
    const IndexedEntry& ea = *storeA.find(id);
    DiffResult::Changed c;
    c.id = id;
    c.image = !storeA.sameImage(ea, storeB, *eb);
    c.sizeA = ea.imageSize;
    c.sizeB = eb->imageSize;
    const std::map<std::string, unsigned> sa = sortedSections(ea), sb = sortedSections(*eb);
    std::set<std::string> names;
    for (const auto& s : sa) names.insert(s.first);
    for (const auto& s : sb) names.insert(s.first);
    for (const std::string& name : names) {
      auto fa = sa.find(name), fb = sb.find(name);
      if (fa != sa.end() && fb != sb.end() && fa->second == fb->second) continue;
      c.sections.push_back({name, fa == sa.end() ? absl::nullopt : absl::make_optional(fa->second),
                            fb == sb.end() ? absl::nullopt : absl::make_optional(fb->second)});
    }
    if (c.image || !c.sections.empty()) r.changed.push_back(std::move(c));
  }
  for (const Id& id : storeB.ids()) {
    if (storeA.find(id) == nullptr) r.onlyB.push_back(id);
  }
  emit(r, o.json);
  return r.equal() ? 0 : static_cast<int>(Exit::kFailure);
}

void versionCommand(const VersionOptions& o) {
  VersionResult r;
  if (o.file.empty()) {
    const char* build = "";
    keloDbgVersion(&r.major, &r.minor, &r.patch, &build);
    r.build = build;
  } else {
    const Input input(o.file);
    input.readVersion(r.major, r.minor, r.patch);
    r.file = input.name();
    r.readable = kelo_debuginfo::format::isReadableVersion(r.major, r.minor);
  }
  emit(r, o.json);
}

}  // namespace kelodbg
