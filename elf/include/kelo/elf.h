/* The ELF image library, C interface.
 *
 * Conventions:
 *  1. keloElf is opaque: an image is only ever handled through a pointer.
 *  2. Images returned by keloElfLoad and keloElfLoadFile belong to the caller,
 *     who releases each exactly once with keloElfFree.
 *  3. Every call that can fail returns NULL (or false); no call says why.
 *  4. No call keeps a pointer to the caller's bytes or strings.
 */
#ifndef KELO_ELF_H_
#define KELO_ELF_H_

#include <stdbool.h>
#include <stddef.h>

#include "kelo/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* An ELF image. Handles of this type are also what the debug-info
 * library's keloDbgElf points at. */
typedef struct keloElf keloElf;

/* Loads an image from `size` bytes at `data`, which are copied. Returns NULL
 * when the bytes do not form a well-formed ELF file or memory runs out. */
KELO_EXPORT keloElf* keloElfLoad(const void* data, size_t size);

/* Loads an image from the ELF file at `path`. Returns NULL when the file
 * cannot be read or does not hold a well-formed ELF file. */
KELO_EXPORT keloElf* keloElfLoadFile(const char* path);

/* Releases an image made by keloElfLoad or keloElfLoadFile. NULL is allowed.
 * Never pass an image that belongs to a debug-info list. */
KELO_EXPORT void keloElfFree(keloElf* image);

/* True when the image has a section named exactly `name`. False for a NULL
 * image or name. */
KELO_EXPORT bool keloElfHasSection(const keloElf* image, const char* name);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* KELO_ELF_H_ */
