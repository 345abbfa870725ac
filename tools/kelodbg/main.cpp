// kelodbg: create, inspect and change debug-info files from the command line.
#include <sys/stat.h>
#include <algorithm>
#include <cctype>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "change_commands.h"
#include "check_command.h"
#include "files.h"
#include "inspect_commands.h"
#include "place_command.h"
#include "store.h"
#include "text.h"
#include "tool.h"

#if defined(KELODBG_WITH_SYMBOLIZE)
#include "symbolize_commands.h"
#endif
#if defined(KELODBG_WITH_SERVE)
#include "serve/serve_command.h"
#endif

namespace kelodbg {
namespace {

constexpr const char* kDescription =
    "Creates, inspects and changes debug-info files: ELF images filed under identifiers, with the load addresses "
    "of their sections.";

constexpr const char* kNotes =
    "Identifiers are KIND:NUMBER or NUMBER (kind 1, or --kind where a command has it); kinds are 0 to 255, numbers "
    "and addresses decimal or hex with 0x.\n"
    "An argument @FILE stands for the lines of FILE (@- for standard input), one argument a line; empty lines and "
    "lines starting with # are skipped.\n"
    "FILE '-' is standard input (list, show, check, extract, diff, merge, version); '-o -' is standard output. "
    "/dev/stdin, /dev/stdout, /dev/fd/N and /proc/self/fd/N are the descriptor itself.\n"
    "Changes replace the file atomically and lock it while they run; readers need no lock.\n";

// Examples, for `kelodbg help` and the manual page's EXAMPLES: a title, then
// command lines, for each.
struct Example {
  const char* title;
  const char* lines;
};
constexpr Example kExamples[] = {
    {"A session: store objects, record addresses, renumber, read back",
     "kelodbg create game.kdbg 0x00011234=main.o 7=util.o\n"
     "kelodbg set-addr game.kdbg 0x00011234 .text=0x80001000 .data=0x80100000\n"
     "kelodbg renumber game.kdbg 0x00011234=0:0x40\n"
     "kelodbg list game.kdbg\n"
     "kelodbg extract game.kdbg 0:0x40 -o main-copy.o"},
    {"A crash address: function, file and line, inline frames included",
     "kelodbg addr2line -a -f -i -p -C plugin.kdbg 0x8000103a"},
    {"A stack trace: a sanitizer's report of a position-independent program",
     "kelodbg stack --module crash crash.kdbg trace.txt\n"
     "gdb -batch -ex run -ex bt ./prog | kelodbg stack prog.kdbg   # a program linked with -no-pie"},
    {"A link map: place every stored object's sections where the linker put them",
     "c++ -o crash main.o stats.o -Wl,-Map=crash.map\n"
     "kelodbg create crash.kdbg 1=main.o 2=stats.o\n"
     "kelodbg place crash.kdbg --map crash.map"},
};

constexpr const char* kSeeAlso = "addr2line(1), llvm-symbolizer(1), ld(1), nm(1), readelf(1), gdb(1)";

// The examples whose commands this build has (`known` tells).
std::string examplesText(const char* indent, const std::function<bool(const std::string&)>& known) {
  std::string out;
  for (const Example& e : kExamples) {
    bool all = true;
    const std::string text = e.lines;
    for (size_t at = text.find("kelodbg "); at != std::string::npos; at = text.find("kelodbg ", at + 1)) {
      const size_t start = at + 8;
      all = all && known(text.substr(start, text.find(' ', start) - start));
    }
    if (!all) continue;
    out += fmt::format("{}:\n", e.title);
    std::string lines = e.lines;
    for (size_t start = 0; start < lines.size();) {
      size_t end = lines.find('\n', start);
      if (end == std::string::npos) end = lines.size();
      out += fmt::format("{}{}\n", indent, lines.substr(start, end - start));
      start = end + 1;
    }
  }
  return out;
}

// Whether the command line asked for JSON (--json), known once it parsed.
bool jsonRequested = false;

// The longest --wait: about eleven days.
constexpr double kMaxWait = 1e6;
// Limits of @FILE arguments.
constexpr size_t kMaxArgumentLine = 64 << 10;
constexpr uint64_t kMaxArgumentBytes = uint64_t{256} << 20;

// A size in bytes: digits, then K, M, G or T (powers of 1024, with or without
// "i" and "B"), or nothing. Rewrites the text to the number of bytes; says
// what is wrong with anything else, or with a size outside [min, max].
CLI::Validator sizeValidator(uint64_t min, uint64_t max) {
  return CLI::Validator(
      [min, max](std::string& text) -> std::string {
        const auto shortly = [](uint64_t bytes) {
          for (const char* unit : {"T", "G", "M", "K"}) {
            const int shift = unit[0] == 'T' ? 40 : unit[0] == 'G' ? 30 : unit[0] == 'M' ? 20 : 10;
            if (bytes >= (uint64_t{1} << shift) && bytes % (uint64_t{1} << shift) == 0) {
              return fmt::format("{}{}", bytes >> shift, unit);
            }
          }
          return std::to_string(bytes);
        };
        const std::string problem = fmt::format("'{}' is not a size from {} to {} (bytes, or with K, M, G or T)",
                                                printable(text), shortly(min), shortly(max));
        size_t digits = 0;
        while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') ++digits;
        if (digits == 0 || digits > 19) return problem;
        uint64_t value = std::stoull(text.substr(0, digits));
        std::string unit = text.substr(digits);
        for (char& c : unit) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        static const char* const kUnits = "KMGT";
        int shift = 0;
        if (!unit.empty() && unit != "B") {
          const char* at = std::strchr(kUnits, unit[0]);
          const std::string rest = unit.substr(1);
          if (at == nullptr || unit[0] == '\0' || !(rest.empty() || rest == "B" || rest == "I" || rest == "IB")) {
            return problem;
          }
          shift = 10 * static_cast<int>(at - kUnits + 1);
        }
        if (value > (max >> shift)) return problem;
        value <<= shift;
        if (value < min) return problem;
        text = std::to_string(value);
        return {};
      },
      "", "SIZE");
}

// One subcommand: its parser and what runs it.
struct Command {
  CLI::App* app;
  std::function<int()> run;
};

std::string exitCodeTable() {
  std::string out = "Exit codes:\n";
#define KELODBG_EXIT_ROW(name, value, meaning) out += fmt::format("  {:>2}  {}\n", value, meaning);
  KELODBG_EXIT_CODES(KELODBG_EXIT_ROW)
#undef KELODBG_EXIT_ROW
  return out;
}

std::string versionText() {
  uint32_t major = 0, minor = 0, patch = 0;
  keloDbgVersion(&major, &minor, &patch, nullptr);
  return fmt::format("kelodbg {} (debug-info library {}.{}.{})", KELODBG_VERSION, major, minor, patch);
}

#if defined(KELODBG_WITH_SYMBOLIZE)
// Arguments that addr2line would read as addresses but that name files: a
// second FILE given by mistake is a usage error, not the address 0.
void checkAddresses(const std::vector<std::string>& args) {
  for (const std::string& a : args) {
    const size_t start = a.size() > 2 && a[0] == '0' && (a[1] == 'x' || a[1] == 'X') ? 2 : 0;
    const bool hex = start < a.size() && a.find_first_not_of("0123456789abcdefABCDEF", start) == std::string::npos;
    if (hex) continue;
    struct stat st;
    const bool looksLikeFile = stat(a.c_str(), &st) == 0 || a.find('/') != std::string::npos ||
                               (a.size() > 5 && a.compare(a.size() - 5, 5, ".kdbg") == 0);
    if (looksLikeFile) {
      fail(Exit::kUsage, {}, fmt::format("'{}' is a file, not an address; addr2line reads one FILE", printable(a)));
    }
  }
}
#endif

class Cli {
 public:
  Cli() : app_(kDescription, "kelodbg") {
    app_.set_version_flag("--version", versionText());
    app_.require_subcommand(1);
    define();
    for (const Command& c : commands_) {
      if (c.app->get_name() != "help") maxInput(c.app);
      // Every command answers --version, as the tool does.
      c.app->set_version_flag("--version", versionText());
    }
    // The exit codes are told once, in the help of kelodbg itself.
    app_.footer("Examples:\n" +
                examplesText("  $ ", [this](const std::string& name) { return find(name) != nullptr; }) + "\n" +
                kNotes + "\nSee also: " + kSeeAlso + "\n\n" + exitCodeTable());
  }

