// Dispatch of the terminal kernels to an instruction set, the batch driver,
// the group masks, and the portable build of the kernels (plain C++ on rows
// of floats, which the compiler vectorises as far as the baseline allows).
#include "solver/kernels/kernels.h"

#include <cassert>
#include <cstdint>
#include <cstring>

#include "platform/platform.h"
#include "core/core.h"
#include "solver/kernels/kernels_body.h"
#include "solver/kernels/kernels_internal.h"
#include "solver/kernels/rows_body.h"

namespace {

template <int W>
struct PortableRows {
  static constexpr int Width = W;
  struct Row {
    float v[W];
  };
  struct Mask {
    bool v[W];
  };
  static Row zero() {
    Row r;
    for (int j = 0; j < W; ++j) r.v[j] = 0.0f;
    return r;
  }
  static Row load(const float* p) {
    Row r;
    memcpy(r.v, p, sizeof r.v);
    return r;
  }
  static void store(float* p, const Row& r) { memcpy(p, r.v, sizeof r.v); }
  static Row add(const Row& a, const Row& b) {
    Row r;
    for (int j = 0; j < W; ++j) r.v[j] = a.v[j] + b.v[j];
    return r;
  }
  static Row sub(const Row& a, const Row& b) {
    Row r;
    for (int j = 0; j < W; ++j) r.v[j] = a.v[j] - b.v[j];
    return r;
  }
  static bool any(const Row& a) {
    bool x = false;
    for (int j = 0; j < W; ++j) x |= a.v[j] != 0.0f;
    return x;
  }
  static Mask big(const Row& total) {
    Mask m;
    for (int j = 0; j < W; ++j) m.v[j] = !tiny_total(total.v[j]);
    return m;
  }
  static bool none(const Mask& m) {
    bool x = false;
    for (int j = 0; j < W; ++j) x |= m.v[j];
    return !x;
  }
  static Row keep(const Row& a, const Mask& m) {
    Row r;
    for (int j = 0; j < W; ++j) r.v[j] = m.v[j] ? a.v[j] : 0.0f;
    return r;
  }
  template <int K>
  static void load_block(float* rows, const float* const* src, const float* values, int32_t i0,
                         int32_t n) {
    for (int32_t h = 0; h < n; ++h) {
      for (int j = 0; j < W; ++j) rows[h * W + j] = j < K ? values[j] * src[j][i0 + h] : 0.0f;
    }
  }
  template <int K>
  static void store_block(float* const* dst, const float* rows, int32_t i0, int32_t n) {
    for (int j = 0; j < K; ++j) {
      for (int32_t h = 0; h < n; ++h) dst[j][i0 + h] = rows[h * W + j];
    }
  }
  static void fold_finish(float* out, const float* cs, float total, const float* reach,
                          int32_t count, const uint16_t* packed, float value) {
    fold_finish_portable(out, cs, total, reach, 0, count, packed, value);
  }
};

using Rows4 = PortableRows<4>;
using Rows8 = PortableRows<8>;

void portable_reach_bits(uint8_t* bits, const float* reach, int32_t count) {
  for (int32_t b = 0; b * 8 < count; ++b) {
    uint32_t m = 0;
    for (int32_t k = 0; k < 8 && b * 8 + k < count; ++k)
      m |= uint32_t(reach[b * 8 + k] > 0.0f) << k;
    bits[b] = uint8_t(m);
  }
}

}  // namespace

const KernelSet PortableKernels = {
    fold_one<Rows4>,
    showdown_one,
    pair_one,
    {nullptr, showdown_lane1, showdown_lanes<Rows4, 2>, showdown_lanes<Rows4, 3>,
     showdown_lanes<Rows4, 4>, nullptr, showdown_lanes<Rows8, 6>, nullptr,
     showdown_lanes<Rows8, 8>},
    {nullptr, fold_lane1<Rows4>, fold_lanes<Rows4, 2>, fold_lanes<Rows4, 3>, fold_lanes<Rows4, 4>,
     fold_lanes<Rows8, 5>, fold_lanes<Rows8, 6>, fold_lanes<Rows8, 7>, fold_lanes<Rows8, 8>},
    portable_reach_bits,
};

const RowKernels PortableRowKernels = {
    [](float* out, const float* const* s, const float* const* c, int32_t rows, int32_t count) {
      weighted_rows_body(out, s, c, rows, count);
    },
    [](float* x, const float* reach, int32_t count) { return reach_row_body(x, reach, count); },
    [](float* out, const float* in, const uint16_t* index, int32_t count) { gather_row_body(out, in, index, count); },
};

// ---- Choice of the instruction set -------------------------------------------

int32_t KernelIsaLimit = KERNEL_AVX512;
int32_t SimdLevel = 8;

