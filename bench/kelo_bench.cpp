// kelo_bench: how close writing and reading a debug-info file comes to what
// the machine can do, how it compares with a general serialisation library,
// and what the list costs over the bare standard map underneath it.
//
// Every figure is measured in one run, interleaved with its references
// (round after round, each case once per round, starting case rotated), after
// warm-up rounds; the median of the rounds is reported. Only the operation
// itself is timed: building inputs and destroying results are not.
//
//   kelo_bench [--quick] [--rounds N] [--dir DIR] [--only W1|W2|memory] [--ours-only]
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "bench_images.h"
#include "cereal/archives/binary.hpp"
#include "cereal/types/string.hpp"
#include "cereal/types/unordered_map.hpp"
#include "cereal/types/vector.hpp"
#include "kelo/DebugInfoList.h"
#include "kelo/debuginfo.h"
#include "kelo/elf.h"
#include "kelo/elf.hpp"

namespace {

using kelo_debuginfo::DebugInfoList;
using kelo_debuginfo::DebugInfoNewID;
using kelo_debuginfo::RelocELF;
using kelo_elf::DebugInfoID;
using Clock = std::chrono::steady_clock;

// For profiling: run only our own cases (the first of each interleaved set);
// the references are skipped and show as 0.
bool g_oursOnly = false;

[[noreturn]] void die(const std::string& what) {
  std::fprintf(stderr, "kelo_bench: %s\n", what.c_str());
  std::exit(2);
}

double since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const std::size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// One timed case: `run` does its own untimed preparation and clean-up and
// returns the seconds of the operation alone.
struct Case {
  std::string name;
  std::function<double()> run;
};

// Runs every case once per round, warm-up rounds first; returns the median
// seconds of each case over the measured rounds.
std::vector<double> interleave(const std::vector<Case>& cases, int warmup, int rounds) {
  std::vector<std::vector<double>> times(cases.size());
  for (int r = -warmup; r < rounds; ++r) {
    const std::size_t start = static_cast<std::size_t>(r + warmup) % cases.size();
    for (std::size_t k = 0; k < cases.size(); ++k) {
      const std::size_t i = (start + k) % cases.size();
      if (g_oursOnly && i != 0) {
        if (r >= 0) times[i].push_back(0);
        continue;
      }
      const double t = cases[i].run();
      if (r >= 0) times[i].push_back(t);
    }
  }
  std::vector<double> med;
  for (const auto& t : times) med.push_back(median(t));
  return med;
}

// ---- Report ----

struct Row {
  std::string label;
  double ours;                                       // seconds
  std::vector<std::pair<std::string, double>> refs;  // reference name, seconds
};

struct Target {
  std::string what;
  double value;  // measured ratio
  double bound;
  bool atLeast;  // value >= bound passes (else value <= bound)
};

std::vector<Row> g_rows;
std::vector<Target> g_targets;

void printRows() {
  std::printf("\n%-34s %10s  %s\n", "figure", "ours ms", "reference: ms, ratio");
  for (const Row& row : g_rows) {
    std::printf("%-34s %10.2f ", row.label.c_str(), row.ours * 1e3);
    for (const auto& ref : row.refs) {
      std::printf(" | %s %.2f ms x%.2f", ref.first.c_str(), ref.second * 1e3, ref.second / row.ours);
    }
    std::printf("\n");
  }
}

void printTargets() {
  std::printf("\n%-58s %8s %8s  %s\n", "target", "measured", "bound", "result");
  for (const Target& t : g_targets) {
    const bool pass = t.atLeast ? t.value >= t.bound : t.value <= t.bound;
    std::printf("%-58s %8.2f %6s%.2f  %s\n", t.what.c_str(), t.value, t.atLeast ? ">=" : "<=", t.bound,
                pass ? "PASS" : "MISS");
  }
}

// ---- Files ----

struct Options {
  bool quick = false;
  int rounds = 7;
  int warmup = 2;
  std::string dir = "/tmp";
  std::string only;  // W1, W2 or memory; empty for all
};

std::string tempPath(const Options& o, const char* tag) {
  return o.dir + "/kelo_bench_" + std::to_string(getpid()) + "_" + tag;
}

std::vector<unsigned char> slurp(const std::string& path) {
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) die("cannot open " + path);
  std::vector<unsigned char> bytes;
  unsigned char buf[1 << 16];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof(buf), f)) > 0) bytes.insert(bytes.end(), buf, buf + n);
  std::fclose(f);
  return bytes;
}