  int run(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty()) return usage("a command is required");
    const std::string& first = args[0];
    if (first[0] != '-' && find(first) == nullptr) return usage(fmt::format("unknown command '{}'", first));
    expandFileArguments(args);

    std::vector<char*> pointers{argv[0]};
    for (std::string& a : args) pointers.push_back(&a[0]);
    try {
      app_.parse(static_cast<int>(pointers.size()), pointers.data());
    } catch (const CLI::ParseError& e) {
      if (e.get_exit_code() == 0) {  // --help, --version
        app_.exit(e);
        return 0;
      }
      complain(
          fmt::format("kelodbg: {}\nRun 'kelodbg help' (or 'kelodbg help COMMAND') for more information.\n", e.what()));
      return static_cast<int>(Exit::kUsage);
    }
    setMaxInput(maxInput_);
    for (const bool* flag : jsonFlags_) jsonRequested = jsonRequested || *flag;
#if defined(KELODBG_WITH_SYMBOLIZE)
    a2l_.answers.demangle = !demangleStyle_.empty();
    a2l_.json = outputStyle_ == "JSON";
    // LLVM's JSON always holds the whole inline chain.
    if (a2l_.json) a2l_.answers.inlines = true;
#endif
    for (const Command& c : commands_) {
      if (c.app->parsed()) return c.run();
    }
    return usage("a command is required");
  }

