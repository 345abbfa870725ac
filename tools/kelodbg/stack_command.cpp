// `kelodbg stack`: a stack trace, frame by frame, with what the store knows
// about each frame's address.
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <fmt/format.h>

#include "answers.h"
#include "symbolize_commands.h"
#include "tool.h"

namespace kelodbg {
namespace {

constexpr size_t kMaxTraceLine = 64 * 1024;

bool isHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

// A hex number at `text[at]` (0x optional when `bare` allows it) that ends
// where a word ends; its value in `out`, and where it ends in `end`.
bool hexAt(const std::string& text, size_t at, bool bare, uint64_t& out, size_t& end) {
  size_t i = at;
  if (i + 1 < text.size() && text[i] == '0' && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
    i += 2;
  } else if (!bare) {
    return false;
  }
  const size_t digits = i;
  uint64_t value = 0;
  for (; i < text.size() && isHexDigit(text[i]); ++i) {
    if (i - digits == 16) return false;  // more than 64 bits
    const char c = text[i];
    value = value * 16 + static_cast<uint64_t>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
  }
  if (i == digits || (i < text.size() && (std::isalnum(static_cast<unsigned char>(text[i])) || text[i] == '_'))) {
    return false;
  }
  out = value;
  end = i;
  return true;
}

// What one line of a trace says.
struct TraceLine {
  bool frame = false;    // the line is a frame
  long number = -1;      // its "#N", or -1
  bool address = false;  // it gives the frame's address
  uint64_t value = 0;    // which
  bool signal = false;   // gdb's "<signal handler called>"
  // "(MODULE+0xOFFSET)" (sanitizers) or "MODULE(+0xOFFSET)" (glibc): the
  // address as an offset in the file it was loaded from.
  bool inModule = false;
  std::string module;
  uint64_t offset = 0;
};

// Finds "(MODULE+0xOFFSET)" or "MODULE(+0xOFFSET)" in the line.
void findModuleOffset(const std::string& line, TraceLine& t) {
  for (size_t plus = line.rfind("+0x"); plus != std::string::npos && plus > 0; plus = line.rfind("+0x", plus - 1)) {
    uint64_t offset = 0;
    size_t end = 0;
    if (!hexAt(line, plus + 1, false, offset, end) || end >= line.size() || line[end] != ')') continue;
    const size_t open = line.rfind('(', plus);
    if (open == std::string::npos) continue;
    std::string module = line.substr(open + 1, plus - open - 1);
    if (module.empty()) {
      // glibc: the module stands before the parenthesis.
      const size_t space = line.find_last_of(" \t", open);
      const size_t start = space == std::string::npos ? 0 : space + 1;
      module = line.substr(start, open - start);
    } else if (module.find_first_of(" \t") != std::string::npos) {
      continue;
    }
    t.inModule = true;
    t.module = module;
    t.offset = offset;
    return;
  }
}

TraceLine parseLine(const std::string& line) {
  TraceLine t;
  size_t i = line.find_first_not_of(" \t");
  if (i == std::string::npos) return t;
  size_t end = 0;
  if (line[i] == '#' && i + 1 < line.size() && std::isdigit(static_cast<unsigned char>(line[i + 1]))) {
    // gdb ("#1  0x... in f () at x.c:3", "#0  f () at x.c:3") and the
    // sanitizers ("    #1 0x... in f x.c:3:5", "#2 0x... (lib.so+0x1d)").
    ++i;
    long n = 0;
    for (; i < line.size() && std::isdigit(static_cast<unsigned char>(line[i])); ++i) {
      n = n < 100000000 ? n * 10 + (line[i] - '0') : n;
    }
    t.frame = true;
    t.number = n;
    i = line.find_first_not_of(" \t", i);
    if (i == std::string::npos) return t;
    if (line.compare(i, 23, "<signal handler called>") == 0) t.signal = true;
    t.address = hexAt(line, i, false, t.value, end);
    if (t.address) findModuleOffset(line, t);
    return t;
  }
  // glibc's backtrace_symbols: "prog(f+0x1d) [0x401136]".
  const size_t bracket = line.rfind("[0x");
  if (bracket != std::string::npos && hexAt(line, bracket + 1, false, t.value, end) && end < line.size() &&
      line[end] == ']') {
    t.frame = t.address = true;
    findModuleOffset(line, t);
    return t;
  }
  // A plain address, 0x optional, alone on its line.
  if (hexAt(line, i, true, t.value, end) && line.find_first_not_of(" \t\r", end) == std::string::npos) {
    t.frame = t.address = true;
  }
  return t;
}

// Whether the trace's module `named` (a path) is `wanted` (a path, or a
// file name).
bool sameModule(const std::string& named, const std::string& wanted) {
  if (named == wanted) return true;
  const size_t slash = named.rfind('/');
  return wanted.find('/') == std::string::npos && slash != std::string::npos &&
         named.compare(slash + 1, std::string::npos, wanted) == 0;
}

// Reads one line (without its newline) into `line`; false at the end.
bool readLine(std::FILE* in, const std::string& name, uint64_t number, std::string& line) {
  line.clear();
  int c;
  while ((c = std::getc(in)) != EOF && c != '\n') {
    if (line.size() == kMaxTraceLine) {
      fail(Exit::kUsage, name, fmt::format("line {} is longer than {} bytes", number, kMaxTraceLine));
    }
    line += static_cast<char>(c);
  }
  if (c == EOF && std::ferror(in)) fail(Exit::kFileIo, name, fmt::format("cannot read: {}", std::strerror(errno)));
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return c != EOF || !line.empty();
}

}  // namespace

int stackCommand(const kelo_debuginfo::DebugInfoList& list, const StackOptions& options, std::FILE* in,
                 const std::string& traceName) {
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
  uint64_t number = 0;
  long position = 0;         // of the next unnumbered frame in its trace
  bool afterSignal = false;  // the frame before was gdb's signal handler
  while (readLine(in, traceName, ++number, line)) {
    const TraceLine t = parseLine(line);
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
              .set("trace", traceName)
              .set("frames", std::move(frames))
              .dump());
  }
  return 0;
}

}  // namespace kelodbg
