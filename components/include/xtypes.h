/*
 * xtypes.h - fixed-width integer types shared by the CFGFILELIB headers.
 *
 * Compiles as C99 and as C++.
 */
#ifndef XTYPES_H
#define XTYPES_H

#include <stdint.h>

typedef int32_t BOOL;   /* truth value: zero is false, any other value true */
typedef uint32_t UINT;  /* 32-bit unsigned */
typedef uint32_t DWORD; /* 32-bit unsigned */
typedef int64_t LONG;   /* 64-bit signed */
typedef uint64_t ULONG; /* 64-bit unsigned */
typedef int64_t INT64;  /* 64-bit signed */

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

#endif /* XTYPES_H */
