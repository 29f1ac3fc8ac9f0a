// Symbol visibility for the loadable module.
//
// The module is compiled with hidden visibility; only classes marked
// FTPDISK_EXPORT (the store, the registry and the exception type) are seen by
// the recorder that loads it. Host classes are declared with FTPDISK_HOST_API so
// that the module's references to them resolve against the loading process.
#ifndef FTPDISK_FOUNDATION_EXPORT_H
#define FTPDISK_FOUNDATION_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define FTPDISK_EXPORT __attribute__((visibility("default")))
// A private member of an exported class that the recorder never binds to.
#define FTPDISK_LOCAL __attribute__((visibility("hidden")))
#else
#define FTPDISK_EXPORT
#define FTPDISK_LOCAL
#endif

#define FTPDISK_HOST_API FTPDISK_EXPORT

#endif  // FTPDISK_FOUNDATION_EXPORT_H