 private:
  CLI::App* command(const char* name, const char* description, std::function<int()> run) {
    CLI::App* sub = app_.add_subcommand(name, description);
    commands_.push_back({sub, std::move(run)});
    return sub;
  }

  // A command that returns nothing succeeds when it returns.
  CLI::App* action(const char* name, const char* description, std::function<void()> run) {
    return command(name, description, std::function<int()>([run] {
                     run();
                     return 0;
                   }));
  }

  CLI::App* find(const std::string& name) {
    for (const Command& c : commands_) {
      if (c.app->check_name(name)) return c.app;
    }
    return nullptr;
  }

  // How much of a stream is read; every command that reads files has it.
  void maxInput(CLI::App* sub) {
    sub->add_option("--max-input", maxInput_,
                    "Bytes of a stream (standard input, a pipe) kept in memory at most (suffixes K, M, G); default 4G")
        ->type_name("SIZE")
        ->transform(sizeValidator(1, uint64_t{1} << 50));
  }

  void file(CLI::App* sub, std::string& target, const char* what = "The debug-info file") {
    sub->add_option("file", target, what)->type_name("FILE")->required();
  }
  void wait(CLI::App* sub, double& seconds) {
    sub->add_option("-w,--wait", seconds, "Seconds to wait for a file that another change has locked (default 10)")
        ->type_name("SECONDS")
        ->check(CLI::Validator(
            [](std::string& text) -> std::string {
              char* end = nullptr;
              const double value = std::strtod(text.c_str(), &end);
              if (text.empty() || *end != '\0' || !std::isfinite(value) || value < 0 || value > kMaxWait) {
                return fmt::format("'{}' is not a number of seconds from 0 to {}", printable(text),
                                   static_cast<long>(kMaxWait));
              }
              return {};
            },
            "", "SECONDS"));
  }
  // Changes refuse files that hold what reading drops, unless told.
  void drops(CLI::App* sub, bool& dropUnread) {
    sub->add_flag("--drop-unread", dropUnread,
                  "Change a file even when it holds what reading drops (repeated identifiers or sections, trailing "
                  "bytes), which the change then loses");
  }
  // FILE, changed in place: --wait and --drop-unread come with it. The
  // positional arguments that follow FILE are defined after it.
  void changed(CLI::App* sub, ChangeTarget& target) { file(sub, target.file); }
  void changeOptions(CLI::App* sub, ChangeTarget& target) {
    wait(sub, target.wait);
    drops(sub, target.dropUnread);
  }
  void id(CLI::App* sub, std::string& target) {
    sub->add_option("id", target, "The entry's identifier")->type_name("ID")->required();
  }
  void kind(CLI::App* sub, unsigned& target) {
    sub->add_option("-k,--kind", target, "The kind of identifiers given without one (default 1)")->type_name("KIND");
  }
  // --json; a failure is then a JSON document too.
  void json(CLI::App* sub, bool& flag) {
    sub->add_flag("--json", flag, "Print one JSON document");
    jsonFlags_.push_back(&flag);
  }
#if defined(KELODBG_WITH_SYMBOLIZE)
  void cacheSize(CLI::App* sub, size_t& bytes) {
    sub->add_option("--cache-size", bytes,
                    "Bytes of decoded debug information kept at once (suffixes K, M, G); default 1G")
        ->type_name("SIZE")
        ->transform(sizeValidator(uint64_t{1} << 20, std::min<uint64_t>(SIZE_MAX, uint64_t{1} << 50)));
  }
#endif