// Where each entry of a debug-info file lies: the 13-byte head (identifier
// and image length), the image, and the section block (count and records).
struct EntrySpan {
  std::size_t head, image, imageSize, sections, end;
};

uint64_t le(const std::vector<unsigned char>& b, std::size_t at, unsigned width) {
  if (at + width > b.size()) die("debug-info file ends early");
  uint64_t v = 0;
  for (unsigned i = 0; i < width; ++i) v |= uint64_t{b[at + i]} << (8 * i);
  return v;
}

std::vector<EntrySpan> splitFile(const std::vector<unsigned char>& b) {
  std::vector<EntrySpan> spans;
  const uint64_t count = le(b, 12, 8);
  std::size_t at = 20;
  for (uint64_t i = 0; i < count; ++i) {
    EntrySpan s;
    s.head = at;
    s.imageSize = le(b, at + 5, 8);
    s.image = at + 13;
    s.sections = s.image + s.imageSize;
    const uint64_t records = le(b, s.sections, 8);
    at = s.sections + 8;
    for (uint64_t r = 0; r < records; ++r) at += 8 + le(b, at, 8) + 4;
    s.end = at;
    spans.push_back(s);
  }
  if (at != b.size()) die("debug-info file has trailing bytes");
  return spans;
}

// ---- The same data for cereal ----

struct CId {
  uint8_t kind = 0;
  uint16_t lo = 0, hi = 0;
  bool operator==(const CId& o) const { return kind == o.kind && lo == o.lo && hi == o.hi; }
  template <class A>
  void serialize(A& a) {
    a(kind, lo, hi);
  }
};
struct CIdHash {
  std::size_t operator()(const CId& id) const { return DebugInfoID(id.kind, id.lo, id.hi).hash(); }
};
struct CEntry {
  std::vector<unsigned char> image;
  std::unordered_map<std::string, uint32_t> sections;
  template <class A>
  void serialize(A& a) {
    a(image, sections);
  }
};
using CMap = std::unordered_map<CId, CEntry, CIdHash>;

// ---- File workloads ----

struct FileWorkload {
  const char* name;
  bool is64;
  std::size_t entries;
  std::size_t imageSize;
  std::vector<std::string> sectionNames;  // sections of every image
  std::size_t bigIndex;
  std::vector<std::string> addrNames;  // section addresses recorded per entry
};

DebugInfoID idOf(std::size_t i) {
  const uint32_t n = static_cast<uint32_t>(i + 1);
  return DebugInfoID(1, static_cast<uint16_t>(n & 0xffff), static_cast<uint16_t>(n >> 16));
}

