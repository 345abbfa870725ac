// The store library on real files: a view indexes without loading images
// and agrees with the reader on what it keeps; a plan written back reads as
// the same list; failures say where.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "kelo/debuginfo.h"
#include "kelo/store.hpp"
#include "support/bytes.h"
#include "support/files.h"

namespace {

using kelo_debuginfo::DebugInfoList;
using kelo_elf::DebugInfoID;
using kelo_store::IndexedEntry;
using kelo_store::View;
using kelo_test::Bytes;
using kelo_test::fileEntry;
using kelo_test::fileHeader;
using kelo_test::le;
using kelo_test::operator+;

// What a list holds, in a form that compares: identifier -> (image bytes,
// sorted section table).
using Content = std::map<uint64_t, std::pair<Bytes, std::map<std::string, unsigned>>>;

Content contentOf(const DebugInfoList& list) {
  Content out;
  for (const auto& e : list.entries) {
    const auto bytes = e.second.elf.bytes();
    out[(uint64_t{e.first.kind} << 32) | e.first.number()] = {
        Bytes(bytes.begin(), bytes.end()),
        std::map<std::string, unsigned>(e.second.sectionAddrs.begin(), e.second.sectionAddrs.end())};
  }
  return out;
}

class StoreTest : public ::testing::Test {
 protected:
  std::string path(const std::string& name) const { return dir_.path() + "/" + name; }

  // A file with repeats: entry 1:3 twice (the second with another image),
  // .text recorded twice in the first, a kind above the C interface's, and
  // trailing bytes.
  std::string writeRepeats() {
    const Bytes main = kelo_test::example("main.o"), util = kelo_test::example("util.o");
    const Bytes file =
        fileHeader() + le(8, 3) + fileEntry(1, 3, 0, main, {{".text", 0x1000}, {".data", 0x2000}, {".text", 0x3000}}) +
        fileEntry(7, 3, 0, util, {{".text", 0x4000}}) + fileEntry(1, 3, 0, util) + kelo_test::text("junk");
    const std::string name = path("repeats.kdbg");
    EXPECT_TRUE(kelo_test::writeFile(name, file));
    return name;
  }

  kelo_test::TempDir dir_;
};

TEST_F(StoreTest, AViewKeepsWhatTheReaderKeepsWithoutLoadingImages) {
  const std::string name = writeRepeats();
  kelo_store::Report report;
  absl::optional<View> view = View::open(name, &report);
  ASSERT_TRUE(view.has_value());
  EXPECT_EQ(report.warningCount, 4u);  // the repeated entry and section, the kind, the trailing bytes
  EXPECT_EQ(report.dropCount, 3u);
  ASSERT_EQ(view->entries().size(), 2u);
  ASSERT_EQ(view->report().index.size(), 3u);
  EXPECT_TRUE(view->report().index[2].repeated);

  // The same entries, images and first addresses as the reader's list.
  absl::optional<DebugInfoList> list = kelo_store::readList(name);
  ASSERT_TRUE(list.has_value());
  DebugInfoList fromView;
  for (const IndexedEntry* e : view->entries()) {
    absl::optional<kelo_elf::ELF> image = view->loadImage(*e);
    ASSERT_TRUE(image.has_value());
    fromView.add(e->id, std::move(*image));
    for (const auto& s : e->sections) fromView.entries.find(e->id)->second.sectionAddrs.emplace(s.first, s.second);
  }
  EXPECT_EQ(contentOf(fromView), contentOf(*list));
  const IndexedEntry* first = view->find(DebugInfoID(1, 3, 0));
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->sections.size(), 2u);
  EXPECT_EQ(first->sections[0], (std::pair<std::string, uint32_t>(".text", 0x1000)));
  EXPECT_EQ(view->find(DebugInfoID(7, 3, 0))->imageSize, kelo_test::example("util.o").size());
  EXPECT_EQ(view->find(DebugInfoID(0, 3, 0)), nullptr);

  // Only the entries with addresses are placed.
  absl::optional<DebugInfoList> placed = view->placedList();
  ASSERT_TRUE(placed.has_value());
  EXPECT_EQ(placed->entries.size(), 2u);
}