  void define() {
    CLI::App* sub;
    sub =
        action("create", "Create FILE (replacing it) with entries from ELF files", [this] { createCommand(create_); });
    file(sub, create_.file, "The debug-info file to create ('-': standard output)");
    sub->add_option("entries", create_.entries, "Store ELF-FILE under ID")->type_name("ID=ELF-FILE");
    kind(sub, create_.kind);
    wait(sub, create_.wait);

    sub = action("add", "Add entries from ELF files to FILE", [this] { addCommand(add_); });
    changed(sub, add_.target);
    sub->add_option("entries", add_.entries, "Store ELF-FILE under ID")->type_name("ID=ELF-FILE")->required();
    kind(sub, add_.kind);
    changeOptions(sub, add_.target);

    sub = action("remove", "Remove entries from FILE, all or none", [this] { removeCommand(remove_); });
    changed(sub, remove_.target);
    sub->add_option("ids", remove_.ids, "The entries to remove; each must exist")->type_name("ID")->required();
    changeOptions(sub, remove_.target);

    sub = action("set-addr", "Record load addresses of sections of one entry, or of many (--from)",
                 [this] { setAddrCommand(setAddr_); });
    changed(sub, setAddr_.target);
    sub->add_option("id", setAddr_.id, "The entry's identifier")->type_name("ID");
    sub->add_option("addresses", setAddr_.addresses,
                    "SECTION ADDRESS, or any number of SECTION=ADDRESS; sections of the entry's image, .constant "
                    "and .local")
        ->type_name("SECTION=ADDRESS");
    sub->add_option("--from", setAddr_.from,
                    "Lines 'ID SECTION=ADDRESS...' (# comments; '-' for standard input), all in one rewrite, all or "
                    "none")
        ->type_name("LIST");
    changeOptions(sub, setAddr_.target);

    sub = action("place", "Record addresses of all allocated sections of entries: from a link map, or from a base",
                 [this] { placeCommand(place_); });
    changed(sub, place_.target);
    sub->footer(
        "With --map, every object that a GNU ld link map (ld -Map) places and whose bytes equal a stored image gets "
        "the address of each of its sections in the map. With ID --base, one entry is laid out from ADDRESS as a "
        "loader would: in section header order, each section at the next multiple of its alignment after the one "
        "before. Sections without bytes are left out, and only the first of several of one name can have an "
        "address.");
    sub->add_option("id", place_.id, "The entry's identifier (with --base)")->type_name("ID");
    sub->add_option("--base", place_.base, "Where the first section goes (decimal, or hex with 0x)")
        ->type_name("ADDRESS");
    sub->add_option("--map", place_.map, "A GNU ld link map ('-': standard input)")->type_name("LINKMAP");
    changeOptions(sub, place_.target);

    sub = action("unset-addr", "Forget recorded load addresses of sections of one entry",
                 [this] { unsetAddrCommand(unsetAddr_); });
    changed(sub, unsetAddr_.target);
    id(sub, unsetAddr_.id);
    sub->add_option("sections", unsetAddr_.sections, "Sections that have an address")->type_name("SECTION")->required();
    changeOptions(sub, unsetAddr_.target);

    sub = action("renumber", "Give entries new identifiers, all at once or none (alias: rename)",
                 [this] { renumberCommand(renumber_); });
    sub->alias("rename");
    changed(sub, renumber_.target);
    sub->add_option("renumberings", renumber_.renumberings,
                    "The entry OLD gets the identifier NEW; exchanges and chains work")
        ->type_name("OLD=NEW")
        ->required();
    changeOptions(sub, renumber_.target);

    sub = action("merge",
                 "Write the entries of all INPUT files to OUTPUT, or --into FILE; refused on a shared identifier",
                 [this] {
                   if (merge_.into.empty()) {
                     if (merge_.inputs.size() < 2) fail(Exit::kUsage, {}, "merge needs OUTPUT and at least one INPUT");
                     merge_.output = merge_.inputs.front();
                     merge_.inputs.erase(merge_.inputs.begin());
                   }
                   mergeCommand(merge_);
                 });
    sub->add_option("files", merge_.inputs, "OUTPUT ('-': standard output) and the INPUT files ('-': standard input)")
        ->type_name("[OUTPUT] INPUT")
        ->required();
    sub->add_option("--into", merge_.into, "Merge the INPUT files into FILE, in place")->type_name("FILE");
    wait(sub, merge_.wait);
    drops(sub, merge_.dropUnread);

    sub = action("list", "List the entries of FILE, sorted by identifier", [this] { listCommand(list_); });
    file(sub, list_.file);
    json(sub, list_.json);

    sub = action("show", "Show one entry: its image's sections and their addresses", [this] { showCommand(show_); });
    file(sub, show_.file);
    id(sub, show_.id);
    json(sub, show_.json);

    sub = action("extract", "Write the ELF file stored under one entry", [this] { extractCommand(extract_); });
    file(sub, extract_.file);
    id(sub, extract_.id);
    sub->add_option("-o,--output", extract_.output, "The ELF file to write ('-': standard output)")
        ->type_name("FILE")
        ->required();
    wait(sub, extract_.wait);

    sub = command("diff", "Compare two debug-info files entry by entry; exit 0 when equal, 1 when not",
                  [this] { return diffCommand(diff_); });
    sub->add_option("a", diff_.a, "The first file")->type_name("A")->required();
    sub->add_option("b", diff_.b, "The second file")->type_name("B")->required();
    json(sub, diff_.json);

    sub = command("check", "Check that FILE reads; say what is wrong and where, and warn of what the reader drops",
                  [this] { return checkCommand(check_); });
    file(sub, check_.file);
    json(sub, check_.json);
    sub->add_flag("-q,--quiet", check_.quiet, "Print nothing on success, and no warnings; the exit code tells");
    sub->add_flag("--strict", check_.strict, "Warnings make the exit code 15");

    sub = action("version", "Print the version of kelodbg, or of FILE's format", [this] { versionCommand(version_); });
    sub->add_option("file", version_.file, "A debug-info file")->type_name("FILE");
    json(sub, version_.json);

#if defined(KELODBG_WITH_SYMBOLIZE)
    sub = command("addr2line", "Function, file and line of run-time addresses, as binutils addr2line prints them",
                  [this] {
                    // binutils' habit: -e FILE, the addresses after it.
                    if (!exe_.empty()) {
                      if (!a2lFile_.empty()) a2lAddresses_.insert(a2lAddresses_.begin(), a2lFile_);
                      a2lFile_ = exe_;
                    }
                    if (a2lFile_.empty()) fail(Exit::kUsage, {}, "addr2line needs FILE (or -e FILE)");
                    checkAddresses(a2lAddresses_);
                    if (a2lAddresses_.empty()) claimStandardInput("<stdin> (the addresses)");
                    const Input input(a2lFile_);
                    a2l_.module = input.name();
                    return addr2lineCommand(*Store(input).placedList(), a2l_, a2lAddresses_, stdin, stdout);
                  });
    sub->add_option("file", a2lFile_, "The debug-info file")->type_name("FILE");
    sub->add_option("addresses", a2lAddresses_, "Hex addresses; one a line from standard input when none are given")
        ->type_name("ADDRESS");
    sub->add_option("-e,--exe", exe_, "The debug-info file (as binutils addr2line takes its program)")
        ->type_name("FILE");
    sub->add_flag("-a,--addresses", a2l_.answers.addresses, "Print each address before its answer");
    sub->add_flag("-f,--functions", a2l_.answers.functions, "Print function names");
    sub->add_flag("-i,--inlines", a2l_.answers.inlines, "Print the functions an inlined function was inlined into too");
    sub->add_flag("-p,--pretty-print", a2l_.answers.pretty, "One line for each address");
    sub->add_flag("-s,--basenames", a2l_.answers.basenames, "File names without their folders");
    sub->add_flag("--column", a2l_.answers.columns, "Print file:line:column where the column is known");
    sub->add_flag("--where", a2l_.answers.where,
                  "Print the entry, section and offset that hold each address, and the variable that starts there");
    sub->add_option("--output-style", outputStyle_,
                    "GNU (the default: binutils' lines) or JSON (LLVM's symbolizer's objects, every inline frame, with "
                    "the entry, "
                    "section and offset; one array for addresses given as arguments, one line per address read)")
        ->type_name("STYLE")
        ->check(CLI::IsMember({"GNU", "JSON"}));
    sub->add_flag("-C,--demangle{auto}", demangleStyle_,
                  "Demangle C++ names; STYLE auto, gnu-v3 or gnu (the Itanium C++ names that g++ and clang give)")
        ->type_name("[=STYLE]")
        ->check(CLI::Validator(
            [](std::string& style) -> std::string {
              if (style == "true") style = "auto";  // -C, --demangle without a style
              if (style == "auto" || style == "gnu-v3" || style == "gnu") return {};
              return fmt::format("'{}': the styles are auto, gnu-v3 and gnu", printable(style));
            },
            "", "STYLE"));
    cacheSize(sub, a2l_.answers.cacheBytes);

    sub = command(
        "stack", "Function, file and line of every frame of a stack trace (gdb, sanitizers, glibc, addresses)", [this] {
          const Input input(stackFile_);
          const Store store(input);
          const ListPtr placed = store.placedList();
          stack_.name = input.name();
          stack_.version = store.version();
          stack_.answers.functions = stack_.answers.inlines = true;
          stack_.answers.demangle = !mangled_;
          TextInput trace(trace_.empty() ? "-" : trace_, "<stdin> (the stack trace)");
          return stackCommand(*placed, stack_, trace);
        });
    file(sub, stackFile_);
    sub->footer(
        "Reads gdb's backtrace, sanitizer reports, glibc's backtrace_symbols or plain addresses, one a line, and "
        "prints "
        "each line followed by its frames. Frame #0 (the first line of a plain list) is looked up as given; every "
        "later frame holds a return address and is looked up less one, except the frame a signal interrupted.");
    sub->add_option("trace", trace_, "The stack trace ('-' or none: standard input)")->type_name("TRACE");
    json(sub, stack_.json);
    sub->add_option("--module", stack_.module,
                    "Look up only the frames of this program or library (a path, or a file name), by their offset "
                    "in it as sanitizers and glibc print it (\"(MODULE+0xOFFSET)\"): for a store placed at the "
                    "link map's addresses of a position-independent program")
        ->type_name("NAME");
    sub->add_flag("--mangled", mangled_, "Print C++ names as the object holds them");
    sub->add_flag("-s,--basenames", stack_.answers.basenames, "File names without their folders");
    sub->add_flag("--column", stack_.answers.columns, "Print file:line:column where the column is known");
    sub->add_flag("--where", stack_.answers.where, "Print the entry, section and offset that hold each address");
    cacheSize(sub, stack_.answers.cacheBytes);

    sub = command("map", "The address map: every placed section of every entry, sorted by address", [this] {
      const Input input(mapFile_);
      const Store store(input);
      const ListPtr placed = store.placedList();
      for (const IndexedEntry* e : store.entries()) {
        if (e->sections.empty()) continue;
        const kelo_elf::ELF& image = placed->entries.find(e->id)->second.elf;
        for (const std::string& w : placementWarnings(Id::of(e->id), image, e->sections)) {
          complain(fmt::format("kelodbg: {}: warning: {}\n", escapeControls(input.name()), escapeControls(w)));
        }
      }
      return mapCommand(*placed, input.name(), store.version(), mapJson_);
    });
    file(sub, mapFile_);
    json(sub, mapJson_);
#endif

#if defined(KELODBG_WITH_SERVE)
    sub = command("serve", "Answer symbolization requests over HTTP for every debug-info file of DIR",
                  [this] { return serveCommand(serve_); });
    sub->footer(
        "Endpoints: POST /v1/symbolize {\"store\": NAME, \"addresses\": [\"0x...\"], \"inline\": true, "
        "\"demangle\": true}; GET /v1/stores; GET /v1/stores/NAME/entries/ID (the stored ELF file); GET "
        "/buildid/HEX/debuginfo (the image with that GNU build id); GET /health; GET /metrics (Prometheus). A "
        "store is a file NAME.kdbg of DIR; files that change are answered from within a second, and SIGHUP "
        "rescans at once. SIGTERM stops accepting, finishes what is in flight and exits 0.");
    sub->add_option("dir", serve_.dir, "The folder of debug-info files")->type_name("DIR")->required();
    sub->add_option("--listen", serve_.listen, "Where to listen (default 127.0.0.1:7070; port 0: any)")
        ->type_name("ADDRESS:PORT");
    sub->add_option("--threads", serve_.threads, "Threads that answer requests (default 4)")
        ->type_name("N")
        ->check(CLI::Range(1u, 256u));
    cacheSize(sub, serve_.cacheBytes);
    sub->add_option("--max-body", serve_.limits.maxBody, "Bytes of a request body at most (default 1M): 413 above")
        ->type_name("SIZE")
        ->transform(sizeValidator(1024, uint64_t{1} << 30));
    sub->add_option("--max-addresses", serve_.limits.maxAddresses,
                    "Addresses of one symbolize request at most (default 10000): 413 above")
        ->type_name("N")
        ->check(CLI::Range(size_t{1}, size_t{10000000}));
    sub->add_option("--timeout", serve_.timeout,
                    "Seconds a connection may stay idle or send slowly before it is cut off (default 10)")
        ->type_name("SECONDS")
        ->check(CLI::Range(1u, 3600u));
#endif

    sub = command("help", "Show the help of kelodbg or of one command", [this] { return help(); });
    sub->add_option("command", helpTopic_, "A command")->type_name("COMMAND");
    sub->add_flag("--man", helpMan_, "Print a manual page")->group("");
    sub->add_flag("--bash-completion", helpCompletion_, "Print a bash completion script")->group("");
  }

