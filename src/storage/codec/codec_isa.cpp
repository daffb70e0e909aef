// The codec's tables of forms, one per instruction set, and the choice.
#include "storage/codec/codec_isa.h"

#include "core/core.h"
#include "platform/platform.h"

namespace {

constexpr CodecKernels BaselineCodecKernels = {
    transform_row16_baseline, untransform_row32_baseline, untransform_row16_baseline,
    pack32_baseline, pack16_baseline, unpack32_baseline, unpack16_baseline,
    fse_decode_stream_baseline, fse_encode_stream_baseline, fse_decode_lanes_baseline, fse_encode_lanes_baseline,
    compact_groups_baseline, nullptr, nullptr, nullptr,
};

constexpr CodecKernels Avx2CodecKernels = {
    transform_row16_avx2, untransform_row32_avx2, untransform_row16_avx2,
    pack32_avx2, pack16_avx2, unpack32_avx2, unpack16_avx2,
    fse_decode_stream_bmi2, fse_encode_stream_bmi2, fse_decode_lanes_bmi2, fse_encode_lanes_bmi2,
    compact_groups_avx2, split_values_avx2, untransform_dense32_avx2, untransform_diffs16_avx2,
};

// AVX2 with the AVX-512 form of the 16-bit transform.
constexpr CodecKernels Avx512CodecKernels = {
    transform_row16_avx512, untransform_row32_avx2, untransform_row16_avx2,
    pack32_avx2, pack16_avx2, unpack32_avx2, unpack16_avx2,
    fse_decode_stream_bmi2, fse_encode_stream_bmi2, fse_decode_lanes_bmi2, fse_encode_lanes_bmi2,
    compact_groups_avx2, split_values_avx2, untransform_dense32_avx2, untransform_diffs16_avx2,
};

// The processor does not change under a running process.
const bool HasAvx2Bmi2 = [] {
  __builtin_cpu_init();  // this may run before main
  return cpu_has_avx2() && __builtin_cpu_supports("bmi2");
}();
const bool HasAvx512 = cpu_has_avx512();

}  // namespace

int32_t CodecIsaLimit = CODEC_AVX512;

CodecIsa codec_isa() {
  // UseAvx512 is read per call so that enable_avx512 takes effect at once.
  if (CodecIsaLimit >= CODEC_AVX512 && UseAvx512 && HasAvx512 && HasAvx2Bmi2) return CODEC_AVX512;
  if (CodecIsaLimit >= CODEC_AVX2 && HasAvx2Bmi2) return CODEC_AVX2;
  return CODEC_BASELINE;
}

const CodecKernels& codec_kernels() {
  switch (codec_isa()) {
    case CODEC_AVX512: return Avx512CodecKernels;
    case CODEC_AVX2: return Avx2CodecKernels;
    default: return BaselineCodecKernels;
  }
}
