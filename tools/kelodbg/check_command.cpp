#include "check_command.h"

#include <algorithm>
#include <cstring>
#include <set>

#include <fmt/format.h>

#include "check.h"
#include "files.h"
#include "store.h"
#include "text.h"

namespace kelodbg {
namespace {

std::string leftoverMessage(const std::pair<std::string, uint64_t>& leftover) {
  return fmt::format(
      "{} ({} bytes) is a temporary file of a change that never finished; the next change of the file "
      "removes it",
      quoted(leftover.first), leftover.second);
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

// What check found: the file's summary, its first error, and its warnings
// in the order they are told.
struct CheckResult {
  std::string file;
  std::string version;  // empty when the header does not read
  uint64_t entries = 0, entriesRead = 0;
  struct Warning {
    std::string reason, message;
    absl::optional<uint64_t> entry, offset;
    absl::optional<std::string> field;
  };
  absl::optional<Warning> error;  // with its exit code below
  Exit errorCode = Exit::kOk;
  std::vector<Warning> warnings;
  uint64_t warningCount = 0;  // more than warnings.size() when the checker stopped listing
};

Json toJson(const CheckResult& r) {
  const auto finding = [](const CheckResult::Warning& w) {
    return Json::object()
        .set("reason", w.reason)
        .set("message", w.message)
        .set("entry", w.entry ? Json(*w.entry) : Json())
        .set("offset", w.offset ? Json(*w.offset) : Json())
        .set("field", w.field ? Json(*w.field) : Json());
  };
  Json doc = Json::object()
                 .set("file", r.file)
                 .set("ok", !r.error)
                 .set("version", r.version.empty() ? Json() : Json(r.version))
                 .set("entries", r.entries)
                 .set("entries_read", r.entriesRead);
  doc.set("error", r.error ? finding(*r.error).set("code", static_cast<int>(r.errorCode)) : Json());
  Json warnings = Json::array();
  for (const CheckResult::Warning& w : r.warnings) warnings.push(finding(w));
  return doc.set("warnings", std::move(warnings)).set("warning_count", r.warningCount);
}

// Warnings go to standard error, one line each; the summary to standard
// output. An error is the tool's failure.
void printText(const CheckResult& r, bool quiet) {
  if (!quiet) {
    for (const CheckResult::Warning& w : r.warnings) {
      complain(fmt::format("kelodbg: {}: warning: {}\n", escapeControls(r.file), escapeControls(w.message)));
    }
    if (r.warningCount > r.warnings.size()) {
      complain(
          fmt::format("kelodbg: {}: {} more warnings\n", escapeControls(r.file), r.warningCount - r.warnings.size()));
    }
  }
  if (r.error) fail(r.errorCode, r.file, r.error->message);
  if (quiet) return;
  print(fmt::format(
      "{}: debug-info file version {}, {} {}{}\n", r.file, r.version, r.entries, r.entries == 1 ? "entry" : "entries",
      r.warningCount == 0 ? "" : fmt::format(", {} warning{}", r.warningCount, r.warningCount == 1 ? "" : "s")));
}

CheckResult::Warning fromFinding(std::string reason, std::string message, const kelo_debuginfo::file::Finding& f) {
  CheckResult::Warning w{std::move(reason), std::move(message), {}, f.place.offset, std::string(f.place.field)};
  if (f.place.entry) w.entry = *f.place.entry;
  return w;
}

CheckResult::Warning plain(std::string reason, std::string message) {
  return CheckResult::Warning{std::move(reason), std::move(message), {}, {}, {}};
}

}  // namespace

int checkCommand(const CheckOptions& o) {
  const Input input(o.file);
  const Report report = input.check();
  if (report.fault == kelo_debuginfo::file::Fault::kOpen)
    fail(Exit::kFileIo, input.name(), std::strerror(report.error));
  CheckResult r;
  r.file = input.name();
  if (report.major) r.version = fmt::format("{}.{}.{}", *report.major, *report.minor, *report.patch);
  r.entries = report.entries;
  r.entriesRead = report.entriesRead;
  if (report.fault) {
    r.errorCode = faultCode(report);
    r.error = fromFinding(faultName(*report.fault), faultMessage(report), report.errorFinding);
  }
  // Temporary files of writers that died beside the file: the next change
  // removes them, but until then they take room.
  std::vector<std::pair<std::string, uint64_t>> leftovers;
  if (!input.isStream()) leftovers = leftoverTemporaries(o.file);
  for (const auto& l : leftovers) r.warnings.push_back(plain("leftover-temporary", leftoverMessage(l)));
  // Entries placed in part: allocated sections with bytes and no address
  // answer nothing, and of several sections of one name only the first can
  // have one.
  if (!input.isStream() && !report.fault) {
    const Store store(input);
    for (const IndexedEntry* e : store.entries()) {
      if (e->sections.empty()) continue;
      for (std::string& w : placementWarnings(Id::of(e->id), store.image(*e), e->sections)) {
        r.warnings.push_back(plain("unplaced-section", std::move(w)));
      }
    }
  }
  for (const auto& w : report.warnings) {
    r.warnings.push_back(fromFinding(warningName(w.first), warningMessage(w.first, w.second), w.second));
  }
  r.warningCount = report.warningCount + r.warnings.size() - report.warnings.size();
  if (o.json) {
    print(toJson(r).dump());
    if (r.error) return static_cast<int>(r.errorCode);
  } else {
    printText(r, o.quiet);
  }
  return o.strict && r.warningCount != 0 ? static_cast<int>(Exit::kWarnings) : 0;
}

}  // namespace kelodbg