  int help() {
    CLI::App* topic = helpTopic_.empty() ? &app_ : find(helpTopic_);
    if (topic == nullptr) return usage(fmt::format("unknown command '{}'", helpTopic_));
    print(helpMan_ ? manPage() : helpCompletion_ ? bashCompletion() : helpOf(topic));
    return 0;
  }

  // The help of kelodbg or of one command, whatever command is running.
  std::string helpOf(CLI::App* topic) {
    return app_.get_formatter()->make_help(topic, topic == &app_ ? "kelodbg" : "kelodbg " + topic->get_name(),
                                           CLI::AppFormatMode::Normal);
  }

  std::string commandList() {
    std::string out = "Commands:\n";
    for (const Command& c : commands_) out += fmt::format("  {:<11} {}\n", c.app->get_name(), c.app->get_description());
    return out;
  }

  int usage(const std::string& problem) {
    complain(
        fmt::format("kelodbg: {}\n\nUsage: kelodbg COMMAND [ARGUMENTS]\n{}\nRun 'kelodbg help COMMAND' for a "
                    "command's arguments.\n",
                    problem, commandList()));
    return static_cast<int>(Exit::kUsage);
  }

  // @FILE arguments become the lines of FILE. A line is at most
  // kMaxArgumentLine bytes and all of them together at most
  // kMaxArgumentBytes, so that an endless FILE ends with a message.
  void expandFileArguments(std::vector<std::string>& args) {
    std::vector<std::string> out;
    uint64_t total = 0;
    for (size_t i = 0; i < args.size(); ++i) {
      const std::string& a = args[i];
      if (i == 0 || a.size() < 2 || a[0] != '@') {
        out.push_back(a);
        continue;
      }
      const std::string name = a.substr(1);
      TextInput text(name, "<stdin> (@-)");
      std::string line;
      while (text.readLine(line, kMaxArgumentLine, true)) {
        total += line.size() + 1;
        if (total > kMaxArgumentBytes) {
          fail(Exit::kUsage, text.name(), fmt::format("more than {} MiB of arguments", kMaxArgumentBytes >> 20));
        }
        const size_t start = line.find_first_not_of(" \t\r");
        if (start == std::string::npos || line[start] == '#') continue;
        out.push_back(line.substr(start, line.find_last_not_of(" \t\r") + 1 - start));
      }
    }
    args = std::move(out);
  }

