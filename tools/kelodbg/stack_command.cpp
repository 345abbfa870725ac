// `kelodbg stack`: a stack trace, frame by frame, with what the store knows
// about each frame's address.
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <fmt/format.h>

#include "answers.h"
#include "files.h"
#include "symbolize_commands.h"
#include "tool.h"
#include "trace.h"

namespace kelodbg {
namespace {

constexpr size_t kMaxTraceLine = 64 * 1024;

// Whether the trace's module `named` (a path) is `wanted` (a path, or a
// file name).
bool sameModule(const std::string& named, const std::string& wanted) {
  if (named == wanted) return true;
  const size_t slash = named.rfind('/');
  return wanted.find('/') == std::string::npos && slash != std::string::npos &&
         named.compare(slash + 1, std::string::npos, wanted) == 0;
}

}  // namespace

int stackCommand(const kelo_debuginfo::DebugInfoList& list, const StackOptions& options, TextInput& trace) {
  kelo_symbolize::Options symbolizerOptions;
  symbolizerOptions.cacheBytes = options.answers.cacheBytes;
  symbolizerOptions.demangle = options.answers.demangle;
  symbolizerOptions.report = [](const kelo_elf::DebugInfoID& id, const std::string& why) {
    complain(fmt::format("kelodbg: entry {}: warning: {}\n", entryText(id), why));
  };
  kelo_symbolize::Symbolizer symbolizer(list, symbolizerOptions);
  const uint64_t mask = symbolizer.addressBits() == 32 ? 0xffffffffu : ~uint64_t{0};

  Json frames = Json::array();
  Answer answer;
  std::string line, out;
  long position = 0;         // of the next unnumbered frame in its trace
  bool afterSignal = false;  // the frame before was gdb's signal handler
  while (trace.readLine(line, kMaxTraceLine)) {
    const uint64_t number = trace.lineNumber();
    const TraceLine t = parseTraceLine(line);
    if (!t.frame) {
      // A line that is no frame ends a plain list of addresses.
      position = 0;
      if (!options.json) print(line + "\n");
      continue;
    }
    const long index = t.number >= 0 ? t.number : position++;
    // The frame that a signal interrupted stands where it stopped, not after
    // a call.
    const bool returnAddress = index > 0 && !afterSignal;
    afterSignal = t.signal;
    out.clear();
    // With --module, frames of that module are looked up by their offset
    // in it (a program or library placed at its link-time addresses), and
    // frames of other modules not at all.
    const bool other = !options.module.empty() && t.inModule && !sameModule(t.module, options.module);
    const bool lookedUp = t.address && !other;
    if (lookedUp) {
      answer.address = (!options.module.empty() && t.inModule ? t.offset : t.value) & mask;
      answer.lookup = returnAddress && answer.address > 0 ? answer.address - 1 : answer.address;
      answer.resolve(symbolizer);
    }
    if (options.json) {
      Json frame = Json::object()
                       .set("line", number)
                       .set("text", line)
                       .set("frame", static_cast<uint64_t>(index))
                       .set("returnAddress", returnAddress);
      if (t.inModule) frame.set("module", t.module).set("moduleOffset", fmt::format("0x{:x}", t.offset));
      if (lookedUp) {
        frame.set("address", fmt::format("0x{:x}", answer.address))
            .set("lookup", fmt::format("0x{:x}", answer.lookup))
            .set("answer", answerJson(answer, options.answers, options.name));
      } else {
        frame.set("address", Json()).set("lookup", Json()).set("answer", Json());
      }
      frames.push(std::move(frame));
      continue;
    }
    out = line + "\n";
    if (lookedUp) {
      appendStackText(answer, options.answers, out);
    } else if (!t.address && !t.signal) {
      out += "    (no address in this line)\n";
    }
    print(out);
  }
  if (options.json) {
    print(Json::object()
              .set("file", options.name)
              .set("version", options.version)
              .set("trace", trace.name())
              .set("frames", std::move(frames))
              .dump());
  }
  return 0;
}

}  // namespace kelodbg
