#include "answers.h"

#include <algorithm>
#include <charconv>

#include "tool.h"

namespace kelodbg {
namespace {

using kelo_symbolize::Frame;

// Answers are put together with plain appends: at hundreds of thousands of
// addresses a second, formatting is a good part of the time.
void appendNumber(std::string& out, uint64_t value, int base = 10) {
  char digits[24];
  const std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, value, base);
  out.append(digits, static_cast<size_t>(end.ptr - digits));
}

std::string hex(uint64_t value) {
  std::string out = "0x";
  appendNumber(out, value, 16);
  return out;
}

const std::string& nameOf(const Frame& frame, const AnswerOptions& options) {
  return options.demangle ? frame.demangled : frame.function;
}

void appendName(const std::string& name, std::string& out) {
  if (name.empty()) {
    out += "??";
  } else {
    out += name;
  }
}

void appendFile(const std::string& file, const AnswerOptions& options, std::string& out) {
  const size_t slash = options.basenames ? file.rfind('/') : std::string::npos;
  out.append(file, slash == std::string::npos ? 0 : slash + 1, std::string::npos);
}

// "file:line", "file:line:column" or "file:?"; binutils prints the
// address's own discriminator on every frame.
void appendPlace(const Frame& frame, const AnswerOptions& options, unsigned discriminator, std::string& out) {
  if (frame.file.empty()) {
    out += "??";
  } else {
    appendFile(frame.file, options, out);
  }
  if (frame.line == 0) {
    out += ":?";
    return;
  }
  out += ':';
  appendNumber(out, frame.line);
  if (options.columns && frame.column != 0) {
    out += ':';
    appendNumber(out, frame.column);
  }
  if (discriminator != 0) {
    out += " (discriminator ";
    appendNumber(out, discriminator);
    out += ')';
  }
}

// "[entry 1:0x00000007 .text+0x1c variable total]": where the address lies.
void appendWhere(const Answer& answer, std::string& out) {
  if (!answer.placed) {
    out += "[no stored section]";
    return;
  }
  const kelo_symbolize::Location& loc = answer.location;
  out += "[entry ";
  out += entryText(loc.id);
  out += ' ';
  out += printable(loc.section);
  out += "+0x";
  appendNumber(out, loc.offset, 16);
  if (!loc.variable.empty()) {
    out += " variable ";
    out += printable(loc.variable);
  }
  out += ']';
}

// LLVM writes the suffixes of a clone ("f.isra.0.cold") as one
// parenthesized suffix, "f(int) (.isra.0.cold)", where binutils writes
// "f(int) [clone .isra.0] [clone .cold]".
std::string llvmCloneSuffixes(const std::string& name) {
  static const std::string kOpen = " [clone ";
  std::string suffixes;
  size_t end = name.size();
  // Each step takes one " [clone X]" off the end; X holds no bracket.
  while (end > kOpen.size() && name[end - 1] == ']') {
    const size_t open = name.rfind(kOpen, end - 1 - kOpen.size());
    if (open == std::string::npos) break;
    const size_t from = open + kOpen.size();
    if (name.find_first_of("[]", from) != end - 1) break;
    suffixes.insert(0, name, from, end - 1 - from);
    end = open;
  }
  if (suffixes.empty()) return name;
  return name.substr(0, end) + " (" + suffixes + ")";
}

}  // namespace

std::string entryText(const kelo_elf::DebugInfoID& id) { return format(Id::of(id)); }

void appendText(const Answer& answer, const AnswerOptions& options, unsigned bits, std::string& out) {
  if (options.addresses) {
    char digits[17];
    const std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, answer.address, 16);
    out += "0x";
    out.append(bits / 4 - std::min<size_t>(bits / 4, static_cast<size_t>(end.ptr - digits)), '0');
    out.append(digits, static_cast<size_t>(end.ptr - digits));
    out += options.pretty ? ": " : "\n";
  }
  if (options.where) {
    appendWhere(answer, out);
    out += options.pretty ? " " : "\n";
  }
  const std::vector<Frame>& frames = answer.location.frames;
  if (!answer.placed || frames.empty()) {
    if (options.functions) out += options.pretty ? "?? " : "??\n";
    out += "??:0\n";
    return;
  }
  const size_t shown = options.inlines ? frames.size() : 1;
  for (size_t i = 0; i < shown; ++i) {
    if (i > 0 && options.pretty) out += " (inlined by) ";
    if (options.functions) {
      const std::string& name = nameOf(frames[i], options);
      appendName(name, out);
      out += options.pretty ? " at " : "\n";
    }
    appendPlace(frames[i], options, frames[0].discriminator, out);
    out += '\n';
  }
}

