// `kelodbg place`: addresses for all allocated sections of entries at once,
// laid out from a base as a loader would, or read from a GNU ld link map.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "changes.h"
#include "link_map.h"
#include "place_command.h"
#include "text.h"

namespace kelodbg {
namespace {

constexpr uint64_t kAlloc = 0x2;  // SHF_ALLOC
constexpr size_t kMaxMapLine = 64 * 1024;

using Pairs = std::vector<std::pair<std::string, uint32_t>>;

// Reads the memory map part of a GNU ld map (-Map): every input section
// line " NAME ADDRESS SIZE OBJECT", where a long NAME stands alone on its
// line and the rest follows on the next. Output sections (at the start of
// the line), fill, patterns, symbols, and the discarded input sections
// listed before the memory map are not input sections placed.
LinkMap readLinkMap(TextInput& text) {
  LinkMapReader reader;
  std::string line;
  while (text.readLine(line, kMaxMapLine)) reader.line(line);
  if (!reader.sawMemoryMap()) {
    fail(Exit::kUsage, text.name(), "not a GNU ld link map (no \"Linker script and memory map\")");
  }
  return reader.take();
}

bool readAll(int fd, uint64_t at, uint64_t size, std::vector<unsigned char>& out) {
  out.resize(size);
  for (uint64_t done = 0; done < size;) {
    const ssize_t n = pread(fd, out.data() + done, size - done, static_cast<off_t>(at + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<uint64_t>(n);
  }
  return true;
}

// The bytes of an object a link map names: a file, or a member of an
// archive ("lib.a(member.o)"). Empty with `why` set when it cannot be read.
std::vector<unsigned char> objectBytes(const std::string& named, const std::string& mapDir, std::string& why) {
  std::string path = named, member;
  if (named.size() > 2 && named.back() == ')') {
    const size_t open = named.rfind('(');
    if (open != std::string::npos && open > 0) {
      path = named.substr(0, open);
      member = named.substr(open + 1, named.size() - open - 2);
    }
  }
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 && path[0] != '/' && !mapDir.empty()) fd = open((mapDir + "/" + path).c_str(), O_RDONLY | O_CLOEXEC);
  std::vector<unsigned char> bytes;
  if (fd < 0) {
    why = std::strerror(errno);
    return bytes;
  }
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    why = "not a regular file";
    close(fd);
    return bytes;
  }
  const uint64_t fileSize = static_cast<uint64_t>(st.st_size);
  if (member.empty()) {
    if (fileSize > UINT32_MAX) {
      why = "larger than an image can be";
    } else if (!readAll(fd, 0, fileSize, bytes)) {
      why = "cannot be read";
      bytes.clear();
    }
    close(fd);
    return bytes;
  }
  // An ar archive: "!<arch>\n", then members, each a 60-byte header (name,
  // dates and modes, size in decimal) and its bytes on an even offset. Long
  // names are "/N", N an offset into the "//" member's names ending "/\n".
  std::vector<unsigned char> header, longNames;
  if (!readAll(fd, 0, 8, header) || std::memcmp(header.data(), "!<arch>\n", 8) != 0) {
    why = "not an ar archive";
    close(fd);
    return bytes;
  }
  why = "no such member";
  for (uint64_t at = 8; at + 60 <= fileSize;) {
    if (!readAll(fd, at, 60, header)) break;
    const std::string fields(header.begin(), header.end());
    const uint64_t size = std::strtoull(fields.substr(48, 10).c_str(), nullptr, 10);
    if (size > fileSize - at - 60) break;
    std::string name = fields.substr(0, 16);
    name.erase(name.find_last_not_of(' ') + 1);
    if (name == "//") {
      if (!readAll(fd, at + 60, std::min<uint64_t>(size, 64 << 20), longNames)) break;
    } else if (name.size() > 1 && name[0] == '/' && std::isdigit(static_cast<unsigned char>(name[1]))) {
      const size_t offset = std::strtoul(name.c_str() + 1, nullptr, 10);
      name.clear();
      for (size_t i = offset; i < longNames.size() && longNames[i] != '\n'; ++i)
        name += static_cast<char>(longNames[i]);
    }
    if (!name.empty() && name.back() == '/') name.pop_back();
    if (name == member) {
      if (size > UINT32_MAX || !readAll(fd, at + 60, size, bytes)) {
        why = "cannot be read";
        bytes.clear();
      } else {
        why.clear();
      }
      break;
    }
    at += 60 + size + (size & 1);
  }
  close(fd);
  return bytes;
}

// The first three of `names` (printable already), and how many more.
std::string listed(const std::vector<std::string>& names) {
  std::string out;
  for (size_t i = 0; i < names.size() && i < 3; ++i) out += (i == 0 ? "" : ", ") + names[i];
  if (names.size() > 3) out += fmt::format(" and {} more", names.size() - 3);
  return out;
}

void placeFromMap(const PlaceOptions& o) {
  TextInput text(o.map, "<stdin> (the link map)");
  const LinkMap map = readLinkMap(text);
  const size_t slash = o.map.rfind('/');
  const std::string mapDir = slash == std::string::npos ? std::string() : o.map.substr(0, slash);

  Changed c(o.target);
  std::vector<PlannedEntry> plan = c.store.plan();
  std::multimap<uint32_t, const IndexedEntry*> bySize;
  for (const IndexedEntry* e : c.store.entries()) bySize.emplace(e->imageSize, e);

  std::vector<std::string> notStored, unreadable, warnings;
  std::vector<std::string> report;
  size_t placedEntries = 0, placedSections = 0;
  std::vector<unsigned char> stored;
  for (const std::string& object : map.objects) {
    std::string why;
    const std::vector<unsigned char> bytes = objectBytes(object, mapDir, why);
    if (!why.empty()) {
      unreadable.push_back(fmt::format("{} ({})", printable(object), why));
      continue;
    }
    bool found = false;
    const auto same = bySize.equal_range(static_cast<uint32_t>(bytes.size()));
    for (auto it = same.first; it != same.second; ++it) {
      const IndexedEntry& entry = *it->second;
      if (!c.store.view().readImage(entry, stored)) {
        fail(Exit::kFileIo, o.target.file,
             fmt::format("cannot read entry {}: {}", format(Id::of(entry.id)), std::strerror(errno)));
      }
      if (stored != bytes) continue;
      found = true;
      const Id id = Id::of(entry.id);
      const std::vector<kelo_elf::SectionHeader> headers = c.store.image(entry).sectionHeaders();
      std::set<std::string> allocated;
      for (const kelo_elf::SectionHeader& h : headers) {
        if ((h.flags & kAlloc) != 0) allocated.insert(h.name);
      }
      Pairs pairs;
      size_t beyond = 0;
      for (const MapSection& s : map.sections.at(object)) {
        if (std::any_of(pairs.begin(), pairs.end(), [&s](const auto& p) { return p.first == s.name; })) {
          warnings.push_back(fmt::format("{} has several sections {}; only the first has an address", printable(object),
                                         quoted(s.name)));
          continue;
        }
        // Only allocated sections have a run-time address (the map gives
        // debug sections 0).
        if (allocated.count(s.name) == 0) continue;
        if (s.address > UINT32_MAX || s.size - 1 > UINT32_MAX - s.address) {
          ++beyond;
          continue;
        }
        pairs.emplace_back(s.name, static_cast<uint32_t>(s.address));
      }
      if (beyond > 0) {
        warnings.push_back(
            fmt::format("{}: {} sections lie above 4 GiB and have no address (the file records 32-bit "
                        "addresses)",
                        printable(object), beyond));
      }
      // Allocated sections with bytes that the map does not place: a
      // linker's discarded duplicates, or sections of a name taken before.
      size_t unplaced = 0;
      for (const kelo_elf::SectionHeader& h : headers) {
        if ((h.flags & kAlloc) == 0 || h.size == 0) continue;
        if (std::none_of(pairs.begin(), pairs.end(), [&h](const auto& p) { return p.first == h.name; })) ++unplaced;
      }
      if (pairs.empty()) {
        report.push_back(fmt::format("{}  {}  nothing placed", format(id), printable(object)));
        continue;
      }
      recordAddresses(c, plan, id, pairs, o.target.file);
      ++placedEntries;
      placedSections += pairs.size();
      report.push_back(fmt::format("{}  {}  {} section{} placed{}", format(id), printable(object), pairs.size(),
                                   pairs.size() == 1 ? "" : "s",
                                   unplaced == 0 ? "" : fmt::format(", {} not in the map", unplaced)));
    }
    if (!found) notStored.push_back(printable(object));
  }
  if (placedEntries == 0) {
    fail(Exit::kAbsentId, o.target.file,
         fmt::format("no object of {} is stored in the file ({} objects in the map{})", printable(text.name()),
                     map.objects.size(), unreadable.empty() ? "" : ", some unreadable: " + listed(unreadable)));
  }
  std::string out;
  for (const std::string& line : report) out += line + "\n";
  out += fmt::format("placed {} section{} of {} entr{}\n", placedSections, placedSections == 1 ? "" : "s",
                     placedEntries, placedEntries == 1 ? "y" : "ies");
  if (!notStored.empty()) out += fmt::format("not stored: {} objects ({})\n", notStored.size(), listed(notStored));
  print(out);
  for (const std::string& w : warnings) {
    complain(fmt::format("kelodbg: {}: warning: {}\n", escapeControls(o.target.file), escapeControls(w)));
  }
  if (!unreadable.empty()) {
    complain(fmt::format("kelodbg: {}: warning: {} objects of the map could not be read: {}\n",
                         escapeControls(text.name()), unreadable.size(), escapeControls(listed(unreadable))));
  }
  c.out.writeWith([&plan](int fd) { return kelo_store::writePlanned(plan, fd); });
}

}  // namespace

void placeCommand(const PlaceOptions& o) {
  if (!o.map.empty()) {
    if (!o.id.empty() || !o.base.empty()) fail(Exit::kUsage, {}, "place takes ID --base ADDRESS, or --map LINKMAP");
    return placeFromMap(o);
  }
  if (o.id.empty() || o.base.empty()) fail(Exit::kUsage, {}, "place needs ID and --base ADDRESS (or --map LINKMAP)");
  const Id id = idFrom(o.id);
  const uint32_t base = addressFrom(o.base);
  Changed c(o.target);
  std::vector<PlannedEntry> plan = c.store.plan();
  PlannedEntry& entry = plannedOf(plan, c.store, id);
  const kelo_elf::ELF image = c.store.image(*entry.from);
  Pairs pairs;
  uint64_t cursor = base;
  for (const kelo_elf::SectionHeader& h : image.sectionHeaders()) {
    if ((h.flags & kAlloc) == 0 || h.size == 0) continue;
    const uint64_t align = h.addralign > 1 ? h.addralign : 1;
    const uint64_t at = (cursor + align - 1) / align * align;
    if (at + h.size - 1 > UINT32_MAX || at < cursor) {
      fail(Exit::kUsage, o.target.file,
           fmt::format("entry {} does not fit below 4 GiB from 0x{:08x} (section {})", format(id), base,
                       quoted(h.name)));
    }
    cursor = at + h.size;
    const bool taken = std::any_of(pairs.begin(), pairs.end(), [&h](const auto& p) { return p.first == h.name; });
    if (taken) {
      complain(fmt::format("kelodbg: {}: warning: entry {} has several sections {}; only the first has an address\n",
                           escapeControls(o.target.file), format(id), quoted(h.name)));
      continue;
    }
    pairs.emplace_back(h.name, static_cast<uint32_t>(at));
  }
  if (pairs.empty())
    fail(Exit::kNoSection, o.target.file, fmt::format("entry {} has no allocated section with bytes", format(id)));
  recordAddresses(c, plan, id, pairs, o.target.file);
  for (const auto& p : pairs) print(fmt::format("{}  0x{:08x}\n", printable(p.first), p.second));
  c.out.writeWith([&plan](int fd) { return kelo_store::writePlanned(plan, fd); });
}
}  // namespace kelodbg
