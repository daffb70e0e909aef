// AVX-512 build of the store kernels, sixteen floats a vector; used only when
// enable_avx512 is on and the processor has it.
#define KERNEL_WIDTH 16
#define KERNEL_TABLE StoreKernelsAvx512
#include "storage/store_kernels_impl.h"
