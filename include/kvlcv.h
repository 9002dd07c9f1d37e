/* kvlcv.h - the public interface of kvlCV, computer-vision primitives on caller-owned images.
 *
 * Conventions shared by every function:
 * - An image is a pointer to the first pixel of its region of interest (ROI) and a row step in
 *   BYTES. Pixel (x, y) of an image with n channels of type T is at
 *   (char*)p + y * step + x * n * sizeof(T). Channels are interleaved. No alignment is assumed.
 * - Every function returns a KvlStatus: 0 success, negative error (nothing was written),
 *   positive warning (the output is complete and carries a special meaning).
 * - Arguments are validated before anything is written, in this order unless a family says
 *   otherwise: null pointers, sizes, steps (>= width x channels x element size), step multiples
 *   (16- and 32-bit element types: the step must be a multiple of the element size), the
 *   function's own codes and values, in-place restrictions last. The first failure is returned.
 * - Functions that need scratch memory have a ...GetBufferSize / ...GetSize companion: allocate
 *   that many bytes (any alignment) and pass the buffer last. Sizes marked "per thread" grow with
 *   the permitted thread count (kvlSetNumThreads) read at the time of the query: query again after
 *   changing it. A buffer must not be shared by concurrent calls.
 * - Results never depend on the thread count. The library keeps no global mutable state and may
 *   be called from any number of threads at once on distinct outputs.
 *
 * Every declaration marked KVL_API is an exported entry point; the list below is the library's
 * whole exported interface. The header is C99-clean. */
#ifndef KVLCV_H
#define KVLCV_H

#include "kvlcore.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define KVL_API extern __attribute__((visibility("default")))
#else
#define KVL_API extern
#endif

/* ---------------------------------------------------------------------------------------------
 * Records
 * ------------------------------------------------------------------------------------------- */
typedef struct {
  int width;
  int height;
} KvliSize;

typedef struct {
  int x;
  int y;
} KvliPoint;

typedef struct {
  Kvl32f x;
  Kvl32f y;
} KvliPoint32f;

typedef struct {
  int x;
  int y;
  int width;
  int height;
} KvliRect;

/* ---------------------------------------------------------------------------------------------
 * Status codes
 * ------------------------------------------------------------------------------------------- */
enum {
  kvlStatusOk = 0,                       /* success */
  kvlStatusDivByZero = 6,                /* warning: a divisor was zero; result +inf or NaN */
  kvlStatusCountExceeded = 33,           /* warning: the output array filled up; stored results valid */
  kvlStatusOverflow = -2,                /* a computed count does not fit 32 bits */
  kvlStatusBadArgument = -5,             /* an argument value is not accepted */
  kvlStatusBadSize = -6,                 /* a size < 1, a negative bit offset, an ROI outside its image */
  kvlStatusNullPointer = -8,             /* a required pointer is NULL */
  kvlStatusNoMemory = -9,                /* an internal allocation failed */
  kvlStatusOutOfRange = -11,             /* a coordinate or parameter outside its range */
  kvlStatusBadDataType = -12,            /* data-type code not supported by a size query */
  kvlStatusBadStep = -14,                /* a row step shorter than the ROI row */
  kvlStatusBadContext = -17,             /* a state record without its identity word */
  kvlStatusBadMaskSize = -33,            /* mask-size code or mask dimensions not supported */
  kvlStatusBadAnchor = -34,              /* anchor outside its kernel */
  kvlStatusBadChannel = -47,             /* channel count neither 1 nor 3 (Gaussian size query) */
  kvlStatusBadChannelOfInterest = -52,   /* channel of interest not in 1..3 */
  kvlStatusBadChannels = -53,            /* channel count not supported by a size query */
  kvlStatusBadMetric = -56,              /* distance-transform metric <= 0 */
  kvlStatusStepNotMultiple = -108,       /* step not a multiple of the element size */
  kvlStatusBadBorderType = -225,         /* border type not supported by this function */
  kvlStatusBadNormType = -229,           /* norm code not supported */
  kvlStatusInPlaceNotSupported = -9997,  /* source and destination may not be the same buffer */
  kvlStatusNotSupportedMode = -9999      /* comparison mode not implemented */
};

/* ---------------------------------------------------------------------------------------------
 * Enumeration codes (plain int values)
 * ------------------------------------------------------------------------------------------- */
