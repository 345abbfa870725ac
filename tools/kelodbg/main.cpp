// kelodbg: create, inspect and change debug-info files from the command line.
#include <cstdio>
#include <exception>
#include <new>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "commands.h"
#include "list_bridge.h"
#include "symbolize_commands.h"
#include "tool.h"

namespace kelodbg {
namespace {

// Validators: the parser rejects malformed arguments with exit code 2
// before any file is touched.
std::string checkId(std::string& text) {
  Id id;
  return parseId(text, id);
}

std::string checkNumber(std::string& text) {
  uint32_t value;
  return parseNumber(text, value);
}

std::string checkEntry(std::string& text) {
  std::string id, path;
  std::string error = splitAssignment(text, "ID=ELF-FILE", id, path);
  return error.empty() ? checkId(id) : error;
}

std::string checkRenumbering(std::string& text) {
  std::string from, to;
  std::string error = splitAssignment(text, "OLD=NEW", from, to);
  if (error.empty()) error = checkId(from);
  return error.empty() ? checkId(to) : error;
}

const CLI::Validator kId(checkId, "", "ID");
const CLI::Validator kNumber(checkNumber, "", "NUMBER");
const CLI::Validator kEntry(checkEntry, "", "ID=ELF");
const CLI::Validator kRenumbering(checkRenumbering, "", "OLD=NEW");

std::string versionText() {
  uint32_t major = 0, minor = 0, patch = 0;
  const char* build = "";
  keloDbgVersion(&major, &minor, &patch, &build);
  return fmt::format("kelodbg {} (debug-info library {}.{}.{}, build {})", KELODBG_VERSION, major, minor, patch, build);
}

const char* const kIdHelp =
    "Identifiers are KIND:NUMBER or NUMBER (kind 1); kinds are 0 and 1. Numbers are decimal or hex with 0x.\n";

CLI::App* command(CLI::App& app, const char* name, const char* description) {
  CLI::App* sub = app.add_subcommand(name, description);
  sub->footer(std::string(kIdHelp) + "\n" + exitCodeHelp());
  return sub;
}

int run(int argc, char** argv) {
  CLI::App app(
      "Creates, inspects and changes debug-info files: ELF images filed under identifiers, with the load "
      "addresses of their sections.",
      "kelodbg");
  app.set_version_flag("--version", versionText());
  app.require_subcommand(1);
  app.footer(std::string(kIdHelp) + "\n" + exitCodeHelp());

  std::string file, out, id, section, addr;
  std::vector<std::string> args;
  bool json = false, quiet = false;

  CLI::App* create = command(app, "create", "Create FILE (replacing it) with entries of kind 1 from ELF files");
  create->add_option("file", file, "The debug-info file to create")->type_name("FILE")->required();
  create->add_option("entries", args, "ID=ELF-FILE: store the ELF file under kind 1 and ID's number")
      ->type_name("ID=ELF-FILE")
      ->check(kEntry);

  CLI::App* add = command(app, "add", "Add entries of kind 1 from ELF files to FILE");
  add->add_option("file", file, "The debug-info file to change")->type_name("FILE")->required();
  add->add_option("entries", args, "ID=ELF-FILE: store the ELF file under kind 1 and ID's number")
      ->type_name("ID=ELF-FILE")
      ->required()
      ->check(kEntry);

  CLI::App* setAddr = command(app, "set-addr", "Record the load address of a section of one entry");
  setAddr->add_option("file", file, "The debug-info file to change")->type_name("FILE")->required();
  setAddr->add_option("id", id, "The entry's identifier")->type_name("ID")->required()->check(kId);
  setAddr->add_option("section", section, "A section of the entry's image, .constant or .local")
      ->type_name("NAME")
      ->required();
  setAddr->add_option("address", addr, "The 32-bit load address")->type_name("ADDRESS")->required()->check(kNumber);

  CLI::App* renumberCmd = command(app, "renumber", "Give entries new identifiers, all at once or none");
  renumberCmd->add_option("file", file, "The debug-info file to change")->type_name("FILE")->required();
  renumberCmd->add_option("renumberings", args, "OLD=NEW: the entry OLD gets the identifier NEW")
      ->type_name("OLD=NEW")
      ->required()
      ->check(kRenumbering);

  CLI::App* mergeCmd = command(
      app, "merge", "Write the entries of all INPUT files to OUTPUT (replacing it); refused on a shared identifier");
  mergeCmd->add_option("output", out, "The debug-info file to write")->type_name("FILE")->required();
  mergeCmd->add_option("inputs", args, "The debug-info files to merge")->type_name("FILE")->required();

  CLI::App* listCmd = command(app, "list", "List the entries of FILE, sorted by identifier");
  listCmd->add_option("file", file, "The debug-info file")->type_name("FILE")->required();
  listCmd->add_flag("--json", json, "Print JSON instead of a table");

  CLI::App* showCmd = command(app, "show", "Show one entry: its image's sections and their addresses");
  showCmd->add_option("file", file, "The debug-info file")->type_name("FILE")->required();
  showCmd->add_option("id", id, "The entry's identifier")->type_name("ID")->required()->check(kId);
  showCmd->add_flag("--json", json, "Print JSON instead of a table");

  CLI::App* extractCmd = command(app, "extract", "Write the ELF file stored under one entry");
  extractCmd->add_option("file", file, "The debug-info file")->type_name("FILE")->required();
  extractCmd->add_option("id", id, "The entry's identifier")->type_name("ID")->required()->check(kId);
  extractCmd->add_option("-o,--output", out, "The ELF file to write (replaced if it exists)")
      ->type_name("FILE")
      ->required();

  CLI::App* versionCmd = command(app, "version", "Print the version in FILE's header");
  versionCmd->add_option("file", file, "The debug-info file")->type_name("FILE")->required();

  CLI::App* checkCmd = command(app, "check", "Exit with 0 when FILE reads as a debug-info file");
  checkCmd->add_option("file", file, "The debug-info file")->type_name("FILE")->required();
  checkCmd->add_flag("-q,--quiet", quiet, "Print nothing; only the exit code tells");

  Addr2lineOptions a2l;
  CLI::App* a2lCmd =
      command(app, "addr2line", "Print function, file and line for addresses, as binutils addr2line does");
  a2lCmd->add_option("file", file, "The debug-info file")->type_name("FILE")->required();
  a2lCmd->add_option("address", args, "Hex addresses; one per line from stdin when none")->type_name("ADDRESS");
  a2lCmd->add_flag("-a,--addresses", a2l.addresses, "Print each address first");
  a2lCmd->add_flag("-f,--functions", a2l.functions, "Print function names");
  a2lCmd->add_flag("-i,--inlines", a2l.inlines, "Print the functions an inlined function was inlined into");
  a2lCmd->add_flag("-p,--pretty-print", a2l.pretty, "One line per address");
  a2lCmd->add_flag("-s,--basenames", a2l.basenames, "File names without directories");
  a2lCmd->add_flag("-C,--demangle", a2l.demangle, "Demangle C++ names");
  CLI::App* mapCmd = command(app, "map", "Print the address map: every placed section, sorted by address");
  mapCmd->add_option("file", file, "The debug-info file")->type_name("FILE")->required();
  mapCmd->add_flag("--json", json, "Print JSON instead of a table");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    fmt::print(stderr, "kelodbg: {}\nRun 'kelodbg --help' (or 'kelodbg COMMAND --help') for more information.\n",
               e.what());
    return static_cast<int>(Exit::kUsage);
  }