void runFileWorkload(const FileWorkload& w, const Options& o) {
  std::printf("%s: %zu entries, %zu-byte ELF%d images, %zu section addresses each\n", w.name, w.entries, w.imageSize,
              w.is64 ? 64 : 32, w.addrNames.size());
  std::fflush(stdout);
  const std::vector<unsigned char> base = kelo_bench::makeElf(w.is64, w.imageSize, w.sectionNames, w.bigIndex);
  if (base.empty()) die("cannot lay out the benchmark image");

  // Our list, built through the C interface as a caller would; and the same
  // data for cereal.
  keloDbgList list = keloDbgAlloc();
  CMap cmap;
  cmap.max_load_factor(1.0f);
  for (std::size_t i = 0; i < w.entries; ++i) {
    std::vector<unsigned char> bytes = base;
    kelo_bench::stampElf(bytes, w.is64, w.bigIndex, static_cast<uint32_t>(i));
    keloElf* image = keloElfLoad(bytes.data(), bytes.size());
    if (image == nullptr) die("the benchmark image does not load");
    const DebugInfoID id = idOf(i);
    if (keloDbgAdd(list, image, id.lo, id.hi) == nullptr) die("keloDbgAdd failed");
    keloElfFree(image);
    CEntry& ce = cmap[CId{id.kind, id.lo, id.hi}];
    ce.image = std::move(bytes);
    for (std::size_t k = 0; k < w.addrNames.size(); ++k) {
      const uint32_t addr = static_cast<uint32_t>(0x1000 * (k + 1) + i);
      keloDbgSetSectionAddr(list, keloDbgID{1, id.number()}, w.addrNames[k].c_str(), addr);
      ce.sections[w.addrNames[k]] = addr;
    }
  }
  for (std::size_t k = 0; k < w.addrNames.size(); ++k) {
    if (keloDbgGetSectionAddr(list, keloDbgID{1, 1}, w.addrNames[k].c_str()) != 0x1000 * (k + 1))
      die("section address " + w.addrNames[k] + " was not recorded");
  }

  const std::string ourPath = tempPath(o, "ours.dbg");
  const std::string onePath = tempPath(o, "one.bin");
  const std::string stdioPath = tempPath(o, "stdio.bin");
  const std::string cerealPath = tempPath(o, "cereal.bin");

  // The reference bytes are exactly the file we write.
  if (!keloDbgWrite(list, ourPath.c_str())) die("keloDbgWrite failed");
  std::vector<unsigned char> fileBytes = slurp(ourPath);
  const std::vector<EntrySpan> spans = splitFile(fileBytes);
  if (spans.size() != w.entries) die("the written file holds the wrong number of entries");
  std::vector<unsigned char> readBuf(fileBytes.size(), 1);  // touched once, reused
  const std::size_t total = fileBytes.size();

  auto writeOne = [&]() {
    const auto t0 = Clock::now();
    std::FILE* f = std::fopen(onePath.c_str(), "wb");
    if (f == nullptr || std::fwrite(fileBytes.data(), 1, total, f) != total) die("one-call write failed");
    std::fclose(f);
    return since(t0);
  };
  auto writeStdio = [&]() {
    const auto t0 = Clock::now();
    std::FILE* f = std::fopen(stdioPath.c_str(), "wb");
    if (f == nullptr) die("cannot create " + stdioPath);
    bool ok = std::fwrite(fileBytes.data(), 1, 20, f) == 20;
    for (const EntrySpan& s : spans) {
      ok = ok && std::fwrite(&fileBytes[s.head], 1, 13, f) == 13;
      ok = ok && std::fwrite(&fileBytes[s.image], 1, s.imageSize, f) == s.imageSize;
      ok = ok && std::fwrite(&fileBytes[s.sections], 1, s.end - s.sections, f) == s.end - s.sections;
    }
    std::fclose(f);
    if (!ok) die("stdio write failed");
    return since(t0);
  };
  auto writeCereal = [&]() {
    const auto t0 = Clock::now();
    {
      std::ofstream os(cerealPath, std::ios::binary | std::ios::trunc);
      cereal::BinaryOutputArchive ar(os);
      ar(cmap);
    }
    return since(t0);
  };
  // The floor set by memory alone: visit every entry in the order the writer
  // does (the map's), touching the identifier, the image and every section
  // record, with no I/O. A list handle is a DebugInfoList.
  const DebugInfoList& listObj = *reinterpret_cast<const DebugInfoList*>(list);
  volatile uint64_t walkSink = 0;
  auto walk = [&]() {
    const auto t0 = Clock::now();
    uint64_t acc = 0;
    for (const auto& entry : listObj.entries) {
      acc += entry.first.number() + entry.second.elf.size();
      for (const auto& sec : entry.second.sectionAddrs) acc += sec.first.size() + sec.second;
    }
    const double t = since(t0);
    walkSink = walkSink + acc;
    return t;
  };
  auto writeOurs = [&]() {
    const auto t0 = Clock::now();
    if (!keloDbgWrite(list, ourPath.c_str())) die("keloDbgWrite failed");
    return since(t0);
  };

  auto readOne = [&]() {
    const auto t0 = Clock::now();
    std::FILE* f = std::fopen(onePath.c_str(), "rb");
    if (f == nullptr || std::fread(readBuf.data(), 1, total, f) != total) die("one-call read failed");
    std::fclose(f);
    return since(t0);
  };
  auto readStdio = [&]() {
    const auto t0 = Clock::now();
    std::FILE* f = std::fopen(stdioPath.c_str(), "rb");
    if (f == nullptr) die("cannot open " + stdioPath);
    bool ok = std::fread(readBuf.data(), 1, 20, f) == 20;
    for (const EntrySpan& s : spans) {
      ok = ok && std::fread(&readBuf[s.head], 1, 13, f) == 13;
      ok = ok && std::fread(&readBuf[s.image], 1, s.imageSize, f) == s.imageSize;
      ok = ok && std::fread(&readBuf[s.sections], 1, s.end - s.sections, f) == s.end - s.sections;
    }
    std::fclose(f);
    if (!ok) die("stdio read failed");
    return since(t0);
  };
  std::size_t cerealRead = 0;
  auto readCereal = [&]() {
    auto* m = new CMap;
    const auto t0 = Clock::now();
    {
      std::ifstream is(cerealPath, std::ios::binary);
      cereal::BinaryInputArchive ar(is);
      ar(*m);
    }
    const double t = since(t0);
    cerealRead = m->size();
    delete m;
    return t;
  };
  std::size_t oursRead = 0;
  auto readOurs = [&]() {
    const auto t0 = Clock::now();
    keloDbgList back = keloDbgRead(ourPath.c_str());
    const double t = since(t0);
    if (back == nullptr) die("keloDbgRead failed");
    oursRead = 0;
    for (keloDbgIterator it = keloDbgIter(back); it != nullptr;) {
      ++oursRead;
      if (!keloDbgIterNext(it)) {
        keloDbgIterFree(it);
        break;
      }
    }
    keloDbgFree(back);
    return t;
  };

  // Writes first: the reads need every file in place.
  std::vector<double> wr = interleave(
      {{"ours", writeOurs}, {"one call", writeOne}, {"stdio x3", writeStdio}, {"cereal", writeCereal}, {"walk", walk}},
      o.warmup, o.rounds);
  if (!g_oursOnly && (slurp(onePath) != fileBytes || slurp(stdioPath) != fileBytes))
    die("reference files differ from ours");
  std::vector<double> rd = interleave(
      {{"ours", readOurs}, {"one call", readOne}, {"stdio x3", readStdio}, {"cereal", readCereal}}, o.warmup, o.rounds);
  if (!g_oursOnly && readBuf != fileBytes) die("reference reads differ from the file");
  if (oursRead != w.entries || (!g_oursOnly && cerealRead != w.entries)) die("a read lost entries");

  const double mib = static_cast<double>(total) / (1 << 20);
  std::printf("  file %.1f MiB (cereal's %.1f MiB); ours: write %.0f MiB/s, read %.0f MiB/s\n", mib,
              g_oursOnly ? 0.0 : static_cast<double>(slurp(cerealPath).size()) / (1 << 20), mib / wr[0], mib / rd[0]);
  g_rows.push_back({std::string(w.name) + " write (keloDbgWrite)",
                    wr[0],
                    {{"one call", wr[1]}, {"stdio x3", wr[2]}, {"cereal", wr[3]}, {"walk", wr[4]}}});
  g_rows.push_back({std::string(w.name) + " read (keloDbgRead)",
                    rd[0],
                    {{"one call", rd[1]}, {"stdio x3", rd[2]}, {"cereal", rd[3]}}});

  const std::string n = w.name;
  if (n == "W1") {
    g_targets.push_back({"W1 write throughput / one-call write", wr[1] / wr[0], 0.6, true});
    g_targets.push_back({"W1 write throughput / cereal", wr[3] / wr[0], 1.4, true});
    g_targets.push_back({"W1 read throughput / one-call read", rd[1] / rd[0], 0.6, true});
    g_targets.push_back({"W1 read throughput / cereal", rd[3] / rd[0], 2.0, true});
  } else {
    g_targets.push_back({"W2 write throughput / one-call write", wr[1] / wr[0], 0.2, true});
    g_targets.push_back({"W2 write throughput / cereal", wr[3] / wr[0], 3.0, true});
    g_targets.push_back({"W2 read throughput / cereal", rd[3] / rd[0], 1.5, true});
  }

  keloDbgFree(list);
  for (const std::string& p : {ourPath, onePath, stdioPath, cerealPath}) std::remove(p.c_str());
}

