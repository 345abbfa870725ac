// Differential fuzzing of DebugInfoList against a reference model.
//
// The input is decoded into a sequence of operations on two lists (add,
// merge, clear, renumber, section addresses, write and read back). Each runs
// on the real lists and on a model kept here: a std::map per list holding,
// for each identifier, the image's token, its sections, its section
// addresses, the identifier its image should carry and where the list keeps
// it. The model implements the rules directly, with plain loops, and every
// answer and the whole content of both lists (every identifier held, and a
// few that are not) are compared after each operation; any disagreement
// aborts.
//
// Images come from the image library's test double: each carries a unique
// token section "#<n>", so the model can tell which image sits where.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "double/elf_double.h"
#include "file/DebugInfoFile.h"
#include "kelo/DebugInfoList.h"
#include "memory_stream.h"

namespace {

using kelo_debuginfo::DebugInfoList;
using kelo_debuginfo::DebugInfoNewID;
using kelo_elf::DebugInfoID;

void check(bool ok) {
  if (!ok) std::abort();
}

using Key = uint64_t;  // kind << 32 | hi << 16 | lo

Key keyOf(const DebugInfoID& id) { return (uint64_t{id.kind} << 32) | (uint64_t{id.hi} << 16) | id.lo; }
DebugInfoID idOf(Key k) {
  return DebugInfoID(static_cast<uint8_t>(k >> 32), static_cast<uint16_t>(k & 0xffff),
                     static_cast<uint16_t>((k >> 16) & 0xffff));
}

struct ModelEntry {
  std::string token;                  // "#<n>": a section only this image has
  std::vector<std::string> sections;  // the image's sections, token included
  std::map<std::string, unsigned> addrs;
  bool stamped = false;  // whether the image's debugInfoID is engaged
  Key stamp = 0;
  kelo_elf::ELF* where = nullptr;  // the stored image; null once it may have moved
};
using Model = std::map<Key, ModelEntry>;

// Names that images may have, and names that are only ever asked for.
const char* const kImageSections[] = {".text", ".data", ".bss", ".debug_info", ".local", ""};
const char* const kQueryNames[] = {".text",     ".data",  ".bss",     ".debug_info", ".local",  "",
                                   ".constant", ".Local", "constant", ".constant.",  ".consta", ".LOCAL"};

// The identifiers the fuzzer mostly draws from: few enough to collide often.
// Kinds 2 and 255 take part like any other byte.
Key smallKey(uint8_t n) {
  static const uint8_t kinds[4] = {0, 1, 2, 255};
  const uint64_t kind = kinds[n & 3];
  const uint64_t lo = (n >> 2) & 3;
  const uint64_t hi = (n >> 4) & 1 ? 0x8001 : 0;
  return (kind << 32) | (hi << 16) | lo;
}

class Run {
 public:
  explicit Run(const uint8_t* data, size_t size) : in_(data, size) {}

  void go() {
    for (int step = 0; step < 256 && in_.remaining_bytes() > 0; ++step) {
      const unsigned op = in_.ConsumeIntegralInRange<unsigned>(0, 7);
      const int i = in_.ConsumeBool() ? 1 : 0;
      switch (op) {
        case 0:
        case 1:
          add(i);
          break;
        case 2:
          merge(i, in_.ConsumeBool() ? 1 : 0);
          break;
        case 3:
          clear(i);
          break;
        case 4:
        case 5:
          update(i);
          break;
        case 6:
          setAddr(i);
          break;
        case 7:
          roundTrip(i);
          break;
      }
      checkAll();
    }
  }

 private:
  Key drawKey() {
    if (in_.ConsumeIntegralInRange<int>(0, 7) == 0) {
      const uint8_t kind = in_.ConsumeIntegral<uint8_t>();
      const uint32_t number = in_.ConsumeIntegral<uint32_t>();
      return (uint64_t{kind} << 32) | number;
    }
    return smallKey(in_.ConsumeIntegral<uint8_t>());
  }

  // Mostly an identifier the list holds, sometimes any.
  Key drawKeyOf(int i) {
    const Model& m = model_[i];
    if (m.empty() || in_.ConsumeIntegralInRange<int>(0, 3) == 0) return drawKey();
    auto it = m.begin();
    std::advance(it, in_.ConsumeIntegralInRange<size_t>(0, m.size() - 1));
    return it->first;
  }

  std::string drawName() {
    const size_t n = sizeof kQueryNames / sizeof kQueryNames[0];
    const size_t pick = in_.ConsumeIntegralInRange<size_t>(0, n);
    if (pick < n) return kQueryNames[pick];
    return in_.ConsumeRandomLengthString(12);
  }

  bool accepted(const ModelEntry& e, const std::string& name) {
    if (name == ".constant" || name == ".local") return true;
    for (const std::string& s : e.sections)
      if (s == name) return true;
    return false;
  }

  void add(int i) {
    ModelEntry e;
    e.token = "#" + std::to_string(nextToken_++);
    const unsigned mask = in_.ConsumeIntegral<uint8_t>();
    for (size_t b = 0; b < sizeof kImageSections / sizeof kImageSections[0]; ++b)
      if (mask & (1u << b)) e.sections.push_back(kImageSections[b]);
    e.sections.push_back(e.token);
    kelo_elf::ELF image = elf_double::image(e.sections);
    // The caller's own identifier, which add must not touch when it refuses.
    const bool preset = in_.ConsumeBool();
    if (preset) image.debugInfoID = idOf(0x4242);

    const Key k = drawKey();
    auto it = model_[i].find(k);
    kelo_elf::ELF* got = lists_[i].add(idOf(k), std::move(image));
    if (it != model_[i].end()) {
      check(it->second.where == nullptr || got == it->second.where);
      check(got->hasSection(it->second.token));
      // The given image stays the caller's, as it was.
      check(image.hasSection(e.token));
      check(preset ? image.debugInfoID == idOf(0x4242) : !image.debugInfoID.has_value());
      return;
    }
    check(got->hasSection(e.token) && !image.hasSection(e.token));
    e.stamped = true;
    e.stamp = k;
    e.where = got;
    model_[i].emplace(k, std::move(e));
  }

