/* Symbol visibility for libkalo: everything is hidden unless marked KALO_API. */
#ifndef KALO_EXPORT_H
#define KALO_EXPORT_H

#if defined(KALO_BUILDING_LIBRARY)
#define KALO_API __attribute__((visibility("default")))
#else
#define KALO_API
#endif

#ifdef __cplusplus
#define KALO_BEGIN_DECLS extern "C" {
#define KALO_END_DECLS }
#else
#define KALO_BEGIN_DECLS
#define KALO_END_DECLS
#endif

#endif
