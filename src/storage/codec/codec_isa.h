// Inside the codec room: every form of the routines that have one per
// instruction set, and the table the public routines call through.
#pragma once
#include <cstddef>
#include <cstdint>

#include "storage/codec/codec.h"

// The FSE coder's tables and jobs (fse_impl.h), and the callbacks of its
// two-lane loops: block k made ready for a lane, whose table it may replace.
struct DecodeCell;
struct EncodeTable;
struct DecodeJob;
struct EncodeJob;
using DecodeOpener = bool (*)(void* context, int k, int lane, DecodeJob& job, int64_t& result);
using EncodePlanner = bool (*)(void* context, int k, int lane, EncodeJob& job);

struct CodecKernels {
  // ---- Row transform (codec_transform*.cpp); counts already checked ----
  bool (*transform_row16)(const uint16_t* row, const uint16_t* reference, int count,
                          uint32_t* out_first_order, uint32_t* out_second_order);
  void (*untransform_row32)(uint32_t* row, const uint32_t* reference, const uint32_t* transformed,
                            int count, bool uses_reference);
  void (*untransform_row16)(uint16_t* row, const uint16_t* reference, const uint32_t* transformed,
                            int count, bool uses_reference);
  // ---- Packed block format, 32- and 16-bit forms (codec_packed*.cpp) ----
  uint8_t* (*pack32)(uint8_t* dst, const uint32_t* row, int count);
  uint8_t* (*pack16)(uint8_t* dst, const uint16_t* row, int count);
  const uint8_t* (*unpack32)(uint32_t* row, int count, const uint8_t* src);
  const uint8_t* (*unpack16)(uint16_t* row, int count, const uint8_t* src);
  // ---- FSE stream loops (fse.cpp, fse_avx2.cpp) ----
  int64_t (*fse_decode_stream)(uint8_t* dst, size_t dst_capacity, const DecodeCell* table, unsigned log,
                               const uint8_t* src, size_t src_size);
  size_t (*fse_encode_stream)(uint8_t* dst, size_t capacity, const EncodeTable& table, const uint8_t* in,
                              size_t src_size, uint32_t state_last, uint32_t state_prev);
  void (*fse_decode_lanes)(int n, DecodeOpener open, void* context, int64_t* results);
  void (*fse_encode_lanes)(int n, EncodePlanner plan, void* context, size_t* streams);
  // ---- FseCodec row stages (codec_fse*.cpp, codec_transform_avx2.cpp) ----
  // The dense non-zero values of a row's whole groups of eight.
  int (*compact_groups)(uint32_t* values, const uint32_t* t, const uint8_t* masks, int groups);
  // The bytes of the context-15, low and high channels by vector stores; the
  // values of other contexts and bytes left in lists. Null: the scalar loop.
  bool (*split_values)(const uint32_t* values, int n, uint8_t* top, uint8_t* low, uint8_t* high,
                       uint8_t* other_context, uint8_t* other_byte, int counts[4]);
  // The inverse transform straight from dense values and masks (32 bits), or
  // from dense un-zigzagged 16-bit differences. Null: values are spread to a
  // whole row first and go through untransform_row32/16.
  void (*untransform_dense32)(uint32_t* row, const uint32_t* reference, const uint32_t* values,
                              const uint8_t* masks, int count, bool uses_reference);
  void (*untransform_diffs16)(uint16_t* row, const uint16_t* reference, const uint16_t* diffs,
                              const uint8_t* masks, int count, bool uses_reference);
};

// The table for this call (see codec_isa()).
const CodecKernels& codec_kernels();

// ---- The forms ------------------------------------------------------------------
bool transform_row16_baseline(const uint16_t* row, const uint16_t* reference, int count,
                              uint32_t* out_first_order, uint32_t* out_second_order);
bool transform_row16_avx2(const uint16_t* row, const uint16_t* reference, int count,
                          uint32_t* out_first_order, uint32_t* out_second_order);
bool transform_row16_avx512(const uint16_t* row, const uint16_t* reference, int count,
                            uint32_t* out_first_order, uint32_t* out_second_order);
void untransform_row32_baseline(uint32_t* row, const uint32_t* reference, const uint32_t* transformed,
                                int count, bool uses_reference);
void untransform_row32_avx2(uint32_t* row, const uint32_t* reference, const uint32_t* transformed,
                            int count, bool uses_reference);
void untransform_row16_baseline(uint16_t* row, const uint16_t* reference, const uint32_t* transformed,
                                int count, bool uses_reference);
void untransform_row16_avx2(uint16_t* row, const uint16_t* reference, const uint32_t* transformed,
                            int count, bool uses_reference);
void untransform_dense32_avx2(uint32_t* row, const uint32_t* reference, const uint32_t* values,
                              const uint8_t* masks, int count, bool uses_reference);
void untransform_diffs16_avx2(uint16_t* row, const uint16_t* reference, const uint16_t* diffs,
                              const uint8_t* masks, int count, bool uses_reference);

uint8_t* pack32_baseline(uint8_t* dst, const uint32_t* row, int count);
uint8_t* pack16_baseline(uint8_t* dst, const uint16_t* row, int count);
const uint8_t* unpack32_baseline(uint32_t* row, int count, const uint8_t* src);
const uint8_t* unpack16_baseline(uint16_t* row, int count, const uint8_t* src);
uint8_t* pack32_avx2(uint8_t* dst, const uint32_t* row, int count);
uint8_t* pack16_avx2(uint8_t* dst, const uint16_t* row, int count);
const uint8_t* unpack32_avx2(uint32_t* row, int count, const uint8_t* src);
const uint8_t* unpack16_avx2(uint16_t* row, int count, const uint8_t* src);

int64_t fse_decode_stream_baseline(uint8_t* dst, size_t dst_capacity, const DecodeCell* table, unsigned log,
                                   const uint8_t* src, size_t src_size);
size_t fse_encode_stream_baseline(uint8_t* dst, size_t capacity, const EncodeTable& table, const uint8_t* in,
                                  size_t src_size, uint32_t state_last, uint32_t state_prev);
void fse_decode_lanes_baseline(int n, DecodeOpener open, void* context, int64_t* results);
void fse_encode_lanes_baseline(int n, EncodePlanner plan, void* context, size_t* streams);
int64_t fse_decode_stream_bmi2(uint8_t* dst, size_t dst_capacity, const DecodeCell* table, unsigned log,
                               const uint8_t* src, size_t src_size);
size_t fse_encode_stream_bmi2(uint8_t* dst, size_t capacity, const EncodeTable& table, const uint8_t* in,
                              size_t src_size, uint32_t state_last, uint32_t state_prev);
void fse_decode_lanes_bmi2(int n, DecodeOpener open, void* context, int64_t* results);
void fse_encode_lanes_bmi2(int n, EncodePlanner plan, void* context, size_t* streams);

int compact_groups_baseline(uint32_t* values, const uint32_t* t, const uint8_t* masks, int groups);
int compact_groups_avx2(uint32_t* values, const uint32_t* t, const uint8_t* masks, int groups);
bool split_values_avx2(const uint32_t* values, int n, uint8_t* top, uint8_t* low, uint8_t* high,
                       uint8_t* other_context, uint8_t* other_byte, int counts[4]);
