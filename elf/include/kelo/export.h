/* Marks what the kelo libraries export. Everything else is built with hidden
 * visibility, and each library's version script then names exactly the
 * symbols it exports and binds them to its version node. For users of the
 * headers the mark only says that the symbol lives in a shared library. */
#ifndef KELO_EXPORT_H_
#define KELO_EXPORT_H_

#define KELO_EXPORT __attribute__((visibility("default")))

#endif /* KELO_EXPORT_H_ */