namespace {
// The processor does not change under a running process.
const bool HasAvx2 = cpu_has_avx2();
const bool HasAvx512 = cpu_has_avx512();

// The AVX-512 entries over the AVX2 table. Copying pointers runs no wide
// instruction, and both tables are constant-initialised before this.
KernelSet merge_avx512() {
  KernelSet k = Avx2Kernels;
  const KernelSet& w = Avx512Kernels;
  if (w.fold) k.fold = w.fold;
  if (w.showdown) k.showdown = w.showdown;
  if (w.showdown_and_fold) k.showdown_and_fold = w.showdown_and_fold;
  for (int i = 0; i < 9; ++i)
    if (w.showdown_lanes[i]) k.showdown_lanes[i] = w.showdown_lanes[i];
  for (int i = 0; i < 9; ++i)
    if (w.fold_lanes[i]) k.fold_lanes[i] = w.fold_lanes[i];
  if (w.reach_bits) k.reach_bits = w.reach_bits;
  return k;
}
const KernelSet Avx512Merged = merge_avx512();

const KernelSet& kernels() {
  if (KernelIsaLimit >= KERNEL_AVX512 && UseAvx512 && HasAvx512) return Avx512Merged;
  if (KernelIsaLimit >= KERNEL_AVX2 && HasAvx2) return Avx2Kernels;
  return PortableKernels;
}
}  // namespace

static const RowKernels& row_kernels() {
  return KernelIsaLimit >= KERNEL_AVX2 && HasAvx2 ? Avx2RowKernels : PortableRowKernels;
}

void weighted_rows(float* out, const float* const* s, const float* const* c, int32_t rows, int32_t count) {
  row_kernels().weighted_rows(out, s, c, rows, count);
}

float reach_row(float* x, const float* reach, int32_t count) { return row_kernels().reach_row(x, reach, count); }

void gather_row(float* out, const float* in, const uint16_t* index, int32_t count) {
  row_kernels().gather_row(out, in, index, count);
}

KernelIsa kernel_isa() {
  const KernelSet& k = kernels();
  return &k == &Avx512Merged ? KERNEL_AVX512 : &k == &Avx2Kernels ? KERNEL_AVX2 : KERNEL_PORTABLE;
}

const char* kernel_isa_name(KernelIsa isa) {
  switch (isa) {
    case KERNEL_AVX512:
      return "AVX-512";
    case KERNEL_AVX2:
      return "AVX2";
    default:
      return "portable";
  }
}

// ---- Group masks ------------------------------------------------------------------

void compute_group_masks(uint16_t* masks, const float* reach, int32_t count, const int16_t* lengths,
                         int32_t group_count) {
  if (!reach) {
    if (group_count > 0) memset(masks, 0, size_t(group_count) * sizeof(uint16_t));
    return;
  }
  // One bit per hand, then each short run's bits cut out of it; the padding
  // lets an 8-byte read start at any run.
  assert(count <= MaxRiverHands);
  alignas(64) uint8_t bits[(MaxRiverHands + 7) / 8 + 16];
  memset(bits, 0, sizeof bits);
  kernels().reach_bits(bits, reach, count);
  int32_t first = 0;
  for (int32_t g = 0; g < group_count; ++g) {
    int32_t len = lengths[g];
    uint16_t word = 0;
    if (len <= MaskedGroupLimit) {
      uint64_t w;
      memcpy(&w, bits + (first >> 3), sizeof w);
      word = uint16_t((w >> (first & 7)) & ((1u << len) - 1));
    }
    masks[g] = word;
    first += len;
  }
}

// ---- One terminal -------------------------------------------------------------------

void fold_value(float* out, const float* reach, int32_t count, const uint16_t* packed,
                float value) {
  kernels().fold(out, reach, count, packed, value);
}

void showdown_value(float* out, const float* reach, int32_t count, const RiverGroups& groups,
                    const uint16_t* packed, float value) {
  assert(count <= MaxRiverHands);
  kernels().showdown(out, reach, count, groups, packed, value);
}

void showdown_and_fold(float* out_showdown, float* out_fold, const float* reach, int32_t count,
                       const RiverGroups& groups, const uint16_t* packed, float showdown_value,
                       float fold_value) {
  assert(count <= MaxRiverHands);
  const KernelSet& k = kernels();
  if (!reach) {
    zero_floats(out_showdown, count);
    zero_floats(out_fold, count);
    return;
  }
  k.showdown_and_fold(out_showdown, out_fold, reach, reach, count, groups, packed, showdown_value,
                      fold_value);
}

void showdown_and_fold2(float* out_showdown, float* out_fold, const float* reach_showdown,
                        const float* reach_fold, int32_t count, const RiverGroups& groups,
                        const uint16_t* packed, float showdown_value, float fold_value) {
  assert(count <= MaxRiverHands);
  const KernelSet& k = kernels();
  if (!reach_showdown || !reach_fold) {
    k.showdown(out_showdown, reach_showdown, count, groups, packed, showdown_value);
    k.fold(out_fold, reach_fold, count, packed, fold_value);
    return;
  }
  k.showdown_and_fold(out_showdown, out_fold, reach_showdown, reach_fold, count, groups, packed,
                      showdown_value, fold_value);
}

// ---- Batches ----------------------------------------------------------------------------

