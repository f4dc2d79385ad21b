/**
 * @file kalo_export.h
 * @brief Symbol visibility and C linkage for the public headers.
 *
 * The library is built with every symbol hidden; what the headers mark
 * KALO_API is exported.
 */
#ifndef KALO_EXPORT_H
#define KALO_EXPORT_H

#if defined(KALO_BUILDING_LIBRARY)
#define KALO_API __attribute__((visibility("default")))
#else
/** Marks an exported declaration: default visibility while the library is
 *  built, nothing for its users. */
#define KALO_API
#endif

#ifdef __cplusplus
#define KALO_BEGIN_DECLS extern "C" {
#define KALO_END_DECLS }
#else
/** Opens the C-linkage block of a header (extern "C" { in C++, nothing in C). */
#define KALO_BEGIN_DECLS
/** Closes the C-linkage block opened by KALO_BEGIN_DECLS. */
#define KALO_END_DECLS
#endif

#endif
