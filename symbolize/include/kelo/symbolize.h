/* The symbolization library, C interface: from a run-time address to the
 * function, source file and line, across the images of a debug-info list.
 *
 * Conventions:
 *  1. Handles are opaque pointers. A keloSym (symbolizer) and a
 *     keloSymResult (one answer) belong to the caller, who releases each
 *     exactly once: keloSymClose and keloSymResultFree.
 *  2. A symbolizer borrows its list. The list must outlive it, and any call
 *     that changes the list (keloDbgAdd, keloDbgMerge, keloDbgClear,
 *     keloDbgUpdate, keloDbgSetSectionAddr, keloDbgFree) invalidates it, as
 *     it does iterators: close it and open a new one. A result owns its
 *     text and stays valid after its symbolizer is closed.
 *  3. Strings handed out are borrowed from the handle they come from (the
 *     symbolizer for ranges, the result for frames) and live as long as it.
 *     Unknown text is "", never NULL.
 *  4. Failure is a NULL, false or 0 result; no call says why, and no call
 *     lets an exception out (thread cancellation still unwinds). A NULL
 *     handle or out-parameter gives the call's failure result.
 *  5. Calls on one symbolizer (with its results) must not overlap; distinct
 *     symbolizers share nothing, but they read their lists.
 */
#ifndef KELO_SYMBOLIZE_H_
#define KELO_SYMBOLIZE_H_

#include <stdbool.h>
#include <stdint.h>

#include "kelo/debuginfo.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct keloSymRec* keloSym;
typedef struct keloSymResultRec* keloSymResult;

/* One allocated section of one entry, placed at its recorded address:
 * addresses [start, end). */
typedef struct keloSymRange {
  keloDbgID id;
  const char* section;
  uint64_t start;
  uint64_t end;
  uint32_t overlapCount; /* how many other ranges share addresses with it */
} keloSymRange;

/* One frame of an answer; innermost first, the function the code belongs to
 * last. */
typedef struct keloSymFrame {
  const char* function;  /* as recorded (mangled for C++); "" when unknown */
  const char* demangled; /* function demangled, or the same text */
  const char* file;      /* "" when unknown */
  uint32_t line;         /* 0 when unknown */
  uint32_t column;
  uint32_t discriminator;
} keloSymFrame;

/* A symbolizer over `list`: builds its address map (reading the entries'
 * section headers only). NULL when list is NULL or memory runs out. */
KELO_EXPORT keloSym keloSymOpen(keloDbgList list);

/* Releases a symbolizer; its list is untouched. NULL does nothing. */
KELO_EXPORT void keloSymClose(keloSym sym);

/* The number of ranges in the address map. */
KELO_EXPORT uint32_t keloSymRangeCount(keloSym sym);

/* Range `index` (0 .. count-1) in address order. False when out of range. */
KELO_EXPORT bool keloSymGetRange(keloSym sym, uint32_t index, keloSymRange* out);

/* The position of the k-th range (0 .. overlapCount-1) overlapping range
 * `index`. False when either is out of range. */
KELO_EXPORT bool keloSymGetOverlap(keloSym sym, uint32_t index, uint32_t k, uint32_t* other);

/* What the debug information says about `address`. NULL when no range holds
 * the address, or when memory runs out. Free it with keloSymResultFree. */
KELO_EXPORT keloSymResult keloSymResolve(keloSym sym, uint64_t address);

/* Where the address lies: the entry, the section and the offset in it. NULL
 * out-parameters are skipped. False when result is NULL. */
KELO_EXPORT bool keloSymResultPlace(keloSymResult result, keloDbgID* id, const char** section, uint64_t* offset);

/* The number of frames; 0 when nothing is known about the address. */
KELO_EXPORT uint32_t keloSymResultFrameCount(keloSymResult result);

/* Frame `index` (0 .. count-1). False when out of range. */
KELO_EXPORT bool keloSymResultFrame(keloSymResult result, uint32_t index, keloSymFrame* out);

/* Releases a result. NULL does nothing. */
KELO_EXPORT void keloSymResultFree(keloSymResult result);

/* Added in version node KELO_SYMBOLIZE_1.2. */

/* The name of the variable that starts at the address; "" when none does,
 * NULL when result is NULL. Valid until the result is freed. */
KELO_EXPORT const char* keloSymResultVariable(keloSymResult result);

/* Where the function of frame `index` begins: the file ("" when unknown)
 * and line (0) of its declaration, and its run-time start address. Returns
 * whether the start address is known; *address is 0 when it is not. NULL
 * out-parameters are skipped. False also when the frame does not exist. */
KELO_EXPORT bool keloSymResultFrameStart(keloSymResult result, uint32_t index, const char** file, uint32_t* line,
                                         uint64_t* address);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* KELO_SYMBOLIZE_H_ */
