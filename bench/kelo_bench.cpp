// kelo_bench: how close writing and reading a debug-info file comes to what
// the machine can do and to a general serialisation library (cereal's
// binary archive), what renumbering costs over the bare standard map, and how
// much memory reading, creating and checking files take.
//
// Google Benchmark drives the timed rows. In every iteration of a row each
// of its cases (ours and its peers) runs once, in an order rotated from one
// iteration to the next, so that a machine busy with other work slows them
// alike; the medians of the cases' times give the ratios of the summary
// table printed at the end. The memory rows run first, each in a child
// process started while this one is still small, and report its peak
// resident memory (getrusage's ru_maxrss).
//
//   kelo_bench [--quick] [Google Benchmark flags]
//
// --quick (or KELO_BENCH_QUICK=1) shrinks every workload so that the whole
// run takes well under a minute. Files go to KELO_BENCH_DIR (default /tmp)
// and are removed at the end. The kelodbg rows need the tool: built in the
// same tree, or named by KELO_BENCH_KELODBG.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "bench_images.h"
#include "capi/handles.h"
#include "cereal/archives/binary.hpp"
#include "cereal/types/string.hpp"
#include "cereal/types/unordered_map.hpp"
#include "cereal/types/vector.hpp"
#include "file/format.h"
#include "kelo/DebugInfoList.h"
#include "kelo/debuginfo.h"
#include "kelo/elf.h"
#include "kelo/elf.hpp"

namespace {

using kelo_debuginfo::DebugInfoList;
using kelo_debuginfo::DebugInfoNewID;
using kelo_debuginfo::RelocELF;
using kelo_elf::DebugInfoID;
using Bytes = std::vector<unsigned char>;
using Clock = std::chrono::steady_clock;

[[noreturn]] void die(const std::string& what) {
  std::fprintf(stderr, "kelo_bench: %s\n", what.c_str());
  std::exit(2);
}

double since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

struct Options {
  bool quick = false;
  std::string dir = "/tmp";
  std::string kelodbg;
};
Options g_options;

std::string tempPath(const std::string& tag) {
  return g_options.dir + "/kelo_bench_" + std::to_string(getpid()) + "_" + tag;
}
std::vector<std::string> g_files;  // removed at the end
std::string newFile(const std::string& tag) {
  g_files.push_back(tempPath(tag));
  return g_files.back();
}

Bytes readWhole(const std::string& path) {
  Bytes out;
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) die("cannot open " + path);
  unsigned char buf[1 << 16];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.insert(out.end(), buf, buf + n);
  std::fclose(f);
  return out;
}

void writeWhole(const std::string& path, const Bytes& bytes) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size() || std::fclose(f) != 0)
    die("cannot write " + path);
}

DebugInfoID idOf(std::size_t i) {
  const uint32_t n = static_cast<uint32_t>(i + 1);
  return DebugInfoID(1, static_cast<uint16_t>(n & 0xffff), static_cast<uint16_t>(n >> 16));
}

// ---- Samples and the summary ----

// Seconds per run of each case, by row and case name.
std::map<std::string, std::map<std::string, std::vector<double>>> g_samples;

double median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  const std::size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}
double medianOf(const std::string& row, const std::string& name) { return median(g_samples[row][name]); }

// One case of a row: runs once and returns the seconds of the operation
// alone (it prepares and cleans up untimed).
struct Case {
  std::string name;
  std::function<double()> run;
};

// One benchmark iteration of a row: every case once, starting with another
// one each time; Google Benchmark gets our time.
void runRow(benchmark::State& state, const std::string& row, const std::vector<Case>& cases) {
  std::size_t start = 0;
  for (auto _ : state) {
    double ours = 0;
    for (std::size_t k = 0; k < cases.size(); ++k) {
      const Case& c = cases[(start + k) % cases.size()];
      const double t = c.run();
      g_samples[row][c.name].push_back(t);
      if (c.name == "ours") ours = t;
    }
    state.SetIterationTime(ours);
    ++start;
  }
}

// ---- File workloads: our list, and the same data for cereal ----

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

