/* kvlcv.h - the public interface of kvlCV, computer-vision primitives on caller-owned images.
 *
 * Conventions shared by every function:
 * - An image is a pointer to the first pixel of its region of interest (ROI) and a row step in
 *   BYTES. Pixel (x, y) of an image with n channels of type T is at
 *   (char*)p + y * step + x * n * sizeof(T). Channels are interleaved. No alignment is assumed:
 *   images, rows and kernels may start at any byte address (arrays of row pointers are ordinary
 *   C arrays of pointers).
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
 * - Results are the same bytes on every processor the library runs on, with one exception: when
 *   a floating-point sum meets two or more NaN inputs, which input's payload the NaN result
 *   carries is not specified (it is a NaN either way, and a single NaN's payload is kept).
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
/* Row pass: filters each source row with a 1-D kernel of kernelSize taps, applied as a
 * correlation: ppDst[y][x] = conv(sum over k of pKernel[k] x e[x + k]), e being row y extended by
 * xAnchor pixels on the left and kernelSize - 1 - xAnchor on the right (tap xAnchor lies on the
 * output pixel). borderType: kvlBorderConst (borderValue), kvlBorderRepl (edge pixels) or
 * kvlBorderInMem (the extension is read from the memory around the row); exactly 0, 1 or 6.
 * Arithmetic: 8u16s, 16s and Low_16s (which shares the 16s arithmetic) sum products in 32-bit
 * integers (wrapping modulo 2^32); 16u converts pixels and taps to float and sums in float in the
 * order k = 0..K-1; the sum is multiplied by the float 1/divisor (computed once), clamped in float
 * to the destination range and truncated toward zero. 32f stores the float sum (order k = 0..K-1,
 * the same on every CPU). Every channel of a C3 row is filtered on its own.
 * Statuses, in order: pSrc, ppDst, pKernel or pBuffer NULL: NullPointer; width or height < 1:
 * BadSize; any ppDst[0..height-1] NULL: NullPointer; kernelSize < 1: BadSize; xAnchor < 0 or
 * >= kernelSize: BadAnchor; srcStep < width x channels x element size: BadStep; 16/32-bit
 * srcStep not an element multiple: StepNotMultiple; other borderType: BadArgument; divisor 0
 * (16u: divisor < 1): BadArgument.
 * Buffer: kvliFilterRowBorderPipelineGetBufferSize_<member>(roiSize, kernelSize, &size): NULL:
 * NullPointer; width, height or kernelSize < 1, or a size above INT_MAX: BadSize. The size grows
 * with the permitted thread count T (all members except 16u); query again after changing T.
 * Threads: 8u16s, 16s and Low_16s split rows over T threads when width x height >= 32768 x T;
 * 16u and 32f run on the calling thread. The destination rows need not be contiguous or
 * ordered; they must not overlap the source. */
