// AVX2/FMA build of the store kernels, eight floats a vector.
#define KERNEL_WIDTH 8
#define KERNEL_TABLE StoreKernelsAvx2
#include "storage/store_kernels_impl.h"