struct FileWorkload {
  FileWorkload(std::string n, bool elf64, std::size_t count, std::size_t size, std::vector<std::string> sections,
               std::vector<std::string> addrs)
      : name(std::move(n)),
        is64(elf64),
        entries(count),
        imageSize(size),
        sectionNames(std::move(sections)),
        addrNames(std::move(addrs)) {}

  std::string name;
  bool is64;
  std::size_t entries;
  std::size_t imageSize;
  std::vector<std::string> sectionNames;  // sections of every image
  std::vector<std::string> addrNames;     // section addresses recorded per entry

  // Built on first use.
  keloDbgList list = nullptr;
  CMap cmap;
  std::string ours, limit, cereal;  // file paths
  Bytes fileBytes;                  // our file: what the limit writes
  Bytes readBuffer;                 // where the limit reads, touched beforehand

  void build() {
    if (list != nullptr) return;
    const Bytes base = kelo_bench::makeElf(is64, imageSize, sectionNames, 1);
    if (base.empty()) die("cannot lay out the benchmark image");
    // Our list built through the C interface as a caller would.
    list = keloDbgAlloc();
    cmap.max_load_factor(1.0f);
    for (std::size_t i = 0; i < entries; ++i) {
      Bytes bytes = base;
      kelo_bench::stampElf(bytes, is64, 1, static_cast<uint32_t>(i));
      keloElf* image = keloElfLoad(bytes.data(), bytes.size());
      const DebugInfoID id = idOf(i);
      if (image == nullptr || keloDbgAdd(list, image, id.lo, id.hi) == nullptr) die("cannot add an image");
      keloElfFree(image);
      CEntry& ce = cmap[CId{id.kind, id.lo, id.hi}];
      ce.image = std::move(bytes);
      for (std::size_t k = 0; k < addrNames.size(); ++k) {
        const uint32_t addr = static_cast<uint32_t>(0x1000 * (k + 1) + i);
        keloDbgSetSectionAddr(list, keloDbgID{1, id.number()}, addrNames[k].c_str(), addr);
        ce.sections[addrNames[k]] = addr;
      }
    }
    ours = newFile(name + ".kdbg");
    limit = newFile(name + ".limit");
    cereal = newFile(name + ".cereal");
    if (!keloDbgWrite(list, ours.c_str())) die("keloDbgWrite failed");
    fileBytes = readWhole(ours);
    readBuffer.assign(fileBytes.size(), 1);
    writeWhole(limit, fileBytes);
    writeCereal();
  }

  double writeOurs() {
    const auto t0 = Clock::now();
    if (!keloDbgWrite(list, ours.c_str())) die("keloDbgWrite failed");
    return since(t0);
  }
  double writeLimit() {
    const auto t0 = Clock::now();
    std::FILE* f = std::fopen(limit.c_str(), "wb");
    if (f == nullptr || std::fwrite(fileBytes.data(), 1, fileBytes.size(), f) != fileBytes.size())
      die("one-call write failed");
    std::fclose(f);
    return since(t0);
  }
  double writeCereal() {
    const auto t0 = Clock::now();
    {
      std::ofstream os(cereal, std::ios::binary | std::ios::trunc);
      cereal::BinaryOutputArchive ar(os);
      ar(cmap);
    }
    return since(t0);
  }
  double readOurs() {
    const auto t0 = Clock::now();
    keloDbgList back = keloDbgRead(ours.c_str());
    const double t = since(t0);
    if (back == nullptr || kelo_handles::toList(back)->entries.size() != entries) die("keloDbgRead lost entries");
    keloDbgFree(back);
    return t;
  }
  double readLimit() {
    const auto t0 = Clock::now();
    std::FILE* f = std::fopen(limit.c_str(), "rb");
    if (f == nullptr || std::fread(readBuffer.data(), 1, readBuffer.size(), f) != readBuffer.size())
      die("one-call read failed");
    std::fclose(f);
    return since(t0);
  }
  double readCereal() {
    auto* m = new CMap;
    const auto t0 = Clock::now();
    {
      std::ifstream is(cereal, std::ios::binary);
      cereal::BinaryInputArchive ar(is);
      ar(*m);
    }
    const double t = since(t0);
    if (m->size() != entries) die("cereal lost entries");
    delete m;
    return t;
  }
};