KVL_API KvlStatus kvliFilterRowBorderPipeline_8u16s_C1R(const Kvl8u* pSrc, int srcStep, Kvl16s** ppDst, KvliSize roiSize, const Kvl16s* pKernel, int kernelSize, int xAnchor, int borderType, Kvl8u borderValue, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterRowBorderPipeline_8u16s_C3R(const Kvl8u* pSrc, int srcStep, Kvl16s** ppDst, KvliSize roiSize, const Kvl16s* pKernel, int kernelSize, int xAnchor, int borderType, Kvl8u borderValue, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterRowBorderPipeline_16s_C1R(const Kvl16s* pSrc, int srcStep, Kvl16s** ppDst, KvliSize roiSize, const Kvl16s* pKernel, int kernelSize, int xAnchor, int borderType, Kvl16s borderValue, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterRowBorderPipeline_16s_C3R(const Kvl16s* pSrc, int srcStep, Kvl16s** ppDst, KvliSize roiSize, const Kvl16s* pKernel, int kernelSize, int xAnchor, int borderType, Kvl16s borderValue, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterRowBorderPipeline_Low_16s_C1R(const Kvl16s* pSrc, int srcStep, Kvl16s** ppDst, KvliSize roiSize, const Kvl16s* pKernel, int kernelSize, int xAnchor, int borderType, Kvl16s borderValue, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterRowBorderPipeline_Low_16s_C3R(const Kvl16s* pSrc, int srcStep, Kvl16s** ppDst, KvliSize roiSize, const Kvl16s* pKernel, int kernelSize, int xAnchor, int borderType, Kvl16s borderValue, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterRowBorderPipeline_16u_C1R(const Kvl16u* pSrc, int srcStep, Kvl16u** ppDst, KvliSize roiSize, const Kvl16u* pKernel, int kernelSize, int xAnchor, int borderType, Kvl16u borderValue, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterRowBorderPipeline_16u_C3R(const Kvl16u* pSrc, int srcStep, Kvl16u** ppDst, KvliSize roiSize, const Kvl16u* pKernel, int kernelSize, int xAnchor, int borderType, Kvl16u borderValue, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterRowBorderPipeline_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f** ppDst, KvliSize roiSize, const Kvl32f* pKernel, int kernelSize, int xAnchor, int borderType, Kvl32f borderValue, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterRowBorderPipeline_32f_C3R(const Kvl32f* pSrc, int srcStep, Kvl32f** ppDst, KvliSize roiSize, const Kvl32f* pKernel, int kernelSize, int xAnchor, int borderType, Kvl32f borderValue, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterRowBorderPipelineGetBufferSize_8u16s_C1R(KvliSize roiSize, int kernelSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterRowBorderPipelineGetBufferSize_8u16s_C3R(KvliSize roiSize, int kernelSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterRowBorderPipelineGetBufferSize_16s_C1R(KvliSize roiSize, int kernelSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterRowBorderPipelineGetBufferSize_16s_C3R(KvliSize roiSize, int kernelSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterRowBorderPipelineGetBufferSize_Low_16s_C1R(KvliSize roiSize, int kernelSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterRowBorderPipelineGetBufferSize_Low_16s_C3R(KvliSize roiSize, int kernelSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterRowBorderPipelineGetBufferSize_16u_C1R(KvliSize roiSize, int kernelSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterRowBorderPipelineGetBufferSize_16u_C3R(KvliSize roiSize, int kernelSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterRowBorderPipelineGetBufferSize_32f_C1R(KvliSize roiSize, int kernelSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterRowBorderPipelineGetBufferSize_32f_C3R(KvliSize roiSize, int kernelSize, int* pBufferSize);

/* Column pass: combines kernelSize rows vertically: output row y, element x is
 * conv(sum over k of pKernel[k] x ppSrc[y + k][x]); ppSrc holds height + kernelSize - 1 row
 * pointers, which need not be contiguous or ordered (the caller chooses them, and with them the
 * vertical border). Integer members (16u included) sum the products in 32-bit integers (wrapping
 * modulo 2^32); the sum is converted to float once, multiplied by the float 1/divisor and clamped
 * in float to the destination range. The conversion to integer
 * depends on the element's place in the row of n = width x channels elements: elements
 * 0 .. n - n % 8 - 1 round to nearest with ties to even; the last n % 8 elements (the tail, 0 to 7
 * elements) truncate toward zero. Low_16s shares the 16s arithmetic. 32f stores the float sum
 * (order k = 0..K-1).
 * Statuses, in order: ppSrc, pDst or pKernel NULL: NullPointer; width or height < 1: BadSize;
 * any ppSrc[0 .. height + kernelSize - 2] NULL: NullPointer; kernelSize < 1: BadSize;
 * dstStep < width x channels x element size: BadStep; 16/32-bit dstStep not an element multiple:
 * StepNotMultiple; pBuffer NULL: NullPointer; divisor 0: BadArgument.
 * Buffer: kvliFilterColumnPipelineGetBufferSize_<member>(roiSize, kernelSize, &size), checked as
 * the row pass's; 16s, 16s8u, 16s8s and Low_16s sizes grow with the thread count T.
 * Threads: 16s, 16s8u, 16s8s and Low_16s split rows over T threads when width x height >=
 * 32768 x T and the kernel length allows it (lengths 3 and 5 need more than one core); 16u and
 * 32f run on the calling thread. The destination must not overlap the source rows. */
KVL_API KvlStatus kvliFilterColumnPipeline_16s_C1R(const Kvl16s** ppSrc, Kvl16s* pDst, int dstStep, KvliSize roiSize, const Kvl16s* pKernel, int kernelSize, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterColumnPipeline_16s_C3R(const Kvl16s** ppSrc, Kvl16s* pDst, int dstStep, KvliSize roiSize, const Kvl16s* pKernel, int kernelSize, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterColumnPipeline_16s8u_C1R(const Kvl16s** ppSrc, Kvl8u* pDst, int dstStep, KvliSize roiSize, const Kvl16s* pKernel, int kernelSize, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterColumnPipeline_16s8u_C3R(const Kvl16s** ppSrc, Kvl8u* pDst, int dstStep, KvliSize roiSize, const Kvl16s* pKernel, int kernelSize, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterColumnPipeline_16s8s_C1R(const Kvl16s** ppSrc, Kvl8s* pDst, int dstStep, KvliSize roiSize, const Kvl16s* pKernel, int kernelSize, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterColumnPipeline_16s8s_C3R(const Kvl16s** ppSrc, Kvl8s* pDst, int dstStep, KvliSize roiSize, const Kvl16s* pKernel, int kernelSize, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterColumnPipeline_Low_16s_C1R(const Kvl16s** ppSrc, Kvl16s* pDst, int dstStep, KvliSize roiSize, const Kvl16s* pKernel, int kernelSize, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterColumnPipeline_Low_16s_C3R(const Kvl16s** ppSrc, Kvl16s* pDst, int dstStep, KvliSize roiSize, const Kvl16s* pKernel, int kernelSize, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterColumnPipeline_16u_C1R(const Kvl16u** ppSrc, Kvl16u* pDst, int dstStep, KvliSize roiSize, const Kvl16u* pKernel, int kernelSize, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterColumnPipeline_16u_C3R(const Kvl16u** ppSrc, Kvl16u* pDst, int dstStep, KvliSize roiSize, const Kvl16u* pKernel, int kernelSize, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterColumnPipeline_32f_C1R(const Kvl32f** ppSrc, Kvl32f* pDst, int dstStep, KvliSize roiSize, const Kvl32f* pKernel, int kernelSize, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterColumnPipeline_32f_C3R(const Kvl32f** ppSrc, Kvl32f* pDst, int dstStep, KvliSize roiSize, const Kvl32f* pKernel, int kernelSize, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterColumnPipelineGetBufferSize_16s_C1R(KvliSize roiSize, int kernelSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterColumnPipelineGetBufferSize_16s_C3R(KvliSize roiSize, int kernelSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterColumnPipelineGetBufferSize_16s8u_C1R(KvliSize roiSize, int kernelSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterColumnPipelineGetBufferSize_16s8u_C3R(KvliSize roiSize, int kernelSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterColumnPipelineGetBufferSize_16s8s_C1R(KvliSize roiSize, int kernelSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterColumnPipelineGetBufferSize_16s8s_C3R(KvliSize roiSize, int kernelSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterColumnPipelineGetBufferSize_Low_16s_C1R(KvliSize roiSize, int kernelSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterColumnPipelineGetBufferSize_Low_16s_C3R(KvliSize roiSize, int kernelSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterColumnPipelineGetBufferSize_16u_C1R(KvliSize roiSize, int kernelSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterColumnPipelineGetBufferSize_16u_C3R(KvliSize roiSize, int kernelSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterColumnPipelineGetBufferSize_32f_C1R(KvliSize roiSize, int kernelSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterColumnPipelineGetBufferSize_32f_C3R(KvliSize roiSize, int kernelSize, int* pBufferSize);
/* @@END SEPARABLE PIPELINES@@ */

/* ---------------------------------------------------------------------------------------------
 * Fixed derivative filters with border: Sobel, Scharr, Laplacian, lowpass
 * ------------------------------------------------------------------------------------------- */
/* @@BEGIN DERIVATIVE FILTERS@@ */
/* Fixed derivative and smoothing filters of one-channel images, with a border rule.
 * Each is a row kernel A (along rows) followed by a column kernel B (down columns), applied as
 * correlations with the anchor at the centre; 5x5 masks use the 5-tap tables.
 *   kerSobel 1 2 1 | 1 4 6 4 1    kerDx -1 0 1 | -1 -2 0 2 1    kerDxNeg 1 0 -1 | 1 2 0 -2 -1
 *   kerD2x 1 -2 1 | 1 0 -2 0 1    kerScharr 3 10 3              kerAvr 1 1 1 | 1 1 1 1 1
 *   SobelHoriz: A kerSobel, B kerDx (row below minus row above)
 *   SobelNegVert, and SobelVert 8u8s: A kerDxNeg, B kerSobel (left column minus right column)
 *   SobelHorizSecond: A kerSobel, B kerD2x      SobelVertSecond: A kerD2x, B kerSobel
 *   SobelCross: A kerDxNeg, B kerDx             ScharrHoriz: A kerScharr, B kerDx
 *   ScharrVert: A kerDx, B kerScharr            Lowpass: A kerAvr, B kerAvr
 *   Laplacian 5x5: (A kerD2x, B kerSobel) + (A kerSobel, B kerD2x); Laplacian 3x3: the kernel
 *   [2 0 2; 0 -8 0; 2 0 2], i.e. 2 x (1 0 1 along rows, 1 0 1 down columns) - 8 x centre.
 * Outputs: 8u16s and 32f store the sum S; 8u8s stores S x (1 / divisor) in single precision,
 * clamped to -128..127 and rounded to nearest even, except the last (width % 8) pixels of each
 * row, which truncate toward zero; Lowpass 8u is the box sum converted the same way with divisor
 * 9 (3x3) or 25 (5x5); Lowpass 32f stores the box sum (not divided).
 * Border: modes 0, 1, 2, 3, 4 and 6 with the in-memory flags 16, 32, 64, 128 (6 = all four);
 * outside pixels follow the mode per side; with mode 0 the rows above and below the image are
 * constant rows of borderValue. Integer members keep the row pass in 16 bits (exact).
 * Statuses in order: kvlStatusNullPointer (pSrc, pDst, pBuffer), kvlStatusBadSize (ROI < 1),
 * kvlStatusBadStep (step < width x element size), kvlStatusStepNotMultiple (16s destination step
 * odd, 32f steps not multiples of 4), kvlStatusBadArgument (border type), kvlStatusBadArgument
 * (8u8s: divisor 0), kvlStatusBadMaskSize (mask not 33 or 55; Scharr takes no mask).
 * Buffer: the ...GetBufferSize functions (pointer, ROI, mask) give T x (A + R + C + 32) bytes,
 * T the permitted thread count at the query, A the filter's own rows (per family and type, from
 * the width rounded up to 16), R and C the 8u16s or 32f row-pass and the 16s or 32f column-pass
 * pipeline sizes for the ROI and kernel length; query again after changing the thread count.
 * Threads: row stripes when height >= 256, width >= 256 and height >= 5 x threads; the result
 * does not depend on the split. */
KVL_API KvlStatus kvliFilterSobelHorizBorder_8u8s_C1R(const Kvl8u* pSrc, int srcStep, Kvl8s* pDst, int dstStep, KvliSize roiSize, KvliMaskSize mask, int borderType, Kvl8u borderValue, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterSobelHorizGetBufferSize_8u8s_C1R(KvliSize roiSize, KvliMaskSize mask, int* pBufferSize);
KVL_API KvlStatus kvliFilterSobelVertBorder_8u8s_C1R(const Kvl8u* pSrc, int srcStep, Kvl8s* pDst, int dstStep, KvliSize roiSize, KvliMaskSize mask, int borderType, Kvl8u borderValue, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterSobelVertGetBufferSize_8u8s_C1R(KvliSize roiSize, KvliMaskSize mask, int* pBufferSize);
KVL_API KvlStatus kvliFilterSobelNegVertBorder_8u16s_C1R(const Kvl8u* pSrc, int srcStep, Kvl16s* pDst, int dstStep, KvliSize roiSize, KvliMaskSize mask, int borderType, Kvl8u borderValue, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterSobelNegVertBorder_8u8s_C1R(const Kvl8u* pSrc, int srcStep, Kvl8s* pDst, int dstStep, KvliSize roiSize, KvliMaskSize mask, int borderType, Kvl8u borderValue, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterSobelNegVertBorder_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, KvliMaskSize mask, int borderType, Kvl32f borderValue, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterSobelNegVertGetBufferSize_8u16s_C1R(KvliSize roiSize, KvliMaskSize mask, int* pBufferSize);
KVL_API KvlStatus kvliFilterSobelNegVertGetBufferSize_8u8s_C1R(KvliSize roiSize, KvliMaskSize mask, int* pBufferSize);
KVL_API KvlStatus kvliFilterSobelNegVertGetBufferSize_32f_C1R(KvliSize roiSize, KvliMaskSize mask, int* pBufferSize);
KVL_API KvlStatus kvliFilterSobelHorizSecondBorder_8u16s_C1R(const Kvl8u* pSrc, int srcStep, Kvl16s* pDst, int dstStep, KvliSize roiSize, KvliMaskSize mask, int borderType, Kvl8u borderValue, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterSobelHorizSecondBorder_8u8s_C1R(const Kvl8u* pSrc, int srcStep, Kvl8s* pDst, int dstStep, KvliSize roiSize, KvliMaskSize mask, int borderType, Kvl8u borderValue, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterSobelHorizSecondBorder_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, KvliMaskSize mask, int borderType, Kvl32f borderValue, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterSobelHorizSecondGetBufferSize_8u16s_C1R(KvliSize roiSize, KvliMaskSize mask, int* pBufferSize);
KVL_API KvlStatus kvliFilterSobelHorizSecondGetBufferSize_8u8s_C1R(KvliSize roiSize, KvliMaskSize mask, int* pBufferSize);
KVL_API KvlStatus kvliFilterSobelHorizSecondGetBufferSize_32f_C1R(KvliSize roiSize, KvliMaskSize mask, int* pBufferSize);
KVL_API KvlStatus kvliFilterSobelVertSecondBorder_8u16s_C1R(const Kvl8u* pSrc, int srcStep, Kvl16s* pDst, int dstStep, KvliSize roiSize, KvliMaskSize mask, int borderType, Kvl8u borderValue, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterSobelVertSecondBorder_8u8s_C1R(const Kvl8u* pSrc, int srcStep, Kvl8s* pDst, int dstStep, KvliSize roiSize, KvliMaskSize mask, int borderType, Kvl8u borderValue, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterSobelVertSecondBorder_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, KvliMaskSize mask, int borderType, Kvl32f borderValue, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterSobelVertSecondGetBufferSize_8u16s_C1R(KvliSize roiSize, KvliMaskSize mask, int* pBufferSize);
KVL_API KvlStatus kvliFilterSobelVertSecondGetBufferSize_8u8s_C1R(KvliSize roiSize, KvliMaskSize mask, int* pBufferSize);
KVL_API KvlStatus kvliFilterSobelVertSecondGetBufferSize_32f_C1R(KvliSize roiSize, KvliMaskSize mask, int* pBufferSize);
KVL_API KvlStatus kvliFilterSobelCrossBorder_8u16s_C1R(const Kvl8u* pSrc, int srcStep, Kvl16s* pDst, int dstStep, KvliSize roiSize, KvliMaskSize mask, int borderType, Kvl8u borderValue, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterSobelCrossBorder_8u8s_C1R(const Kvl8u* pSrc, int srcStep, Kvl8s* pDst, int dstStep, KvliSize roiSize, KvliMaskSize mask, int borderType, Kvl8u borderValue, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterSobelCrossBorder_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, KvliMaskSize mask, int borderType, Kvl32f borderValue, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterSobelCrossGetBufferSize_8u16s_C1R(KvliSize roiSize, KvliMaskSize mask, int* pBufferSize);
KVL_API KvlStatus kvliFilterSobelCrossGetBufferSize_8u8s_C1R(KvliSize roiSize, KvliMaskSize mask, int* pBufferSize);
KVL_API KvlStatus kvliFilterSobelCrossGetBufferSize_32f_C1R(KvliSize roiSize, KvliMaskSize mask, int* pBufferSize);
KVL_API KvlStatus kvliFilterLaplacianBorder_8u16s_C1R(const Kvl8u* pSrc, int srcStep, Kvl16s* pDst, int dstStep, KvliSize roiSize, KvliMaskSize mask, int borderType, Kvl8u borderValue, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterLaplacianBorder_8u8s_C1R(const Kvl8u* pSrc, int srcStep, Kvl8s* pDst, int dstStep, KvliSize roiSize, KvliMaskSize mask, int borderType, Kvl8u borderValue, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterLaplacianBorder_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, KvliMaskSize mask, int borderType, Kvl32f borderValue, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterLaplacianGetBufferSize_8u16s_C1R(KvliSize roiSize, KvliMaskSize mask, int* pBufferSize);
KVL_API KvlStatus kvliFilterLaplacianGetBufferSize_8u8s_C1R(KvliSize roiSize, KvliMaskSize mask, int* pBufferSize);
KVL_API KvlStatus kvliFilterLaplacianGetBufferSize_32f_C1R(KvliSize roiSize, KvliMaskSize mask, int* pBufferSize);
KVL_API KvlStatus kvliFilterLowpassBorder_8u_C1R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, KvliMaskSize mask, int borderType, Kvl8u borderValue, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterLowpassBorder_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, KvliMaskSize mask, int borderType, Kvl32f borderValue, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterLowpassGetBufferSize_8u_C1R(KvliSize roiSize, KvliMaskSize mask, int* pBufferSize);
KVL_API KvlStatus kvliFilterLowpassGetBufferSize_32f_C1R(KvliSize roiSize, KvliMaskSize mask, int* pBufferSize);
KVL_API KvlStatus kvliFilterScharrHorizBorder_8u16s_C1R(const Kvl8u* pSrc, int srcStep, Kvl16s* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl8u borderValue, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterScharrHorizBorder_8u8s_C1R(const Kvl8u* pSrc, int srcStep, Kvl8s* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl8u borderValue, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterScharrHorizBorder_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl32f borderValue, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterScharrHorizGetBufferSize_8u16s_C1R(KvliSize roiSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterScharrHorizGetBufferSize_8u8s_C1R(KvliSize roiSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterScharrHorizGetBufferSize_32f_C1R(KvliSize roiSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterScharrVertBorder_8u16s_C1R(const Kvl8u* pSrc, int srcStep, Kvl16s* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl8u borderValue, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterScharrVertBorder_8u8s_C1R(const Kvl8u* pSrc, int srcStep, Kvl8s* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl8u borderValue, int divisor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterScharrVertBorder_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl32f borderValue, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterScharrVertGetBufferSize_8u16s_C1R(KvliSize roiSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterScharrVertGetBufferSize_8u8s_C1R(KvliSize roiSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterScharrVertGetBufferSize_32f_C1R(KvliSize roiSize, int* pBufferSize);
/* @@END DERIVATIVE FILTERS@@ */

/* ---------------------------------------------------------------------------------------------
 * Colour-to-grey gradient combination
 * ------------------------------------------------------------------------------------------- */
/* @@BEGIN GRADIENT COLOR TO GRAY@@ */
/* Combines the three channels of each pixel into one value of the same type by a norm (this
 * family's own codes): 0 infinity, 1 L1, 2 L2. With c0, c1, c2 the channel values:
 *   8u   0: max(c)   1: ((c0 + c1 + c2) * 1365 + 2048) >> 12
 *        2: trunc(0.5 + sqrt(float(c0^2 + c1^2 + c2^2) / 3.0f)), root and half in double
 *   16u  0: max(c)   1: ((c0 + c1 + c2) * 5461 + 8192) >> 14
 *        2: trunc(0.5 + sqrt((c0^2 + c1^2 + c2^2) / 3.0)), all in double
 *   32f  0: max(|c|) 1: |c0| + |c1| + |c2|   2: sqrtf(c0^2 + c1^2 + c2^2)  (no division by 3)
 * Statuses, in this order: kvlStatusNullPointer; kvlStatusBadSize (width or height < 1);
 * kvlStatusBadStep (source step < 3 x width x element size, destination step < width x element
 * size; steps need not be element multiples); kvlStatusBadArgument (norm not 0, 1 or 2).
 * No work buffer. Threading: a team of min(width x height / 1024, height / 16, threads) over
 * row stripes, serial when that is 1 or less. */
KVL_API KvlStatus kvliGradientColorToGray_8u_C3C1R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, int norm);
KVL_API KvlStatus kvliGradientColorToGray_16u_C3C1R(const Kvl16u* pSrc, int srcStep, Kvl16u* pDst, int dstStep, KvliSize roiSize, int norm);
KVL_API KvlStatus kvliGradientColorToGray_32f_C3C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, int norm);
/* @@END GRADIENT COLOR TO GRAY@@ */

/* ---------------------------------------------------------------------------------------------
 * Canny edge detector
 * ------------------------------------------------------------------------------------------- */
/* @@BEGIN CANNY@@ */
/* Canny edge detection: every destination pixel becomes 255 (edge) or 0. Magnitudes (L1 for the
 * gradient inputs; L1 or L2 for CannyBorder, which differentiates the 8u image with 3x3 Sobel,
 * 3x3 Scharr or 5x5 Sobel) are kept above lowThreshold, suppressed to local maxima across the
 * gradient direction, and survivors 8-connected to a pixel above highThreshold are edges.
 * Canny_16s8u/32f8u statuses: NullPointer, BadSize, BadStep (dx/dy step < 2 or 4 x width,
 * destination step < width), StepNotMultiple, BadArgument (low < 0 or low > high).
 * CannyBorder statuses: BadMaskSize (Scharr with 5x5, or mask not 33/55) first, then NullPointer,
 * BadSize, BadArgument (filter, norm, thresholds), BadBorderType (low four bits not 0, 1, 6);
 * no step check. Border: bit 0 replicates, else borderValue; flags 16..128 read memory per side.
 * Buffer: CannyGetSize = 5 (w+2)(h+2) + 16 w + 160, or 9 (w+2)(h+2) + 16 w + 160 when w or h is
 * 65533 or more; CannyBorderGetSize = 5 W H + 16 W + 64 with W, H = w, h + 2 (3x3) or + 4 (5x5);
 * 32-bit arithmetic. Single-threaded. */
KVL_API KvlStatus kvliCanny_16s8u_C1R(const Kvl16s* pSrcDx, int srcDxStep, const Kvl16s* pSrcDy, int srcDyStep, Kvl8u* pDstEdges, int dstEdgeStep, KvliSize roiSize, Kvl32f lowThreshold, Kvl32f highThreshold, Kvl8u* pBuffer);
KVL_API KvlStatus kvliCanny_32f8u_C1R(const Kvl32f* pSrcDx, int srcDxStep, const Kvl32f* pSrcDy, int srcDyStep, Kvl8u* pDstEdges, int dstEdgeStep, KvliSize roiSize, Kvl32f lowThreshold, Kvl32f highThreshold, Kvl8u* pBuffer);
KVL_API KvlStatus kvliCannyGetSize(KvliSize roiSize, int* pBufferSize);
KVL_API KvlStatus kvliCannyBorder_8u_C1R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, KvliDifferentialKernel filterType, KvliMaskSize mask, KvliBorderType borderType, Kvl8u borderValue, Kvl32f lowThreshold, Kvl32f highThreshold, KvlNormType norm, Kvl8u* pBuffer);
KVL_API KvlStatus kvliCannyBorderGetSize(KvliSize roiSize, KvliDifferentialKernel filterType, KvliMaskSize mask, KvlDataType dataType, int* pBufferSize);
/* @@END CANNY@@ */

/* ---------------------------------------------------------------------------------------------
 * Gaussian pyramids and the pyramid record
 * ------------------------------------------------------------------------------------------- */
/* A pyramid: level 0 is the full-size image, level k is smaller by rate^k. One block holds this
 * 48-byte header followed by its four arrays of level + 1 entries (pRoi, pImage, pRate, pStep, each
 * 8-byte aligned). kvliPyramidInitAlloc fills pRoi and pRate (pRate[k] = (1/rate)^k by repeated
 * double-precision multiplication from 1.0); pImage, pStep and pState start null / 0 and are the
 * caller's to fill (kvliPyramidFree releases the block only, never what the caller attached). */
typedef struct {
  Kvl8u** pImage;
  KvliSize* pRoi;
  Kvl64f* pRate;
  int* pStep;
  void* pState;
  int level;
} KvliPyramid;

/* @@BEGIN PYRAMIDS@@ */
/* One level of a Gaussian pyramid with the kernel (1 4 6 4 1) in both directions, for 8u, 8s and
 * 32f images of 1 or 3 interleaved channels; roiSize is always the SOURCE size.
 * PyrDown: the destination is ((w+1)>>1) x ((h+1)>>1); its pixel (x, y) is centred on source pixel
 *   (2x, 2y): each source row is filtered horizontally, h = s(-2) + 4 s(-1) + 6 s(0) + 4 s(1) +
 *   s(2) around column 2x, then the same weights combine the rows 2y-2 .. 2y+2. Missing indices
 *   are mirrored about the edge pixel without repeating it on all four sides (s(-1) = s(1),
 *   s(w) = s(w-2)). 8u/8s: (v + 128) >> 8 with an arithmetic shift (halves go up, towards plus
 *   infinity for negative 8s values); 32f: v * 0.00390625. Narrow sources: a source of height 1
 *   or 2 averages its two filtered rows (row 0 twice for height 1), ((h0 + h1) * 8 + 128) >> 8 or
 *   (h0 + h1) * 0.03125; else a source of width 1 or 2 does the same with its two filtered
 *   columns. The height is tested first.
 * PyrUp: the destination is 2w x 2h. Horizontally source pixel i gives columns 2i = s(i-1) +
 *   6 s(i) + s(i+1) and 2i+1 = 4 s(i) + 4 s(i+1); vertically the same two phases make rows 2j and
 *   2j+1. 8u/8s: (v + 32) >> 6 (arithmetic shift); 32f: v * 0.015625. The borders are asymmetric
 *   on purpose: left and top reflect (s(-1) = s(1)), right and bottom replicate (s(w) = s(w-1)).
 *   A source of height 1 writes its horizontal result (32f: times 0.125) to both destination
 *   rows; else a source of width 1 writes each vertical result (32f: times 0.125) to both
 *   destination columns.
 * 32f sums are single precision in this order, the same in both passes: down ((s(-2) + s(2)) +
 *   (s(-1) + s(1)) * 4) + s(0) * 6; up (s(i-1) + s(i) * 6) + s(i+1) and (s(i) + s(i+1)) * 4; the
 *   narrow paths (h0 + h1) * 0.03125. Every processor gives the same bytes.
 * Statuses, in this order: kvlStatusNullPointer (pSrc, pDst or pBuffer); kvlStatusBadSize (source
 *   width or height < 1, or a width the size query refuses); kvlStatusBadStep (srcStep below the
 *   source row's bytes, dstStep below the destination row's bytes); kvlStatusStepNotMultiple
 *   (32f: a step not a multiple of 4). The work buffer holds nothing between calls.
 * Buffer: PyrDownGetBufSize = roundup16(roiWidth * 4 * channels) * 6 + 64 and PyrUpGetBufSize =
 *   roundup16(roiWidth * 8 * channels) * 3 + 64, roiWidth the source width, any alignment; the
 *   size does not depend on the type, which is only checked. Size-query statuses, in this order:
 *   kvlStatusNullPointer, kvlStatusBadSize (roiWidth < 1), kvlStatusBadChannels (not 1 or 3),
 *   kvlStatusBadDataType (not kvl8u, kvl8s or kvl32f), then kvlStatusBadSize for a width whose
 *   size would not fit an int.
 * Threading: always on the calling thread. */
KVL_API KvlStatus kvliPyrDownGetBufSize_Gauss5x5(int roiWidth, KvlDataType dataType, int channels, int* pBufSize);
KVL_API KvlStatus kvliPyrUpGetBufSize_Gauss5x5(int roiWidth, KvlDataType dataType, int channels, int* pBufSize);
KVL_API KvlStatus kvliPyrDown_Gauss5x5_8u_C1R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, Kvl8u* pBuffer);
KVL_API KvlStatus kvliPyrDown_Gauss5x5_8u_C3R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, Kvl8u* pBuffer);
KVL_API KvlStatus kvliPyrDown_Gauss5x5_8s_C1R(const Kvl8s* pSrc, int srcStep, Kvl8s* pDst, int dstStep, KvliSize roiSize, Kvl8u* pBuffer);
KVL_API KvlStatus kvliPyrDown_Gauss5x5_8s_C3R(const Kvl8s* pSrc, int srcStep, Kvl8s* pDst, int dstStep, KvliSize roiSize, Kvl8u* pBuffer);
KVL_API KvlStatus kvliPyrDown_Gauss5x5_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, Kvl8u* pBuffer);
KVL_API KvlStatus kvliPyrDown_Gauss5x5_32f_C3R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, Kvl8u* pBuffer);
KVL_API KvlStatus kvliPyrUp_Gauss5x5_8u_C1R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, Kvl8u* pBuffer);
KVL_API KvlStatus kvliPyrUp_Gauss5x5_8u_C3R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, Kvl8u* pBuffer);
KVL_API KvlStatus kvliPyrUp_Gauss5x5_8s_C1R(const Kvl8s* pSrc, int srcStep, Kvl8s* pDst, int dstStep, KvliSize roiSize, Kvl8u* pBuffer);
KVL_API KvlStatus kvliPyrUp_Gauss5x5_8s_C3R(const Kvl8s* pSrc, int srcStep, Kvl8s* pDst, int dstStep, KvliSize roiSize, Kvl8u* pBuffer);
KVL_API KvlStatus kvliPyrUp_Gauss5x5_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, Kvl8u* pBuffer);
KVL_API KvlStatus kvliPyrUp_Gauss5x5_32f_C3R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, Kvl8u* pBuffer);

/* Level sizes of a pyramid of real rate (1 < rate <= 10; NaN is refused like any rate outside).
 * GetPyramidUpROI: the range of sizes whose next smaller level has the size W x H given, in single
 *   precision with products truncated toward zero: minimum height 1 if H = 1, else the larger of
 *   H + 1 and trunc((H - 1) * rate) + 1; maximum height the larger of H + 1 and trunc(H * rate);
 *   widths likewise (results beyond the int range saturate at 2147483647).
 * GetPyramidDownROI: starts from max(1, trunc(0.5 + W / rate)) x max(1, trunc(0.5 + H / rate))
 *   and moves the candidate one step at a time until W x H lies in its up-range: per round the
 *   height moves down (H below the minimum) or up (above the maximum), then the width; the round
 *   in which both fit ends the search.
 * PyramidInitAlloc: level 0 is roiSize and each further size the down size of the last, until
 *   both sides are below 2 or `level` levels exist; pPyr->level is the number of levels made
 *   beyond level 0 (0 for a 1 x 1 image), pRate[k] = (1/rate)^k in double precision, pImage,
 *   pStep and pState are null and 0. One block of 52 * level + 152 bytes (level the record's),
 *   plus a temporary array of max(width, height) sizes during the call.
 * Statuses, in this order: kvlStatusNullPointer (any output pointer, or pPyr for Free);
 *   kvlStatusBadSize (a side < 1); kvlStatusBadArgument (rate, and for InitAlloc level < 1);
 *   kvlStatusNoMemory (InitAlloc: an allocation failed; nothing is kept).
 * Threading: always on the calling thread. */
KVL_API KvlStatus kvliGetPyramidDownROI(KvliSize srcRoi, KvliSize* pDstRoi, Kvl32f rate);
KVL_API KvlStatus kvliGetPyramidUpROI(KvliSize srcRoi, KvliSize* pDstRoiMin, KvliSize* pDstRoiMax, Kvl32f rate);
KVL_API KvlStatus kvliPyramidInitAlloc(KvliPyramid** ppPyr, int level, KvliSize roiSize, Kvl32f rate);
KVL_API KvlStatus kvliPyramidFree(KvliPyramid* pPyr);
/* @@END PYRAMIDS@@ */

/* ---------------------------------------------------------------------------------------------
 * Pyramidal Lucas-Kanade point tracking and sub-pixel copies
 * ------------------------------------------------------------------------------------------- */
/* @@BEGIN OPTICAL FLOW@@ */
/* Bilinear sub-pixel copies into a Kvl32f window, and pyramidal Lucas-Kanade point tracking.
 *
 * Sub-pixel copies. Source pixels s(c, r) are converted to float exactly. A sample at column
 * c + fx and row r + fy (0 <= fx, fy < 1) is, in single precision with every product rounded (no
 * fused multiply-add) and the terms added left to right,
 *   s(c, r) w00 + s(c+1, r) w01 + s(c, r+1) w10 + s(c+1, r+1) w11,
 *   w00 = (1 - fx)(1 - fy), w01 = fx (1 - fy), w10 = (1 - fx) fy, w11 = fx fy,
 * where a term whose weight is 0 because fx or fy is 0 is left out and its pixel is not read (so
 * fx = fy = 0 copies s(c, r) exactly, NaNs and infinities of a 32f source included).
 * - CopySubpix: dst(x, y) is the sample at (x + dx, y + dy) from pSrc, 0 <= dx, dy < 1: it reads
 *   roiSize pixels from pSrc, plus one column more when dx > 0 and one row more when dy > 0.
 *   Statuses, in this order: kvlStatusNullPointer (pSrc, pDst); kvlStatusBadSize (width or
 *   height < 1); kvlStatusBadStep (srcStep < width x element size, dstStep < 4 x width);
 *   kvlStatusStepNotMultiple (16u source step odd, 32f steps not multiples of 4);
 *   kvlStatusBadArgument (dx or dy not in [0, 1), NaN included).
 * - CopySubpixIntersect: the window of dstRoiSize pixels whose top-left sample lies at the real
 *   position `point` of the source image (srcRoiSize pixels from pSrc): with c0 = floor(point.x)
 *   and fx = point.x - c0 in single precision (when that rounds to 1, c0 + 1 and 0 are used
 *   instead), and r0, fy likewise, dst(x, y) is the sample at column c0 + x + fx, row r0 + y + fy.
 *   Only the samples whose pixels all lie inside the source are written; they form the rectangle
 *   *pRect in window coordinates ({x, y, width, height}, {0, 0, 0, 0} when no sample is inside);
 *   every other destination pixel is left as it was, and nothing outside the source is read.
 *   Statuses, in this order: kvlStatusNullPointer (pSrc, pDst, pRect); kvlStatusBadSize (a side
 *   of either size < 1); kvlStatusBadStep (srcStep < source width x element size, dstStep <
 *   4 x window width); kvlStatusStepNotMultiple (as CopySubpix); kvlStatusBadArgument (a
 *   coordinate of point is NaN or infinite).
 * Threading: always on the calling thread.
 *
 * Tracking. A state from OpticalFlowPyrLKInitAlloc serves images up to roiSize and one window
 * side winSize; `hint` is stored in it and changes nothing. The state is one small record and one
 * scratch block, both from kvlMalloc: the scratch has
 *   4 x (S + 2 (W + 5)(H + 5) + (4 L + 12)(L + 3) + (8 L + 24)(L + 3)) + 68 bytes,
 * W x H = roiSize, L = winSize, S the larger of the ScharrHoriz and ScharrVert buffer sizes for a
 * (W + 5) x (H + 5) ROI (the 8u16s members for the 8u state, the 32f members for 16u and 32f),
 * which grow with the permitted thread count at the time of InitAlloc. InitAlloc statuses:
 * kvlStatusNullPointer (ppState); kvlStatusBadSize (winSize < 1, a side of roiSize < 1);
 * kvlStatusNoMemory (an allocation fails, or the scratch would exceed 2^31 - 1 bytes; nothing
 * stays allocated). Free releases both: kvlStatusNullPointer when pState is NULL,
 * kvlStatusBadContext when it is not a state of the member's type.
 *
 * OpticalFlowPyrLK tracks numFeat points pPrev (level-0 pixels of the previous image, pyramid
 * pPyr1) into the next image (pyramid pPyr2), from level maxLev down to level 0. The coarsest
 * estimate is the point itself (pNext is output only); at level k the point and the estimate are
 * in level-k pixels: (float)(x x pRate[k]) with the double-precision rate of their own pyramid,
 * and back to level 0 by (float)(x / pRate[k]). For each point and level, with L = winSize and
 * h = 0.5 (L - 1):
 * 1. With c0, fx and r0, fy the corner of (p.x - h, p.y - h) as CopySubpixIntersect takes it,
 *    the previous image's (L + 2) x (L + 2) patch of samples at columns c0 - 1 + x + fx, rows
 *    r0 - 1 + y + fy is copied as CopySubpixIntersect does (the window plus a one-pixel frame);
 *    the horizontal and vertical gradients Ix, Iy of every window pixel whose 3 x 3
 *    neighbourhood in that patch was copied come from the library's 3x3 Scharr filters
 *    (ScharrVert, ScharrHoriz, 32f) on the patch, each times 0.03125 in single precision
 *    (computed for up to 16 points at once, with the same values). Those pixels form the
 *    rectangle P of the window (the whole window unless the patch crosses the image's edge); an
 *    empty P loses the point.
 * 2. Gxx, Gxy, Gyy = the sums over P of Ix Ix, Ix Iy, Iy Iy; det = Gxx Gyy - Gxy Gxy (double).
 *    det < 2.220446049250313e-16 (NaN is not) loses the point.
 * 3. At most maxIter times: the next image's window at the estimate q (top-left sample at
 *    (q.x - h, q.y - h)) is sampled as CopySubpixIntersect does; U is P intersected with the
 *    samples inside the next image (empty: the point is lost). With d = prev - next in single
 *    precision, bx, by = the sums over U of d Ix, d Iy; dx = (bx Gyy - Gxy by) / det,
 *    dy = (by Gxx - Gxy bx) / det; q = (float)(q + d) per coordinate, in double. Then, in this
 *    order: dx dx + dy dy < threshold x threshold (double): converged, stop; from the second
 *    step on, |dx + previous dx| and |dy + previous dy| both < 0.0003452669770922512: the
 *    estimate oscillates, q = (float)(q - d / 2), stop; maxIter steps done: stop.
 * 4. After level 0, error = sqrt(sum over U at the final q of d d / (pixels of U)) stored as
 *    float, 0 when the sum is not above 0.
 * Sums: every product is of single-precision values converted to double (exact); each sum runs
 * over its rectangle's rows top to bottom, element j of a row (counted from the rectangle's
 * left edge) going to partial sum j mod 8, each partial added in order from +0, and the partials
 * combined as ((s0 + s1) + (s2 + s3)) + ((s4 + s5) + (s6 + s7)).
 * Results: pStatus[i] = 0 and pNext[i] = the final estimate in level-0 pixels for a tracked
 * point; a point lost at level k has status k + 1 (maxLev + 1 at the first level), error 0 and
 * pNext[i] = its estimate on entering level k. pNext may be pPrev itself.
 * Statuses, in this order: kvlStatusNullPointer (pPyr1, pPyr2, pState, pPrev, pNext, pStatus,
 * pError); kvlStatusBadSize (numFeat < 1, winSize < 1); kvlStatusBadContext (pState is not a
 * state of the member's type); kvlStatusBadSize (winSize differs from the state's);
 * kvlStatusBadArgument (maxLev < 0 or above 126, so that maxLev + 1 fits the status byte,
 * maxIter < 1, threshold < 0 or NaN); then the levels 0 ..
 * maxLev of both pyramids: kvlStatusBadArgument (maxLev above a pyramid's level),
 * kvlStatusNullPointer (a level image), kvlStatusBadSize (a level size < 1, or level 0 larger than
 * the state's roiSize), kvlStatusBadStep, kvlStatusStepNotMultiple (level steps as image steps),
 * kvlStatusBadArgument (a rate not finite and above 0); last kvlStatusInPlaceNotSupported when
 * pNext overlaps pPrev without being the same array. Points that cannot be tracked are reported
 * through their status. Threading: always on the calling thread; a state must not be used by two
 * calls at once. Every vector target gives the same bytes. */
typedef struct KvliOptFlowPyrLKState KvliOptFlowPyrLKState;
KVL_API KvlStatus kvliCopySubpix_8u32f_C1R(const Kvl8u* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, Kvl32f dx, Kvl32f dy);
KVL_API KvlStatus kvliCopySubpix_16u32f_C1R(const Kvl16u* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, Kvl32f dx, Kvl32f dy);
KVL_API KvlStatus kvliCopySubpix_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, Kvl32f dx, Kvl32f dy);
KVL_API KvlStatus kvliCopySubpixIntersect_8u32f_C1R(const Kvl8u* pSrc, int srcStep, KvliSize srcRoiSize, Kvl32f* pDst, int dstStep, KvliSize dstRoiSize, KvliPoint32f point, KvliRect* pRect);
KVL_API KvlStatus kvliCopySubpixIntersect_16u32f_C1R(const Kvl16u* pSrc, int srcStep, KvliSize srcRoiSize, Kvl32f* pDst, int dstStep, KvliSize dstRoiSize, KvliPoint32f point, KvliRect* pRect);
KVL_API KvlStatus kvliCopySubpixIntersect_32f_C1R(const Kvl32f* pSrc, int srcStep, KvliSize srcRoiSize, Kvl32f* pDst, int dstStep, KvliSize dstRoiSize, KvliPoint32f point, KvliRect* pRect);
KVL_API KvlStatus kvliOpticalFlowPyrLKInitAlloc_8u_C1R(KvliOptFlowPyrLKState** ppState, KvliSize roiSize, int winSize, int hint);
KVL_API KvlStatus kvliOpticalFlowPyrLKInitAlloc_16u_C1R(KvliOptFlowPyrLKState** ppState, KvliSize roiSize, int winSize, int hint);
KVL_API KvlStatus kvliOpticalFlowPyrLKInitAlloc_32f_C1R(KvliOptFlowPyrLKState** ppState, KvliSize roiSize, int winSize, int hint);
KVL_API KvlStatus kvliOpticalFlowPyrLK_8u_C1R(const KvliPyramid* pPyr1, const KvliPyramid* pPyr2, const KvliPoint32f* pPrev, KvliPoint32f* pNext, Kvl8s* pStatus, Kvl32f* pError, int numFeat, int winSize, int maxLev, int maxIter, Kvl32f threshold, KvliOptFlowPyrLKState* pState);
KVL_API KvlStatus kvliOpticalFlowPyrLK_16u_C1R(const KvliPyramid* pPyr1, const KvliPyramid* pPyr2, const KvliPoint32f* pPrev, KvliPoint32f* pNext, Kvl8s* pStatus, Kvl32f* pError, int numFeat, int winSize, int maxLev, int maxIter, Kvl32f threshold, KvliOptFlowPyrLKState* pState);
KVL_API KvlStatus kvliOpticalFlowPyrLK_32f_C1R(const KvliPyramid* pPyr1, const KvliPyramid* pPyr2, const KvliPoint32f* pPrev, KvliPoint32f* pNext, Kvl8s* pStatus, Kvl32f* pError, int numFeat, int winSize, int maxLev, int maxIter, Kvl32f threshold, KvliOptFlowPyrLKState* pState);
KVL_API KvlStatus kvliOpticalFlowPyrLKFree_8u_C1R(KvliOptFlowPyrLKState* pState);
KVL_API KvlStatus kvliOpticalFlowPyrLKFree_16u_C1R(KvliOptFlowPyrLKState* pState);
KVL_API KvlStatus kvliOpticalFlowPyrLKFree_32f_C1R(KvliOptFlowPyrLKState* pState);
/* @@END OPTICAL FLOW@@ */

/* ---------------------------------------------------------------------------------------------
 * Motion history
 * ------------------------------------------------------------------------------------------- */
/* @@BEGIN MOTION HISTORY@@ */
/* Motion history update, in place on a Kvl32f history image: with L = timestamp - mhiDuration
 * (single precision), each pixel whose silhouette value is non-zero becomes timestamp; any other
 * pixel becomes 0 when its history is < L (strict: equal to L, or NaN, is kept) and is otherwise
 * left as it is. Statuses, in this order: kvlStatusNullPointer; kvlStatusBadSize (width or
 * height < 1); kvlStatusBadStep (silhouette step < width x element size, history step <
 * 4 x width); kvlStatusStepNotMultiple (a 16u step odd, a 32f step not a multiple of 4, the
 * history's included); kvlStatusOutOfRange (mhiDuration < 0). No work buffer.
 * Threading: always on the calling thread. */
KVL_API KvlStatus kvliUpdateMotionHistory_8u32f_C1IR(const Kvl8u* pSilhouette, int silhStep, Kvl32f* pMHI, int mhiStep, KvliSize roiSize, Kvl32f timestamp, Kvl32f mhiDuration);
KVL_API KvlStatus kvliUpdateMotionHistory_16u32f_C1IR(const Kvl16u* pSilhouette, int silhStep, Kvl32f* pMHI, int mhiStep, KvliSize roiSize, Kvl32f timestamp, Kvl32f mhiDuration);
KVL_API KvlStatus kvliUpdateMotionHistory_32f_C1IR(const Kvl32f* pSilhouette, int silhStep, Kvl32f* pMHI, int mhiStep, KvliSize roiSize, Kvl32f timestamp, Kvl32f mhiDuration);
/* @@END MOTION HISTORY@@ */

/* ---------------------------------------------------------------------------------------------
 * Accumulation and absolute difference
 * ------------------------------------------------------------------------------------------- */
/* @@BEGIN ACCUMULATION@@ */
/* Accumulation into a Kvl32f image, in place, optionally under a Kvl8u mask (the M forms: only
 * pixels with a non-zero mask byte change; every other accumulator pixel keeps its exact bits).
 * Sources are converted to float exactly; all arithmetic is single precision in this order:
 *   Add          acc = acc + s
 *   AddSquare    acc = acc + s * s
 *   AddProduct   acc = acc + s1 * s2
 *   AddWeighted  acc = acc + alpha * (s - acc)   (alpha is not range-checked)
 *   AddWeighted_32f_C1R (not in place)  dst = s2 + alpha * (s1 - s2)
 * Absolute differences, exact in the element type:
 *   AbsDiff      dst = |s1 - s2|   (32f: the magnitude of the float difference)
 *   AbsDiffC     dst = |s - value|; the int value of the 8u and 16u members is first clamped into
 *                0..255 resp. 0..65535 (300 acts as 255, -5 as 0).
 * Statuses, in this order: kvlStatusNullPointer (any image, mask or accumulator pointer);
 * kvlStatusBadSize (width or height < 1); kvlStatusBadStep (a source or mask step < width x
 * element size, the accumulator step < 4 x width); kvlStatusStepNotMultiple (a 16u step odd, a
 * 32f step, the accumulator's included, not a multiple of 4). No work buffer.
 * Threading: serial below 262144 pixels, otherwise row stripes over the permitted threads. */
KVL_API KvlStatus kvliAdd_8u32f_C1IR(const Kvl8u* pSrc, int srcStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAdd_8u32f_C1IMR(const Kvl8u* pSrc, int srcStep, const Kvl8u* pMask, int maskStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAdd_8s32f_C1IR(const Kvl8s* pSrc, int srcStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAdd_8s32f_C1IMR(const Kvl8s* pSrc, int srcStep, const Kvl8u* pMask, int maskStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAdd_16u32f_C1IR(const Kvl16u* pSrc, int srcStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAdd_16u32f_C1IMR(const Kvl16u* pSrc, int srcStep, const Kvl8u* pMask, int maskStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAdd_32f_C1IMR(const Kvl32f* pSrc, int srcStep, const Kvl8u* pMask, int maskStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAddSquare_8u32f_C1IR(const Kvl8u* pSrc, int srcStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAddSquare_8u32f_C1IMR(const Kvl8u* pSrc, int srcStep, const Kvl8u* pMask, int maskStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAddSquare_8s32f_C1IR(const Kvl8s* pSrc, int srcStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAddSquare_8s32f_C1IMR(const Kvl8s* pSrc, int srcStep, const Kvl8u* pMask, int maskStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAddSquare_16u32f_C1IR(const Kvl16u* pSrc, int srcStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAddSquare_16u32f_C1IMR(const Kvl16u* pSrc, int srcStep, const Kvl8u* pMask, int maskStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAddSquare_32f_C1IR(const Kvl32f* pSrc, int srcStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAddSquare_32f_C1IMR(const Kvl32f* pSrc, int srcStep, const Kvl8u* pMask, int maskStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAddProduct_8u32f_C1IR(const Kvl8u* pSrc1, int src1Step, const Kvl8u* pSrc2, int src2Step, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAddProduct_8u32f_C1IMR(const Kvl8u* pSrc1, int src1Step, const Kvl8u* pSrc2, int src2Step, const Kvl8u* pMask, int maskStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAddProduct_8s32f_C1IR(const Kvl8s* pSrc1, int src1Step, const Kvl8s* pSrc2, int src2Step, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAddProduct_8s32f_C1IMR(const Kvl8s* pSrc1, int src1Step, const Kvl8s* pSrc2, int src2Step, const Kvl8u* pMask, int maskStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAddProduct_16u32f_C1IR(const Kvl16u* pSrc1, int src1Step, const Kvl16u* pSrc2, int src2Step, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAddProduct_16u32f_C1IMR(const Kvl16u* pSrc1, int src1Step, const Kvl16u* pSrc2, int src2Step, const Kvl8u* pMask, int maskStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAddProduct_32f_C1IR(const Kvl32f* pSrc1, int src1Step, const Kvl32f* pSrc2, int src2Step, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAddProduct_32f_C1IMR(const Kvl32f* pSrc1, int src1Step, const Kvl32f* pSrc2, int src2Step, const Kvl8u* pMask, int maskStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAddWeighted_8u32f_C1IR(const Kvl8u* pSrc, int srcStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize, Kvl32f alpha);
KVL_API KvlStatus kvliAddWeighted_8u32f_C1IMR(const Kvl8u* pSrc, int srcStep, const Kvl8u* pMask, int maskStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize, Kvl32f alpha);
KVL_API KvlStatus kvliAddWeighted_8s32f_C1IR(const Kvl8s* pSrc, int srcStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize, Kvl32f alpha);
KVL_API KvlStatus kvliAddWeighted_8s32f_C1IMR(const Kvl8s* pSrc, int srcStep, const Kvl8u* pMask, int maskStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize, Kvl32f alpha);
KVL_API KvlStatus kvliAddWeighted_16u32f_C1IR(const Kvl16u* pSrc, int srcStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize, Kvl32f alpha);
KVL_API KvlStatus kvliAddWeighted_16u32f_C1IMR(const Kvl16u* pSrc, int srcStep, const Kvl8u* pMask, int maskStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize, Kvl32f alpha);
KVL_API KvlStatus kvliAddWeighted_32f_C1IR(const Kvl32f* pSrc, int srcStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize, Kvl32f alpha);
KVL_API KvlStatus kvliAddWeighted_32f_C1IMR(const Kvl32f* pSrc, int srcStep, const Kvl8u* pMask, int maskStep, Kvl32f* pSrcDst, int srcDstStep, KvliSize roiSize, Kvl32f alpha);
KVL_API KvlStatus kvliAddWeighted_32f_C1R(const Kvl32f* pSrc1, int src1Step, const Kvl32f* pSrc2, int src2Step, Kvl32f* pDst, int dstStep, KvliSize roiSize, Kvl32f alpha);
KVL_API KvlStatus kvliAbsDiff_8u_C1R(const Kvl8u* pSrc1, int src1Step, const Kvl8u* pSrc2, int src2Step, Kvl8u* pDst, int dstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAbsDiff_8u_C3R(const Kvl8u* pSrc1, int src1Step, const Kvl8u* pSrc2, int src2Step, Kvl8u* pDst, int dstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAbsDiff_16u_C1R(const Kvl16u* pSrc1, int src1Step, const Kvl16u* pSrc2, int src2Step, Kvl16u* pDst, int dstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAbsDiff_32f_C1R(const Kvl32f* pSrc1, int src1Step, const Kvl32f* pSrc2, int src2Step, Kvl32f* pDst, int dstStep, KvliSize roiSize);
KVL_API KvlStatus kvliAbsDiffC_8u_C1R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, int value);
KVL_API KvlStatus kvliAbsDiffC_16u_C1R(const Kvl16u* pSrc, int srcStep, Kvl16u* pDst, int dstStep, KvliSize roiSize, int value);
KVL_API KvlStatus kvliAbsDiffC_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, Kvl32f value);
/* @@END ACCUMULATION@@ */

/* ---------------------------------------------------------------------------------------------
 * Integral images and rectangle standard deviation
 * ------------------------------------------------------------------------------------------- */
/* @@BEGIN INTEGRAL@@ */
/* Summed-area tables of a w x h source and the standard deviation over a rectangle read from them.
 * Upright table I, (w+1) x (h+1): row 0 and column 0 are val, I[y+1][x+1] = val + the sum of
 * S[r][c] over r <= y, c <= x. The square table Q is the same over S[r][c]^2 with valSqr.
 * Tilted table T, (w+2) x (h+2): rows 0 and 1 are val; source row y makes row y+2:
 *   T[y+2][0] = T[y+1][1];  T[y+2][w+1] = T[y+1][w];
 *   T[y+2][x] = S[y][x-1] + S[y][x] + T[y+1][x-1] + T[y+1][x+1] - T[y][x]   (1 <= x <= w-1)
 *   T[y+2][w] = S[y][w-1] + T[y+1][w-1] + T[y+1][w+1] - T[y][w]
 * (the tilted square table the same over squares with valSqr).
 * Arithmetic: Kvl32s tables wrap modulo 2^32 and never saturate. Upright Kvl32f tables of 8u
 * sources keep each row's running sum as an unsigned 32-bit integer and store
 * (float)rowSum + the value above, in single precision; Integral_32f keeps the running sum in
 * single precision, adding the row's pixels left to right. Kvl64f square tables keep the row's
 * running sum in double precision. Tilted tables add the source pixels first, exactly, as an
 * integer (two pixels, or two squares), then in the table's type add T[y+1][x-1], add
 * T[y+1][x+1] and subtract T[y][x], in that order.
 * Table statuses, in this order: kvlStatusNullPointer; kvlStatusBadSize (w or h < 1);
 * kvlStatusBadStep (srcStep < w x source element size, a table step < (w+1) resp. (w+2) x its
 * element size); kvlStatusStepNotMultiple (a table step not a multiple of its element size, and
 * the Kvl32f source's step not a multiple of 4). No work buffer; single-threaded. Integral_8u32s
 * and Integral_8u32f tables that outgrow about half the cache (with their source) are written
 * with cache-bypassing stores, so they are not left in the cache.
 *
 * RectStdDev at output (y, x): x0 = x + rect.x, y0 = y + rect.y, x1 = x0 + rect.width,
 * y1 = y0 + rect.height, N = rect.width x rect.height;
 *   Sum = I[y1][x1] - I[y0][x1] + I[y0][x0] - I[y1][x0], SumSq likewise from Q.
 * TiltedRectStdDev at (y, x): a = rect.x + rect.y, b = rect.x - rect.y,
 * N = 2 x rect.width x rect.height, with P4 = T[y+a][x+b], P3 = T[y+a+rect.width][x+b+rect.width],
 * P2 = T[y+a+rect.height][x+b-rect.height],
 * P1 = T[y+a+rect.width+rect.height][x+b+rect.width-rect.height]: Sum = P1 - P2 - P3 + P4.
 * pSrc and pSqr point at element [0][0] of these formulas; the caller's tables must hold every
 * element they read (a tilted rectangle with rect.y + rect.height > rect.x reads left of them).
 * Then mean = Sum / N, variance = SumSq / N - mean x mean, a variance below 0 becomes 0 (NaN
 * stays NaN), result = its square root. Precision by member:
 *   _32s_C1RSfs (both shapes): Sum and SumSq combined in 32-bit wrapping integers, so a wrapped
 *     table still gives the sums of rectangles whose sums fit; then converted to single precision
 *     and divided by (float)N; variance in single precision; square root in double; stored as
 *     0.5 + 2^-scaleFactor x root truncated toward zero, saturating at 2147483647. The scale is
 *     the single-precision value of 1u << (|scaleFactor| mod 32), or its reciprocal for positive
 *     scaleFactor (so -31 multiplies by 2^31 and 31 divides by it).
 *   _32s32f_C1R (both shapes): Sum in 32-bit wrapping integers converted to single precision; each
 *     of the four square-table corners converted to single precision and combined in single
 *     precision; mean, variance and root in single precision.
 *   RectStdDev_32f_C1R: the corners of both tables combined in double precision (the float sums
 *     widened), each result converted to single precision; mean, variance and root in single.
 *   TiltedRectStdDev_32f_C1R: corners, mean and variance in double precision; the clamped
 *     variance converted to single precision and its square root taken in single precision.
 * Corners combine left to right in the order written above; N is computed exactly.
 * Statuses, in this order: kvlStatusNullPointer (pSrc, pSqr, pDst); kvlStatusBadSize (w or
 * h < 1); kvlStatusBadStep (srcStep < E x 4, sqrStep < E x square element size, dstStep < w x 4,
 * with E = rect.x + rect.width + w upright, rect.x + rect.y + rect.width + rect.height + w - 1
 * tilted); kvlStatusStepNotMultiple; kvlStatusBadArgument (rect.x < 0, rect.y < 0,
 * rect.width < 1 or rect.height < 1). No work buffer.
 * Threading: RectStdDev_32f_C1R uses min(permitted threads, w x h / 1024, 32) threads when that
 * is 2 or more, each on a contiguous stripe of rows (stripe sizes differ by at most one row);
 * everything else runs on the calling thread. */
KVL_API KvlStatus kvliIntegral_8u32s_C1R(const Kvl8u* pSrc, int srcStep, Kvl32s* pDst, int dstStep, KvliSize roiSize, Kvl32s val);
KVL_API KvlStatus kvliIntegral_8u32f_C1R(const Kvl8u* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, Kvl32f val);
KVL_API KvlStatus kvliIntegral_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize);
KVL_API KvlStatus kvliSqrIntegral_8u32s_C1R(const Kvl8u* pSrc, int srcStep, Kvl32s* pDst, int dstStep, Kvl32s* pSqr, int sqrStep, KvliSize roiSize, Kvl32s val, Kvl32s valSqr);
KVL_API KvlStatus kvliSqrIntegral_8u32s64f_C1R(const Kvl8u* pSrc, int srcStep, Kvl32s* pDst, int dstStep, Kvl64f* pSqr, int sqrStep, KvliSize roiSize, Kvl32s val, Kvl64f valSqr);
KVL_API KvlStatus kvliSqrIntegral_8u32f64f_C1R(const Kvl8u* pSrc, int srcStep, Kvl32f* pDst, int dstStep, Kvl64f* pSqr, int sqrStep, KvliSize roiSize, Kvl32f val, Kvl64f valSqr);
KVL_API KvlStatus kvliTiltedIntegral_8u32s_C1R(const Kvl8u* pSrc, int srcStep, Kvl32s* pDst, int dstStep, KvliSize roiSize, Kvl32s val);
KVL_API KvlStatus kvliTiltedIntegral_8u32f_C1R(const Kvl8u* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, Kvl32f val);
KVL_API KvlStatus kvliTiltedSqrIntegral_8u32s_C1R(const Kvl8u* pSrc, int srcStep, Kvl32s* pDst, int dstStep, Kvl32s* pSqr, int sqrStep, KvliSize roiSize, Kvl32s val, Kvl32s valSqr);
KVL_API KvlStatus kvliTiltedSqrIntegral_8u32s64f_C1R(const Kvl8u* pSrc, int srcStep, Kvl32s* pDst, int dstStep, Kvl64f* pSqr, int sqrStep, KvliSize roiSize, Kvl32s val, Kvl64f valSqr);
KVL_API KvlStatus kvliTiltedSqrIntegral_8u32f64f_C1R(const Kvl8u* pSrc, int srcStep, Kvl32f* pDst, int dstStep, Kvl64f* pSqr, int sqrStep, KvliSize roiSize, Kvl32f val, Kvl64f valSqr);
KVL_API KvlStatus kvliRectStdDev_32s_C1RSfs(const Kvl32s* pSrc, int srcStep, const Kvl32s* pSqr, int sqrStep, Kvl32s* pDst, int dstStep, KvliSize roiSize, KvliRect rect, int scaleFactor);
KVL_API KvlStatus kvliRectStdDev_32s32f_C1R(const Kvl32s* pSrc, int srcStep, const Kvl64f* pSqr, int sqrStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, KvliRect rect);
KVL_API KvlStatus kvliRectStdDev_32f_C1R(const Kvl32f* pSrc, int srcStep, const Kvl64f* pSqr, int sqrStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, KvliRect rect);
KVL_API KvlStatus kvliTiltedRectStdDev_32s_C1RSfs(const Kvl32s* pSrc, int srcStep, const Kvl32s* pSqr, int sqrStep, Kvl32s* pDst, int dstStep, KvliSize roiSize, KvliRect rect, int scaleFactor);
KVL_API KvlStatus kvliTiltedRectStdDev_32s32f_C1R(const Kvl32s* pSrc, int srcStep, const Kvl64f* pSqr, int sqrStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, KvliRect rect);
KVL_API KvlStatus kvliTiltedRectStdDev_32f_C1R(const Kvl32f* pSrc, int srcStep, const Kvl64f* pSqr, int sqrStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, KvliRect rect);
/* @@END INTEGRAL@@ */

/* ---------------------------------------------------------------------------------------------
 * Haar classifiers
 * ------------------------------------------------------------------------------------------- */
/* @@BEGIN HAAR CLASSIFIERS@@ */
/* One stage of a boosted cascade of Haar-like features, evaluated at every pixel of a ROI that a
 * Kvl8u mask still marks as a candidate (non-zero byte), over an integral image I (upright) and,
 * for the Mixed members, a tilted integral image T, with one normalisation value per pixel (the
 * window's standard deviation, say). Pixels that fail the stage get mask byte 0; *pPositive is the
 * number that pass. A cascade calls the apply once per stage with the same mask.
 *
 * Building. pFeature holds the rectangles of every weak classifier one after another (pNum[i] of
 * them for classifier i), pWeight one weight per rectangle, pThreshold, pVal1 and pVal2 one value
 * per classifier. InitAlloc makes one allocation of 32 x length + 36 x (total rectangles) + 56
 * bytes with kvlMalloc and writes it to *ppState; Free releases it. A rectangle becomes four
 * corners (column, row), and its sum at a window is X[p0] - X[p1] - X[p2] + X[p3], left to right:
 * - upright {x, y, w, h} (pixels x..x+w-1, y..y+h-1 of the window): p0 = (x+w, y+h),
 *   p1 = (x, y+h), p2 = (x+w, y), p3 = (x, y), read from I with the window's top-left pixel
 *   (c, r) as origin;
 * - tilted {x, y, w, h} (tilted InitAlloc; (x, y) is the top corner, w runs down-right and h
 *   down-left): p0 = (x+w-h, y+w+h), p1 = (x-h, y+h), p2 = (x+w, y+w), p3 = (x, y), read from T
 *   with element (r+1, c+1) as origin.
 * The upright InitAlloc orders the weak classifiers: those with exactly 2 rectangles first, then
 * those with 3, then all others, each group in the caller's order; the tilted InitAlloc keeps the
 * caller's order. Stages add in this order, which matters for the float members only.
 * InitAlloc statuses, in this order: kvlStatusNullPointer (any pointer, ppState included);
 * kvlStatusBadSize (length < 0, then any pNum[i] < 1), before anything is allocated;
 * kvlStatusNoMemory (the allocation fails, or would exceed 2^31 - 1 bytes); kvlStatusBadArgument
 * when a rectangle has x < 0, y < 0, width < 1 or height < 1 (tilted: also height > x + 1, so the
 * left corner stays at column -1 or right of it): the state is then freed and *ppState set to
 * NULL. Any other failure leaves *ppState as it was. length 0 builds an empty classifier: its
 * stage sum is 0 everywhere, so a candidate stays exactly when threshold <= 0.
 *
 * GetHaarClassifierSize: the window a classifier needs, {largest column of p2, largest row of p0}
 * over every rectangle as it is now (upright: max x + w, max y + h), {0, 0} for length 0.
 * kvlStatusNullPointer when pState or pSize is NULL.
 *
 * TiltHaarFeatures: pMask holds one byte per weak classifier in the caller's order. Each
 * classifier i with pMask[i] != 0 becomes tilted (read from T by the Mixed members), and each of
 * its rectangles {x, y, w, h} a diamond of side w (h is dropped), corners as above:
 * - flag != 0, hanging from the top-left corner: p3 = (x, y), p2 = (x+w, y+w), p1 = (x-w, y+w),
 *   p0 = (x, y+2w);
 * - flag == 0, standing on the bottom-left corner: p0 = (x, y+h), p1 = (x-w, y+h-w),
 *   p2 = (x+w, y+h-w), p3 = (x, y+h-2w).
 * Weights stay. Classifier positions are kept in 24 bits: mask bytes from index 16777216 on have
 * no effect. Statuses: kvlStatusNullPointer (pMask, pState); kvlStatusBadArgument when the state
 * already holds tilted features (tilted InitAlloc, or an earlier call that tilted at least one
 * classifier), so the rewrite happens once.
 *
 * Apply, at each candidate pixel (r, c), with norm = pNorm at (r, c):
 *   stage = 0; for each weak classifier in order: f = the sum over its rectangles, in order, of
 *   weight x (rectangle sum); stage += (f below norm x threshold_c) ? val1 : val2;
 *   the pixel stays when stage >= threshold, else its mask byte becomes 0.
 * - 32f_C1R: rectangle sums, products, f and stage in single precision, each operation rounded
 *   (no fused multiply-add); val1 when norm x threshold_c (rounded) > f. A tie, or a NaN, gives
 *   val2; a NaN stage or threshold keeps the pixel.
 * - 32s32f_C1R: rectangle sums in 32-bit wrapping integers, converted to single precision (to
 *   nearest) before the product; the rest as 32f.
 * - 32s_C1RSfs (upright): everything in 32-bit wrapping integers; val1 when f < threshold_c x
 *   norm. scaleFactor is accepted with any value and does not enter the result.
 * - Mixed 32s_C1RSfs: rectangle sums in 32-bit wrapping integers; products and f in 64 bits (f
 *   wraps modulo 2^64), f shifted left by -scaleFactor bits (64 or more give 0) and compared,
 *   signed, with the exact 64-bit threshold_c x norm: val1 when less. Stage sums in 32 bits.
 * The upright members read every feature from I, tilted ones included; the Mixed members read a
 * weak classifier from T when it is tilted and from I otherwise.
 * Memory read: for each candidate only, the table elements at its corners, as 32-bit element
 * offsets p.row x (step / 4) + p.column from the origin. Nothing checks that they lie inside the
 * tables: the caller keeps every corner of every candidate window inside them (with an upright
 * classifier of size {W, H}, a table with H more rows and W more columns than the ROI). A diamond
 * from TiltHaarFeatures can reach left of its window (p1 at column x - w) or, with flag 0, above
 * it (p3 at row y + h - 2w); those elements are read from memory as they are, unclipped.
 * Apply statuses, in this order: kvlStatusNullPointer (tables, norm, mask, pPositive, state);
 * kvlStatusBadSize (width or height < 1); kvlStatusBadStep (a table or norm step < 4 x width,
 * maskStep < width); kvlStatusStepNotMultiple (a table or norm step not a multiple of 4); Mixed
 * 32s_C1RSfs: kvlStatusBadArgument for scaleFactor > 0; the upright members allocate a table of
 * 16 bytes per rectangle for the call: kvlStatusNoMemory when that fails.
 * Every vector target gives the bytes of the rule above. Threading: always on the calling thread.
 * A state may be read by several threads at once; TiltHaarFeatures and Free must not run
 * concurrently with other uses of the same state. */
typedef struct KvliHaarClassifier_32f KvliHaarClassifier_32f;
typedef struct KvliHaarClassifier_32s KvliHaarClassifier_32s;
KVL_API KvlStatus kvliHaarClassifierInitAlloc_32f(KvliHaarClassifier_32f** ppState, const KvliRect* pFeature, const Kvl32f* pWeight, const Kvl32f* pThreshold, const Kvl32f* pVal1, const Kvl32f* pVal2, const int* pNum, int length);
KVL_API KvlStatus kvliHaarClassifierInitAlloc_32s(KvliHaarClassifier_32s** ppState, const KvliRect* pFeature, const Kvl32s* pWeight, const Kvl32s* pThreshold, const Kvl32s* pVal1, const Kvl32s* pVal2, const int* pNum, int length);
KVL_API KvlStatus kvliTiltedHaarClassifierInitAlloc_32f(KvliHaarClassifier_32f** ppState, const KvliRect* pFeature, const Kvl32f* pWeight, const Kvl32f* pThreshold, const Kvl32f* pVal1, const Kvl32f* pVal2, const int* pNum, int length);
KVL_API KvlStatus kvliTiltedHaarClassifierInitAlloc_32s(KvliHaarClassifier_32s** ppState, const KvliRect* pFeature, const Kvl32s* pWeight, const Kvl32s* pThreshold, const Kvl32s* pVal1, const Kvl32s* pVal2, const int* pNum, int length);
KVL_API KvlStatus kvliHaarClassifierFree_32f(KvliHaarClassifier_32f* pState);
KVL_API KvlStatus kvliHaarClassifierFree_32s(KvliHaarClassifier_32s* pState);
KVL_API KvlStatus kvliGetHaarClassifierSize_32f(KvliHaarClassifier_32f* pState, KvliSize* pSize);
KVL_API KvlStatus kvliGetHaarClassifierSize_32s(KvliHaarClassifier_32s* pState, KvliSize* pSize);
KVL_API KvlStatus kvliTiltHaarFeatures_32f(const Kvl8u* pMask, int flag, KvliHaarClassifier_32f* pState);
KVL_API KvlStatus kvliTiltHaarFeatures_32s(const Kvl8u* pMask, int flag, KvliHaarClassifier_32s* pState);
KVL_API KvlStatus kvliApplyHaarClassifier_32f_C1R(const Kvl32f* pSrc, int srcStep, const Kvl32f* pNorm, int normStep, Kvl8u* pMask, int maskStep, KvliSize roiSize, int* pPositive, Kvl32f threshold, KvliHaarClassifier_32f* pState);
KVL_API KvlStatus kvliApplyHaarClassifier_32s32f_C1R(const Kvl32s* pSrc, int srcStep, const Kvl32f* pNorm, int normStep, Kvl8u* pMask, int maskStep, KvliSize roiSize, int* pPositive, Kvl32f threshold, KvliHaarClassifier_32f* pState);
KVL_API KvlStatus kvliApplyHaarClassifier_32s_C1RSfs(const Kvl32s* pSrc, int srcStep, const Kvl32s* pNorm, int normStep, Kvl8u* pMask, int maskStep, KvliSize roiSize, int* pPositive, Kvl32s threshold, KvliHaarClassifier_32s* pState, int scaleFactor);
KVL_API KvlStatus kvliApplyMixedHaarClassifier_32f_C1R(const Kvl32f* pSrc, int srcStep, const Kvl32f* pTilt, int tiltStep, const Kvl32f* pNorm, int normStep, Kvl8u* pMask, int maskStep, KvliSize roiSize, int* pPositive, Kvl32f threshold, KvliHaarClassifier_32f* pState);
KVL_API KvlStatus kvliApplyMixedHaarClassifier_32s32f_C1R(const Kvl32s* pSrc, int srcStep, const Kvl32s* pTilt, int tiltStep, const Kvl32f* pNorm, int normStep, Kvl8u* pMask, int maskStep, KvliSize roiSize, int* pPositive, Kvl32f threshold, KvliHaarClassifier_32f* pState);
KVL_API KvlStatus kvliApplyMixedHaarClassifier_32s_C1RSfs(const Kvl32s* pSrc, int srcStep, const Kvl32s* pTilt, int tiltStep, const Kvl32s* pNorm, int normStep, Kvl8u* pMask, int maskStep, KvliSize roiSize, int* pPositive, Kvl32s threshold, KvliHaarClassifier_32s* pState, int scaleFactor);
/* @@END HAAR CLASSIFIERS@@ */

/* ---- Morphology: rectangle minimum and maximum filters ---- */

/* @@BEGIN MIN MAX FILTERS@@ */
/* Rectangle minimum (maximum) filters with replicated borders. Every output element is the
 * minimum (maximum) of its channel over the maskSize rectangle whose element anchor lies on the
 * output pixel: output (x, y) reads source pixels (x - anchor.x + i, y - anchor.y + j) for
 * 0 <= i < maskSize.width, 0 <= j < maskSize.height, and a position outside the ROI reads the
 * nearest ROI pixel (every side replicated; nothing outside the ROI is read). Results are exact
 * and the same on every processor. Floats compare as a total order in which -0.0 lies just below
 * +0.0: the minimum of -0.0 and +0.0 is -0.0 and the maximum +0.0 in any arrangement; what NaN
 * inputs give is not defined. Source and destination must not overlap. Steps are byte counts and
 * need not be multiples of the element size.
 * Work buffer: pBuffer holds at least the size query's bytes, e x c x (2 x maskHeight x (roiWidth
 * + 32) + 32 x maskHeight + 32) for elements of e bytes and c channels (8u C1: 2*maskHeight*
 * (roiWidth + 32) + 32*maskHeight + 32), sized for a roiWidth at least the ROI's width; the
 * minimum and maximum queries give the same size; 16s uses the 16u sizes. The buffer need not be
 * aligned and its contents are not kept between calls.
 * Size query statuses, in this order: kvlStatusNullPointer (pBufferSize); kvlStatusBadSize
 * (roiWidth or a mask dimension < 1, or a size above INT_MAX).
 * Filter statuses, in this order: kvlStatusNullPointer (pSrc, pDst, pBuffer); kvlStatusBadSize
 * (ROI or mask width or height < 1); kvlStatusBadStep (a step < roiWidth x channels x element
 * size); kvlStatusBadAnchor (anchor outside 0 <= x < maskSize.width, 0 <= y < maskSize.height).
 * Cost per pixel grows with the logarithm of the mask's sides at most, not with its area.
 * Threading: always on the calling thread. */
KVL_API KvlStatus kvliFilterMinGetBufferSize_8u_C1R(int roiWidth, KvliSize maskSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterMinGetBufferSize_8u_C3R(int roiWidth, KvliSize maskSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterMinGetBufferSize_8u_C4R(int roiWidth, KvliSize maskSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterMinGetBufferSize_16u_C1R(int roiWidth, KvliSize maskSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterMinGetBufferSize_16s_C1R(int roiWidth, KvliSize maskSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterMinGetBufferSize_32f_C1R(int roiWidth, KvliSize maskSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterMinGetBufferSize_32f_C3R(int roiWidth, KvliSize maskSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterMinGetBufferSize_32f_C4R(int roiWidth, KvliSize maskSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterMaxGetBufferSize_8u_C1R(int roiWidth, KvliSize maskSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterMaxGetBufferSize_8u_C3R(int roiWidth, KvliSize maskSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterMaxGetBufferSize_8u_C4R(int roiWidth, KvliSize maskSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterMaxGetBufferSize_16u_C1R(int roiWidth, KvliSize maskSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterMaxGetBufferSize_16s_C1R(int roiWidth, KvliSize maskSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterMaxGetBufferSize_32f_C1R(int roiWidth, KvliSize maskSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterMaxGetBufferSize_32f_C3R(int roiWidth, KvliSize maskSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterMaxGetBufferSize_32f_C4R(int roiWidth, KvliSize maskSize, int* pBufferSize);
KVL_API KvlStatus kvliFilterMinBorderReplicate_8u_C1R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, KvliSize maskSize, KvliPoint anchor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterMinBorderReplicate_8u_C3R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, KvliSize maskSize, KvliPoint anchor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterMinBorderReplicate_8u_C4R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, KvliSize maskSize, KvliPoint anchor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterMinBorderReplicate_16u_C1R(const Kvl16u* pSrc, int srcStep, Kvl16u* pDst, int dstStep, KvliSize roiSize, KvliSize maskSize, KvliPoint anchor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterMinBorderReplicate_16s_C1R(const Kvl16s* pSrc, int srcStep, Kvl16s* pDst, int dstStep, KvliSize roiSize, KvliSize maskSize, KvliPoint anchor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterMinBorderReplicate_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, KvliSize maskSize, KvliPoint anchor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterMinBorderReplicate_32f_C3R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, KvliSize maskSize, KvliPoint anchor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterMinBorderReplicate_32f_C4R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, KvliSize maskSize, KvliPoint anchor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterMaxBorderReplicate_8u_C1R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, KvliSize maskSize, KvliPoint anchor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterMaxBorderReplicate_8u_C3R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, KvliSize maskSize, KvliPoint anchor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterMaxBorderReplicate_8u_C4R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, KvliSize maskSize, KvliPoint anchor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterMaxBorderReplicate_16u_C1R(const Kvl16u* pSrc, int srcStep, Kvl16u* pDst, int dstStep, KvliSize roiSize, KvliSize maskSize, KvliPoint anchor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterMaxBorderReplicate_16s_C1R(const Kvl16s* pSrc, int srcStep, Kvl16s* pDst, int dstStep, KvliSize roiSize, KvliSize maskSize, KvliPoint anchor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterMaxBorderReplicate_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, KvliSize maskSize, KvliPoint anchor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterMaxBorderReplicate_32f_C3R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, KvliSize maskSize, KvliPoint anchor, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFilterMaxBorderReplicate_32f_C4R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, KvliSize maskSize, KvliPoint anchor, Kvl8u* pBuffer);
/* @@END MIN MAX FILTERS@@ */

/* ---- Morphology: erosion and dilation by a structuring element ---- */

/* A morphology state, built once from a mask and used for any number of images. The border
 * interface's caller allocates it (kvliMorphologyBorderGetSize_*); the older interface's
 * kvliMorphologyInitAlloc_* allocates it. */
typedef struct KvliMorphState KvliMorphState;

/* @@BEGIN MORPHOLOGY@@ */
/* Erosion and dilation by a structuring element. The caller describes the element as a byte
 * mask (non-zero = element) and builds a state once, for the widest ROI it will process; erosion
 * writes dst(x,y,c) = min over the mask's elements (i,j) of src(x+i-ax, y+j-ay, c), dilation the
 * max over the same window (the mask is not reflected). An all-zero mask copies the ROI.
 * Border interface (8u C1/C3/C4, 32f C1/C3/C4, 16u C1, 16s C1): kvliMorphologyBorderGetSize_*
 * gives the state's bytes (*pSpecSize) and the work buffer's (*pBufferSize); Init builds the state
 * in pSpec with the anchor at ((maskWidth-1)>>1, (maskHeight-1)>>1), using pBuffer as scratch;
 * kvliErodeBorder_* / kvliDilateBorder_* take borderType 1 (replicate), optionally with the
 * in-memory side flags 16/32/64/128, or 6 (all four sides read from memory); borderValue is
 * not used. A border-interface state is read-only after Init: threads may share it as long as
 * each passes its own work buffer (*pBufferSize bytes). Nothing is allocated per call.
 * Older interface (8u and 32f, C1/C3/C4): kvliMorphologyGetSize_* / Init_* / InitAlloc_* with a
 * caller-chosen anchor, kvliMorphologyFree, and kvliErodeBorderReplicate_* /
 * kvliDilateBorderReplicate_*, which accept only borderType 1. These have no work buffer: they
 * use the scratch area inside the state, so an older-interface state must not be used by two
 * threads at once.
 * Statuses, in this order. GetSize (border): kvlStatusNullPointer, kvlStatusBadSize (roiWidth or
 * a mask side < 1, or a size that does not fit an int), 16u/16s then kvlStatusBadAnchor (never
 * for valid sizes). GetSize (older): kvlStatusNullPointer (mask, pSize), kvlStatusBadSize.
 * Init/InitAlloc: kvlStatusNullPointer (mask; pSpec and pBuffer for the border interface; the
 * state pointer), kvlStatusBadSize, kvlStatusBadAnchor (anchor outside the mask), then
 * kvlStatusNoMemory (InitAlloc; nothing is left allocated). Erode/Dilate: kvlStatusNullPointer
 * (pSrc, pDst, the state, pBuffer), kvlStatusBadSize (ROI < 1), kvlStatusBadStep (a step below
 * width x channels x element size; steps need not be element multiples), kvlStatusBadBorderType
 * (border interface: borderType & 15 not 1 or 6, or bits above the flags; the older interface
 * gives kvlStatusBadArgument for anything but 1), kvlStatusBadSize (ROI wider than the state's
 * roiWidth); 16s finally refuses pSrc == pDst with kvlStatusInPlaceNotSupported. The source and
 * destination must not overlap (other than being the same ROI for an all-zero mask).
 * Floats compare as a total order with -0 just below +0 (the minimum of -0 and +0 is -0);
 * what NaN inputs give is not defined.
 * Threading: always on the calling thread. */
KVL_API KvlStatus kvliMorphologyBorderGetSize_8u_C1R(int roiWidth, KvliSize maskSize, int* pSpecSize, int* pBufferSize);
KVL_API KvlStatus kvliMorphologyBorderGetSize_8u_C3R(int roiWidth, KvliSize maskSize, int* pSpecSize, int* pBufferSize);
KVL_API KvlStatus kvliMorphologyBorderGetSize_8u_C4R(int roiWidth, KvliSize maskSize, int* pSpecSize, int* pBufferSize);
KVL_API KvlStatus kvliMorphologyBorderGetSize_32f_C1R(int roiWidth, KvliSize maskSize, int* pSpecSize, int* pBufferSize);
KVL_API KvlStatus kvliMorphologyBorderGetSize_32f_C3R(int roiWidth, KvliSize maskSize, int* pSpecSize, int* pBufferSize);
KVL_API KvlStatus kvliMorphologyBorderGetSize_32f_C4R(int roiWidth, KvliSize maskSize, int* pSpecSize, int* pBufferSize);
KVL_API KvlStatus kvliMorphologyBorderGetSize_16u_C1R(int roiWidth, KvliSize maskSize, int* pSpecSize, int* pBufferSize);
KVL_API KvlStatus kvliMorphologyBorderGetSize_16s_C1R(int roiWidth, KvliSize maskSize, int* pSpecSize, int* pBufferSize);
KVL_API KvlStatus kvliMorphologyBorderInit_8u_C1R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliMorphologyBorderInit_8u_C3R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliMorphologyBorderInit_8u_C4R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliMorphologyBorderInit_32f_C1R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliMorphologyBorderInit_32f_C3R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliMorphologyBorderInit_32f_C4R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliMorphologyBorderInit_16u_C1R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliMorphologyBorderInit_16s_C1R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliErodeBorder_8u_C1R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl8u borderValue, const KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliErodeBorder_8u_C3R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl8u borderValue, const KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliErodeBorder_8u_C4R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl8u borderValue, const KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliErodeBorder_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl32f borderValue, const KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliErodeBorder_32f_C3R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl32f borderValue, const KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliErodeBorder_32f_C4R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl32f borderValue, const KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliErodeBorder_16u_C1R(const Kvl16u* pSrc, int srcStep, Kvl16u* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl16u borderValue, const KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliErodeBorder_16s_C1R(const Kvl16s* pSrc, int srcStep, Kvl16s* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl16s borderValue, const KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliDilateBorder_8u_C1R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl8u borderValue, const KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliDilateBorder_8u_C3R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl8u borderValue, const KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliDilateBorder_8u_C4R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl8u borderValue, const KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliDilateBorder_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl32f borderValue, const KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliDilateBorder_32f_C3R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl32f borderValue, const KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliDilateBorder_32f_C4R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl32f borderValue, const KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliDilateBorder_16u_C1R(const Kvl16u* pSrc, int srcStep, Kvl16u* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl16u borderValue, const KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliDilateBorder_16s_C1R(const Kvl16s* pSrc, int srcStep, Kvl16s* pDst, int dstStep, KvliSize roiSize, int borderType, Kvl16s borderValue, const KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliMorphologyGetSize_8u_C1R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, int* pSize);
KVL_API KvlStatus kvliMorphologyGetSize_8u_C3R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, int* pSize);
KVL_API KvlStatus kvliMorphologyGetSize_8u_C4R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, int* pSize);
KVL_API KvlStatus kvliMorphologyGetSize_32f_C1R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, int* pSize);
KVL_API KvlStatus kvliMorphologyGetSize_32f_C3R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, int* pSize);
KVL_API KvlStatus kvliMorphologyGetSize_32f_C4R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, int* pSize);
KVL_API KvlStatus kvliMorphologyInit_8u_C1R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliPoint anchor, KvliMorphState* pState);
KVL_API KvlStatus kvliMorphologyInit_8u_C3R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliPoint anchor, KvliMorphState* pState);
KVL_API KvlStatus kvliMorphologyInit_8u_C4R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliPoint anchor, KvliMorphState* pState);
KVL_API KvlStatus kvliMorphologyInit_32f_C1R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliPoint anchor, KvliMorphState* pState);
KVL_API KvlStatus kvliMorphologyInit_32f_C3R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliPoint anchor, KvliMorphState* pState);
KVL_API KvlStatus kvliMorphologyInit_32f_C4R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliPoint anchor, KvliMorphState* pState);
KVL_API KvlStatus kvliMorphologyInitAlloc_8u_C1R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliPoint anchor, KvliMorphState** ppState);
KVL_API KvlStatus kvliMorphologyInitAlloc_8u_C3R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliPoint anchor, KvliMorphState** ppState);
KVL_API KvlStatus kvliMorphologyInitAlloc_8u_C4R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliPoint anchor, KvliMorphState** ppState);
KVL_API KvlStatus kvliMorphologyInitAlloc_32f_C1R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliPoint anchor, KvliMorphState** ppState);
KVL_API KvlStatus kvliMorphologyInitAlloc_32f_C3R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliPoint anchor, KvliMorphState** ppState);
KVL_API KvlStatus kvliMorphologyInitAlloc_32f_C4R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliPoint anchor, KvliMorphState** ppState);
KVL_API KvlStatus kvliMorphologyFree(KvliMorphState* pState);
KVL_API KvlStatus kvliErodeBorderReplicate_8u_C1R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, int borderType, const KvliMorphState* pState);
KVL_API KvlStatus kvliErodeBorderReplicate_8u_C3R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, int borderType, const KvliMorphState* pState);
KVL_API KvlStatus kvliErodeBorderReplicate_8u_C4R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, int borderType, const KvliMorphState* pState);
KVL_API KvlStatus kvliErodeBorderReplicate_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, int borderType, const KvliMorphState* pState);
KVL_API KvlStatus kvliErodeBorderReplicate_32f_C3R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, int borderType, const KvliMorphState* pState);
KVL_API KvlStatus kvliErodeBorderReplicate_32f_C4R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, int borderType, const KvliMorphState* pState);
KVL_API KvlStatus kvliDilateBorderReplicate_8u_C1R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, int borderType, const KvliMorphState* pState);
KVL_API KvlStatus kvliDilateBorderReplicate_8u_C3R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, int borderType, const KvliMorphState* pState);
KVL_API KvlStatus kvliDilateBorderReplicate_8u_C4R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, int borderType, const KvliMorphState* pState);
KVL_API KvlStatus kvliDilateBorderReplicate_32f_C1R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, int borderType, const KvliMorphState* pState);
KVL_API KvlStatus kvliDilateBorderReplicate_32f_C3R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, int borderType, const KvliMorphState* pState);
KVL_API KvlStatus kvliDilateBorderReplicate_32f_C4R(const Kvl32f* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, int borderType, const KvliMorphState* pState);
/* @@END MORPHOLOGY@@ */

/* @@BEGIN MORPHOLOGY 1U@@ */
/* Erosion and dilation of bit images (1u: one bit per pixel; pixel x of a row is bit
 * (bitOffset + x) & 7 of byte (bitOffset + x) >> 3, counted from the least significant bit; bit
 * offsets may exceed 7). Erosion is the AND of the source bits at the mask's non-zero positions,
 * dilation the OR, with the anchor at ((maskWidth - 1) >> 1, (maskHeight - 1) >> 1); the mask is
 * not reflected for dilation. An all-zero mask copies the ROI. Bits of the destination's bytes
 * outside the ROI (before the offset, after the last pixel) keep their values.
 * GetSize: *pSpecSize = 3*A + 96 with A = maskWidth*maskHeight rounded up to 16, and
 * *pBufferSize = B, the 8u one-channel buffer size of kvliMorphologyBorderGetSize_8u_C1R for
 * roiWidth pixels; kvlStatusNullPointer, then kvlStatusBadSize (roiWidth or a mask side < 1, or a
 * size above INT_MAX). Init builds the state in pSpec (*pSpecSize bytes, any alignment) with
 * pBuffer (*pBufferSize bytes) as scratch: kvlStatusNullPointer (mask, pSpec, pBuffer), then
 * kvlStatusBadSize. The state keeps its 96 bytes of fields, the mask copy right after them and,
 * for a rectangle, the analysis record after the copy; it keeps no select tables.
 * Erode/Dilate statuses, in this order: kvlStatusNullPointer (pSrc, pDst, pSpec, pBuffer);
 * kvlStatusBadSize (a negative bit offset, ROI width or height < 1); kvlStatusBadStep (a step
 * below (roiWidth + 7) >> 3 bytes); kvlStatusBadBorderType (borderType & 15 not 1 or 6, or bits
 * 4..15 set without an in-memory flag); kvlStatusInPlaceNotSupported (pSrc == pDst). The ROI
 * width is not compared with the state's; pBuffer must hold the *pBufferSize bytes reported for
 * the state's roiWidth and mask, and a wider ROI is worked in column strips inside it. Source and
 * destination must not overlap. borderValue is not used.
 * Border: kvlBorderRepl repeats the ROI's edge pixels on every side without an in-memory flag
 * (16 top, 32 bottom, 64 left, 128 right); a flagged side, or every side with kvlBorderInMem, is
 * read from memory. Only the pixels within the bounding box of the mask's non-zero elements
 * around the ROI are read (bit offsets left of the ROI may reach bytes before the row pointer).
 * Every vector target gives the bits of the rule above. Threading: always on the calling thread;
 * a state may be shared by threads that use separate buffers. */
KVL_API KvlStatus kvliMorphologyBorderGetSize_1u_C1R(int roiWidth, KvliSize maskSize, int* pSpecSize, int* pBufferSize);
KVL_API KvlStatus kvliMorphologyBorderInit_1u_C1R(int roiWidth, const Kvl8u* pMask, KvliSize maskSize, KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliErodeBorder_1u_C1R(const Kvl8u* pSrc, int srcStep, int srcBitOffset, Kvl8u* pDst, int dstStep, int dstBitOffset, KvliSize roiSize, int borderType, int borderValue, const KvliMorphState* pSpec, Kvl8u* pBuffer);
KVL_API KvlStatus kvliDilateBorder_1u_C1R(const Kvl8u* pSrc, int srcStep, int srcBitOffset, Kvl8u* pDst, int dstStep, int dstBitOffset, KvliSize roiSize, int borderType, int borderValue, const KvliMorphState* pSpec, Kvl8u* pBuffer);
/* @@END MORPHOLOGY 1U@@ */

/* ---- Distance transforms: mask query and chamfer transforms ---- */

/* @@BEGIN DISTANCE CHAMFER@@ */
/* Chamfer distance transforms of a two-valued Kvl8u image: a zero source pixel is a feature and
 * gets distance 0, every other pixel the smallest sum of mask weights along the paths the two
 * passes below can follow.
 * Mask query: kvliGetDistanceTransformMask_32s / _32f(kerSize, norm, pMetrics) write the weights
 * of kerSize 3 (a = horizontal/vertical step, b = diagonal step) or 5 (and c = the (2,1) step)
 * for norm 0 (L-infinity), 1 (L1) or 2 (Euclidean approximation):
 *   3x3: norm 0 -> 1, 1 (1.0f, 1.0f); norm 1 -> 1, 2 (1.0f, 2.0f); norm 2 -> 2, 3 (0.955f, 1.3693f)
 *   5x5: norm 0 -> 1, 1, 2 (1.0f, 1.0f, 2.0f); norm 1 -> 1, 2, 3 (1.0f, 2.0f, 3.0f);
 *        norm 2 -> 5, 7, 11 (1.0f, 1.4f, 2.1969f)
 * (the float weights are the single-precision literals shown). Statuses, in this order:
 * kvlStatusNullPointer (pMetrics), kvlStatusBadSize (kerSize not 3 or 5), kvlStatusBadArgument
 * (norm not 0, 1 or 2); nothing is written on failure. kvliGetDistanceTransformMask(maskType,
 * pMetrics) takes maskType = 10 x kerSize + norm: kvlStatusBadArgument when maskType % 10 (C
 * remainder, so negative codes fail here) is not 0, 1 or 2, and otherwise the result of the _32f
 * query for (maskType / 10, maskType % 10), pMetrics checked there first.
 * Transforms, 3x3 with weights a, b and 5x5 with a, b, c:
 *   1. d = 0 where the source is 0, otherwise infinity: 255 (8u), 65535 (16u),
 *      3.4028235e38f (32f, the largest finite float). Pixels outside the ROI never contribute.
 *   2. Forward pass, rows top to bottom, each left to right: d(x,y) = min(d(x,y), d(x-1,y)+a,
 *      d(x-1,y-1)+b, d(x,y-1)+a, d(x+1,y-1)+b); 5x5 also d(x-1,y-2)+c, d(x+1,y-2)+c,
 *      d(x-2,y-1)+c, d(x+2,y-1)+c.
 *   3. Backward pass, rows bottom to top, each right to left, with the mirrored neighbours
 *      (x+1,y):a, (x+1,y+1):b, (x,y+1):a, (x-1,y+1):b and for 5x5 (x+1,y+2), (x-1,y+2),
 *      (x+2,y+1), (x-2,y+1):c.
 *   Integer outputs compute every sum saturated at 255 (8u) or 65535 (16u), so a weight above
 *   the output's maximum acts as that maximum; 32f sums are single precision, each candidate
 *   one addition of a neighbour and a weight. Every target gives these exact bytes.
 * The weights of the 8u and 16u forms are Kvl32s, those of the 8u32f forms Kvl32f. The C1IR forms
 * transform pSrcDst in place; a C1R source and destination must not overlap.
 * Statuses, in this order: kvlStatusNullPointer (source, destination or pMetrics);
 * kvlStatusBadSize (width or height < 1); kvlStatusBadStep (source step < width, destination
 * step < width x 1, 2 or 4 bytes); kvlStatusStepNotMultiple (a 16u destination step odd, a 32f
 * one not a multiple of 4); kvlStatusBadMetric (an integer weight < 1, or a float weight that
 * is not > 0, which refuses NaN too), before any pixel is written. No work buffer, nothing
 * allocated. Threading: always on the calling thread. */
KVL_API KvlStatus kvliGetDistanceTransformMask_32s(int kerSize, int norm, Kvl32s* pMetrics);
KVL_API KvlStatus kvliGetDistanceTransformMask_32f(int kerSize, int norm, Kvl32f* pMetrics);
KVL_API KvlStatus kvliGetDistanceTransformMask(int maskType, Kvl32f* pMetrics);
KVL_API KvlStatus kvliDistanceTransform_3x3_8u_C1R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, Kvl32s* pMetrics);
KVL_API KvlStatus kvliDistanceTransform_3x3_8u_C1IR(Kvl8u* pSrcDst, int srcDstStep, KvliSize roiSize, Kvl32s* pMetrics);
KVL_API KvlStatus kvliDistanceTransform_3x3_8u16u_C1R(const Kvl8u* pSrc, int srcStep, Kvl16u* pDst, int dstStep, KvliSize roiSize, Kvl32s* pMetrics);
KVL_API KvlStatus kvliDistanceTransform_3x3_8u32f_C1R(const Kvl8u* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, Kvl32f* pMetrics);
KVL_API KvlStatus kvliDistanceTransform_5x5_8u_C1R(const Kvl8u* pSrc, int srcStep, Kvl8u* pDst, int dstStep, KvliSize roiSize, Kvl32s* pMetrics);
KVL_API KvlStatus kvliDistanceTransform_5x5_8u_C1IR(Kvl8u* pSrcDst, int srcDstStep, KvliSize roiSize, Kvl32s* pMetrics);
KVL_API KvlStatus kvliDistanceTransform_5x5_8u16u_C1R(const Kvl8u* pSrc, int srcStep, Kvl16u* pDst, int dstStep, KvliSize roiSize, Kvl32s* pMetrics);
KVL_API KvlStatus kvliDistanceTransform_5x5_8u32f_C1R(const Kvl8u* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, Kvl32f* pMetrics);
/* @@END DISTANCE CHAMFER@@ */

/* ---- Distance transforms: exact Euclidean transform and fast marching ---- */

/* @@BEGIN DISTANCE EXACT@@ */
/* Exact Euclidean distance transform. pSrc is a two-valued image: 0 marks a feature pixel, any
 * other value background; pDst receives each pixel's Euclidean distance to the nearest feature
 * pixel (0 on feature pixels). It is computed separably in single precision: a column pass writes
 * each pixel's squared vertical distance to the nearest feature pixel of its column
 * (3.4028235e38 when the column has none); a row pass then takes, per row, the lower envelope of
 * the parabolas q -> f(p) + (q - p)^2 over those values with the tables sq[q] = q * q and
 * recip[d] = 1 / (2 d) as floats: starting from v[0] = 0, z[0] = -3.4028235e38,
 * z[1] = 3.4028235e38, each p = 1 .. width - 1 computes
 * s = (f(p) + sq[p] - f(v[k]) - sq[v[k]]) * recip[p - v[k]] from left to right, drops the last
 * vertex while s <= z[k], and appends v[k + 1] = p, z[k + 1] = s, z[k + 2] = 3.4028235e38; each
 * q = 0 .. width - 1 then advances k while z[k + 1] < q and takes
 * sqrt(sq[|q - v[k]|] + f(v[k])). Distances whose square is below 2^24 are exact (the square
 * root of the integer squared distance, correctly rounded); an image without a feature pixel
 * gives sqrt(3.4028235e38) everywhere. Every vector target gives the same bits.
 * GetBufferSize: kvlStatusNullPointer, then kvlStatusBadSize (width or height < 1, or a size
 * above INT_MAX); *pBufferSize = (24 * max(align4(width), align4(height)) + 56) * T, with
 * align4(n) = (n + 3) rounded down to a multiple of 4 and T the permitted thread count at the
 * time of the query: size and use the buffer under the same thread setting. The buffer may have
 * any alignment.
 * Transform statuses, in this order: kvlStatusNullPointer (pSrc, pDst, pBuffer); kvlStatusBadSize
 * (width or height < 1); kvlStatusBadStep (srcStep < width or dstStep < 4 * width);
 * kvlStatusStepNotMultiple (dstStep not a multiple of 4). Source and destination must not
 * overlap. Threading: when T >= 2, the die has several cores and the image has at least 65536
 * pixels, both passes run in regions of T threads: the column pass shares the blocks of 64
 * columns out evenly; the row pass gives each thread height / T rows, the last thread also the
 * remainder. Each thread works in its own (bufferSize / team)-byte part of the buffer. The result
 * does not depend on the thread count. */
KVL_API KvlStatus kvliTrueDistanceTransformGetBufferSize_8u32f_C1R(KvliSize roiSize, int* pBufferSize);
KVL_API KvlStatus kvliTrueDistanceTransform_8u32f_C1R(const Kvl8u* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, Kvl8u* pBuffer);

/* Fast marching. pDst receives each pixel's arrival time from the feature pixels (the zero
 * pixels of pSrc), the solution of the first-order upwind eikonal equation with unit speed on the
 * unit grid. Feature pixels start at 0, all others at 999999.0. A pixel is updated from
 * t1 = the smaller time of its left and right neighbours and t2 = the smaller time of the pixels
 * above and below (a neighbour outside the image counts as 999999.0) to
 * t = 1 + min(t1, t2) when |t1 - t2| >= 1, else t = 0.5 * (t1 + t2 + sqrt(2 - (t1 - t2)^2)), all
 * in single precision, and the update is kept only when it lowers the pixel's time.
 * The updates run in sweeps over the whole image, in place (each pixel reads its neighbours'
 * current times): sweep 1 goes down the rows, left to right along each; sweep 2 down, right to
 * left; sweep 3 up, right to left; sweep 4 up, left to right; and again from sweep 1, until a
 * sweep changes no pixel. A pixel none of whose neighbours (nor itself) changed in the current
 * or the previous sweep is not evaluated, which cannot change the result. Times saturate at
 * 999999.0: pixels farther than that from every feature pixel, and all pixels of an image
 * without one, keep 999999.0 before the bound below is applied.
 * Bound: after the sweeps, every time above radius + 0.00001f (computed in single precision) is
 * replaced by that bound, so the output is min(time, radius + 0.00001f); radius = +infinity (or
 * NaN) keeps every time.
 * GetBufferSize: kvlStatusNullPointer, then kvlStatusBadSize (width or height < 1, or a size
 * above INT_MAX); *pBufferSize = (height + 34) * (align32(width) + 5) + 40, with align32(n) =
 * (n + 31) rounded down to a multiple of 32. The buffer holds one change-mark byte per pixel
 * (the sweep in which the pixel last changed) and the threads' progress counters; any alignment.
 * Statuses, in this order: kvlStatusNullPointer (pSrc, pDst, pBuffer); kvlStatusBadSize (width or
 * height < 1); kvlStatusBadStep (srcStep < width or dstStep < 4 * width);
 * kvlStatusStepNotMultiple (dstStep not a multiple of 4); kvlStatusBadArgument (radius < 0).
 * Source and destination must not overlap. Threading: when T >= 2, the die has several cores and
 * the image has at least 65536 pixels, each sweep runs over min(T, 16, height / 8) stripes of
 * rows; a stripe works through its rows in blocks of 128 columns and starts a block only when
 * the stripe before it in the sweep's direction has finished that block, so every pixel reads
 * exactly the times the serial sweep gives it and the result does not depend on the thread
 * count. The sweeps run scalar on every target: each update depends on the one before it. */
KVL_API KvlStatus kvliFastMarchingGetBufferSize_8u32f_C1R(KvliSize roiSize, int* pBufferSize);
KVL_API KvlStatus kvliFastMarching_8u32f_C1R(const Kvl8u* pSrc, int srcStep, Kvl32f* pDst, int dstStep, KvliSize roiSize, Kvl32f radius, Kvl8u* pBuffer);
/* @@END DISTANCE EXACT@@ */

/* ---- Segmentation: flood fill, watershed and gradient segmentation ---- */

/* @@BEGIN FLOOD FILL@@ */
/* Flood fill. Every fill repaints, in place, the connected region of pImage that contains the
 * seed pixel with newVal and writes the region's record to *pRegion: area (pixels repainted),
 * value (newVal; for one-channel images value[1] = value[2] = 0) and rect (bounding rectangle of
 * the repainted pixels). Rules:
 *   exact  a pixel joins when it equals the seed's value s (every channel; floats compare as
 *          numbers: -0.0 equals 0.0, NaN equals nothing, so a NaN seed fills only itself).
 *   Range  a pixel joins when lo <= p <= hi per channel, lo = s - minDelta, hi = s + maxDelta,
 *          clamped to 0..255 (8u) or 0..65535 (16u); 32f in single precision without clamping.
 *          A pixel that already equals newVal (every channel) counts as visited and never joins,
 *          so a newVal inside the interval cannot make the fill revisit its own pixels.
 *   Grad   a pixel joins when r - minDelta <= p <= r + maxDelta for the reference r it is
 *          reached from, evaluated for 8u and 16u as the unsigned test
 *          (p + minDelta - r) <= (minDelta + maxDelta) and for 32f, in single precision, as
 *          |p - r + 0.5 * (minDelta - maxDelta)| <= 0.5 * (minDelta + maxDelta). A run in a
 *          neighbouring row starts at x against the pixel of the popped run beside it (x clamped
 *          to the run's ends, so an 8-connected diagonal start compares with the run's end
 *          pixel); it extends to the left against its right neighbour only, and to the right
 *          against its left neighbour or, while beside the popped run, against the run's pixel
 *          directly beside it. The seed run grows against its row neighbours only.
 * 4-connected fills join through edges; 8-connected fills also through corners.
 * The traversal is a span fill with an explicit stack of 24-byte records {y, xLeft, xRight,
 * parentLeft, parentRight, dir} in the work buffer (its pointer rounded up to 8 bytes): the seed
 * run first, then records popped last in, first out; a popped run looks at the row y - dir over
 * its own columns (one more each side when 8-connected) and at the row y + dir outside its parent
 * run. Exact and Range fills repaint a pixel when it joins; the Grad fill marks joined pixels in a
 * visited map (kept in the buffer's first (width + 2) x (height + 2) bytes, one bit or one byte
 * per pixel by target, with a frame read as visited) and repaints a run when its record is popped.
 * A one-row image fills only the seed run (exact and Range). The Range stack holds at most
 * (width x height) / 4 records: a push that brings the count to that capacity sets it back to 0,
 * so later records overwrite the oldest, and the fill ends when the count is 0 after a pop; a
 * capacity of 0 or 1 fills only the seed run. No stack ever grows past the buffer that its size
 * query gives: where an exact or Grad fill of a dense diagonal pattern would need more records
 * than fit, the records that do not fit are dropped (their runs are repainted, their neighbours
 * are not explored).
 * kvliFloodFillGetSize (exact and Range): *pSize = 6 x width x height + 32;
 * kvliFloodFillGetSize_Grad: *pSize = (width + 2)(height + 2) + 16 x width x height + 64; both
 * computed in 64 bits and stored as 32 bits. Statuses: kvlStatusNullPointer, then
 * kvlStatusBadSize (width or height < 1). The buffer may have any alignment.
 * Fill statuses, in this order: kvlStatusNullPointer (pImage, pRegion, pBuffer, and the newVal,
 * minDelta and maxDelta arrays of the three-channel forms); kvlStatusBadSize (width or height
 * < 1); kvlStatusBadStep (imageStep < width for 8u C1, 8u C3, < 2 x width for 16u C1, < 6 x width
 * for 16u C3, < 4 x width for 32s C1, 32f C1 and 32f C3: the 8u and 32f three-channel forms keep
 * the one-channel bound); kvlStatusStepNotMultiple (a 16u step odd, a 32s or 32f step not a
 * multiple of 4); kvlStatusOutOfRange (seed outside the ROI). Then exact and Range fills whose
 * seed pixel already equals newVal return kvlStatusOk at once, leaving the image and *pRegion
 * untouched. A fill that passes validation returns kvlStatusOk. Runs are scanned, grown and
 * repainted a vector group at a time where they are long enough (sixteen 8u pixels; 16u and 32f
 * pixels as many as a vector holds, up to sixteen); the result is the same on every target.
 * Threading: always on the calling thread. */
typedef struct {
  Kvl64f area;
  Kvl64f value[3];
  KvliRect rect;
} KvliConnectedComp;
KVL_API KvlStatus kvliFloodFillGetSize(KvliSize roiSize, int* pSize);
KVL_API KvlStatus kvliFloodFillGetSize_Grad(KvliSize roiSize, int* pSize);
KVL_API KvlStatus kvliFloodFill_4Con_8u_C1IR(Kvl8u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, Kvl8u newVal, KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_4Con_16u_C1IR(Kvl16u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, Kvl16u newVal, KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_4Con_32s_C1IR(Kvl32s* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, Kvl32s newVal, KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_4Con_32f_C1IR(Kvl32f* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, Kvl32f newVal, KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_4Con_8u_C3IR(Kvl8u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, const Kvl8u newVal[3], KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_4Con_16u_C3IR(Kvl16u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, const Kvl16u newVal[3], KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_4Con_32f_C3IR(Kvl32f* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, const Kvl32f newVal[3], KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_8Con_8u_C1IR(Kvl8u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, Kvl8u newVal, KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_8Con_16u_C1IR(Kvl16u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, Kvl16u newVal, KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_8Con_32s_C1IR(Kvl32s* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, Kvl32s newVal, KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_8Con_32f_C1IR(Kvl32f* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, Kvl32f newVal, KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_8Con_8u_C3IR(Kvl8u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, const Kvl8u newVal[3], KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_8Con_16u_C3IR(Kvl16u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, const Kvl16u newVal[3], KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_8Con_32f_C3IR(Kvl32f* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, const Kvl32f newVal[3], KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Range4Con_8u_C1IR(Kvl8u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, Kvl8u newVal, Kvl8u minDelta, Kvl8u maxDelta, KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Range4Con_16u_C1IR(Kvl16u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, Kvl16u newVal, Kvl16u minDelta, Kvl16u maxDelta, KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Range4Con_32f_C1IR(Kvl32f* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, Kvl32f newVal, Kvl32f minDelta, Kvl32f maxDelta, KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Range4Con_8u_C3IR(Kvl8u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, const Kvl8u newVal[3], const Kvl8u minDelta[3], const Kvl8u maxDelta[3], KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Range4Con_16u_C3IR(Kvl16u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, const Kvl16u newVal[3], const Kvl16u minDelta[3], const Kvl16u maxDelta[3], KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Range4Con_32f_C3IR(Kvl32f* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, const Kvl32f newVal[3], const Kvl32f minDelta[3], const Kvl32f maxDelta[3], KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Range8Con_8u_C1IR(Kvl8u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, Kvl8u newVal, Kvl8u minDelta, Kvl8u maxDelta, KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Range8Con_16u_C1IR(Kvl16u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, Kvl16u newVal, Kvl16u minDelta, Kvl16u maxDelta, KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Range8Con_32f_C1IR(Kvl32f* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, Kvl32f newVal, Kvl32f minDelta, Kvl32f maxDelta, KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Range8Con_8u_C3IR(Kvl8u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, const Kvl8u newVal[3], const Kvl8u minDelta[3], const Kvl8u maxDelta[3], KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Range8Con_16u_C3IR(Kvl16u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, const Kvl16u newVal[3], const Kvl16u minDelta[3], const Kvl16u maxDelta[3], KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Range8Con_32f_C3IR(Kvl32f* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, const Kvl32f newVal[3], const Kvl32f minDelta[3], const Kvl32f maxDelta[3], KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Grad4Con_8u_C1IR(Kvl8u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, Kvl8u newVal, Kvl8u minDelta, Kvl8u maxDelta, KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Grad4Con_16u_C1IR(Kvl16u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, Kvl16u newVal, Kvl16u minDelta, Kvl16u maxDelta, KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Grad4Con_32f_C1IR(Kvl32f* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, Kvl32f newVal, Kvl32f minDelta, Kvl32f maxDelta, KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Grad4Con_8u_C3IR(Kvl8u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, const Kvl8u newVal[3], const Kvl8u minDelta[3], const Kvl8u maxDelta[3], KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Grad4Con_16u_C3IR(Kvl16u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, const Kvl16u newVal[3], const Kvl16u minDelta[3], const Kvl16u maxDelta[3], KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Grad4Con_32f_C3IR(Kvl32f* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, const Kvl32f newVal[3], const Kvl32f minDelta[3], const Kvl32f maxDelta[3], KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Grad8Con_8u_C1IR(Kvl8u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, Kvl8u newVal, Kvl8u minDelta, Kvl8u maxDelta, KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Grad8Con_16u_C1IR(Kvl16u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, Kvl16u newVal, Kvl16u minDelta, Kvl16u maxDelta, KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Grad8Con_32f_C1IR(Kvl32f* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, Kvl32f newVal, Kvl32f minDelta, Kvl32f maxDelta, KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Grad8Con_8u_C3IR(Kvl8u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, const Kvl8u newVal[3], const Kvl8u minDelta[3], const Kvl8u maxDelta[3], KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Grad8Con_16u_C3IR(Kvl16u* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, const Kvl16u newVal[3], const Kvl16u minDelta[3], const Kvl16u maxDelta[3], KvliConnectedComp* pRegion, Kvl8u* pBuffer);
KVL_API KvlStatus kvliFloodFill_Grad8Con_32f_C3IR(Kvl32f* pImage, int imageStep, KvliSize roiSize, KvliPoint seed, const Kvl32f newVal[3], const Kvl32f minDelta[3], const Kvl32f maxDelta[3], KvliConnectedComp* pRegion, Kvl8u* pBuffer);
/* @@END FLOOD FILL@@ */

/* @@BEGIN WATERSHED@@ */
/* Marker watershed. pSrc is the relief (8-bit levels); pMarker holds the markers in place: 0 is
 * unlabelled, 1 .. B - 1 are region labels and B is the boundary (watershed line) value, with
 * B = 255 for Kvl8u markers and B = 65535 for Kvl16u markers. Every label grows over the relief
 * in order of increasing level; pixels no marker can reach stay 0, and an image without labels is
 * left unchanged. The method is chosen by flag:
 * - bit value 1, priority-queue flooding (norm 0: 8 neighbours, 1: 4 neighbours). The buffer
 *   holds the markers, each beside its relief level, copied into a map with a one-pixel frame of
 *   B, which is never flooded, and the entries of the 256 level queues (first in, first out),
 *   32-bit pixel indices in chunks of up to 64 that go back to a free list once read; the buffer's
 *   contents after the call are unspecified. A scan in row order appends every pixel with a
 *   label > 0 (B included) that has an unlabelled neighbour to the queue of its own level
 *   pSrc(x, y). Flooding takes the lowest non-empty level L, pops its front pixel p with label lp
 *   and, for each unlabelled neighbour q in the order left, right, up, down, up-left, up-right,
 *   down-left, down-right (the diagonals only for norm 0), appends q to the queue of level
 *   max(pSrc(q), L) and labels it: v = lp; for each neighbour of q other than p, in the same
 *   order, holding a region label different from v, v becomes B and the search stops if v was not
 *   B, otherwise v takes that label; q gets v.
 * - bit value 2 without bit value 1, the distance method (norm 0: 8 neighbours, chessboard
 *   steps; 1: 4 neighbours, city-block steps; 2: 8 neighbours, axis steps 5 and diagonal steps 7;
 *   3: 4 neighbours with the upwind eikonal (fast-marching) update, 16 units per pixel). Every
 *   pixel gets a 32-bit key (level << 23) + distance: marker pixels (region labels) have their own
 *   level and distance 0; an unlabelled pixel gets the least cost of a path from a marker, where
 *   stepping onto pixel p from a neighbour of key k costs max(pSrc(p) << 23, k + step). So the key
 *   is the lowest level at which a flood from a marker reaches the pixel, plus its distance from
 *   where the flood entered that level (inside a plateau, pixels nearer its labelled edge come
 *   first). Unreached pixels keep the key 0x7FC00000; marker pixels holding B are walls that
 *   neither flood nor are flooded. For norm 3 the cost from t1 (the smaller key left or right)
 *   and t2 (the smaller key above or below) is min(t1, t2) + 16 when |t1 - t2| >= 16 or only
 *   one of them is reached, else floor((t1 + t2 + floor(sqrt(512 - (t1 - t2)^2))) / 2) but at
 *   least max(t1, t2) + 1. A distance beyond 23 bits carries into the level bits; a cost at or
 *   above 0x7FC00000 counts as not reaching the pixel.
 *   A pixel's parents are the neighbours its cost comes from (those attaining the minimum; for
 *   norm 3 the neighbours giving t1 and/or t2 as used). Its label: the label of its parents when
 *   they agree; B when the parents that are not themselves such B pixels disagree (the B pixel
 *   still carries the smallest of those labels for the pixels after it); when all its parents
 *   are such B pixels, the smallest label they carry. Parents always have smaller keys. Keys and
 *   labels are the unique solution of these rules, however they are found, so the result does
 *   not depend on the thread count. How they are found: a flood in key order (Dijkstra's order:
 *   a pixel is taken when no waiting pixel has a smaller key, and is labelled then; with steps
 *   above one, or fast marching, a key may go down before its pixel is taken), run in stripes of
 *   rows, one per permitted thread (up to 16, of at least 8 rows, on images of at least 65536
 *   pixels). Each stripe floods with copies of its neighbours' edge rows as they stood after the
 *   previous pass; passes repeat, each revisiting only what the changed copies reach, until no
 *   edge row changes. Images of a few thousand pixels or a few rows, whose buffer is too small
 *   for the flood's queues (and floods whose queues overflow, which takes a relief built for
 *   it), use passes of a forward sweep (rows top to bottom, left to right) and a backward sweep
 *   until a pass lowers no key, then one pass that labels each pixel once its last parent is.
 *   Both methods run scalar on every vector target: each step depends on the one before it.
 * Bits 64 and 128 mark boundaries between labels, with 4 or 8 neighbours (128 wins when both are
 * set): in row order and in place, a pixel with a region label becomes B when a neighbour holds
 * another region label (so one of two touching pixels is marked). The queue method does this
 * during its first scan, before flooding (new meeting lines get B from the labelling rule); the
 * distance method after segmentation.
 * GetBufferSize: kvlStatusNullPointer, then kvlStatusBadSize (width or height < 1); with
 * W = width (Kvl8u markers) or 2 * width (Kvl16u) rounded up to a multiple of 32, *pBufSize =
 * max(A, B) with A = height + 4 height W + 66 + 2 (W + height W) and B = 16 width height +
 * s (width + 2)(height + 2) + 48 (s = 1 or 2, the marker element size), evaluated in signed
 * 32-bit arithmetic. The buffer may have any alignment; it serves one call at a time.
 * Statuses, in this order: kvlStatusNullPointer (pSrc, then pMarker or pBuffer);
 * kvlStatusBadSize (width < 1, height < 1, or an image whose size formula exceeds INT_MAX);
 * kvlStatusBadStep (srcStep < width or markerStep < width: Kvl16u markers are checked against
 * width too, so with a markerStep below 2 * width their rows overlap, and are read first and
 * written back in row order); kvlStatusBadArgument (flag without bit 1 needs bit 2 and norm 0..3;
 * flag with bit 1 needs norm 0 or 1; flag = 0 is refused). No step-multiple test: 16-bit markers
 * may lie at any address. pSrc must not overlap pMarker.
 * Threading: the priority-queue method is single-threaded; the distance method, when the
 * permitted thread count T >= 2, the die has several cores and the image has at least 65536
 * pixels, works on min(T, 16, height / 8) stripes of rows in parallel (with fewer threads from
 * the runtime, a thread takes several stripes): the flood passes copies of the edge rows
 * between stripes as above; the sweeps read the rows beside a stripe from copies taken at the
 * start of every pass, and sweep a row again only when a key in it or beside it changed since
 * its last sweep. */
KVL_API KvlStatus kvliSegmentWatershedGetBufferSize_8u_C1R(KvliSize roiSize, int* pBufSize);
KVL_API KvlStatus kvliSegmentWatershedGetBufferSize_8u16u_C1R(KvliSize roiSize, int* pBufSize);
KVL_API KvlStatus kvliSegmentWatershed_8u_C1IR(const Kvl8u* pSrc, int srcStep, Kvl8u* pMarker, int markerStep, KvliSize roiSize, int norm, int flag, Kvl8u* pBuffer);
KVL_API KvlStatus kvliSegmentWatershed_8u16u_C1IR(const Kvl8u* pSrc, int srcStep, Kvl16u* pMarker, int markerStep, KvliSize roiSize, int norm, int flag, Kvl8u* pBuffer);
/* @@END WATERSHED@@ */

/* @@BEGIN GRADIENT SEGMENTATION@@ */
/* Gradient segmentation: grows the labels of pMarker over the colour gradient of pSrc, in place,
 * into a marker image like the watershed's: labels 1 .. 254, 255 = boundary, 0 = unlabelled.
 * Relief: g(x, y) = the largest over the channels of (largest - smallest) channel value in the
 * pixel's neighbourhood (norm 0: the 3x3 square; norm 1: the pixel and its 4 neighbours), where
 * rows and columns outside the ROI are left out (the ROI's edge pixels repeat). For C3 this is
 * the largest per-channel morphological gradient: exact in 8 bits, never saturates, and a change
 * in any one channel is enough to raise it.
 * Seeds: every pixel of pMarker with a value > 0 is a seed (255 included: it spreads the boundary
 * value). When pMarker holds no value > 0 at all, the seeds are the regional minima of the coarse
 * relief g / 16 (integer division, so that a smooth region whose gradient wavers by a few grey
 * levels stays one seed): each plateau of equal g / 16 (connected by the norm's neighbourhood)
 * with no lower neighbour, taken in row order of its first pixel, gets the labels 1, 2, ..., 254,
 * then 1, 2, ... again (images with more than 254 minima reuse labels, so two minima of one label
 * may merge without a boundary). The flooding below then runs on the full relief g.
 * Flooding: neighbours are visited in the order left, right, up, down, and for norm 0 then
 * up-left, up-right, down-left, down-right; pixels outside the ROI are never read or written.
 * 1. In row order, every seed with an unlabelled neighbour joins the FIFO of level g(seed).
 * 2. Take the front pixel p (label lp) of the lowest non-empty level L. Each unlabelled neighbour
 *    q of p joins the FIFO of level max(g(q), L) and gets a label: v = lp; for each other
 *    neighbour r of q holding a label in 1 .. 254 different from v: if v < 255, v = 255 and the
 *    search stops, otherwise v takes r's label. q receives v.
 * 3. Repeat 2 until every FIFO is empty. Every pixel connected to a seed ends up labelled.
 * flag: 0, or the boundary bits 64 (4-neighbours) and 128 (8-neighbours; wins when both are
 * given): after flooding, a pass in row order, in place, turns a pixel with a label in 1 .. 254
 * that has a neighbour with a different label in 1 .. 254 into 255 (so lines are one pixel
 * thick: a pixel compares with neighbours before it as already marked). Any other flag bit is
 * refused.
 * GetBufferSize (C1 and C3 are one operation): kvlStatusNullPointer, then kvlStatusBadSize
 * (width or height < 1, or a result above INT_MAX); *pBufSize = 17 * width * height + 115. The
 * buffer may have any alignment.
 * Statuses, in this order: kvlStatusNullPointer (pSrc, pMarker, pBuffer); kvlStatusBadSize (width
 * or height < 1, or an ROI whose buffer size exceeds INT_MAX); kvlStatusBadStep (srcStep <
 * channels * width, or markerStep < width); kvlStatusBadArgument (norm not 0 or 1, then a flag
 * bit other than 64 and 128). Nothing is written on failure. Single-threaded; the result does not
 * depend on the thread count or the vector target. pSrc and pMarker must not overlap. */
KVL_API KvlStatus kvliSegmentGradientGetBufferSize_8u_C1R(KvliSize roiSize, int* pBufSize);
KVL_API KvlStatus kvliSegmentGradientGetBufferSize_8u_C3R(KvliSize roiSize, int* pBufSize);
KVL_API KvlStatus kvliSegmentGradient_8u_C1IR(const Kvl8u* pSrc, int srcStep, Kvl8u* pMarker, int markerStep, KvliSize roiSize, int norm, int flag, Kvl8u* pBuffer);
KVL_API KvlStatus kvliSegmentGradient_8u_C3IR(const Kvl8u* pSrc, int srcStep, Kvl8u* pMarker, int markerStep, KvliSize roiSize, int norm, int flag, Kvl8u* pBuffer);
/* @@END GRADIENT SEGMENTATION@@ */

/* ---- Background models: Gaussian mixture and histogram foreground models ---- */

/* @@BEGIN FOREGROUND MODELS@@ */
/* Per-pixel background models of a video, each kept in a state the library allocates from a
 * first frame (InitAlloc) and releases (Free). pModel must be non-null and is never read: every
 * state starts with the fixed values below. InitAlloc checks pSrc, pModel, ppState (null ->
 * kvlStatusNullPointer), the ROI (kvlStatusBadSize), srcStep >= width x channels
 * (kvlStatusBadStep); an allocation that fails gives kvlStatusNoMemory after everything
 * allocated so far is freed, and *ppState is then left as it was. The other calls check every
 * image pointer and pState (kvlStatusNullPointer), the ROI (kvlStatusBadSize), every step against
 * its row (kvlStatusBadStep), then that the ROI is the state's (kvlStatusBadSize) and that the
 * state was made by the same channel count (kvlStatusBadContext). Free: null ->
 * kvlStatusNullPointer, otherwise every block and the state are released; the C1 and C3 Free
 * functions release either kind of state. A state serves one call at a time.
 *
 * Gaussian model (kvliForegroundGaussian*): a 96-byte state holding the background and
 * foreground images (steps width x channels and width), history 200, 5 components per pixel,
 * background share 0.7, match threshold 2.5 standard deviations, initial variance 900, and per
 * pixel 5 component records {count, weight, variance, mean} of 32 bytes, the first made from the
 * first frame {1, 1.0, 12.5, value} and the others {0, 0.0, 12.5, 0.0}. Each call counts the
 * frame and, for every grey pixel x, in double precision: matches the first component with
 * 6.25 x variance > (x - mean)^2; learns (on the 200th call only: rate 1/200 and
 * rho = 1/(200 x weight); on every other call: rate 1/(1 + sum of counts), count += matched,
 * rho = 1/count) the weights, and the matched component's mean and variance; when nothing matched
 * replaces the last component by {1, initial variance, x} (every other call: all weights reset to
 * count / sum of counts; the 200th call: its weight 1 / sum of counts after the replacement, the
 * others multiplied by 1 - 1/200); ranks the components by weight / sqrt(variance) (0 for count 0)
 * in descending order by insertion sort that moves a record only past strictly smaller keys;
 * writes the background (int)(ranked mean 0 + 0.5) and the foreground 255, cleared to 0 at the
 * first ranked positions k (up to and including the one at which the accumulated ranked weight
 * exceeds 0.7) whose pre-ranking component k matched. Three channels: each pixel has one joint
 * mixture of 5 records {count, weight, variance, mean[3]} (32 bytes, single precision, the same
 * 160 bytes per pixel as one channel), and the rules above run in single precision on it with
 * the squared colour distance e = ((x0 - mean0)^2 + (x1 - mean1)^2) + (x2 - mean2)^2 taken per
 * channel: a component matches when (6.25 x variance) x 3 > e, learning moves each mean by
 * rho x (x_c - mean_c) and the variance by rho x (e / 3 - variance), and a replaced component
 * takes the pixel's three values. The background has three channels (each ranked mean + 0.5,
 * truncated) and the foreground one. The state's images are copied to pBackground and
 * pForeground at the end. Every vector target gives the bytes of these
 * rules; threading: the rows are split into stripes (images of 262144 pixels or more) and the
 * result is the same whatever the split.
 *
 * Histogram model (kvliForegroundHistogram*): a 136-byte state holding four images (the
 * background estimate and the previous frame, both first copies of the first frame; the
 * foreground mask; the change mask), a 32-byte record per pixel, per pixel a run of 25 colour
 * entries of 12 bytes {P(v), P(v|background), quantised colour} and a run of 40 change entries of
 * 16 bytes {P(v), P(v|background), quantised previous and current colour}, and the parameter block
 * KvliFGHistogramParams below. A pixel is "changed" when a channel differs from the previous
 * frame (classification: the state's copy; update: pRef) by more than one change level (8).
 * Colours are quantised to levels 256 x 2.0 / 128 = 4 wide (colour entries) and 256 x 2.0 / 64 = 8
 * wide (change entries); an entry matches a feature whose level numbers are each at most one
 * level away from its own, so noise across a level boundary makes no new colour. Classification
 * looks the pixel's feature up among the first 15 colour entries (unchanged pixel) or the first
 * 25 change entries (changed pixel), taking the first that matches: the pixel is
 * background when an entry matches and 2 x P(v|b) x P(b) > P(v), with P(b) the pixel's prior for
 * that kind of feature; otherwise foreground (255). With fillHoles a background pixel whose four
 * neighbours (those inside the ROI) are all foreground becomes foreground, then with cleanMask a
 * foreground pixel with no foreground among its eight neighbours becomes background. The call writes the mask and the
 * background estimate, and keeps the frame as the previous one. Update(pSrc, pMask, pRef) learns
 * from the classified frame pSrc, its mask (non-zero = foreground; the caller may edit it) and
 * the frame before it pRef: in the table of the pixel's feature kind every entry decays by
 * rate 0.005 towards (entry matches) for P(v) and (matches and background) for P(v|b); a feature
 * with no entry replaces the last one ({0.005, 0.005 or 0}); entries whose P(v) falls below 1e-10
 * are cleared; the run is re-sorted by P(v) (stable, descending) over all 25 or 40 entries; the
 * prior moves by 0.005 towards (background); an unchanged colour whose P(v) exceeds 0.9 is taken
 * as background (its P(v|b) set to P(v)), so a stopped object or a new light level is absorbed
 * after about 460 frames; background pixels pull the background estimate towards the frame at
 * rate 0.1 (rounded to nearest). minArea and the first rate are kept, not used. Always on the
 * calling thread. */
typedef struct KvliFGGaussianState KvliFGGaussianState;
typedef struct KvliFGHistogramState KvliFGHistogramState;
/* The histogram model's fixed parameters, at the end of its state, in this order. */
typedef struct {
  int colourLevels;       /* 128: quantisation levels of the colour entries (level 4 wide) */
  int colourKept;         /* 15: colour entries classification looks at */
  int colourEntries;      /* 25: colour entries per pixel */
  int changeLevels;       /* 64: quantisation levels of the change entries (level 8 wide) */
  int changeKept;         /* 25: change entries classification looks at */
  int changeEntries;      /* 40: change entries per pixel, all scanned by the update */
  int fillHoles;          /* 1: close one-pixel holes in the mask */
  int cleanMask;          /* 1: drop isolated foreground pixels */
  Kvl32f backgroundRate;  /* 0.1: kept, not used */
  Kvl32f statRate;        /* 0.005: learning rate of the entries and the priors */
  Kvl32f referenceRate;   /* 0.1: learning rate of the background estimate */
  Kvl32f levelScale;      /* 2.0: level width = 256 x levelScale / levels */
  Kvl32f backgroundShare; /* 0.9: P(v) above which an unchanged colour is background */
  Kvl32f minArea;         /* 15.0: kept, not used */
} KvliFGHistogramParams;
KVL_API KvlStatus kvliForegroundGaussianInitAlloc_8u_C1R(const Kvl8u* pSrc, int srcStep, KvliSize roiSize, const void* pModel, KvliFGGaussianState** ppState);
KVL_API KvlStatus kvliForegroundGaussianInitAlloc_8u_C3R(const Kvl8u* pSrc, int srcStep, KvliSize roiSize, const void* pModel, KvliFGGaussianState** ppState);
KVL_API KvlStatus kvliForegroundGaussian_8u_C1R(const Kvl8u* pSrc, int srcStep, Kvl8u* pBackground, int backgroundStep, Kvl8u* pForeground, int foregroundStep, KvliSize roiSize, KvliFGGaussianState* pState);
KVL_API KvlStatus kvliForegroundGaussian_8u_C3R(const Kvl8u* pSrc, int srcStep, Kvl8u* pBackground, int backgroundStep, Kvl8u* pForeground, int foregroundStep, KvliSize roiSize, KvliFGGaussianState* pState);
KVL_API KvlStatus kvliForegroundGaussianFree_8u_C1R(KvliFGGaussianState* pState);
KVL_API KvlStatus kvliForegroundGaussianFree_8u_C3R(KvliFGGaussianState* pState);
KVL_API KvlStatus kvliForegroundHistogramInitAlloc_8u_C1R(const Kvl8u* pSrc, int srcStep, KvliSize roiSize, const void* pModel, KvliFGHistogramState** ppState);
KVL_API KvlStatus kvliForegroundHistogramInitAlloc_8u_C3R(const Kvl8u* pSrc, int srcStep, KvliSize roiSize, const void* pModel, KvliFGHistogramState** ppState);
KVL_API KvlStatus kvliForegroundHistogram_8u_C1R(const Kvl8u* pSrc, int srcStep, Kvl8u* pBackground, int backgroundStep, Kvl8u* pForeground, int foregroundStep, KvliSize roiSize, KvliFGHistogramState* pState);
KVL_API KvlStatus kvliForegroundHistogram_8u_C3R(const Kvl8u* pSrc, int srcStep, Kvl8u* pBackground, int backgroundStep, Kvl8u* pForeground, int foregroundStep, KvliSize roiSize, KvliFGHistogramState* pState);
KVL_API KvlStatus kvliForegroundHistogramUpdate_8u_C1R(const Kvl8u* pSrc, int srcStep, const Kvl8u* pMask, int maskStep, const Kvl8u* pRef, int refStep, KvliSize roiSize, KvliFGHistogramState* pState);
KVL_API KvlStatus kvliForegroundHistogramUpdate_8u_C3R(const Kvl8u* pSrc, int srcStep, const Kvl8u* pMask, int maskStep, const Kvl8u* pRef, int refStep, KvliSize roiSize, KvliFGHistogramState* pState);
KVL_API KvlStatus kvliForegroundHistogramFree_8u_C1R(KvliFGHistogramState* pState);
KVL_API KvlStatus kvliForegroundHistogramFree_8u_C3R(KvliFGHistogramState* pState);
/* @@END FOREGROUND MODELS@@ */


#ifdef __cplusplus
}
#endif

#endif /* KVLCV_H */
