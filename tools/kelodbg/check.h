// Words for what the file checker finds, shared by `kelodbg check` and by
// every command whose read of a debug-info file fails.
#ifndef KELODBG_CHECK_H_
#define KELODBG_CHECK_H_

#include <string>

#include "file/inspect.h"
#include "tool.h"

namespace kelodbg {

using kelo_debuginfo::file::Report;

// The exit code and message for the report's first error.
// REQUIRES: report.fault is set.
Exit faultCode(const Report& report);
std::string faultMessage(const Report& report);

// One warning in words.
std::string warningMessage(kelo_debuginfo::file::Warning warning, const kelo_debuginfo::file::Finding& finding);

// A short name of a warning for JSON ("duplicate-id", ...).
const char* warningName(kelo_debuginfo::file::Warning warning);
const char* faultName(kelo_debuginfo::file::Fault fault);

// "entry 3 (1:0x00000007), offset 1234, image length" or "offset 8, version".
std::string placeText(const kelo_debuginfo::file::Finding& finding);

}  // namespace kelodbg

#endif  // KELODBG_CHECK_H_
