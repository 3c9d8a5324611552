/* SPDX-License-Identifier: MIT */
/* Symbol visibility for libqmcache and its platform companions.
 *
 * The libraries are built with hidden visibility; only what is marked with
 * one of these macros is exported from the shared objects. */
#ifndef QMCACHE_EXPORT_H
#define QMCACHE_EXPORT_H

#if defined(__GNUC__)
#define QMCACHE_API __attribute__((visibility("default")))
#else
#define QMCACHE_API
#endif

/* The statistics and trace companions export through the same attribute;
 * separate names keep it clear which library a symbol belongs to. */
#define QMSTAT_API QMCACHE_API
#define YBTRACE_API QMCACHE_API

#endif /* QMCACHE_EXPORT_H */