// ---- In-memory workloads ----

using BareMap = std::unordered_map<DebugInfoID, RelocELF>;

BareMap newBare() {
  BareMap m;
  m.max_load_factor(1.0f);
  return m;
}

void runMemory(std::size_t n, const Options& o) {
  std::printf("memory: %zu entries, 256-byte ELF32 images\n", n);
  std::fflush(stdout);
  const std::vector<std::string> names = {".text", ".data"};
  std::vector<unsigned char> base = kelo_bench::makeElf(false, 256, names, 1);
  std::vector<kelo_elf::ELF> pool;  // images that the add cases move in and back out
  std::vector<keloElf*> cImages;    // the caller's images for keloDbgAdd
  std::vector<DebugInfoID> ids;
  for (std::size_t i = 0; i < n; ++i) {
    kelo_bench::stampElf(base, false, 1, static_cast<uint32_t>(i));
    auto image = kelo_elf::ELF::load(absl::MakeConstSpan(base));
    if (!image) die("the benchmark image does not load");
    pool.push_back(std::move(*image));
    cImages.push_back(keloElfLoad(base.data(), base.size()));
    ids.push_back(idOf(i));
  }

  // Returns the images of `entries` to the pool, untimed.
  auto giveBack = [&](auto& entries) {
    for (std::size_t i = 0; i < n; ++i) {
      auto it = entries.find(ids[i]);
      if (it == entries.end()) die("an entry went missing");
      pool[i] = std::move(it->second.elf);
    }
  };

  // add: n new entries into an empty list / bare map.
  auto addClass = [&]() {
    DebugInfoList list;
    list.entries.max_load_factor(1.0f);
    const auto t0 = Clock::now();
    for (std::size_t i = 0; i < n; ++i) list.add(ids[i], std::move(pool[i]));
    const double t = since(t0);
    giveBack(list.entries);
    return t;
  };
  auto addBare = [&]() {
    BareMap m = newBare();
    const auto t0 = Clock::now();
    for (std::size_t i = 0; i < n; ++i) m.try_emplace(ids[i], std::move(pool[i]));
    const double t = since(t0);
    giveBack(m);
    return t;
  };
  auto addC = [&]() {
    keloDbgList list = keloDbgAlloc();
    const auto t0 = Clock::now();
    for (std::size_t i = 0; i < n; ++i) {
      if (keloDbgAdd(list, cImages[i], ids[i].lo, ids[i].hi) == nullptr) die("keloDbgAdd failed");
    }
    const double t = since(t0);
    keloDbgFree(list);
    return t;
  };
  std::vector<double> add = interleave({{"class", addClass}, {"bare", addBare}, {"C", addC}}, o.warmup, o.rounds);
  g_rows.push_back({"add (DebugInfoList::add)", add[0], {{"bare map", add[1]}}});
  g_rows.push_back({"add (keloDbgAdd, copies image)", add[2], {{"bare map", add[1]}, {"class add", add[0]}}});

  // find: n lookups in shuffled order on a full list / bare map.
  std::vector<DebugInfoID> order = ids;
  std::shuffle(order.begin(), order.end(), std::mt19937(42));
  DebugInfoList full;
  full.entries.max_load_factor(1.0f);
  // Every lookup and renumbering runs on this one list: the bare figures use
  // its map directly (the list's public `entries`), the C figures its handle
  // (a list handle is a DebugInfoList). All see the same nodes in the same
  // memory, so the ratios show what the operations add to the map.
  BareMap& fullBare = full.entries;
  keloDbgList fullC = reinterpret_cast<keloDbgList>(&full);
  for (std::size_t i = 0; i < n; ++i) full.add(ids[i], std::move(pool[i]));
  volatile std::uintptr_t sink = 0;
  auto findClass = [&]() {
    std::uintptr_t acc = 0;
    const auto t0 = Clock::now();
    for (const DebugInfoID& id : order) acc += reinterpret_cast<std::uintptr_t>(full.find(id));
    const double t = since(t0);
    sink = sink + acc;
    return t;
  };
  auto findBare = [&]() {
    std::uintptr_t acc = 0;
    const auto t0 = Clock::now();
    for (const DebugInfoID& id : order) {
      auto it = fullBare.find(id);
      acc += it == fullBare.end() ? 0 : reinterpret_cast<std::uintptr_t>(&it->second.elf);
    }
    const double t = since(t0);
    sink = sink + acc;
    return t;
  };
  auto findC = [&]() {
    std::uintptr_t acc = 0;
    const auto t0 = Clock::now();
    for (const DebugInfoID& id : order) acc += reinterpret_cast<std::uintptr_t>(keloDbgFind(fullC, {1, id.number()}));
    const double t = since(t0);
    sink = sink + acc;
    return t;
  };
  // Lookups are short: repeat them so that each timing covers enough work.
  const int findRepeat = 5;
  auto repeated = [findRepeat](std::function<double()> f) {
    return [f, findRepeat]() {
      double t = 0;
      for (int i = 0; i < findRepeat; ++i) t += f();
      return t;
    };
  };
  std::vector<double> find = interleave(
      {{"class", repeated(findClass)}, {"bare", repeated(findBare)}, {"C", repeated(findC)}}, o.warmup, o.rounds);
  g_rows.push_back({"find x5 (DebugInfoList::find)", find[0], {{"bare map", find[1]}}});
  g_rows.push_back({"find x5 (keloDbgFind)", find[2], {{"bare map", find[1]}}});
  g_targets.push_back({"find cost / bare map lookup", find[0] / find[1], 1.3, false});

  // update: every entry renumbered (number + n, then back), on the full list;
  // the bare map re-keys its nodes into a new map by the same pairs.
  std::vector<DebugInfoNewID> up, down;
  for (const DebugInfoID& id : ids) {
    const uint32_t moved = id.number() + static_cast<uint32_t>(n);
    const DebugInfoID to(1, static_cast<uint16_t>(moved & 0xffff), static_cast<uint16_t>(moved >> 16));
    up.push_back({id, to});
    down.push_back({to, id});
  }
  // Each case applies `up` or `down`, whichever fits the list's present
  // numbering, so that rounds of different cases can follow each other.
  bool isUp = false;
  auto updateClass = [&]() {
    const auto t0 = Clock::now();
    const bool ok = full.update(isUp ? down : up);
    const double t = since(t0);
    if (!ok) die("update refused");
    isUp = !isUp;
    return t;
  };
  auto updateBare = [&]() {
    const std::vector<DebugInfoNewID>& pairs = isUp ? down : up;
    const auto t0 = Clock::now();
    BareMap next = newBare();
    next.reserve(fullBare.size());
    for (const DebugInfoNewID& p : pairs) {
      auto node = fullBare.extract(p.oldID);
      node.key() = p.newID;
      next.insert(std::move(node));
    }
    fullBare = std::move(next);
    const double t = since(t0);
    isUp = !isUp;
    return t;
  };
  // The same re-keying as C++11 code would write it: a new map of moved
  // values, one node allocated per entry.
  auto updateBareMoved = [&]() {
    const std::vector<DebugInfoNewID>& pairs = isUp ? down : up;
    const auto t0 = Clock::now();
    BareMap next = newBare();
    next.reserve(fullBare.size());
    for (const DebugInfoNewID& p : pairs) {
      auto it = fullBare.find(p.oldID);
      next.try_emplace(p.newID, std::move(it->second));
    }
    fullBare = std::move(next);
    const double t = since(t0);
    isUp = !isUp;
    return t;
  };
  std::vector<double> update =
      interleave({{"class", updateClass}, {"bare", updateBare}, {"bare moved", updateBareMoved}}, o.warmup, o.rounds);
  g_rows.push_back({"update, every entry (update)",
                    update[0],
                    {{"bare re-key (node moves)", update[1]}, {"bare re-key (new nodes)", update[2]}}});
  g_targets.push_back({"update cost / bare map re-keying", update[0] / update[1], 2.0, false});
  if (isUp && !full.update(down)) die("update refused");
  giveBack(full.entries);
  full.clear();

  // merge: two lists of n/2 entries each; the bare maps merge their nodes.
  const std::size_t half = n / 2;
  auto mergeClass = [&]() {
    DebugInfoList a, b;
    a.entries.max_load_factor(1.0f);
    b.entries.max_load_factor(1.0f);
    for (std::size_t i = 0; i < n; ++i) (i < half ? a : b).add(ids[i], std::move(pool[i]));
    const auto t0 = Clock::now();
    const bool ok = a.merge(b);
    const double t = since(t0);
    if (!ok) die("merge refused");
    giveBack(a.entries);
    return t;
  };
  auto mergeBare = [&]() {
    BareMap a = newBare(), b = newBare();
    for (std::size_t i = 0; i < n; ++i) (i < half ? a : b).try_emplace(ids[i], std::move(pool[i]));
    const auto t0 = Clock::now();
    a.merge(b);
    const double t = since(t0);
    giveBack(a);
    return t;
  };
  std::vector<double> merge = interleave({{"class", mergeClass}, {"bare", mergeBare}}, o.warmup, o.rounds);
  g_rows.push_back({"merge n/2 into n/2 (merge)", merge[0], {{"bare map merge", merge[1]}}});

  for (keloElf* image : cImages) keloElfFree(image);
}

