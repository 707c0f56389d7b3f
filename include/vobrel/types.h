/* vobrel: shared types and the export convention used by every public header.
 * Sources: none (types and macros only). */
#ifndef VOBREL_TYPES_H
#define VOBREL_TYPES_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
#define VOBREL_BEGIN_DECLS extern "C" {
#define VOBREL_END_DECLS }
#else
#define VOBREL_BEGIN_DECLS
#define VOBREL_END_DECLS
#endif

/* Only names marked VOBREL_API are visible outside libvobrel.so. */
#define VOBREL_API __attribute__((visibility("default")))

VOBREL_BEGIN_DECLS

/* 8-bit truth value; any non-zero value counts as set. */
typedef unsigned char boolean;
typedef unsigned char tinybool;
typedef unsigned char uchar;

#ifndef FALSE
#define FALSE 0
#endif
#ifndef TRUE
#define TRUE 1
#endif

/* glibc provides these with its default feature set; strict C builds do not
 * get them from <sys/types.h>, so supply identical ones there. */
#ifndef __USE_MISC
typedef unsigned long ulong;
typedef unsigned short ushort;
typedef unsigned int uint;
#endif

VOBREL_END_DECLS

#endif /* VOBREL_TYPES_H */