TEST_F(StoreTest, APlanWrittenBackReadsAsTheSameListAndCopiesImagesExactly) {
  const std::string name = writeRepeats();
  absl::optional<View> view = View::open(name);
  ASSERT_TRUE(view.has_value());
  std::vector<kelo_store::PlannedEntry> plan = kelo_store::planOf(*view);
  // A change: renumber one entry, add an address to the other, and add a
  // new entry from an image.
  plan[1].id = DebugInfoID(1, 9, 0);
  plan[0].sections.emplace_back(".bss", 0x5000);
  absl::optional<kelo_elf::ELF> extra = kelo_elf::ELF::load(kelo_test::example("extra.o"));
  ASSERT_TRUE(extra.has_value());
  plan.push_back(kelo_store::PlannedEntry{DebugInfoID(1, 4, 0), nullptr, nullptr, &*extra, {{".text", 0x6000}}});
  const std::string out = path("out.kdbg");
  const int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(kelo_store::writePlanned(plan, fd));
  close(fd);

  // Nothing is dropped any more, and the library reads what was planned.
  EXPECT_EQ(kelo_store::check(out).dropCount, 0u);
  EXPECT_FALSE(kelo_store::check(out).fault.has_value());
  absl::optional<DebugInfoList> back = kelo_store::readList(out);
  ASSERT_TRUE(back.has_value());
  absl::optional<DebugInfoList> before = kelo_store::readList(name);
  ASSERT_TRUE(before.has_value());
  Content want = contentOf(*before);
  const uint64_t moved = (uint64_t{7} << 32) | 3, renumbered = (uint64_t{1} << 32) | 9;
  want[renumbered] = want[moved];
  want.erase(moved);
  want[(uint64_t{1} << 32) | 3].second[".bss"] = 0x5000;
  want[(uint64_t{1} << 32) | 4] = {kelo_test::example("extra.o"), {{".text", 0x6000}}};
  EXPECT_EQ(contentOf(*back), want);

  // The same list written whole reads back the same too.
  const std::string whole = path("whole.kdbg");
  const int wfd = open(whole.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  ASSERT_TRUE(kelo_store::writeList(*back, wfd));
  close(wfd);
  absl::optional<DebugInfoList> again = kelo_store::readList(whole);
  ASSERT_TRUE(again.has_value());
  EXPECT_EQ(contentOf(*again), want);

  // Images compare byte for byte across views.
  absl::optional<View> a = View::open(out), b = View::open(whole);
  ASSERT_TRUE(a && b);
  const IndexedEntry* ea = a->find(DebugInfoID(1, 9, 0));
  EXPECT_EQ(a->sameImage(*ea, *b, *b->find(DebugInfoID(1, 9, 0))), absl::optional<bool>(true));
  EXPECT_EQ(a->sameImage(*ea, *b, *b->find(DebugInfoID(1, 4, 0))), absl::optional<bool>(false));
}

TEST_F(StoreTest, FailuresSayWhatAndWhere) {
  const Bytes main = kelo_test::example("main.o");
  const Bytes whole = fileHeader() + le(8, 1) + fileEntry(1, 5, 0, main);
  struct Case {
    const char* what;
    Bytes bytes;
    kelo_store::Fault fault;
    uint64_t offset;
  };
  const Case cases[] = {
      {"cut inside the image", Bytes(whole.begin(), whole.begin() + 100), kelo_store::Fault::kTruncated, 33},
      {"three bytes", Bytes(whole.begin(), whole.begin() + 3), kelo_store::Fault::kNotDebugInfo, 0},
      {"a huge entry count", fileHeader() + le(8, 1u << 28), kelo_store::Fault::kTruncated, 20},
      {"an old version", fileHeader(1, 0, 0) + le(8, 0), kelo_store::Fault::kVersion, 8},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string name = path("bad.kdbg");
    ASSERT_TRUE(kelo_test::writeFile(name, c.bytes));
    kelo_store::Report report;
    EXPECT_FALSE(View::open(name, &report).has_value());
    ASSERT_TRUE(report.fault.has_value());
    EXPECT_EQ(*report.fault, c.fault);
    EXPECT_EQ(report.errorFinding.place.offset, c.offset);
    EXPECT_FALSE(kelo_store::readList(name, &report).has_value());
    EXPECT_EQ(*report.fault, c.fault);
  }
  // An image that does not load is found when it is loaded, not before.
  const Bytes junk = fileHeader() + le(8, 1) + fileEntry(1, 5, 0, kelo_test::text("JUNK"), {{".text", 1}});
  const std::string name = path("junk.kdbg");
  ASSERT_TRUE(kelo_test::writeFile(name, junk));
  absl::optional<View> view = View::open(name);
  ASSERT_TRUE(view.has_value());
  EXPECT_FALSE(view->loadImage(*view->entries()[0]).has_value());
  const IndexedEntry* failed = nullptr;
  EXPECT_FALSE(view->placedList(&failed).has_value());
  EXPECT_EQ(failed, view->entries()[0]);
  EXPECT_EQ(*kelo_store::check(name).fault, kelo_store::Fault::kBadImage);
  // A missing file.
  kelo_store::Report report;
  EXPECT_FALSE(View::open(path("missing.kdbg"), &report).has_value());
  EXPECT_EQ(*report.fault, kelo_store::Fault::kOpen);
  EXPECT_EQ(report.error, ENOENT);
}

}  // namespace