std::vector<std::string> w1Sections() {
  return {".text", ".data", ".rodata", ".bss", ".comment", ".note.GNU-stack", ".debug_info", ".debug_line"};
}

FileWorkload g_w1{
    "W1",      true,         2000,
    64 * 1024, w1Sections(), {".text", ".data", ".rodata", ".bss", ".comment", ".debug_info", ".debug_line", ".local"}};
FileWorkload g_w2{"W2", false, 100000, 256, {".text", ".data"}, {".text", ".data"}};

void fileRows(benchmark::State& state, FileWorkload* w, bool write) {
  w->build();
  const std::string row = w->name + (write ? " write" : " read");
  if (write) {
    runRow(state, row,
           {{"ours", [w] { return w->writeOurs(); }},
            {"limit", [w] { return w->writeLimit(); }},
            {"cereal", [w] { return w->writeCereal(); }}});
    if (readWhole(w->ours) != w->fileBytes) die("a write changed the file's bytes");
  } else {
    runRow(state, row,
           {{"ours", [w] { return w->readOurs(); }},
            {"limit", [w] { return w->readLimit(); }},
            {"cereal", [w] { return w->readCereal(); }}});
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * w->fileBytes.size()));
}

// ---- Renumbering every entry, against a bare re-key of the same map ----

void updateRow(benchmark::State& state, std::size_t n) {
  // Every case runs on the one list: the bare re-key works on the list's own
  // map (its public `entries`), so both see the same nodes in the same memory.
  static DebugInfoList list;
  static std::vector<DebugInfoNewID> up, down;
  static bool isUp = false;
  if (list.entries.empty()) {
    const Bytes base = kelo_bench::makeElf(false, 256, {".text", ".data"}, 1);
    for (std::size_t i = 0; i < n; ++i) {
      absl::optional<kelo_elf::ELF> image = kelo_elf::ELF::load(base);
      if (!image) die("the benchmark image does not load");
      list.add(idOf(i), std::move(*image));
      const uint32_t moved = idOf(i).number() + static_cast<uint32_t>(n);
      const DebugInfoID to(1, static_cast<uint16_t>(moved & 0xffff), static_cast<uint16_t>(moved >> 16));
      up.push_back({idOf(i), to});
      down.push_back({to, idOf(i)});
    }
  }
  // Each case applies `up` or `down`, whichever fits the present numbering.
  auto ours = [] {
    const auto t0 = Clock::now();
    const bool ok = list.update(isUp ? down : up);
    const double t = since(t0);
    if (!ok) die("update refused");
    isUp = !isUp;
    return t;
  };
  auto bare = [] {
    const std::vector<DebugInfoNewID>& pairs = isUp ? down : up;
    DebugInfoList::Map& map = list.entries;
    const auto t0 = Clock::now();
    DebugInfoList::Map next;
    next.max_load_factor(1.0f);
    next.reserve(map.size());
    for (const DebugInfoNewID& p : pairs) {
      auto node = map.extract(p.oldID);
      node.key() = p.newID;
      next.insert(std::move(node));
    }
    map = std::move(next);
    const double t = since(t0);
    isUp = !isUp;
    return t;
  };
  runRow(state, "update", {{"ours", ours}, {"bare re-key", bare}});
}

// ---- Memory, each figure in a child process ----

struct ChildResult {
  bool ok = false;
  double seconds = 0;
  double maxrss = 0;  // bytes
  double value = 0;   // what the work answered
};

// Runs `work` in a forked child; its answer, time and peak resident memory.
ChildResult inChild(const std::function<bool(double&)>& work) {
  int fds[2];
  if (pipe(fds) != 0) die("pipe failed");
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0) die("fork failed");
  if (pid == 0) {
    close(fds[0]);
    ChildResult r;
    const auto t0 = Clock::now();
    r.ok = work(r.value);
    r.seconds = since(t0);
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    r.maxrss = static_cast<double>(ru.ru_maxrss) * 1024;
    if (write(fds[1], &r, sizeof r) != static_cast<ssize_t>(sizeof r)) _exit(1);
    _exit(0);
  }
  close(fds[1]);
  ChildResult r;
  if (read(fds[0], &r, sizeof r) != static_cast<ssize_t>(sizeof r)) r.ok = false;
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return r;
}