  void merge(int dst, int src) {
    bool collides = false;
    for (const auto& e : model_[src])
      if (model_[dst].count(e.first) != 0) collides = true;
    const bool got = lists_[dst].merge(lists_[src]);
    check(got == !collides);
    if (!got || dst == src) return;
    for (auto& e : model_[src]) {
      e.second.where = nullptr;
      model_[dst].emplace(e.first, std::move(e.second));
    }
    model_[src].clear();
  }

  void clear(int i) {
    lists_[i].clear();
    model_[i].clear();
  }

  void update(int i) {
    std::vector<DebugInfoNewID> pairs;
    const size_t n = in_.ConsumeIntegralInRange<size_t>(0, 6);
    for (size_t p = 0; p < n; ++p) {
      const Key from = drawKeyOf(i);
      const Key to = drawKeyOf(i);
      pairs.push_back(DebugInfoNewID{idOf(from), idOf(to)});
    }

    // The four reasons for refusal, checked one after the other.
    bool ok = true;
    std::map<Key, Key> renumber;
    for (const DebugInfoNewID& p : pairs) {
      if (!renumber.emplace(keyOf(p.oldID), keyOf(p.newID)).second) ok = false;  // repeated old
    }
    std::set<Key> targets;
    for (const auto& r : renumber) {
      if (model_[i].count(r.first) == 0) ok = false;     // old not held
      if (!targets.insert(r.second).second) ok = false;  // repeated new
    }
    for (const auto& e : model_[i]) {
      if (renumber.count(e.first) == 0 && targets.count(e.first) != 0) ok = false;  // new held, not moved
    }

    const bool got = lists_[i].update(absl::MakeConstSpan(pairs));
    check(got == ok);
    if (!ok) return;
    Model next;
    for (auto& e : model_[i]) {
      Key k = e.first;
      auto r = renumber.find(k);
      if (r != renumber.end()) {
        k = r->second;
        e.second.stamped = true;
        e.second.stamp = k;
      }
      e.second.where = nullptr;  // every success moves every entry
      check(next.emplace(k, std::move(e.second)).second);
    }
    model_[i] = std::move(next);
  }

  void setAddr(int i) {
    const Key k = drawKeyOf(i);
    auto it = model_[i].find(k);
    std::string name = drawName();
    if (it != model_[i].end() && in_.ConsumeIntegralInRange<int>(0, 3) == 0) name = it->second.token;
    const unsigned addr = in_.ConsumeIntegral<uint32_t>();
    lists_[i].setSectionAddr(idOf(k), name, addr);
    if (it != model_[i].end() && accepted(it->second, name)) it->second.addrs[name] = addr;
  }

  // Write, read back, and carry on with the list that was read. Images read
  // from a file carry what the image library's load gives them: nothing.
  void roundTrip(int i) {
    kelo_fuzz::MemoryOut out;
    check(kelo_debuginfo::file::writeListTo(lists_[i], out.file()));
    std::vector<unsigned char> bytes = out.bytes();
    orvel_lib::io::File in = kelo_fuzz::readFrom(bytes);
    absl::optional<DebugInfoList> read = kelo_debuginfo::file::readListFrom(in);
    check(read.has_value());
    lists_[i] = std::move(*read);
    for (auto& e : model_[i]) {
      e.second.stamped = false;
      e.second.where = nullptr;
    }
  }

  void checkAll() {
    long images = 0;
    for (int i = 0; i < 2; ++i) {
      DebugInfoList& list = lists_[i];
      Model& m = model_[i];
      check(list.entries.size() == m.size());
      images += static_cast<long>(m.size());
      for (auto& e : m) {
        const DebugInfoID id = idOf(e.first);
        kelo_elf::ELF* got = list.find(id);
        check(got != nullptr);
        check(e.second.where == nullptr || e.second.where == got);
        e.second.where = got;
        check(got->hasSection(e.second.token));
        check(e.second.stamped ? got->debugInfoID == idOf(e.second.stamp) : !got->debugInfoID.has_value());
        for (const char* name : kQueryNames) {
          auto a = e.second.addrs.find(name);
          check(list.getSectionAddr(id, name) == (a == e.second.addrs.end() ? 0 : a->second));
        }
        for (const auto& a : e.second.addrs) check(list.getSectionAddr(id, a.first) == a.second);
      }
      for (unsigned n = 0; n < 32; ++n) {
        const Key k = smallKey(static_cast<uint8_t>(n));
        if (m.count(k) == 0) {
          check(list.find(idOf(k)) == nullptr);
          check(list.getSectionAddr(idOf(k), ".constant") == 0);
        }
      }
    }
    // Every image alive is one that a list holds: nothing leaked, nothing
    // copied.
    check(elf_double::control().liveImplementations == images);
  }

  FuzzedDataProvider in_;
  DebugInfoList lists_[2];
  Model model_[2];
  unsigned nextToken_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  elf_double::reset();
  Run(data, size).go();
  return 0;
}