/* Border type: the low four bits are the mode, bits 4..7 are per-side in-memory flags. A flag
 * says that side's pixels around the ROI are valid memory and are read as stored; the mode
 * governs the sides without a flag. kvlBorderInMem (6) means all four flags (240). Modes 5 and
 * 7..15 are never accepted; a value with bits 4..15 set but none of the four flags is rejected. */
typedef int KvliBorderType;
enum {
  kvlBorderConst = 0,         /* a constant given by the caller */
  kvlBorderRepl = 1,          /* the nearest edge pixel: p0 p0 | p0 p1 ... */
  kvlBorderWrap = 2,          /* periodic: ... p(w-1) | p0 p1 ... */
  kvlBorderMirror = 3,        /* mirrored, edge not repeated: p2 p1 | p0 p1 p2 ... */
  kvlBorderMirrorR = 4,       /* mirrored, edge repeated: p1 p0 | p0 p1 ... */
  kvlBorderInMem = 6,         /* every side is valid memory */
  kvlBorderInMemTop = 16,     /* the rows above the ROI are valid memory */
  kvlBorderInMemBottom = 32,  /* the rows below the ROI are valid memory */
  kvlBorderInMemLeft = 64,    /* the columns left of the ROI are valid memory */
  kvlBorderInMemRight = 128   /* the columns right of the ROI are valid memory */
};

/* Mask size: tens digit the width, units digit the height. */
typedef int KvliMaskSize;
enum { kvlMaskSize3x3 = 33, kvlMaskSize5x5 = 55 };

/* Data-type codes taken by size queries that serve several element types. */
typedef int KvlDataType;
enum { kvl8u = 1, kvl8s = 3, kvl16u = 5, kvl16s = 7, kvl32f = 13, kvl64f = 19 };

/* Derivative kernel kinds and norms (Canny and every later function taking such a code). */
typedef int KvliDifferentialKernel;
enum { kvlFilterSobel = 2, kvlFilterScharr = 5 };

typedef int KvlNormType;
enum { kvlNormL1 = 2, kvlNormL2 = 4 };

/* ---------------------------------------------------------------------------------------------
 * Library version
 * ------------------------------------------------------------------------------------------- */
typedef struct {
  int major;             /* 8 */
  int minor;             /* 2 */
  int majorBuild;        /* 1 */
  int build;             /* 44077 */
  char targetCpu[4];     /* "e9" and two zero bytes */
  const char* Name;      /* "kvlCV AVX (e9 threaded)" */
  const char* Version;   /* "8.2.1 (r44077)" */
  const char* BuildDate; /* "Oct  9 2014" */
} KvlLibraryVersion;

/* The library's constant version record; the same address on every call. Cannot fail. */
KVL_API const KvlLibraryVersion* kvlcvGetLibVersion(void);

/* ---------------------------------------------------------------------------------------------
 * Separable row and column pipeline filters
 * ------------------------------------------------------------------------------------------- */
/* @@BEGIN SEPARABLE PIPELINES@@ */
/* @@END SEPARABLE PIPELINES@@ */

/* ---------------------------------------------------------------------------------------------
 * Fixed derivative filters with border: Sobel, Scharr, Laplacian, lowpass
 * ------------------------------------------------------------------------------------------- */
/* @@BEGIN DERIVATIVE FILTERS@@ */
/* @@END DERIVATIVE FILTERS@@ */

/* ---------------------------------------------------------------------------------------------
 * Colour-to-grey gradient combination
 * ------------------------------------------------------------------------------------------- */
/* @@BEGIN GRADIENT COLOR TO GRAY@@ */
/* @@END GRADIENT COLOR TO GRAY@@ */

/* ---------------------------------------------------------------------------------------------
 * Canny edge detector
 * ------------------------------------------------------------------------------------------- */
/* @@BEGIN CANNY@@ */
/* @@END CANNY@@ */

/* ---------------------------------------------------------------------------------------------
 * Motion history
 * ------------------------------------------------------------------------------------------- */
/* @@BEGIN MOTION HISTORY@@ */
/* @@END MOTION HISTORY@@ */

/* ---------------------------------------------------------------------------------------------
 * Accumulation and absolute difference
 * ------------------------------------------------------------------------------------------- */
/* @@BEGIN ACCUMULATION@@ */
/* @@END ACCUMULATION@@ */


#ifdef __cplusplus
}
#endif

#endif /* KVLCV_H */
