// Text for people and for scripts: section names are arbitrary bytes, so
// both forms escape what would break a table or a JSON document.
#ifndef KELODBG_TEXT_H_
#define KELODBG_TEXT_H_

#include <string>

namespace kelodbg {

// `s` with every byte outside printable ASCII (and the backslash) written
// as \xNN, so it stays on one line and in its column.
std::string printable(const std::string& s);

// `s` as a quoted JSON string. Valid UTF-8 passes through; a byte that is
// not part of a valid UTF-8 sequence is taken as Latin-1 (\u00NN).
std::string jsonString(const std::string& s);

}  // namespace kelodbg

#endif  // KELODBG_TEXT_H_