namespace {
constexpr int32_t ShowdownWidths[] = {8, 6, 4, 3, 2, 1};
constexpr int32_t FoldWidths[] = {8, 7, 6, 5, 4, 3, 2, 1};

// Terminals with an empty reach get zeros; the rest go on as a smaller batch.
// Returns false when every reach is there.
template <class Rest>
bool split_empty(int32_t width, float* const* out, const float* const* reach, const float* values,
                 int32_t count, Rest rest) {
  int32_t live = 0;
  for (int32_t j = 0; j < width; ++j) live += reach[j] != nullptr;
  if (live == width) return false;
  float* o[8];
  const float* r[8];
  float v[8];
  int32_t m = 0;
  for (int32_t j = 0; j < width; ++j) {
    if (!reach[j]) {
      zero_floats(out[j], count);
      continue;
    }
    o[m] = out[j];
    r[m] = reach[j];
    v[m] = values[j];
    ++m;
  }
  if (m) rest(o, r, v, m);
  return true;
}
}  // namespace

int32_t showdown_batch_width(int32_t left) {
  for (int32_t w : ShowdownWidths)
    if (w <= SimdLevel && w <= left) return w;
  return 1;
}

int32_t fold_batch_width(int32_t left) {
  // Widths above four only from level 8 on, where fold_value_batch keeps the
  // terminals that batches of four leave alone.
  const int32_t top = SimdLevel >= 8 ? 8 : SimdLevel < 4 ? SimdLevel : 4;
  for (int32_t w : FoldWidths)
    if (w <= top && w <= left) return w;
  return 1;
}

void showdown_value_lanes(int32_t width, float* const* out, const float* const* reach,
                          const float* values, int32_t count, const RiverGroups& groups,
                          const uint16_t* packed) {
  assert(count <= MaxRiverHands);
  auto rest = [&](float* const* o, const float* const* r, const float* v, int32_t m) {
    showdown_value_batch(o, r, v, m, count, groups, packed);
  };
  const KernelSet& k = kernels();
  if (width < 1 || width > 8 || !k.showdown_lanes[width]) {
    showdown_value_batch(out, reach, values, width, count, groups, packed);
    return;
  }
  if (split_empty(width, out, reach, values, count, rest)) return;
  k.showdown_lanes[width](out, reach, values, count, groups, packed);
}

void fold_value_lanes(int32_t width, float* const* out, const float* const* reach,
                      const float* values, int32_t count, const uint16_t* packed) {
  auto rest = [&](float* const* o, const float* const* r, const float* v, int32_t m) {
    fold_value_batch(o, r, v, m, count, packed);
  };
  const KernelSet& k = kernels();
  if (width < 1 || width > 8 || !k.fold_lanes[width]) {
    fold_value_batch(out, reach, values, width, count, packed);
    return;
  }
  if (split_empty(width, out, reach, values, count, rest)) return;
  k.fold_lanes[width](out, reach, values, count, packed);
}

void showdown_value_batch(float* const* out, const float* const* reach, const float* values,
                          int32_t n, int32_t count, const RiverGroups& groups,
                          const uint16_t* packed) {
  for (int32_t t = 0; t < n;) {
    int32_t w = showdown_batch_width(n - t);
    // A wide call costs about as much as a narrower one, and far less than a
    // narrower one plus a call for the terminal left over: five or seven
    // terminals go as six or eight, with one lane of zero reach whose values
    // are thrown away. Each lane's values don't depend on the other lanes.
    const int32_t left = n - t;
    if ((left == 5 || left == 7) && w == left - 1 && left + 1 <= SimdLevel && kernels().showdown_lanes[left + 1]) {
      alignas(64) static const float no_reach[MaxRiverHands] = {};
      alignas(64) thread_local float spare[MaxRiverHands];
      float* o[8];
      const float* r[8];
      float v[8];
      for (int32_t j = 0; j < left; ++j) {
        o[j] = out[t + j];
        r[j] = reach[t + j];
        v[j] = values[t + j];
      }
      o[left] = spare;
      r[left] = no_reach;
      v[left] = 0.0f;
      showdown_value_lanes(left + 1, o, r, v, count, groups, packed);
      return;
    }
    showdown_value_lanes(w, out + t, reach + t, values + t, count, groups, packed);
    t += w;
  }
}

void fold_value_batch(float* const* out, const float* const* reach, const float* values, int32_t n,
                      int32_t count, const uint16_t* packed) {
  // A lane's values don't depend on the width of its batch, but the
  // one-terminal kernel rounds its last step differently: a terminal left
  // alone by batches of four stays alone, the rest go eight at a time.
  if (SimdLevel >= 8 && n % 4 == 1) {
    fold_value_batch(out, reach, values, n - 1, count, packed);
    fold_value_lanes(1, out + n - 1, reach + n - 1, values + n - 1, count, packed);
    return;
  }
  for (int32_t t = 0; t < n;) {
    int32_t w = fold_batch_width(n - t);
    fold_value_lanes(w, out + t, reach + t, values + t, count, packed);
    t += w;
  }
}
