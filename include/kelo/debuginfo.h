/* The debug-info library, C interface.
 *
 * Conventions:
 *  1. Handles are opaque pointers. keloDbgList and keloDbgIterator belong to
 *     the caller, who releases each exactly once: lists with keloDbgFree,
 *     iterators with keloDbgIterFree.
 *  2. A keloDbgElf handed out by a list (keloDbgAdd, keloDbgFind,
 *     keloDbgIterELF) is borrowed: never free it. It stays valid while its
 *     entry stays in place: until keloDbgClear or keloDbgFree of the list,
 *     a successful keloDbgUpdate of the list (even with no records), or a
 *     successful keloDbgMerge with the list as the source. An image that the
 *     caller passes in stays the caller's.
 *  3. An iterator must not be used after any call that adds, removes or
 *     moves entries of its list (add, merge, clear, update, free).
 *  4. Failure is a NULL, false or 0 result; no call says why, and no call
 *     lets an exception out. A NULL list, iterator, name, path or record
 *     array (with count > 0) gives the call's failure result. The calls that
 *     can fail let one thing through: the unwinding with which the C library
 *     cancels a thread (a read blocked on a FIFO can be cancelled).
 *  5. Identifiers passed in have kind 0 or 1; any other kind is the call's
 *     failure. Images added from C are filed under kind 1.
 *  6. Strings are only read during a call; nothing keeps a pointer to them.
 *  7. Calls on one list (with its iterators and image handles) must not
 *     overlap; distinct lists share nothing.
 */
#ifndef KELO_DEBUGINFO_H_
#define KELO_DEBUGINFO_H_

#include <stdbool.h>
#include <stdint.h>

#include "kelo/elf.h"
#include "kelo/export.h"

/* Calls that cannot fail let nothing out; C++ callers see that in their
 * declarations. */
#if defined(__cplusplus)
#define KELO_DBG_NOEXCEPT noexcept
#else
#define KELO_DBG_NOEXCEPT
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct keloDbgListRec* keloDbgList;
typedef struct keloDbgIteratorRec* keloDbgIterator;
typedef keloElf* keloDbgElf;

/* An identifier: kind (0 or 1) and 32-bit number. */
typedef struct keloDbgID {
  uint32_t kind;
  uint32_t id;
} keloDbgID;

/* One renumbering record: the entry filed under oldID is to be filed under
 * newID. */
typedef struct keloDbgNewID {
  keloDbgID oldID;
  keloDbgID newID;
} keloDbgNewID;

/* ---- Lists, entries and version ---- */

/* A new, empty list; NULL when memory runs out. Free it with keloDbgFree. */
KELO_EXPORT keloDbgList keloDbgAlloc(void);

/* Releases a list with every entry. Its image handles and iterators die with
 * it. NULL does nothing. */
KELO_EXPORT void keloDbgFree(keloDbgList list) KELO_DBG_NOEXCEPT;

/* Destroys every entry; the list stays usable. */
KELO_EXPORT void keloDbgClear(keloDbgList list);

/* Files a copy of `image` under kind 1, number hi << 16 | lo, and returns the
 * stored image. When that identifier is already filed, returns the image
 * stored under it and leaves the list unchanged. The caller's image is
 * neither kept nor changed. NULL when image is NULL, when it cannot be
 * copied, or when memory runs out. */
KELO_EXPORT keloDbgElf keloDbgAdd(keloDbgList list, keloDbgElf image, uint16_t lo, uint16_t hi);

/* The same as keloDbgAdd. */
KELO_EXPORT keloDbgElf keloDbgAddForCU(keloDbgList list, keloDbgElf image, uint16_t lo, uint16_t hi);

/* Moves every entry of `src` into `dst`, all or nothing. True on success
 * (src is then empty, and still needs keloDbgFree); false, with both lists
 * unchanged, when they share an identifier. */
KELO_EXPORT bool keloDbgMerge(keloDbgList dst, keloDbgList src);

/* The image filed under `id`, or NULL. */
KELO_EXPORT keloDbgElf keloDbgFind(keloDbgList list, keloDbgID id);

/* The library version (1, 1, 2) and build text ("unknown", static, never to
 * be freed). NULL out-parameters are skipped. */
KELO_EXPORT void keloDbgVersion(uint32_t* major, uint32_t* minor, uint32_t* patch,
                                const char** build) KELO_DBG_NOEXCEPT;

/* ---- Iteration and section addresses ---- */

/* An iterator on the first entry of `list`; NULL when the list is empty or
 * memory runs out. Free it with keloDbgIterFree. */
KELO_EXPORT keloDbgIterator keloDbgIter(keloDbgList list);

/* Moves to the next entry: true when the iterator is on an entry, false once
 * it has passed the last one (and on every later call). */
KELO_EXPORT bool keloDbgIterNext(keloDbgIterator it) KELO_DBG_NOEXCEPT;

/* The identifier of the current entry. REQUIRES: the iterator is on an
 * entry. A kind other than 0 or 1 (possible in lists read from files) is
 * copied unchanged. */
KELO_EXPORT keloDbgID keloDbgIterID(keloDbgIterator it) KELO_DBG_NOEXCEPT;

/* The stored image of the current entry (borrowed). REQUIRES: the iterator
 * is on an entry. */
KELO_EXPORT keloDbgElf keloDbgIterELF(keloDbgIterator it) KELO_DBG_NOEXCEPT;

/* Releases an iterator; its list is untouched. NULL does nothing. */
KELO_EXPORT void keloDbgIterFree(keloDbgIterator it) KELO_DBG_NOEXCEPT;

/* The address recorded for section `name` of entry `id`; 0 when none is. */
KELO_EXPORT uint32_t keloDbgGetSectionAddr(keloDbgList list, keloDbgID id, const char* name);

/* Records `addr` for section `name` of entry `id`, replacing an earlier one.
 * Only names the image has, ".constant" and ".local" are recorded. */
KELO_EXPORT void keloDbgSetSectionAddr(keloDbgList list, keloDbgID id, const char* name, uint32_t addr);

/* ---- Files ---- */

/* Writes the whole list to `path`, creating or truncating it. True when
 * everything reached the file. A failed write leaves what was written so far
 * on disk. */
KELO_EXPORT bool keloDbgWrite(keloDbgList list, const char* path);

/* A new list holding the entries of the file at `path`; NULL when the file
 * cannot be opened, is not a debug-info file, has a version other than 1.1.x
 * or cannot be decoded. */
KELO_EXPORT keloDbgList keloDbgRead(const char* path);

/* The first three version bytes of the file at `path`, whatever they are.
 * False (out-parameters untouched) when the file cannot be opened or does not
 * start with a debug-info header. NULL out-parameters are skipped. */
KELO_EXPORT bool keloDbgFileVersion(const char* path, uint32_t* major, uint32_t* minor, uint32_t* patch);

/* ---- Renumbering ---- */

/* Applies `count` renumbering records at once, all or nothing (exchanges and
 * chains allowed). False, with the list untouched, when a record has a kind
 * other than 0 or 1, two records share an old or a new identifier, an old
 * identifier is not filed, or a new one is held by an entry not renumbered.
 * `records` may be NULL when count is 0. */
KELO_EXPORT bool keloDbgUpdate(keloDbgList list, const keloDbgNewID* records, uint32_t count);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* KELO_DEBUGINFO_H_ */