  std::string manPage() {
    const auto escape = [](std::string text) {
      std::string out;
      for (char c : text) {
        if (c == '\\')
          out += "\\e";
        else if (c == '-')
          out += "\\-";
        else
          out += c;
      }
      // A line starting with '.' or '\'' would be a request.
      std::string lines;
      size_t start = 0;
      while (start < out.size()) {
        size_t end = out.find('\n', start);
        if (end == std::string::npos) end = out.size();
        std::string line = out.substr(start, end - start);
        if (!line.empty() && (line[0] == '.' || line[0] == '\'')) line = "\\&" + line;
        lines += line + "\n";
        start = end + 1;
      }
      return lines;
    };
    std::string out = fmt::format(".TH KELODBG 1 \"\" \"kelodbg {}\" \"User Commands\"\n", KELODBG_VERSION);
    out += ".SH NAME\nkelodbg \\- " + escape(kDescription);
    out += ".SH SYNOPSIS\n.B kelodbg\n.I COMMAND\n[\n.I ARGUMENTS\n]\n";
    out += ".SH DESCRIPTION\n.nf\n" + escape(commandList()) + ".fi\n.PP\n" + escape(kNotes);
    out += ".SH COMMANDS\n";
    for (const Command& c : commands_) {
      out += ".SS " + c.app->get_name() + "\n.nf\n" + escape(helpOf(c.app)) + ".fi\n";
    }
    out += ".SH EXIT STATUS\n.nf\n" + escape(exitCodeTable()) + ".fi\n";
    out += ".SH EXAMPLES\n.nf\n" +
           escape(examplesText("  $ ", [this](const std::string& name) { return find(name) != nullptr; })) + ".fi\n";
    out += ".SH SEE ALSO\n" + escape(kSeeAlso) + "\n";
    return out;
  }