Options parseOptions(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--quick") {
      o.quick = true;
      o.rounds = 3;
      o.warmup = 1;
    } else if (a == "--rounds" && i + 1 < argc) {
      o.rounds = std::max(1, std::atoi(argv[++i]));
    } else if (a == "--ours-only") {
      g_oursOnly = true;
    } else if (a == "--only" && i + 1 < argc) {
      o.only = argv[++i];
    } else if (a == "--dir" && i + 1 < argc) {
      o.dir = argv[++i];
    } else {
      std::fprintf(stderr,
                   "usage: kelo_bench [--quick] [--rounds N] [--dir DIR] [--only W1|W2|memory] [--ours-only]\n");
      std::exit(a == "--help" || a == "-h" ? 0 : 2);
    }
  }
  return o;
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parseOptions(argc, argv);
  std::printf("kelo_bench%s: %d warm-up and %d measured rounds, medians; files in %s\n", o.quick ? " --quick" : "",
              o.warmup, o.rounds, o.dir.c_str());
  std::printf("ratios are reference time / our time: above 1 means ours is faster\n\n");

  const std::vector<std::string> w1Sections = {".text",    ".data",           ".rodata",     ".bss",
                                               ".comment", ".note.GNU-stack", ".debug_info", ".debug_line"};
  const FileWorkload w1{"W1",
                        true,
                        o.quick ? 500u : 2000u,
                        64 * 1024,
                        w1Sections,
                        1,
                        {".text", ".data", ".rodata", ".bss", ".comment", ".debug_info", ".debug_line", ".local"}};
  const FileWorkload w2{"W2", false, o.quick ? 20000u : 100000u, 256, {".text", ".data"}, 1, {".text", ".data"}};
  auto wanted = [&o](const char* name) { return o.only.empty() || o.only == name; };
  if (wanted("W1")) runFileWorkload(w1, o);
  if (wanted("W2")) runFileWorkload(w2, o);
  if (wanted("memory")) runMemory(o.quick ? 20000 : 100000, o);

  printRows();
  printTargets();
  std::printf("\n(targets are informational; the exit status does not depend on them)\n");
  return 0;
}
