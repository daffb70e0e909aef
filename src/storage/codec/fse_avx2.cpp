// The FSE stream loops built with BMI2 (this file gets -mbmi2), for the
// codec's AVX2 table. Same symbols and results as the baseline.
#include "storage/codec/fse_impl.h"

int64_t fse_decode_stream_bmi2(uint8_t* dst, size_t dst_capacity, const DecodeCell* table,
                               unsigned log, const uint8_t* src, size_t src_size) {
  return decode_stream(dst, dst_capacity, table, log, src, src_size);
}

size_t fse_encode_stream_bmi2(uint8_t* dst, size_t capacity, const EncodeTable& table,
                              const uint8_t* in, size_t src_size, uint32_t state_last,
                              uint32_t state_prev) {
  return encode_stream(dst, capacity, table, in, src_size, state_last, state_prev);
}

void fse_decode_lanes_bmi2(int n, DecodeOpener open, void* context, int64_t* results) {
  decode_lanes(n, open, context, results);
}

void fse_encode_lanes_bmi2(int n, EncodePlanner plan, void* context, size_t* streams) {
  encode_lanes(n, plan, context, streams);
}