  std::string bashCompletion() {
    std::string names, cases;
    for (const Command& c : commands_) {
      std::string options;
      for (const CLI::Option* o : c.app->get_options()) {
        for (const std::string& n : o->get_lnames()) options += " --" + n;
        for (const std::string& n : o->get_snames()) options += " -" + n;
      }
      for (const std::string& alias : c.app->get_aliases()) names += " " + alias;
      names += " " + c.app->get_name();
      std::string patterns = c.app->get_name();
      for (const std::string& alias : c.app->get_aliases()) patterns += "|" + alias;
      cases += fmt::format("    {}) options=\"{}\" ;;\n", patterns, options.empty() ? "" : options.substr(1));
    }
    return fmt::format(
        "# bash completion for kelodbg (generated by 'kelodbg help --bash-completion')\n"
        "_kelodbg() {{\n"
        "  local cur=${{COMP_WORDS[COMP_CWORD]}}\n"
        "  if [[ $COMP_CWORD -eq 1 ]]; then\n"
        "    COMPREPLY=($(compgen -W \"{} --help --version\" -- \"$cur\"))\n"
        "    return\n"
        "  fi\n"
        "  local options=\n"
        "  case ${{COMP_WORDS[1]}} in\n"
        "{}"
        "  esac\n"
        "  if [[ $cur == -* ]]; then\n"
        "    COMPREPLY=($(compgen -W \"$options\" -- \"$cur\"))\n"
        "  elif [[ ${{COMP_WORDS[1]}} == help ]]; then\n"
        "    COMPREPLY=($(compgen -W \"{}\" -- \"$cur\"))\n"
        "  else\n"
        "    COMPREPLY=($(compgen -f -- \"$cur\"))\n"
        "  fi\n"
        "}}\n"
        "complete -o filenames -F _kelodbg kelodbg\n",
        names.substr(1), cases, names.substr(1));
  }

