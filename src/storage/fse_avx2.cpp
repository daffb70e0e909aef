// The FSE stream loops built with BMI2 (this file gets -mbmi2); fse.cpp calls
// it only when the processor has it. Same symbols and results as the baseline.
#include "storage/fse_impl.h"

int64_t fse_decode_stream_bmi2(uint8_t* dst, size_t dst_capacity, const DecodeCell* table,
                               unsigned log, const uint8_t* src, size_t src_size) {
  return decode_stream(dst, dst_capacity, table, log, src, src_size);
}

size_t fse_encode_stream_bmi2(uint8_t* dst, size_t capacity, const EncodeTable& table,
                              const uint8_t* in, size_t src_size, uint32_t state_last,
                              uint32_t state_prev) {
  return encode_stream(dst, capacity, table, in, src_size, state_last, state_prev);
}

void fse_decode_streams2_bmi2(const DecodeJob (&jobs)[2], int64_t results[2]) {
  decode_streams2(jobs, results);
}

void fse_encode_streams2_bmi2(const EncodeJob (&jobs)[2], size_t sizes[2]) { encode_streams2(jobs, sizes); }
