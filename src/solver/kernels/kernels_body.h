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
#pragma once
#include <cstdint>
#include <cstring>

#include "solver/kernels/kernels_internal.h"

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
inline void push_run(RunRecord* rec, int32_t& nrec, int32_t entries, int32_t length,
                     bool& prev_empty) {
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

// Visits k in [e, e + cnt) in four interleaved streams, f(k, stream).
// Neighbouring entries of a run often share a card; visited back to back,
// every card update would wait for the store of the one before.
template <class F>
inline void visit_spread(int32_t e, int32_t cnt, F f) {
  int32_t q = cnt >> 2;
  for (int32_t s = 0; s < q; ++s) {
    f(e + s, 0);
    f(e + q + s, 1);
    f(e + 2 * q + s, 2);
    f(e + 3 * q + s, 3);
  }
  for (int32_t k = e + 4 * q; k < e + cnt; ++k) f(k, 0);
}

// Adds sign x t of entries [e, e + cnt) to the card sums and returns their
// sum; the same entries give the same sum, bit for bit, on every call.
template <int Sign>
inline float add_entries(float* cs, const float* et, const uint16_t* ep, int32_t e, int32_t cnt) {
  float part[4] = {0.0f, 0.0f, 0.0f, 0.0f};
  visit_spread(e, cnt, [&](int32_t k, int s) {
    float t = et[k];
    cs[card_lo(ep[k])] += Sign * t;
    cs[card_hi(ep[k])] += Sign * t;
    part[s] += t;
  });
  return (part[0] + part[1]) + (part[2] + part[3]);
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
inline float showdown_first(const float* reach, const RiverGroups& g, const uint16_t* packed,
                            float value, float* et, uint16_t* ep, RunRecord* rec, int32_t& nrec,
                            float* cs) {
  memset(cs, 0, 64 * sizeof(float));
  float total = 0.0f;
  int32_t n = 0, first = 0;
  nrec = 0;
  bool prev_empty = false;
  for (int32_t gi = 0; gi < g.count; ++gi) {
    int32_t len = g.lengths[gi];
    int32_t start = n;
    if (len <= MaskedGroupLimit) {
      for (uint32_t m = g.masks[gi]; m; m &= m - 1) {
        int32_t i = first + __builtin_ctz(m);
        et[n] = value * reach[i];
        ep[n] = packed[i];
        ++n;
      }
    } else {
      // Branch-free: a dead hand's slot is overwritten by the next.
      for (int32_t i = first; i < first + len; ++i) {
        float r = reach[i];
        et[n] = value * r;
        ep[n] = packed[i];
        n += r > 0.0f;
      }
    }
    int32_t entries = n - start;
    push_run(rec, nrec, entries, len, prev_empty);
    if (entries) total -= add_entries<-1>(cs, et, ep, start, entries);
    first += len;
  }
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
    float gsum = add_entries<1>(cs, et, ep, e, cnt);  // the run's sum of the first pass
    float tied = gsum + total;
    for (int32_t end = i + len; i < end; ++i) {
      uint16_t p = packed[i];
      out[i] = tied - cs[card_lo(p)] - cs[card_hi(p)];
    }
    add_entries<1>(cs, et, ep, e, cnt);
    total = gsum + tied;
    e += cnt;
  }
}

inline void showdown_one(float* out, const float* reach, int32_t count, const RiverGroups& g,
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
// fold. The fold's sums run over the same entries as the showdown's; an
// entry is a hand with reach in either.

// Showdown side: sign x ts into [card][0]; returns the sum of ts. First
// pass (Fold): also tf into [card][1] and the fold's total.
template <int Sign, bool Fold>
inline float add_pair_entries(float (*cs)[2], const float* et, const float* ef, const uint16_t* ep,
                              int32_t e, int32_t cnt, float& total_f) {
  float part[4] = {0.0f, 0.0f, 0.0f, 0.0f}, fpart[4] = {0.0f, 0.0f, 0.0f, 0.0f};
  visit_spread(e, cnt, [&](int32_t k, int s) {
    float ts = et[k];
    float* a = cs[card_lo(ep[k])];
    float* b = cs[card_hi(ep[k])];
    a[0] += Sign * ts;
    b[0] += Sign * ts;
    part[s] += ts;
    if (Fold) {
      float tf = ef[k];
      a[1] += tf;
      b[1] += tf;
      fpart[s] += tf;
    }
  });
  if (Fold) total_f += (fpart[0] + fpart[1]) + (fpart[2] + fpart[3]);
  return (part[0] + part[1]) + (part[2] + part[3]);
}

template <bool Showdown, bool Fold>
void pair_second(float* out_s, float* out_f, const float* reach_f, const uint16_t* packed,
                 const float* et, const uint16_t* ep, const RunRecord* rec, int32_t nrec,
                 float (*cs)[2], float total_s, float total_f, float fold_value) {
  int32_t i = 0, e = 0;
  float unused = 0.0f;
  for (int32_t r = 0; r < nrec; ++r) {
    int32_t len = rec[r].length, cnt = rec[r].entries;
    float gsum =
        Showdown && cnt ? add_pair_entries<1, false>(cs, et, nullptr, ep, e, cnt, unused) : 0.0f;
    float tied = cnt ? gsum + total_s : total_s;
    for (int32_t end = i + len; i < end; ++i) {
      uint16_t p = packed[i];
      const float* a = cs[card_lo(p)];
      const float* b = cs[card_hi(p)];
      if (Showdown) out_s[i] = tied - a[0] - b[0];
      if (Fold) out_f[i] = total_f - a[1] - b[1] + fold_value * reach_f[i];
    }
    if (Showdown && cnt) {
      add_pair_entries<1, false>(cs, et, nullptr, ep, e, cnt, unused);
      total_s = gsum + tied;
    }
    e += cnt;
  }
}

// Both reaches non-empty; reach_s == reach_f for the one-reach form.
inline void pair_one(float* out_s, float* out_f, const float* reach_s, const float* reach_f,
                     int32_t count, const RiverGroups& g, const uint16_t* packed, float value_s,
                     float value_f) {
  alignas(64) float et[MaxRiverHands];
  alignas(64) float ef[MaxRiverHands];
  alignas(64) uint16_t ep[MaxRiverHands];
  alignas(64) RunRecord rec[MaxRiverHands];
  alignas(64) float cs[64][2];
  memset(cs, 0, sizeof cs);
  float total_s = 0.0f, total_f = 0.0f;
  int32_t n = 0, nrec = 0, first = 0;
  bool prev_empty = false;
  for (int32_t gi = 0; gi < g.count; ++gi) {
    int32_t len = g.lengths[gi];
    int32_t start = n;
    if (len <= MaskedGroupLimit) {
      for (uint32_t m = g.masks[gi]; m; m &= m - 1) {
        int32_t i = first + __builtin_ctz(m);
        float rs = reach_s[i], rf = reach_f[i];
        et[n] = rs > 0.0f ? value_s * rs : 0.0f;
        ef[n] = rf > 0.0f ? value_f * rf : 0.0f;
        ep[n] = packed[i];
        ++n;
      }
    } else {
      for (int32_t i = first; i < first + len; ++i) {
        float rs = reach_s[i], rf = reach_f[i];
        et[n] = rs > 0.0f ? value_s * rs : 0.0f;
        ef[n] = rf > 0.0f ? value_f * rf : 0.0f;
        ep[n] = packed[i];
        n += (rs > 0.0f) | (rf > 0.0f);
      }
    }
    int32_t entries = n - start;
    push_run(rec, nrec, entries, len, prev_empty);
    if (entries) total_s -= add_pair_entries<-1, true>(cs, et, ef, ep, start, entries, total_f);
    first += len;
  }
  bool s = !tiny_total(total_s), f = !tiny_total(total_f);
  if (!s) zero_floats(out_s, count);
  if (!f) zero_floats(out_f, count);
  if (s && f)
    pair_second<true, true>(out_s, out_f, reach_f, packed, et, ep, rec, nrec, cs, total_s, total_f,
                            value_f);
  else if (s)
    pair_second<true, false>(out_s, out_f, reach_f, packed, et, ep, rec, nrec, cs, total_s, total_f,
                             value_f);
  else if (f)
    pair_second<false, true>(out_s, out_f, reach_f, packed, et, ep, rec, nrec, cs, total_s, total_f,
                             value_f);
}

// ---- Lanes across terminals ----------------------------------------------------
// Per-card sums hold one row of lanes per card; the reach of the k terminals
// is first laid out as one row per hand (value x reach), so that the passes
// above run once for all lanes with row additions.

// Adds sign x the rows of entries [e, e + cnt) to the card rows and returns
// their sum, in the same order on every call.
template <class P, int Sign>
inline typename P::Row add_entry_rows(float* cs, const float* rows, const uint16_t* ent,
                                      const uint16_t* packed, int32_t e, int32_t cnt) {
  using Row = typename P::Row;
  constexpr int W = P::Width;
  Row part[4] = {P::zero(), P::zero(), P::zero(), P::zero()};
  visit_spread(e, cnt, [&](int32_t k, int s) {
    int32_t i = ent[k];
    Row t = P::load(rows + i * W);
    uint16_t p = packed[i];
    float* a = cs + card_lo(p) * W;
    float* b = cs + card_hi(p) * W;
    if (Sign > 0) {
      P::store(a, P::add(P::load(a), t));
      P::store(b, P::add(P::load(b), t));
    } else {
      P::store(a, P::sub(P::load(a), t));
      P::store(b, P::sub(P::load(b), t));
    }
    part[s] = P::add(part[s], t);
  });
  return P::add(P::add(part[0], part[1]), P::add(part[2], part[3]));
}

template <class P, int K>
void fold_lanes(float* const* out, const float* const* reach, const float* values, int32_t count,
                const uint16_t* packed) {
  using Row = typename P::Row;
  constexpr int W = P::Width;
  static_assert(K <= W, "lanes exceed the row");
  alignas(64) float blk[W * W];
  // Four card tables, one per hand of a block of four, as in fold_sums.
  alignas(64) float c4[4][52 * W];
  memset(c4, 0, sizeof c4);
  Row tot[4] = {P::zero(), P::zero(), P::zero(), P::zero()};
  for (int32_t i0 = 0; i0 < count; i0 += W) {
    int32_t n = min_i32(W, count - i0);
    P::template load_block<K>(blk, reach, values, i0, n);
    for (int32_t h = 0; h < n; ++h) {
      Row t = P::load(blk + h * W);
      uint16_t p = packed[i0 + h];
      float* a = c4[h & 3] + card_lo(p) * W;
      float* b = c4[h & 3] + card_hi(p) * W;
      tot[h & 3] = P::add(tot[h & 3], t);
      P::store(a, P::add(P::load(a), t));
      P::store(b, P::add(P::load(b), t));
    }
  }
  Row total = P::add(P::add(tot[0], tot[1]), P::add(tot[2], tot[3]));
  auto big = P::big(total);
  if (P::none(big)) {
    for (int j = 0; j < K; ++j) zero_floats(out[j], count);
    return;
  }
  float* cs = c4[0];
  for (int c = 0; c < 52 * W; c += W) {
    Row x = P::add(P::load(c4[0] + c), P::load(c4[1] + c));
    P::store(cs + c, P::add(x, P::add(P::load(c4[2] + c), P::load(c4[3] + c))));
  }
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
void showdown_lanes(float* const* out, const float* const* reach, const float* values,
                    int32_t count, const RiverGroups& g, const uint16_t* packed) {
  using Row = typename P::Row;
  constexpr int W = P::Width;
  static_assert(K <= W, "lanes exceed the row");
  alignas(64) float rows[(MaxRiverHands + W) * W];
  alignas(64) uint16_t ent[MaxRiverHands];
  alignas(64) RunRecord rec[MaxRiverHands];
  alignas(64) float cs[52 * W];
  alignas(64) float stage[W * W];

  // Value x reach of every hand, one row per hand.
  for (int32_t i0 = 0; i0 < count; i0 += W)
    P::template load_block<K>(rows + i0 * W, reach, values, i0, min_i32(W, count - i0));

  // First pass, as for one terminal; a hand is an entry when any lane is live.
  memset(cs, 0, sizeof cs);
  Row total = P::zero();
  int32_t n = 0, nrec = 0, first = 0;
  bool prev_empty = false;
  for (int32_t gi = 0; gi < g.count; ++gi) {
    int32_t len = g.lengths[gi];
    int32_t start = n;
    if (len <= MaskedGroupLimit) {
      for (uint32_t m = g.masks[gi]; m; m &= m - 1) {
        int32_t i = first + __builtin_ctz(m);
        ent[n] = uint16_t(i);
        n += P::any(P::load(rows + i * W));
      }
    } else {
      for (int32_t i = first; i < first + len; ++i) {
        ent[n] = uint16_t(i);
        n += P::any(P::load(rows + i * W));
      }
    }
    int32_t entries = n - start;
    push_run(rec, nrec, entries, len, prev_empty);
    if (entries)
      total = P::sub(total, add_entry_rows<P, -1>(cs, rows, ent, packed, start, entries));
    first += len;
  }
  auto big = P::big(total);
  if (P::none(big)) {
    for (int j = 0; j < K; ++j) zero_floats(out[j], count);
    return;
  }

  // Second pass; finished rows gather in `stage` and leave a block at a time.
  int32_t i = 0, e = 0;
  for (int32_t r = 0; r < nrec; ++r) {
    int32_t len = rec[r].length, cnt = rec[r].entries;
    Row gsum = P::zero(), tied = total;
    if (cnt) {
      gsum = add_entry_rows<P, 1>(cs, rows, ent, packed, e, cnt);
      tied = P::add(gsum, total);
    }
    for (int32_t end = i + len; i < end; ++i) {
      uint16_t p = packed[i];
      Row o = P::sub(P::sub(tied, P::load(cs + card_lo(p) * W)), P::load(cs + card_hi(p) * W));
      P::store(stage + (i % W) * W, P::keep(o, big));
      if (i % W == W - 1) P::template store_block<K>(out, stage, i - (W - 1), W);
    }
    if (cnt) {
      add_entry_rows<P, 1>(cs, rows, ent, packed, e, cnt);
      total = P::add(gsum, tied);
    }
    e += cnt;
  }
  if (count % W) P::template store_block<K>(out, stage, count - count % W, count % W);
}

// ---- Wrappers of the table ---------------------------------------------------------

// Width 1 of the lane tables is the one-terminal kernel.
inline void showdown_lane1(float* const* out, const float* const* reach, const float* values,
                           int32_t count, const RiverGroups& g, const uint16_t* packed) {
  showdown_one(out[0], reach[0], count, g, packed, values[0]);
}

template <class P>
void fold_lane1(float* const* out, const float* const* reach, const float* values, int32_t count,
                const uint16_t* packed) {
  fold_one<P>(out[0], reach[0], count, packed, values[0]);
}

}  // namespace