  CLI::App app_;
  // Each command's options, filled by the parser.
  CreateOptions create_;
  AddOptions add_;
  RemoveOptions remove_;
  SetAddrOptions setAddr_;
  PlaceOptions place_;
  UnsetAddrOptions unsetAddr_;
  RenumberOptions renumber_;
  MergeOptions merge_;
  ListOptions list_;
  ShowOptions show_;
  ExtractOptions extract_;
  DiffOptions diff_;
  CheckOptions check_;
  VersionOptions version_;
  std::vector<const bool*> jsonFlags_;  // every command's --json
#if defined(KELODBG_WITH_SYMBOLIZE)
  Addr2lineOptions a2l_;
  std::string a2lFile_;
  std::vector<std::string> a2lAddresses_;
  std::string exe_;            // addr2line -e FILE
  std::string demangleStyle_;  // addr2line -C[=STYLE]: empty when not asked
  std::string outputStyle_ = "GNU";
  StackOptions stack_;
#if defined(KELODBG_WITH_SERVE)
  ServeOptions serve_;
#endif
  std::string stackFile_;
  std::string mapFile_;
  bool mapJson_ = false;
  std::string trace_;     // stack TRACE
  bool mangled_ = false;  // stack --mangled
#endif
  std::vector<Command> commands_;
  uint64_t maxInput_ = kDefaultMaxInput;
  std::string helpTopic_;
  bool helpMan_ = false;
  bool helpCompletion_ = false;
};

int runTool(int argc, char** argv) {
  setUpProcess();
  try {
    Cli cli;
    const int code = cli.run(argc, argv);
    finishOutput();
    return code;
  } catch (const Failure& f) {
    // A script that asked for JSON gets the failure as its one document.
    if (jsonRequested) {
      print(Json::object()
                .set("file", f.file.empty() ? Json() : Json(f.file))
                .set("ok", false)
                .set("error", Json::object().set("code", static_cast<int>(f.code)).set("message", f.message))
                .dump());
    }
    std::fflush(stdout);
    // Names are arbitrary bytes: escaped, so that a message stays one line
    // and forges nothing.
    complain(f.file.empty() ? fmt::format("kelodbg: {}\n", escapeControls(f.message))
                            : fmt::format("kelodbg: {}: {}\n", escapeControls(f.file), escapeControls(f.message)));
    return static_cast<int>(f.code);
  } catch (const std::bad_alloc&) {
    complain("kelodbg: out of memory\n");
    return static_cast<int>(Exit::kNoMemory);
  } catch (const std::exception& e) {
    complain(fmt::format("kelodbg: {}\n", e.what()));
  }
  return static_cast<int>(Exit::kFailure);
}

}  // namespace
}  // namespace kelodbg

int main(int argc, char** argv) { return kelodbg::runTool(argc, argv); }
