/* kvlcore.h - core services of kvlCV: aligned allocation, processor and thread configuration.
 *
 * libkvlcore is the small library that every kvlCV image function takes its memory and its
 * configuration from. It is usable from C99 and C++. */
#ifndef KVLCORE_H
#define KVLCORE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define KVLCORE_API extern __attribute__((visibility("default")))
#else
#define KVLCORE_API extern
#endif

/* ---- Element types and the status type shared with kvlcv.h ---- */
#ifndef KVL_BASIC_TYPES_DEFINED
#define KVL_BASIC_TYPES_DEFINED
typedef uint8_t Kvl8u;
typedef int8_t Kvl8s;
typedef uint16_t Kvl16u;
typedef int16_t Kvl16s;
typedef int32_t Kvl32s;
typedef uint32_t Kvl32u;
typedef int64_t Kvl64s;
typedef uint64_t Kvl64u;
typedef float Kvl32f;
typedef double Kvl64f;
/* 0 success, negative error (nothing written), positive warning (output complete). */
typedef int KvlStatus;
#endif

/* Processor feature bits reported by kvlGetCpuFeatures / kvlGetEnabledCpuFeatures. */
#define KVL_CPU_SSE2 (1ULL << 0)
#define KVL_CPU_SSE3 (1ULL << 1)
#define KVL_CPU_SSSE3 (1ULL << 2)
#define KVL_CPU_SSE41 (1ULL << 3)
#define KVL_CPU_SSE42 (1ULL << 4)
#define KVL_CPU_AVX (1ULL << 5)
#define KVL_CPU_AVX2 (1ULL << 6)
#define KVL_CPU_FMA3 (1ULL << 7)
#define KVL_CPU_AVX512F (1ULL << 8)
#define KVL_CPU_AVX512BW (1ULL << 9)
#define KVL_CPU_AVX512DQ (1ULL << 10)
#define KVL_CPU_AVX512VL (1ULL << 11)
#define KVL_CPU_BMI2 (1ULL << 12)
#define KVL_CPU_POPCNT (1ULL << 13)

/* Returns a 64-byte aligned block of `length` bytes, or NULL when length <= 0 or the
 * allocation fails. Release it with kvlFree. */
KVLCORE_API void* kvlMalloc(int length);
/* Releases a block from kvlMalloc; NULL is ignored. */
KVLCORE_API void kvlFree(void* ptr);
/* Number of processor cores available to this process (at least 1). */
KVLCORE_API int kvlGetNumCoresOnDie(void);
/* The permitted thread count: the upper bound of every parallel region of kvlCV. */
KVLCORE_API int ownGetNumThreads(void);
/* Writes the size in bytes of the largest processor cache. -8 when size is NULL. */
KVLCORE_API KvlStatus kvlGetMaxCacheSizeB(int* size);
/* Writes the processor's feature mask (KVL_CPU_* bits). -8 when the pointer is NULL. */
KVLCORE_API KvlStatus kvlGetCpuFeatures(Kvl64u* pFeaturesMask);
/* The features the library may use: the processor's features, all enabled. */
KVLCORE_API Kvl64u kvlGetEnabledCpuFeatures(void);
/* Sets the permitted thread count, 1 .. 1024 (else -5, kvlStatusBadArgument, and no change).
 * The default is the number of cores available to the process. kvlCV reads the count afresh
 * on every call, and buffer sizes that grow with it must be queried again after a change. */
KVLCORE_API KvlStatus kvlSetNumThreads(int numThreads);
/* Writes the permitted thread count. -8 when the pointer is NULL. */
KVLCORE_API KvlStatus kvlGetNumThreads(int* pNumThreads);

#ifdef __cplusplus
}
#endif

#endif /* KVLCORE_H */
