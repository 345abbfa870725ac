#include "check.h"

#include <cstring>

#include <fmt/format.h>

#include "file/format.h"
#include "text.h"

namespace kelodbg {

using kelo_debuginfo::file::Fault;
using kelo_debuginfo::file::Finding;
using kelo_debuginfo::file::Warning;

std::string placeText(const Finding& f) {
  if (!f.place.entry) return fmt::format("offset {}", f.place.offset);
  if (std::strcmp(f.place.field, "kind") == 0 || std::strcmp(f.place.field, "identifier") == 0) {
    return fmt::format("entry {}, offset {}", *f.place.entry, f.place.offset);
  }
  return fmt::format("entry {} ({}), offset {}", *f.place.entry, format(Id::of(f.id)), f.place.offset);
}

Exit faultCode(const Report& report) {
  switch (*report.fault) {
    case Fault::kOpen:
    case Fault::kRead:
      return Exit::kFileIo;
    case Fault::kNotDebugInfo:
      return Exit::kNotDebugInfo;
    case Fault::kVersion:
      return Exit::kVersion;
    case Fault::kTooBig:
      return Exit::kNoMemory;
    case Fault::kTruncated:
    case Fault::kTooLong:
    case Fault::kBadImage:
      break;
  }
  return Exit::kDamaged;
}

std::string faultMessage(const Report& report) {
  const Finding& f = report.errorFinding;
  switch (*report.fault) {
    case Fault::kOpen:
    case Fault::kRead:
      return report.error != 0 ? std::strerror(report.error) : "cannot read";
    case Fault::kNotDebugInfo:
      return "not a debug-info file (wrong magic)";
    case Fault::kVersion:
      return fmt::format("unsupported version {}.{}.{} (this library reads {}.{}.x)", *report.major, *report.minor,
                         *report.patch, kelo_debuginfo::format::kVersion[0], kelo_debuginfo::format::kVersion[1]);
    case Fault::kTruncated:
      if (report.detail != 0) {
        return fmt::format("damaged debug-info file: it ends inside the {} ({} bytes) at {}", f.place.field,
                           report.detail, placeText(f));
      }
      return fmt::format("damaged debug-info file: it ends inside the {} at {}", f.place.field, placeText(f));
    case Fault::kTooLong:
      return fmt::format("damaged debug-info file: the {} 0x{:016x} at {} is 2^32 or more", f.place.field,
                         report.detail, placeText(f));
    case Fault::kTooBig:
      return fmt::format("the {} of {} bytes at {} is more than this program can hold in memory", f.place.field,
                         report.detail, placeText(f));
    case Fault::kBadImage:
      return fmt::format("damaged debug-info file: the image at {} ({} bytes) is not an ELF file that loads",
                         placeText(f), report.detail);
  }
  return "damaged debug-info file";
}

const char* faultName(Fault fault) {
  switch (fault) {
    case Fault::kOpen:
      return "cannot-open";
    case Fault::kRead:
      return "cannot-read";
    case Fault::kNotDebugInfo:
      return "not-debug-info";
    case Fault::kVersion:
      return "unsupported-version";
    case Fault::kTruncated:
      return "truncated";
    case Fault::kTooLong:
      return "too-long";
    case Fault::kTooBig:
      return "too-big";
    case Fault::kBadImage:
      return "bad-image";
  }
  return "damaged";
}

const char* warningName(Warning warning) {
  switch (warning) {
    case Warning::kDuplicateId:
      return "duplicate-id";
    case Warning::kDuplicateSection:
      return "duplicate-section";
    case Warning::kKindAboveC:
      return "kind-above-1";
    case Warning::kTrailingBytes:
      return "trailing-bytes";
    case Warning::kHighHalf:
      return "high-half";
  }
  return "warning";
}

std::string warningMessage(Warning warning, const Finding& f) {
  switch (warning) {
    case Warning::kDuplicateId:
      return fmt::format("{}: identifier {} repeats an earlier entry's; the reader keeps the first and drops this one",
                         placeText(f), format(Id::of(f.id)));
    case Warning::kDuplicateSection:
      return fmt::format("{}: section {} is recorded twice; the reader keeps the first address", placeText(f),
                         quoted(f.name));
    case Warning::kKindAboveC:
      return fmt::format("{}: identifier {} has kind {}, which the C interface cannot reach (kinds 0 and 1)",
                         placeText(f), format(Id::of(f.id)), f.id.kind);
    case Warning::kTrailingBytes:
      return fmt::format("{}: {} bytes after the last entry, which the reader ignores", placeText(f), f.value);
    case Warning::kHighHalf:
      return fmt::format("{}: the {} 0x{:016x} has a non-zero high half, which the reader ignores (it reads {})",
                         placeText(f), f.place.field, f.value, f.value & 0xFFFFFFFFu);
  }
  return placeText(f);
}

}  // namespace kelodbg
