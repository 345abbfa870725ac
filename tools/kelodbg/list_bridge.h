// The C++ view of a C list handle.
//
// A keloDbgList is a heap kelo_debuginfo::DebugInfoList, so a handle can be
// looked through as the class. The tool needs this only where the C
// interface has no call for what it shows: every section record of an entry,
// an image's size and section names, and an image's bytes. Header-only on
// purpose: the library exports nothing for it.
#ifndef KELODBG_LIST_BRIDGE_H_
#define KELODBG_LIST_BRIDGE_H_

#include "capi/handles.h"

namespace kelodbg {

inline kelo_debuginfo::DebugInfoList& classOf(keloDbgList list) { return *kelo_handles::toList(list); }

}  // namespace kelodbg

#endif  // KELODBG_LIST_BRIDGE_H_