// Runs a program; whether it exited 0, its time and peak resident memory.
ChildResult runProgram(const std::vector<std::string>& args) {
  std::fflush(nullptr);
  const auto t0 = Clock::now();
  const pid_t pid = fork();
  if (pid < 0) die("fork failed");
  if (pid == 0) {
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    if (std::freopen("/dev/null", "w", stdout) == nullptr) _exit(127);
    execv(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  struct rusage ru;
  wait4(pid, &status, 0, &ru);
  ChildResult r;
  r.seconds = since(t0);
  r.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  r.maxrss = static_cast<double>(ru.ru_maxrss) * 1024;
  return r;
}

// Heap in use, by malloc's own count.
double heapInUse() {
  const struct mallinfo2 m = mallinfo2();
  return static_cast<double>(m.uordblks + m.hblkhd);
}

// Writes a list of `n` entries with images of `imageSize` bytes and
// `addrNames` section addresses each; returns the file's size.
double makeListFile(const std::string& path, std::size_t n, std::size_t imageSize,
                    const std::vector<std::string>& sections, const std::vector<std::string>& addrNames) {
  ChildResult r = inChild([&](double& size) {
    Bytes bytes = kelo_bench::makeElf(false, imageSize, sections, 0);
    if (bytes.empty()) return false;
    DebugInfoList list;
    for (std::size_t i = 0; i < n; ++i) {
      kelo_bench::stampElf(bytes, false, 0, static_cast<uint32_t>(i));
      absl::optional<kelo_elf::ELF> image = kelo_elf::ELF::load(bytes);
      if (!image) return false;
      list.add(idOf(i), std::move(*image));
      for (const std::string& a : addrNames) list.setSectionAddr(idOf(i), a, static_cast<unsigned>(i));
    }
    if (!keloDbgWrite(kelo_handles::toHandle(&list), path.c_str())) return false;
    size = static_cast<double>(readWhole(path).size());
    return true;
  });
  if (!r.ok) die("cannot write " + path);
  return r.value;
}

// Heap per entry beyond the images' own bytes, for a list read from `path`.
double bytesPerEntry(const std::string& path, std::size_t n, std::size_t imageSize) {
  ChildResult r = inChild([&](double& perEntry) {
    const double before = heapInUse();
    keloDbgList list = keloDbgRead(path.c_str());
    const double after = heapInUse();
    if (list == nullptr || kelo_handles::toList(list)->entries.size() != n) return false;
    perEntry = (after - before) / static_cast<double>(n) - static_cast<double>(imageSize);
    keloDbgFree(list);
    return true;
  });
  if (!r.ok) die("cannot read " + path);
  return r.value;
}

struct MemoryFigures {
  double imageSize = 0, imageFileSize = 0;
  ChildResult read, create;
  std::size_t tinyEntries = 0;
  double tinyFileSize = 0;
  ChildResult check;
  double tinyPerEntry = 0, w2PerEntry = 0;
  bool tool = false;
};
MemoryFigures g_memory;

void measureMemory() {
  MemoryFigures& m = g_memory;
  const bool quick = g_options.quick;
  const std::size_t imageSize = quick ? std::size_t{64} << 20 : std::size_t{1} << 30;
  m.imageSize = static_cast<double>(imageSize);
  m.tinyEntries = quick ? 100000 : 1000000;
  m.tool = !g_options.kelodbg.empty() && access(g_options.kelodbg.c_str(), X_OK) == 0;
  std::printf("memory: one %.0f MiB image; %zu tiny entries; %s\n", m.imageSize / (1 << 20), m.tinyEntries,
              m.tool ? g_options.kelodbg.c_str() : "no kelodbg: its rows are left out");
  std::fflush(stdout);

  const std::string image = newFile("big.o");
  const std::string imageList = newFile("big.kdbg");
  inChild([&](double&) {
    writeWhole(image, kelo_bench::makeElf(true, imageSize, {".text", ".data", ".rodata", ".debug_info"}, 1));
    return true;
  });
  if (m.tool) {
    m.create = runProgram({g_options.kelodbg, "create", imageList, "1=" + image});
    if (!m.create.ok) die("kelodbg create failed");
  } else {
    // The same file, made through the library.
    inChild([&](double&) {
      keloDbgList list = keloDbgAlloc();
      keloElf* elf = keloElfLoadFile(image.c_str());
      const bool ok = elf != nullptr && keloDbgAdd(list, elf, 1, 0) != nullptr && keloDbgWrite(list, imageList.c_str());
      keloElfFree(elf);
      keloDbgFree(list);
      return ok;
    });
  }
  m.imageFileSize = static_cast<double>(readWhole(imageList).size());
  m.read = inChild([&](double&) {
    keloDbgList list = keloDbgRead(imageList.c_str());
    const bool ok = list != nullptr;
    keloDbgFree(list);
    return ok;
  });
  if (!m.read.ok) die("cannot read " + imageList);

  // Tiny entries: 164-byte images (a file header, 21 bytes of contents and
  // the name table) make 185-byte entries.
  const std::string tiny = newFile("tiny.kdbg");
  m.tinyFileSize = makeListFile(tiny, m.tinyEntries, 164, {}, {});
  if (m.tool) {
    m.check = runProgram({g_options.kelodbg, "check", tiny});
    if (!m.check.ok) die("kelodbg check failed");
  }
  m.tinyPerEntry = bytesPerEntry(tiny, m.tinyEntries, 164);
  const std::string w2 = newFile("w2mem.kdbg");
  const std::size_t w2Entries = quick ? 20000 : 100000;
  makeListFile(w2, w2Entries, 256, {".text", ".data"}, {".text", ".data"});
  m.w2PerEntry = bytesPerEntry(w2, w2Entries, 256);
}

// ---- The summary ----

struct Goal {
  const char* text;
  bool met;
};

void printSummary() {
  std::printf(
      "\nkelo_bench summary%s: medians; a speed ratio is the peer's time over ours (above 1: ours is faster)\n\n",
      g_options.quick ? " (--quick: small workloads, figures only indicative)" : "");
  std::printf("%-44s %12s  %-26s %7s  %-22s %s\n", "figure", "ours", "peer", "ratio", "goal", "");
  auto line = [](const std::string& what, const std::string& ours, const std::string& peer, double ratio,
                 const Goal& goal) {
    std::printf("%-44s %12s  %-26s %7.2f  %-22s %s\n", what.c_str(), ours.c_str(), peer.c_str(), ratio, goal.text,
                goal.met ? "met" : "MISSED");
  };
  auto ms = [](double s) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.2f ms", s * 1e3);
    return std::string(buf);
  };
  auto mb = [](double b) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f MB", b / 1e6);
    return std::string(buf);
  };
  struct Speed {
    std::string row, label;
    double limitGoal, cerealGoal;
  };
  for (const Speed& s : {Speed{"W1 read", "W1 read", 0.7, 2.0}, Speed{"W2 read", "W2 read", 0.15, 1.5},
                         Speed{"W1 write", "W1 write", 0.6, 1.4}, Speed{"W2 write", "W2 write", 0.3, 2.0}}) {
    if (g_samples.count(s.row) == 0) continue;
    const double ours = medianOf(s.row, "ours");
    const double limit = medianOf(s.row, "limit");
    const double cereal = medianOf(s.row, "cereal");
    char goal[32];
    std::snprintf(goal, sizeof goal, ">= %.2g", s.limitGoal);
    line(s.label, ms(ours), "limit " + ms(limit), limit / ours, {goal, limit / ours >= s.limitGoal});
    std::snprintf(goal, sizeof goal, ">= %.2g", s.cerealGoal);
    line("", "", "cereal " + ms(cereal), cereal / ours, {goal, cereal / ours >= s.cerealGoal});
  }
  if (g_samples.count("update") != 0) {
    const double ours = medianOf("update", "ours");
    const double bare = medianOf("update", "bare re-key");
    line("update, re-keying every entry (cost)", ms(ours), "bare re-key " + ms(bare), ours / bare,
         {"<= 1.5 (ours/peer)", ours / bare <= 1.5});
  }

  const MemoryFigures& m = g_memory;
  if (m.imageSize == 0) return;
  std::printf("\n%-44s %12s  %-26s %7s  %s\n", "peak resident memory", "ours", "of", "ratio", "goal");
  const double slack = 16.0 * (1 << 20);
  const double readBound = 1.15 * m.imageFileSize + slack;
  line("reading a file with one " + mb(m.imageSize) + " image", mb(m.read.maxrss), "file " + mb(m.imageFileSize),
       m.read.maxrss / m.imageFileSize, {"<= 1.15 x file + 16 MiB", m.read.maxrss <= readBound});
  if (m.tool) {
    line("kelodbg create of that image", mb(m.create.maxrss), "image " + mb(m.imageSize), m.create.maxrss / m.imageSize,
         {"<= 2.1 x image", m.create.maxrss <= 2.1 * m.imageSize});
    char what[64];
    std::snprintf(what, sizeof what, "kelodbg check, %zu tiny entries", m.tinyEntries);
    line(what, mb(m.check.maxrss), "file " + mb(m.tinyFileSize), m.check.maxrss / m.tinyFileSize,
         {"<= 1.6 x file", m.check.maxrss <= 1.6 * m.tinyFileSize});
    char secs[32];
    std::snprintf(secs, sizeof secs, "%.2f s", m.check.seconds);
    std::printf("%-44s %12s  %-26s %7s  %-22s %s\n", "  its time", secs, "", "", "<= 1 s",
                m.check.seconds <= 1.0 ? "met" : "MISSED");
  }
  std::printf(
      "\nheap per entry beyond the image's bytes: %.0f bytes (tiny entries, no section addresses), "
      "%.0f bytes (W2 entries, 2 section addresses)\n",
      m.tinyPerEntry, m.w2PerEntry);
  std::printf("(the goals are informational; the exit status does not depend on them)\n");
}

}  // namespace