void appendStackText(const Answer& answer, const AnswerOptions& options, std::string& out) {
  const std::vector<Frame>& frames = answer.location.frames;
  if (options.where) {
    out += "    ";
    appendWhere(answer, out);
    out += '\n';
  }
  if (!answer.placed) {
    out += "    ?? (no stored section holds ";
    out += hex(answer.lookup);
    out += ")\n";
    return;
  }
  if (frames.empty()) {
    out += "    ?? ??:0\n";
    return;
  }
  for (size_t i = 0; i < frames.size(); ++i) {
    out += i == 0 ? "    " : "    (inlined by) ";
    const std::string& name = nameOf(frames[i], options);
    appendName(name, out);
    out += " at ";
    appendPlace(frames[i], options, 0, out);
    out += '\n';
  }
}

namespace {

// Writers of the JSON answer, straight into text: the server writes tens of
// thousands of them a second.
// `before` (a brace or a comma), then "key":.
void appendKey(std::string& out, char before, const char* key) {
  out += before;
  out += '"';
  out += key;
  out += "\":";
}

// A file's name as -s asks, without a copy.
absl::string_view shownFile(const std::string& file, const AnswerOptions& options) {
  const size_t slash = options.basenames ? file.rfind('/') : std::string::npos;
  return absl::string_view(file).substr(slash == std::string::npos ? 0 : slash + 1);
}

// "0x" and hex digits, as a JSON string.
void appendHexJson(std::string& out, uint64_t value) {
  out += "\"0x";
  appendNumber(out, value, 16);
  out += '"';
}

// One frame; `start` is the function's start address, if known.
void appendFrameJson(std::string& out, const Frame* f, const AnswerOptions& options, const std::string* name,
                     const uint64_t* start) {
  appendKey(out, '{', "Column");
  appendNumber(out, f != nullptr ? f->column : 0);
  appendKey(out, ',', "Discriminator");
  appendNumber(out, f != nullptr ? f->discriminator : 0);
  appendKey(out, ',', "FileName");
  appendJsonString(out, f != nullptr ? shownFile(f->file, options) : absl::string_view());
  appendKey(out, ',', "FunctionName");
  appendJsonString(out, name != nullptr ? absl::string_view(*name) : absl::string_view());
  appendKey(out, ',', "Line");
  appendNumber(out, f != nullptr ? f->line : 0);
  appendKey(out, ',', "StartAddress");
  if (start != nullptr) {
    appendHexJson(out, *start);
  } else {
    out += "\"\"";
  }
  appendKey(out, ',', "StartFileName");
  appendJsonString(out, f != nullptr ? shownFile(f->startFile, options) : absl::string_view());
  appendKey(out, ',', "StartLine");
  appendNumber(out, f != nullptr ? f->startLine : 0);
  out += '}';
}

}  // namespace

void appendAnswerJson(std::string& out, const Answer& answer, const AnswerOptions& options, const std::string& module) {
  const kelo_symbolize::Location& loc = answer.location;
  const std::vector<Frame>& frames = loc.frames;
  appendKey(out, '{', "Address");
  appendHexJson(out, answer.address);
  appendKey(out, ',', "ModuleName");
  appendJsonString(out, module);
  appendKey(out, ',', "Symbol");
  out += '[';
  if (!answer.placed || frames.empty()) {
    if (!options.noEmptyFrame) appendFrameJson(out, nullptr, options, nullptr, nullptr);
  } else if (!loc.variable.empty()) {
    // A variable's address is named by the variable, as a symbol table
    // would; where it was declared is told beside.
    appendFrameJson(out, nullptr, options, &loc.variable, &answer.lookup);
  } else {
    const size_t shown = options.inlines ? frames.size() : 1;
    std::string suffixed;
    for (size_t i = 0; i < shown; ++i) {
      const Frame& f = frames[i];
      const std::string* name = &f.function;
      if (options.demangle) {
        name = &f.demangled;
        // Clone suffixes are rewritten only where a name ends in one.
        if (!name->empty() && name->back() == ']') {
          suffixed = llvmCloneSuffixes(f.demangled);
          name = &suffixed;
        }
      }
      if (i > 0) out += ',';
      appendFrameJson(out, &f, options, name, f.hasStart ? &f.startAddress : nullptr);
    }
  }
  out += ']';
  if (answer.placed) {
    appendKey(out, ',', "Entry");
    appendJsonString(out, entryText(loc.id));
    appendKey(out, ',', "Section");
    appendJsonString(out, loc.section);
    appendKey(out, ',', "Offset");
    appendHexJson(out, loc.offset);
    if (!loc.variable.empty() && !frames.empty()) {
      appendKey(out, ',', "Variable");
      appendKey(out, '{', "Name");
      appendJsonString(out, loc.variable);
      appendKey(out, ',', "DeclFile");
      appendJsonString(out, shownFile(frames[0].file, options));
      appendKey(out, ',', "DeclLine");
      appendNumber(out, frames[0].line);
      out += '}';
    }
  }
  out += '}';
}

Json answerJson(const Answer& answer, const AnswerOptions& options, const std::string& module) {
  std::string text;
  appendAnswerJson(text, answer, options, module);
  return Json::raw(std::move(text));
}

}  // namespace kelodbg
