// Work-buffer sizes of the separable pipelines, in bytes, as functions of the ROI, the kernel
// length and the thread count T read at query time. Per-thread sizes hold, for each thread, its
// row-pointer arrays (H + K pointers), 32 bytes of alignment slack and its scratch rows.
#pragma once

namespace kvl::filter {

enum class RowMember { k8u16sC1, k8u16sC3, k16sC1, k16sC3, kLow16sC1, kLow16sC3, k32fC1, k32fC3, k16uC1, k16uC3 };
enum class ColumnMember { k16sC1, k16sC3, kLow16sC1, kLow16sC3, k32fC1, k32fC3, k16uC1, k16uC3 };

constexpr long long perThread(int H, int K, int T, long long P) {
  return 32LL * T + 8LL * T * (H + K) + T * P;
}
constexpr int ceilTo(int v, int m) { return (v + m - 1) / m * m; }

constexpr long long rowPipelineBytes(RowMember m, int W, int H, int K, int T) {
  (void)W;
  switch (m) {
    case RowMember::k8u16sC1: return perThread(H, K, T, 36LL * K + 112);
    case RowMember::k8u16sC3: return perThread(H, K, T, 60LL * K + 112);
    case RowMember::k16sC1: return perThread(H, K, T, 48LL * K + 80);
    case RowMember::k16sC3: return perThread(H, K, T, 40LL * K + 64);
    case RowMember::kLow16sC1: return perThread(H, K, T, 24LL * K + 64);
    case RowMember::kLow16sC3: return perThread(H, K, T, 208LL * K + 64);
    case RowMember::k32fC1: return perThread(H, K, T, 96LL * K + 80);
    case RowMember::k32fC3: return perThread(H, K, T, 288LL * K + 64);
    case RowMember::k16uC1: return 64LL * K + 96;
    case RowMember::k16uC3: return 128LL * K + 96;
  }
  return 0;
}

// The 16s, 16s8u and 16s8s column members share the k16s sizes.
constexpr long long columnPipelineBytes(ColumnMember m, int W, int H, int K, int T) {
  switch (m) {
    case ColumnMember::k16sC1: return perThread(H, K, T, 12LL * ceilTo(W, 4) + 32);
    case ColumnMember::k16sC3: return perThread(H, K, T, 36LL * ceilTo(W, 4) + 32);
    case ColumnMember::kLow16sC1: return perThread(H, K, T, 12LL * ceilTo(W, 8) + 32);
    case ColumnMember::kLow16sC3: return perThread(H, K, T, 36LL * ceilTo(W, 8) + 32);
    case ColumnMember::k32fC1:
    case ColumnMember::k32fC3: return 32LL * K + 32;
    case ColumnMember::k16uC1: return 32LL * ((W + 3) / 4 + K) + 64;
    case ColumnMember::k16uC3: return 32LL * ((3LL * W + 3) / 4 + K) + 64;
  }
  return 0;
}

}  // namespace kvl::filter