int main(int argc, char** argv) {
  // Our own options out of the way of Google Benchmark's.
  std::vector<char*> args;
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "--quick") == 0) {
      g_options.quick = true;
    } else {
      args.push_back(argv[i]);
    }
  }
  if (const char* q = std::getenv("KELO_BENCH_QUICK")) g_options.quick = g_options.quick || std::strcmp(q, "1") == 0;
  if (const char* d = std::getenv("KELO_BENCH_DIR")) g_options.dir = d;
#ifdef KELO_BENCH_KELODBG
  g_options.kelodbg = KELO_BENCH_KELODBG;
#endif
  if (const char* t = std::getenv("KELO_BENCH_KELODBG")) g_options.kelodbg = t;
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 2;

  const bool quick = g_options.quick;
  if (quick) {
    g_w1.entries = 500;
    g_w2.entries = 20000;
  }
  const int iterations = quick ? 3 : 15;
  const std::string filter = benchmark::GetBenchmarkFilter();
  if (filter.empty() || filter == "." || filter == "all" || filter.find("memory") != std::string::npos) {
    measureMemory();
  }
  for (FileWorkload* w : {&g_w1, &g_w2}) {
    benchmark::RegisterBenchmark((w->name + "/write").c_str(), fileRows, w, true)
        ->UseManualTime()
        ->Iterations(iterations)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark((w->name + "/read").c_str(), fileRows, w, false)
        ->UseManualTime()
        ->Iterations(iterations)
        ->Unit(benchmark::kMillisecond);
  }
  benchmark::RegisterBenchmark("update/every_entry", updateRow, quick ? std::size_t{20000} : std::size_t{100000})
      ->UseManualTime()
      ->Iterations(iterations * 2)
      ->Unit(benchmark::kMillisecond);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  printSummary();
  for (FileWorkload* w : {&g_w1, &g_w2}) keloDbgFree(w->list);
  for (const std::string& f : g_files) std::remove(f.c_str());
  return 0;
}
