// The kernels' algorithms, written once and compiled once per instruction
// set. Each file that includes this header gets its own copies (everything
// here has internal linkage) and supplies the row policies that the lane
// routines use:
//
//   P::Width                        floats per row (lanes, padded)
//   P::Row, P::Mask                 a row of lanes and a per-lane flag
//   load/store/zero/add/sub         on rows at 32-byte aligned addresses
//   any(row)                        some lane is non-zero
//   big(total)                      lanes with |total| > FLT_MIN
//   none(mask), keep(row, mask)     no lane set; row with other lanes zeroed
//   load_block<K>(rows, src, values, i0, n)
//       rows h < n: lane j < K = values[j] x src[j][i0 + h], lanes from K zero
//   store_block<K>(dst, rows, i0, n)
//       dst[j][i0 + h] = lane j of row h for j < K, h < n
//
// The including file includes <cstdint> and <cstring> first.
#pragma once

namespace {

constexpr float FloatMin = 1.17549435e-38f;  // FLT_MIN, 0x00800000

inline int32_t min_i32(int32_t a, int32_t b) { return a < b ? a : b; }
inline int card_lo(uint16_t p) { return p & 0xFF; }
inline int card_hi(uint16_t p) { return p >> 8; }
inline bool tiny_total(float total) { return !(__builtin_fabsf(total) > FloatMin); }
inline void zero_floats(float* out, int32_t count) {
  if (count > 0) memset(out, 0, size_t(count) * sizeof(float));
}

// A run of the second showdown pass: `entries` live hands taken from the
// entry list (0 for merged runs without reach), `length` hands of the list.
struct RunRecord {
  int16_t entries;
  int16_t length;
};

// Appends a run to the records, merging consecutive runs without reach.
inline void push_run(RunRecord* rec, int32_t& nrec, int32_t entries, int32_t length, bool& prev_empty) {
  if (entries == 0) {
    if (prev_empty) {
      rec[nrec - 1].length = int16_t(rec[nrec - 1].length + length);
    } else {
      rec[nrec++] = RunRecord{0, int16_t(length)};
      prev_empty = true;
    }
  } else {
    rec[nrec++] = RunRecord{int16_t(entries), int16_t(length)};
    prev_empty = false;
  }
}

// ---- One terminal -------------------------------------------------------------

// Per-card sums and total of value x reach over the hands with reach > 0.
// Four interleaved tables: neighbouring hands often share a card, and a single
// table would chain every update through the store of the one before.
inline float fold_sums(float* cs, const float* reach, int32_t count, const uint16_t* packed,
                       float value) {
  alignas(64) float c4[4][64];
  memset(c4, 0, sizeof c4);
  float tot[4] = {0.0f, 0.0f, 0.0f, 0.0f};
  int32_t i = 0;
  for (; i + 4 <= count; i += 4) {
    for (int k = 0; k < 4; ++k) {
      float r = reach[i + k];
      float t = r > 0.0f ? value * r : 0.0f;
      uint16_t p = packed[i + k];
      tot[k] += t;
      c4[k][card_lo(p)] += t;
      c4[k][card_hi(p)] += t;
    }
  }
  for (; i < count; ++i) {
    float r = reach[i];
    float t = r > 0.0f ? value * r : 0.0f;
    uint16_t p = packed[i];
    tot[0] += t;
    c4[0][card_lo(p)] += t;
    c4[0][card_hi(p)] += t;
  }
  for (int c = 0; c < 64; ++c) cs[c] = (c4[0][c] + c4[1][c]) + (c4[2][c] + c4[3][c]);
  return (tot[0] + tot[1]) + (tot[2] + tot[3]);
}

// out[i] = total - what hand i's cards block + the hand itself, blocked twice.
inline void fold_finish_portable(float* out, const float* cs, float total, const float* reach,
                                 int32_t from, int32_t count, const uint16_t* packed, float value) {
  for (int32_t i = from; i < count; ++i) {
    uint16_t p = packed[i];
    out[i] = total - cs[card_lo(p)] - cs[card_hi(p)] + value * reach[i];
  }
}

template <class P>
void fold_one(float* out, const float* reach, int32_t count, const uint16_t* packed, float value) {
  if (!reach) {
    zero_floats(out, count);
    return;
  }
  alignas(64) float cs[64];
  float total = fold_sums(cs, reach, count, packed, value);
  if (tiny_total(total)) {
    zero_floats(out, count);
    return;
  }
  P::fold_finish(out, cs, total, reach, count, packed, value);
}

// First showdown pass for one reach: every live hand goes to the stronger
// side (negative sums), runs become records, live hands become entries.
// Entries alternate between two card tables to break store chains.
inline float showdown_first(const float* reach, const RiverGroups& g, const uint16_t* packed,
                            float value, float* et, uint16_t* ep, RunRecord* rec, int32_t& nrec,
                            float* cs) {
  alignas(64) float c2[2][64];
  memset(c2, 0, sizeof c2);
  float total = 0.0f;
  int32_t n = 0, first = 0;
  nrec = 0;
  bool prev_empty = false;
  for (int32_t gi = 0; gi < g.count; ++gi) {
    int32_t len = g.lengths[gi];
    int32_t start = n;
    float gsum = 0.0f;
    if (len <= MaskedGroupLimit) {
      for (uint32_t m = g.masks[gi]; m; m &= m - 1) {
        int32_t i = first + __builtin_ctz(m);
        float t = value * reach[i];
        uint16_t p = packed[i];
        float* c = c2[n & 1];
        gsum += t;
        c[card_lo(p)] -= t;
        c[card_hi(p)] -= t;
        et[n] = t;
        ep[n] = p;
        ++n;
      }
    } else {
      // Branch-free: a dead hand adds zeros and its slot is overwritten.
      for (int32_t i = first; i < first + len; ++i) {
        float r = reach[i];
        bool live = r > 0.0f;
        float t = live ? value * r : 0.0f;
        uint16_t p = packed[i];
        float* c = c2[n & 1];
        gsum += t;
        c[card_lo(p)] -= t;
        c[card_hi(p)] -= t;
        et[n] = t;
        ep[n] = p;
        n += live;
      }
    }
    int32_t entries = n - start;
    push_run(rec, nrec, entries, len, prev_empty);
    if (entries) total -= gsum;
    first += len;
  }
  for (int c = 0; c < 64; ++c) cs[c] = c2[0][c] + c2[1][c];
  return total;
}

// Second showdown pass. While a run is filled, total holds weaker - (equal
// and stronger) and cs the same per card; with the run taken out, its sum
// plus total is weaker - stronger, and tied hands count for nothing.
inline void showdown_second(float* out, const uint16_t* packed, const float* et, const uint16_t* ep,
                            const RunRecord* rec, int32_t nrec, float* cs, float total) {
  int32_t i = 0, e = 0;
  for (int32_t r = 0; r < nrec; ++r) {
    int32_t len = rec[r].length, cnt = rec[r].entries;
    if (cnt == 0) {
      for (int32_t end = i + len; i < end; ++i) {
        uint16_t p = packed[i];
        out[i] = total - cs[card_lo(p)] - cs[card_hi(p)];
      }
      continue;
    }
    float gsum = 0.0f;  // the same additions in the same order as the first pass
    for (int32_t k = e; k < e + cnt; ++k) {
      float t = et[k];
      cs[card_lo(ep[k])] += t;
      cs[card_hi(ep[k])] += t;
      gsum += t;
    }
    float tied = gsum + total;
    for (int32_t end = i + len; i < end; ++i) {
      uint16_t p = packed[i];
      out[i] = tied - cs[card_lo(p)] - cs[card_hi(p)];
    }
    for (int32_t k = e; k < e + cnt; ++k) {
      float t = et[k];
      cs[card_lo(ep[k])] += t;
      cs[card_hi(ep[k])] += t;
    }
    total = gsum + tied;
    e += cnt;
  }
}

void showdown_one(float* out, const float* reach, int32_t count, const RiverGroups& g,
                  const uint16_t* packed, float value) {
  if (!reach) {
    zero_floats(out, count);
    return;
  }
  alignas(64) float et[MaxRiverHands];
  alignas(64) uint16_t ep[MaxRiverHands];
  alignas(64) RunRecord rec[MaxRiverHands];
  alignas(64) float cs[64];
  int32_t nrec;
  float total = showdown_first(reach, g, packed, value, et, ep, rec, nrec, cs);
  if (tiny_total(total)) {
    zero_floats(out, count);
    return;
  }
  showdown_second(out, packed, et, ep, rec, nrec, cs, total);
}

// ---- Showdown and fold in one walk -----------------------------------------------
// Card sums of both terminals side by side: [card][0] showdown, [card][1]
// fold. The fold's sums run over the same live hands as the showdown's.

template <bool Showdown, bool Fold>
void pair_second(float* out_s, float* out_f, const float* reach_f, const uint16_t* packed,
                 const float* et, const uint16_t* ep, const RunRecord* rec, int32_t nrec,
                 float (*cs)[2], float total_s, float total_f, float fold_value) {
  int32_t i = 0, e = 0;
  for (int32_t r = 0; r < nrec; ++r) {
    int32_t len = rec[r].length, cnt = rec[r].entries;
    float gsum = 0.0f;
    if (Showdown) {
      for (int32_t k = e; k < e + cnt; ++k) {
        float t = et[k];
        cs[card_lo(ep[k])][0] += t;
        cs[card_hi(ep[k])][0] += t;
        gsum += t;
      }
    }
    float tied = cnt ? gsum + total_s : total_s;
    for (int32_t end = i + len; i < end; ++i) {
      uint16_t p = packed[i];
      const float* a = cs[card_lo(p)];
      const float* b = cs[card_hi(p)];
      if (Showdown) out_s[i] = tied - a[0] - b[0];
      if (Fold) out_f[i] = total_f - a[1] - b[1] + fold_value * reach_f[i];
    }
    if (Showdown && cnt) {
      for (int32_t k = e; k < e + cnt; ++k) {
        float t = et[k];
        cs[card_lo(ep[k])][0] += t;
        cs[card_hi(ep[k])][0] += t;
      }
      total_s = gsum + tied;
    }
    e += cnt;
  }
}

// Both reaches non-empty; reach_s == reach_f for the one-reach form.
void pair_one(float* out_s, float* out_f, const float* reach_s, const float* reach_f, int32_t count,
              const RiverGroups& g, const uint16_t* packed, float value_s, float value_f) {
  alignas(64) float et[MaxRiverHands];
  alignas(64) uint16_t ep[MaxRiverHands];
  alignas(64) RunRecord rec[MaxRiverHands];
  alignas(64) float c2[2][64][2];
  memset(c2, 0, sizeof c2);
  float total_s = 0.0f, total_f = 0.0f;
  int32_t n = 0, nrec = 0, first = 0;
  bool prev_empty = false;
  for (int32_t gi = 0; gi < g.count; ++gi) {
    int32_t len = g.lengths[gi];
    int32_t start = n;
    float gsum = 0.0f;
    if (len <= MaskedGroupLimit) {
      for (uint32_t m = g.masks[gi]; m; m &= m - 1) {
        int32_t i = first + __builtin_ctz(m);
        float ts = value_s * reach_s[i];
        float rf = reach_f[i];
        float tf = rf > 0.0f ? value_f * rf : 0.0f;
        uint16_t p = packed[i];
        float (*c)[2] = c2[n & 1];
        gsum += ts;
        total_f += tf;
        c[card_lo(p)][0] -= ts;
        c[card_hi(p)][0] -= ts;
        c[card_lo(p)][1] += tf;
        c[card_hi(p)][1] += tf;
        et[n] = ts;
        ep[n] = p;
        ++n;
      }
    } else {
      for (int32_t i = first; i < first + len; ++i) {
        float rs = reach_s[i], rf = reach_f[i];
        bool live = rs > 0.0f;
        float ts = live ? value_s * rs : 0.0f;
        float tf = rf > 0.0f ? value_f * rf : 0.0f;
        uint16_t p = packed[i];
        float (*c)[2] = c2[n & 1];
        gsum += ts;
        total_f += tf;
        c[card_lo(p)][0] -= ts;
        c[card_hi(p)][0] -= ts;
        c[card_lo(p)][1] += tf;
        c[card_hi(p)][1] += tf;
        et[n] = ts;
        ep[n] = p;
        n += live;
      }
    }
    int32_t entries = n - start;
    push_run(rec, nrec, entries, len, prev_empty);
    if (entries) total_s -= gsum;
    first += len;
  }
  alignas(64) float cs[64][2];
  for (int c = 0; c < 64; ++c) {
    cs[c][0] = c2[0][c][0] + c2[1][c][0];
    cs[c][1] = c2[0][c][1] + c2[1][c][1];
  }
  bool s = !tiny_total(total_s), f = !tiny_total(total_f);
  if (!s) zero_floats(out_s, count);
  if (!f) zero_floats(out_f, count);
  if (s && f)
    pair_second<true, true>(out_s, out_f, reach_f, packed, et, ep, rec, nrec, cs, total_s, total_f, value_f);
  else if (s)
    pair_second<true, false>(out_s, out_f, reach_f, packed, et, ep, rec, nrec, cs, total_s, total_f, value_f);
  else if (f)
    pair_second<false, true>(out_s, out_f, reach_f, packed, et, ep, rec, nrec, cs, total_s, total_f, value_f);
}

// ---- Lanes across terminals ----------------------------------------------------
// Per-card sums hold one row of lanes per card; the reach of the k terminals
// is first laid out as one row per hand (value x reach), so that the passes
// above run once for all lanes with row additions.

template <class P, int K>
void fold_lanes(float* const* out, const float* const* reach, const float* values, int32_t count,
                const uint16_t* packed) {
  using Row = typename P::Row;
  constexpr int W = P::Width;
  static_assert(K <= W, "lanes exceed the row");
  alignas(64) float blk[W * W];
  alignas(64) float c2[2][52 * W];
  memset(c2, 0, sizeof c2);
  Row tot0 = P::zero(), tot1 = P::zero();
  for (int32_t i0 = 0; i0 < count; i0 += W) {
    int32_t n = min_i32(W, count - i0);
    P::template load_block<K>(blk, reach, values, i0, n);
    int32_t h = 0;
    for (; h + 2 <= n; h += 2) {
      Row t0 = P::load(blk + h * W), t1 = P::load(blk + (h + 1) * W);
      uint16_t p0 = packed[i0 + h], p1 = packed[i0 + h + 1];
      tot0 = P::add(tot0, t0);
      tot1 = P::add(tot1, t1);
      float* a0 = c2[0] + card_lo(p0) * W;
      float* b0 = c2[0] + card_hi(p0) * W;
      P::store(a0, P::add(P::load(a0), t0));
      P::store(b0, P::add(P::load(b0), t0));
      float* a1 = c2[1] + card_lo(p1) * W;
      float* b1 = c2[1] + card_hi(p1) * W;
      P::store(a1, P::add(P::load(a1), t1));
      P::store(b1, P::add(P::load(b1), t1));
    }
    if (h < n) {
      Row t0 = P::load(blk + h * W);
      uint16_t p0 = packed[i0 + h];
      tot0 = P::add(tot0, t0);
      float* a0 = c2[0] + card_lo(p0) * W;
      float* b0 = c2[0] + card_hi(p0) * W;
      P::store(a0, P::add(P::load(a0), t0));
      P::store(b0, P::add(P::load(b0), t0));
    }
  }
  Row total = P::add(tot0, tot1);
  auto big = P::big(total);
  if (P::none(big)) {
    for (int j = 0; j < K; ++j) zero_floats(out[j], count);
    return;
  }
  float* cs = c2[0];
  for (int c = 0; c < 52; ++c) P::store(cs + c * W, P::add(P::load(c2[0] + c * W), P::load(c2[1] + c * W)));
  for (int32_t i0 = 0; i0 < count; i0 += W) {
    int32_t n = min_i32(W, count - i0);
    P::template load_block<K>(blk, reach, values, i0, n);
    for (int32_t h = 0; h < n; ++h) {
      uint16_t p = packed[i0 + h];
      Row o = P::sub(P::sub(total, P::load(cs + card_lo(p) * W)), P::load(cs + card_hi(p) * W));
      o = P::add(o, P::load(blk + h * W));
      P::store(blk + h * W, P::keep(o, big));
    }
    P::template store_block<K>(out, blk, i0, n);
  }
}

template <class P, int K>
void showdown_lanes(float* const* out, const float* const* reach, const float* values, int32_t count,
                    const RiverGroups& g, const uint16_t* packed) {
  using Row = typename P::Row;
  constexpr int W = P::Width;
  static_assert(K <= W, "lanes exceed the row");
  alignas(64) float rows[(MaxRiverHands + W) * W];
  alignas(64) uint16_t ent[MaxRiverHands];
  alignas(64) RunRecord rec[MaxRiverHands];
  alignas(64) float c2[2][52 * W];
  alignas(64) float stage[W * W];

  // Value x reach of every hand, one row per hand.
  for (int32_t i0 = 0; i0 < count; i0 += W)
    P::template load_block<K>(rows + i0 * W, reach, values, i0, min_i32(W, count - i0));

  // First pass, as for one terminal; a hand is an entry when any lane is live.
  memset(c2, 0, sizeof c2);
  Row total = P::zero();
  int32_t n = 0, nrec = 0, first = 0;
  bool prev_empty = false;
  for (int32_t gi = 0; gi < g.count; ++gi) {
    int32_t len = g.lengths[gi];
    int32_t start = n;
    Row gsum = P::zero();
    uint32_t m = len <= MaskedGroupLimit ? g.masks[gi] : 0;
    int32_t i = first, end = first + len;
    while (true) {
      if (len <= MaskedGroupLimit) {
        if (!m) break;
        i = first + __builtin_ctz(m);
        m &= m - 1;
      } else if (i == end) {
        break;
      }
      Row t = P::load(rows + i * W);
      if (P::any(t)) {
        uint16_t p = packed[i];
        float* a = c2[n & 1] + card_lo(p) * W;
        float* b = c2[n & 1] + card_hi(p) * W;
        gsum = P::add(gsum, t);
        P::store(a, P::sub(P::load(a), t));
        P::store(b, P::sub(P::load(b), t));
        ent[n++] = uint16_t(i);
      }
      ++i;
    }
    int32_t entries = n - start;
    push_run(rec, nrec, entries, len, prev_empty);
    if (entries) total = P::sub(total, gsum);
    first += len;
  }
  auto big = P::big(total);
  if (P::none(big)) {
    for (int j = 0; j < K; ++j) zero_floats(out[j], count);
    return;
  }
  float* cs = c2[0];
  for (int c = 0; c < 52; ++c) P::store(cs + c * W, P::add(P::load(c2[0] + c * W), P::load(c2[1] + c * W)));

  // Second pass; finished rows gather in `stage` and leave a block at a time.
  int32_t i = 0, e = 0;
  for (int32_t r = 0; r < nrec; ++r) {
    int32_t len = rec[r].length, cnt = rec[r].entries;
    Row gsum = P::zero();
    for (int32_t k = e; k < e + cnt; ++k) {
      Row t = P::load(rows + ent[k] * W);
      uint16_t p = packed[ent[k]];
      float* a = cs + card_lo(p) * W;
      float* b = cs + card_hi(p) * W;
      P::store(a, P::add(P::load(a), t));
      P::store(b, P::add(P::load(b), t));
      gsum = P::add(gsum, t);
    }
    Row tied = cnt ? P::add(gsum, total) : total;
    for (int32_t end = i + len; i < end; ++i) {
      uint16_t p = packed[i];
      Row o = P::sub(P::sub(tied, P::load(cs + card_lo(p) * W)), P::load(cs + card_hi(p) * W));
      P::store(stage + (i % W) * W, P::keep(o, big));
      if (i % W == W - 1) P::template store_block<K>(out, stage, i - (W - 1), W);
    }
    if (cnt) {
      for (int32_t k = e; k < e + cnt; ++k) {
        Row t = P::load(rows + ent[k] * W);
        uint16_t p = packed[ent[k]];
        float* a = cs + card_lo(p) * W;
        float* b = cs + card_hi(p) * W;
        P::store(a, P::add(P::load(a), t));
        P::store(b, P::add(P::load(b), t));
      }
      total = P::add(gsum, tied);
    }
    e += cnt;
  }
  if (count % W) P::template store_block<K>(out, stage, count - count % W, count % W);
}

// ---- Wrappers of the table ---------------------------------------------------------

void pair_entry(float* out_s, float* out_f, const float* reach_s, const float* reach_f, int32_t count,
                const RiverGroups& g, const uint16_t* packed, float value_s, float value_f) {
  pair_one(out_s, out_f, reach_s, reach_f, count, g, packed, value_s, value_f);
}

void showdown_lane1(float* const* out, const float* const* reach, const float* values, int32_t count,
                    const RiverGroups& g, const uint16_t* packed) {
  showdown_one(out[0], reach[0], count, g, packed, values[0]);
}

template <class P>
void fold_lane1(float* const* out, const float* const* reach, const float* values, int32_t count,
                const uint16_t* packed) {
  fold_one<P>(out[0], reach[0], count, packed, values[0]);
}

}  // namespace
