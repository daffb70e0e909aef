// Baseline (SSE4.2) build of the store kernels and the choice of table.
#include "storage/store_kernels.h"

#include "platform/platform.h"
#include "core/core.h"

#define KERNEL_WIDTH 4
#define KERNEL_TABLE StoreKernelsBase
#include "storage/store_kernels_impl.h"

bool store_kernels_have_avx2() {
  static const bool has = cpu_has_avx2();
  return has;
}

bool store_kernels_have_avx512() {
  static const bool has = cpu_has_avx512();
  return has;
}

const StoreKernels& store_kernels() {
  // UseAvx512 is read per call so that enable_avx512 takes effect at once.
  if (UseAvx512 && store_kernels_have_avx512()) return StoreKernelsAvx512;
  if (store_kernels_have_avx2()) return StoreKernelsAvx2;
  return StoreKernelsBase;
}
