// Why a renumbering is refused. DebugInfoList::update() answers only true or
// false; this tells callers that want to explain a refusal (the tool, the
// fuzzers' cross-checks) which of its four reasons applies and to which
// identifier, by the same rules and in the same order of checks.
#ifndef KELO_DEBUGINFO_RENUMBERING_H_
#define KELO_DEBUGINFO_RENUMBERING_H_

#include <unordered_map>
#include <unordered_set>

#include "absl/types/span.h"
#include "kelo/DebugInfoList.h"

namespace kelo_debuginfo {

enum class RenumberRefusal {
  kNone,         // update() applies these pairs
  kRepeatedOld,  // two pairs share an old identifier
  kAbsentOld,    // an old identifier is not filed
  kRepeatedNew,  // two pairs share a new identifier
  kTakenNew,     // a new identifier is held by an entry that keeps its own
};

struct RenumberDiagnosis {
  RenumberRefusal reason = RenumberRefusal::kNone;
  DebugInfoID id;  // the identifier at fault (for kTakenNew, the new one)
};

// The first reason, checking the pairs in their order, that update() would
// refuse them on `entries`; kNone when it would apply them.
inline RenumberDiagnosis diagnoseRenumbering(const DebugInfoList::Map& entries,
                                             absl::Span<const DebugInfoNewID> pairs) {
  std::unordered_set<DebugInfoID> olds, news;
  for (const DebugInfoNewID& p : pairs) {
    if (!olds.insert(p.oldID).second) return {RenumberRefusal::kRepeatedOld, p.oldID};
  }
  for (const DebugInfoNewID& p : pairs) {
    if (entries.count(p.oldID) == 0) return {RenumberRefusal::kAbsentOld, p.oldID};
  }
  for (const DebugInfoNewID& p : pairs) {
    if (!news.insert(p.newID).second) return {RenumberRefusal::kRepeatedNew, p.newID};
  }
  for (const DebugInfoNewID& p : pairs) {
    if (entries.count(p.newID) != 0 && olds.count(p.newID) == 0) return {RenumberRefusal::kTakenNew, p.newID};
  }
  return {};
}

}  // namespace kelo_debuginfo

#endif  // KELO_DEBUGINFO_RENUMBERING_H_