  if (create->parsed()) createFile(file, args);
  if (add->parsed()) addEntries(file, args);
  if (setAddr->parsed()) setAddress(file, id, section, addr);
  if (renumberCmd->parsed()) renumber(file, args);
  if (mergeCmd->parsed()) merge(out, args);
  if (listCmd->parsed()) list(file, json);
  if (showCmd->parsed()) show(file, id, json);
  if (extractCmd->parsed()) extract(file, id, out);
  if (versionCmd->parsed()) version(file);
  if (checkCmd->parsed()) check(file, quiet);
  if (a2lCmd->parsed()) addr2lineCommand(classOf(readDebugInfo(file).get()), a2l, args, stdin, stdout);
  if (mapCmd->parsed()) mapCommand(classOf(readDebugInfo(file).get()), json, stdout);

  if (std::fflush(stdout) != 0 || std::ferror(stdout)) fail(Exit::kFileIo, "<stdout>", "cannot write");
  return static_cast<int>(Exit::kOk);
}

}  // namespace
}  // namespace kelodbg

int main(int argc, char** argv) {
  using kelodbg::Exit;
  try {
    return kelodbg::run(argc, argv);
  } catch (const kelodbg::Failure& f) {
    if (f.file.empty()) {
      fmt::print(stderr, "kelodbg: {}\n", f.message);
    } else {
      fmt::print(stderr, "kelodbg: {}: {}\n", f.file, f.message);
    }
    return static_cast<int>(f.code);
  } catch (const std::bad_alloc&) {
    fmt::print(stderr, "kelodbg: out of memory\n");
  } catch (const std::exception& e) {
    fmt::print(stderr, "kelodbg: {}\n", e.what());
  }
  return static_cast<int>(Exit::kFailure);
}
