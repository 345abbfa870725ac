// kelodbg's commands. Arguments arrive checked for form by the command line
// parser; each command checks them against the files and throws Failure.
#ifndef KELODBG_COMMANDS_H_
#define KELODBG_COMMANDS_H_

#include <string>
#include <vector>

namespace kelodbg {

// `entries` are "ID=ELF-FILE" arguments.
void createFile(const std::string& file, const std::vector<std::string>& entries);
void addEntries(const std::string& file, const std::vector<std::string>& entries);
void setAddress(const std::string& file, const std::string& id, const std::string& section, const std::string& addr);
// `pairs` are "OLD=NEW" arguments.
void renumber(const std::string& file, const std::vector<std::string>& pairs);
void merge(const std::string& out, const std::vector<std::string>& inputs);
void list(const std::string& file, bool json);
void show(const std::string& file, const std::string& id, bool json);
void extract(const std::string& file, const std::string& id, const std::string& out);
void version(const std::string& file);
void check(const std::string& file, bool quiet);

}  // namespace kelodbg

#endif  // KELODBG_COMMANDS_H_
