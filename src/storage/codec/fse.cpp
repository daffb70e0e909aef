// The FSE (finite-state entropy, tabled ANS) coder in its block format.
//
// Block: [normalised-count header][bitstream].
//
// Header, a little-endian bit stream, least significant bit first:
//   4 bits          table log - 5
//   per symbol      its count + 1, from symbol 0 to the last present one, in a
//                   variable number of bits: with `remaining` = points still
//                   free + 1 and `threshold` the largest power of two not above
//                   it, values below (2 * threshold - 1 - remaining) take
//                   log2(threshold) bits and the others one more. A count of -1
//                   means "below one point" and takes one point. A count of 0
//                   is followed by 2-bit repeat flags: the number of further
//                   zero counts, 3 meaning "3 and another flag".
//   The header ends when all 1 << table_log points are given out, rounded up
//   to whole bytes.
//
// Table: symbols of count -1 take the last cells, downward; the others are
// spread with step (size >> 1) + (size >> 3) + 3, skipping those cells. The
// k-th cell of a symbol with count p (in cell order) reads
// table_log - highbit(p + k) bits and goes to state ((p + k) << bits) - size
// plus the bits.
//
// Bitstream: written forwards, read backwards from a final 1 bit. It opens
// with the two initial states (table_log bits each, state 1 first), then the
// decoder alternates: symbol of state 1, its bits; symbol of state 2, its
// bits; ... When a read runs past the start of the stream, the other state
// gives the last symbol. The encoder therefore starts both states on the two
// last symbols with cells that read at least one bit.
#include <emmintrin.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "storage/codec/fse.h"
#include "storage/codec/fse_impl.h"

namespace {

// ---- Header bits ----------------------------------------------------------------

struct BitWriter {
  uint8_t* out;
  uint8_t* end;
  uint64_t acc = 0;
  unsigned count = 0;
  bool overflow = false;
  void put(uint32_t value, unsigned bits) {
    acc |= uint64_t(value) << count;
    count += bits;
    while (count >= 8) {
      if (out == end) overflow = true;  // bits are dropped from here on
      else *out++ = uint8_t(acc);
      acc >>= 8;
      count -= 8;
    }
  }
  void finish() {
    if (count == 0) return;
    if (out == end) {
      overflow = true;
      return;
    }
    *out++ = uint8_t(acc);
    count = 0;
  }
};

struct BitReader {
  const uint8_t* in;
  size_t size;
  size_t position = 0;  // in bits
  // A field is at most 13 bits: one word load covers it from any bit offset.
  bool get(unsigned bits, uint32_t& value) {
    if (position + bits > size * 8) return false;
    size_t byte = position >> 3;
    uint64_t w;
    if (byte + 8 <= size) {
      w = load_u64(in + byte);
    } else {
      w = 0;
      for (size_t i = byte; i < size; i++) w |= uint64_t(in[i]) << (8 * (i - byte));
    }
    value = uint32_t((w >> (position & 7)) & ((uint64_t(1) << bits) - 1));
    position += bits;
    return true;
  }
};

// ---- Symbol spread ----------------------------------------------------------------

// The coder's own normalised counts always have 256 entries, zero past the
// largest symbol, so the table builders read them whole without a bound.
using Counts = int16_t[FseMaxSymbolValue + 1];

// Symbols of count -1 and symbols with points, as bit sets: the builders walk
// them without a branch per symbol to mispredict.
struct SymbolSets {
  uint64_t below_one[4];
  uint64_t with_points[4];
};

SymbolSets symbol_sets(const Counts& norm) {
  SymbolSets sets;
  const __m128i minus_one = _mm_set1_epi16(-1), zero = _mm_setzero_si128();
  for (unsigned w = 0; w < 4; w++) {
    uint64_t below = 0, with = 0;
    for (unsigned k = 0; k < 64; k += 16) {
      const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(norm + w * 64 + k));
      const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(norm + w * 64 + k + 8));
      const __m128i eq = _mm_packs_epi16(_mm_cmpeq_epi16(a, minus_one), _mm_cmpeq_epi16(b, minus_one));
      const __m128i gt = _mm_packs_epi16(_mm_cmpgt_epi16(a, zero), _mm_cmpgt_epi16(b, zero));
      below |= uint64_t(uint32_t(_mm_movemask_epi8(eq))) << k;
      with |= uint64_t(uint32_t(_mm_movemask_epi8(gt))) << k;
    }
    sets.below_one[w] = below;
    sets.with_points[w] = with;
  }
  return sets;
}

// The symbols with a count: with points or below one point.
struct SymbolSet {
  uint64_t bits[4];
};
inline SymbolSet present_symbols(const SymbolSets& sets) {
  SymbolSet p;
  for (unsigned w = 0; w < 4; w++) p.bits[w] = sets.below_one[w] | sets.with_points[w];
  return p;
}

// Calls f(symbol) for each member of a set, in order.
template <typename F>
inline void for_each_symbol(const uint64_t (&set)[4], F&& f) {
  for (unsigned w = 0; w < 4; w++)
    for (uint64_t b = set[w]; b; b &= b - 1) f(w * 64 + unsigned(__builtin_ctzll(b)));
}

// Fills `cell_symbol` from counts that fill the table exactly (checked by the
// caller).
void spread_symbols(uint8_t* cell_symbol, const Counts& norm, const SymbolSets& sets,
                    unsigned table_log) {
  const unsigned size = 1u << table_log, mask = size - 1;
  // The symbols in order, each repeated by its count, sixteen bytes a store;
  // the scatter below then has no per-symbol branch to mispredict.
  uint8_t order[(1u << FseMaxTableLog) + 16];
  unsigned n = 0;
  for_each_symbol(sets.with_points, [&](unsigned s) {
    const __m128i repeated = _mm_set1_epi8(char(s));
    const unsigned c = unsigned(norm[s]);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(order + n), repeated);
    for (unsigned k = 16; k < c; k += 16)
      _mm_storeu_si128(reinterpret_cast<__m128i*>(order + n + k), repeated);
    n += c;
  });
  const unsigned step = (size >> 1) + (size >> 3) + 3;
  // The step is odd, so the walk meets every cell once in `size` steps. Each
  // cell's place is computed on its own, which leaves no chain from one store
  // to the next.
  if (n == size) {
    for (unsigned i = 0; i < size; i++) cell_symbol[(i * step) & mask] = order[i];
    return;
  }
  // Symbols of count -1 take the last cells, downward. The walk skips those
  // cells: it stores into them too (without a branch) but doesn't move on in
  // the order, and the -1 symbols are written over them afterwards.
  const unsigned high = n - 1;
  unsigned i = 0;
  for (unsigned k = 0; k < size; k++) {
    const unsigned position = (k * step) & mask;
    cell_symbol[position] = order[i];
    i += position <= high;
  }
  unsigned top = size - 1;
  for_each_symbol(sets.below_one, [&](unsigned s) { cell_symbol[top--] = uint8_t(s); });
}

// Points a count takes in the table, without a branch: -1 gives 1.
inline unsigned points(int16_t n) { return unsigned(n + ((n >> 15) & 2)); }

// Checks a normalised distribution before a table is built from it.
bool counts_fill_table(const int16_t* norm, unsigned max_symbol, unsigned table_log) {
  int total = 0;
  bool bad = false;
  for (unsigned s = 0; s <= max_symbol; s++) {
    bad |= norm[s] < -1;
    total += int(points(norm[s]));
  }
  return !bad && total == (1 << table_log);
}

// ---- Cell ranks ---------------------------------------------------------------------

// Calls emit(u, s, n) for every cell u of the table, where s is the cell's
// symbol and n is first[s] plus the number of cells of s before u. One
// counter per symbol would make each cell wait for the store of the last
// cell of its symbol; four quarters of the table run side by side instead,
// each with counters that start past the cells of the quarters before it.
template <typename Emit>
inline void for_each_cell_rank(const uint8_t* cell_symbol, unsigned table_log, const uint16_t* first,
                               const uint64_t (&present)[4], unsigned max_symbol, Emit&& emit) {
  const unsigned quarter = (1u << table_log) >> 2;
  uint16_t next[4][FseMaxSymbolValue + 1];
  const size_t row = sizeof(uint16_t) * (max_symbol + 1);
  for (auto& n : next) memset(n, 0, row);
  const uint8_t* q0 = cell_symbol;
  const uint8_t* q1 = q0 + quarter;
  const uint8_t* q2 = q1 + quarter;
  const uint8_t* q3 = q2 + quarter;
  for (unsigned j = 0; j < quarter; j++) {
    next[1][q0[j]]++;
    next[2][q1[j]]++;
    next[3][q2[j]]++;
  }
  // Counts of quarters 0, 1, 2 become the starts of quarters 1, 2, 3.
  for_each_symbol(present, [&](unsigned s) {
    next[0][s] = first[s];
    next[1][s] = uint16_t(next[1][s] + next[0][s]);
    next[2][s] = uint16_t(next[2][s] + next[1][s]);
    next[3][s] = uint16_t(next[3][s] + next[2][s]);
  });
  for (unsigned j = 0; j < quarter; j++) {
    const unsigned s0 = q0[j], s1 = q1[j], s2 = q2[j], s3 = q3[j];
    emit(j, s0, unsigned(next[0][s0]++));
    emit(quarter + j, s1, unsigned(next[1][s1]++));
    emit(2 * quarter + j, s2, unsigned(next[2][s2]++));
    emit(3 * quarter + j, s3, unsigned(next[3][s3]++));
  }
}

// ---- Decoding table ---------------------------------------------------------------

// From counts that fill the table.
void build_decode_table(DecodeCell* table, const Counts& norm, unsigned max_symbol, unsigned table_log) {
  const unsigned size = 1u << table_log;
  const SymbolSets sets = symbol_sets(norm);
  uint8_t cell_symbol[1u << FseMaxTableLog];
  spread_symbols(cell_symbol, norm, sets, table_log);
  const SymbolSet present = present_symbols(sets);
  uint16_t first[FseMaxSymbolValue + 1];
  for_each_symbol(present.bits, [&](unsigned s) { first[s] = uint16_t(points(norm[s])); });
  for_each_cell_rank(cell_symbol, table_log, first, present.bits, max_symbol, [&](unsigned u, unsigned s, unsigned n) {
    const unsigned bits = table_log - highbit32(n);
    table[u].base = uint16_t((n << bits) - size);
    table[u].symbol = uint8_t(s);
    table[u].bits = uint8_t(bits);
  });
}

// ---- Encoding table ---------------------------------------------------------------

// Entries of absent symbols are left as they are: the coder never looks them up.
void build_encode_table(EncodeTable& t, const Counts& norm, const SymbolSets& sets, unsigned max_symbol,
                        unsigned table_log) {
  const unsigned size = 1u << table_log;
  uint8_t cell_symbol[1u << FseMaxTableLog];
  spread_symbols(cell_symbol, norm, sets, table_log);
  const SymbolSet present = present_symbols(sets);
  uint16_t first[FseMaxSymbolValue + 1];
  unsigned start = 0;
  t.table_log = table_log;
  for_each_symbol(present.bits, [&](unsigned s) {
    const unsigned p = points(norm[s]);
    first[s] = uint16_t(start);
    // States at or above p << max_bits write max_bits, those below one fewer.
    const unsigned max_bits = table_log - highbit32(p > 1 ? p - 1 : 1);
    t.symbol[s] = {int32_t(start) - int32_t(p), (max_bits << 16) - (p << max_bits)};
    start += p;
  });
  // The k-th cell of a symbol (in cell order) is the one whose next value is p + k.
  for_each_cell_rank(cell_symbol, table_log, first, present.bits, max_symbol,
                     [&](unsigned u, unsigned, unsigned n) { t.state[n] = uint16_t(size + u); });
}

// Number of times the largest symbol occurs; max_symbol becomes the largest present.
uint32_t histogram(uint32_t* count, unsigned& max_symbol, const uint8_t* src, size_t size) {
  // Several tables break the store-to-load chains of runs of equal bytes;
  // short sources (most channel blocks) don't repay clearing and summing more
  // than two.
  constexpr unsigned Tables = 4;
  alignas(16) uint32_t c[Tables][256];
  size_t i = 0;
  if (size < 1024) {
    memset(c, 0, sizeof(uint32_t) * 256 * 2);
    for (; i + 2 <= size; i += 2) {
      c[0][src[i]]++;
      c[1][src[i + 1]]++;
    }
    if (i < size) c[0][src[i]]++;
    for (unsigned s = 0; s < 256; s++) count[s] = c[0][s] + c[1][s];
  } else {
    memset(c, 0, sizeof c);
    for (; i + 8 <= size; i += 8) {
      const uint64_t v = load_u64(src + i);
      c[0][uint8_t(v)]++;
      c[1][uint8_t(v >> 8)]++;
      c[2][uint8_t(v >> 16)]++;
      c[3][uint8_t(v >> 24)]++;
      c[0][uint8_t(v >> 32)]++;
      c[1][uint8_t(v >> 40)]++;
      c[2][uint8_t(v >> 48)]++;
      c[3][v >> 56]++;
    }
    for (; i < size; i++) c[0][src[i]]++;
    for (unsigned s = 0; s < 256; s++) count[s] = c[0][s] + c[1][s] + c[2][s] + c[3][s];
  }
  uint32_t largest = 0;
  for (unsigned s = 0; s < 256; s++) largest = std::max(largest, count[s]);
  unsigned top = 255;
  while (top > 0 && count[top] == 0) top--;
  max_symbol = top;
  return largest;
}

}  // namespace

// ---- Table log and normalisation ------------------------------------------------------

namespace {

// log2((p + 1) / p) and log2(p / (p - 1)) for every count a table can give,
// worked out once by exactly the expressions that define the step costs, so
// the table changes no choice (and no byte).
struct StepCosts {
  double up[(1u << FseMaxTableLog) + 1];
  double down[(1u << FseMaxTableLog) + 1];
};

const StepCosts& step_costs() {
  static const StepCosts costs = [] {
    StepCosts c{};
    for (unsigned n = 1; n <= (1u << FseMaxTableLog); n++) {
      const double p = n;
      c.up[n] = std::log2((p + 1) / p);
      c.down[n] = n > 1 ? std::log2(p / (p - 1)) : HUGE_VAL;
    }
    return c;
  }();
  return costs;
}

}  // namespace

unsigned fse_optimal_table_log(unsigned max_table_log, size_t src_size, unsigned max_symbol_value) {
  int table_log = int(max_table_log ? max_table_log : FseDefaultTableLog);
  if (src_size > 1) {
    // No more cells than a quarter of the source, but enough for every symbol.
    int max_bits_src = int(highbit32(uint32_t(std::min<size_t>(src_size - 1, 0xffffffffu)))) - 2;
    if (max_bits_src < table_log) table_log = max_bits_src;
    int min_bits_src = int(highbit32(uint32_t(std::min<size_t>(src_size, 0xffffffffu)))) + 1;
    int min_bits_symbols = int(highbit32(std::max(1u, max_symbol_value))) + 2;
    int min_bits = std::min(min_bits_src, min_bits_symbols);
    if (min_bits > table_log) table_log = min_bits;
  }
  table_log = std::clamp(table_log, int(FseMinTableLog), int(FseMaxTableLog));
  return unsigned(table_log);
}

namespace {

// Symbols below one point get the mark -1 (one cell); the others share the
// rest in proportion, rounded to nearest, at least one. Returns the points
// given to the others; `left` gets the cells they share.
int64_t proportional_points(int16_t* norm, const uint32_t* count, size_t total, uint64_t size,
                            const uint8_t* present_symbols, unsigned present, int64_t& left) {
  left = int64_t(size);
  uint64_t rest_total = total;
  for (unsigned k = 0; k < present; k++) {
    const unsigned s = present_symbols[k];
    const bool below = uint64_t(count[s]) * size < total;
    norm[s] = int16_t(-int(below));
    left -= below;
    rest_total -= below ? count[s] : 0;
  }
  // floor(n / d) for n = 2 c left + rest, d = 2 rest, from a double estimate
  // that is off by at most one, then made exact: no division per symbol. Both
  // stay below 2^46, so the estimate is well within one.
  const uint64_t d = 2 * rest_total;
  const double inverse = 1.0 / double(d);
  int64_t given = 0;
  for (unsigned k = 0; k < present; k++) {
    const unsigned s = present_symbols[k];
    const uint64_t n = uint64_t(count[s]) * uint64_t(left) * 2 + rest_total;
    uint64_t p = uint64_t(double(n) * inverse);
    p -= p * d > n;
    p += (p + 1) * d <= n;
    p = std::max<uint64_t>(1, p);
    const bool below = norm[s] == -1;
    norm[s] = below ? int16_t(-1) : int16_t(p);
    given += below ? 0 : int64_t(p);
  }
  return given;
}

// Settles `diff` points of rounding where it costs least: a symbol of count c
// at p points costs c * log2(size / p) bits. False when no symbol can move.
bool settle_rounding(int16_t* norm, const uint32_t* count, const uint8_t* present_symbols, unsigned present,
                     int64_t diff) {
  const int direction = diff > 0 ? 1 : -1;
  const StepCosts& costs = step_costs();
  // The cost of the next step of a symbol in the direction needed.
  auto cost_of_step = [&](unsigned s) {
    const int p = norm[s];
    if (p <= 0 || (direction < 0 && p == 1)) return HUGE_VAL;
    return direction > 0 ? -double(count[s]) * costs.up[p] : double(count[s]) * costs.down[p];
  };
  // Only symbols with points can move. Each step takes the cheapest, the
  // lowest symbol among equals: a scan of the costs in symbol order, two at a
  // time and without a branch until the first equal to the least is found.
  alignas(16) double change[FseMaxSymbolValue + 4];
  uint8_t movable[FseMaxSymbolValue + 4];
  unsigned movable_count = 0;
  for (unsigned k = 0; k < present; k++) {
    const unsigned s = present_symbols[k];
    change[movable_count] = cost_of_step(s);
    movable[movable_count] = uint8_t(s);
    movable_count += change[movable_count] != HUGE_VAL;
  }
  if (movable_count == 0) return false;
  const unsigned padded = (movable_count + 3) & ~3u;
  for (unsigned m = movable_count; m < padded; m++) change[m] = HUGE_VAL;
  for (; diff != 0; diff -= direction) {
    __m128d low0 = _mm_load_pd(change), low1 = _mm_load_pd(change + 2);
    for (unsigned m = 4; m < padded; m += 4) {
      low0 = _mm_min_pd(low0, _mm_load_pd(change + m));
      low1 = _mm_min_pd(low1, _mm_load_pd(change + m + 2));
    }
    low0 = _mm_min_pd(low0, low1);
    low0 = _mm_min_pd(low0, _mm_unpackhi_pd(low0, low0));
    const double least = _mm_cvtsd_f64(low0);
    if (least == HUGE_VAL) return false;
    const __m128d want = _mm_set1_pd(least);
    unsigned m = 0;
    for (;; m += 2) {
      const int equal = _mm_movemask_pd(_mm_cmpeq_pd(_mm_load_pd(change + m), want));
      if (equal) {
        m += unsigned(__builtin_ctz(unsigned(equal)));
        break;
      }
    }
    const unsigned best = movable[m];
    norm[best] = int16_t(norm[best] + direction);
    change[m] = cost_of_step(best);
  }
  return true;
}

}  // namespace

int64_t fse_normalize_counts(int16_t* norm, unsigned table_log, const uint32_t* count, size_t total,
                             unsigned max_symbol_value) {
  if (table_log == 0) table_log = FseDefaultTableLog;
  if (table_log < FseMinTableLog) return fse_error(FSE_ERROR_GENERIC);
  if (table_log > FseMaxTableLog) return fse_error(FSE_ERROR_TABLE_LOG_TOO_LARGE);
  if (max_symbol_value > FseMaxSymbolValue) return fse_error(FSE_ERROR_SYMBOL_LIMIT_TOO_LARGE);
  const uint64_t size = 1ull << table_log;
  // The present symbols, in order: most alphabets here are sparse.
  uint8_t present_symbols[FseMaxSymbolValue + 1];
  unsigned present = 0;
  uint64_t sum = 0;
  for (unsigned s = 0; s <= max_symbol_value; s++) {
    present_symbols[present] = uint8_t(s);
    present += count[s] != 0;
    sum += count[s];
  }
  if (sum != total || total == 0) return fse_error(FSE_ERROR_GENERIC);
  // One symbol can't be coded: its states would read no bits.
  if (present > size || present < 2) return fse_error(FSE_ERROR_GENERIC);

  memset(norm, 0, sizeof(int16_t) * (max_symbol_value + 1));
  int64_t left = 0;
  const int64_t given = proportional_points(norm, count, total, size, present_symbols, present, left);
  if (left - given != 0 && !settle_rounding(norm, count, present_symbols, present, left - given))
    return fse_error(FSE_ERROR_GENERIC);
  return int64_t(table_log);
}

// ---- Header ---------------------------------------------------------------------------

namespace {

// The header of counts that fill the table (checked by the caller, or made by
// the normalisation): every field is in range and the points run out at the
// last present symbol.
int64_t write_header(void* dst, size_t dst_capacity, const int16_t* norm, unsigned max_symbol_value,
                     unsigned table_log) {
  // The header is made in a local buffer, 64 bits a store, and copied out if
  // it fits: 256 fields of at most 13 bits and their zero flags take less
  // than 512 bytes.
  uint8_t header[512 + 8];
  uint8_t* out = header;
  uint64_t acc = table_log - FseMinTableLog;
  unsigned count_bits = 4;
  auto put = [&](uint32_t value, unsigned bits) {
    acc |= uint64_t(value) << count_bits;
    count_bits += bits;
  };
  auto flush = [&] {
    memcpy(out, &acc, 8);
    const unsigned bytes = count_bits >> 3;
    out += bytes;
    acc >>= bytes * 8;
    count_bits &= 7;
  };
  // Only symbols with a count take a turn: the zeros before each go out as
  // one zero field and its repeat flags, without a branch.
  uint64_t with_count[4] = {};
  for (unsigned s = 0; s <= max_symbol_value; s++) with_count[s >> 6] |= uint64_t(norm[s] != 0) << (s & 63);
  int remaining = (1 << table_log) + 1;
  unsigned next = 0;  // the first symbol not yet written
  for (unsigned w = 0; w < 4; w++)
    for (uint64_t b = with_count[w]; b; b &= b - 1) {
      const unsigned s = w * 64 + unsigned(__builtin_ctzll(b));
      // The threshold is the largest power of two not above `remaining`.
      const unsigned bits = highbit32(uint32_t(remaining)) + 1;
      const int threshold = 1 << (bits - 1);
      const int small = 2 * threshold - 1 - remaining;
      const unsigned gap = s - next;
      if (gap > 36) {  // rare: long runs of flags of 3, twelve at a time
        put(1, bits - (1 < small));
        flush();
        unsigned zeros = gap - 1;
        for (; zeros >= 36; zeros -= 36) {
          put(0xffffff, 24);
          flush();
        }
        const unsigned threes = zeros / 3;
        put(((1u << (2 * threes)) - 1) | ((zeros - 3 * threes) << (2 * threes)), 2 * threes + 2);
      } else {
        // A zero field (value 1) and 2 * threes + 2 flag bits, or nothing.
        const unsigned zeros = gap - (gap > 0);
        const unsigned threes = zeros / 3;
        put(gap > 0, gap > 0 ? bits - (1 < small) : 0);
        flush();
        const uint32_t flags = ((1u << (2 * threes)) - 1) | ((zeros - 3 * threes) << (2 * threes));
        put(flags, gap > 0 ? 2 * threes + 2 : 0);
      }
      flush();
      const int count = norm[s];
      const int value = count + 1;
      put(uint32_t(value + (value >= threshold ? small : 0)), bits - (value < small));
      flush();
      remaining -= count < 0 ? -count : count;
      next = s + 1;
    }
  if (count_bits > 0) *out++ = uint8_t(acc);
  const size_t size = size_t(out - header);
  if (size > dst_capacity) return fse_error(FSE_ERROR_DESTINATION_TOO_SMALL);
  memcpy(dst, header, size);
  return int64_t(size);
}

}  // namespace

int64_t fse_write_counts(void* dst, size_t dst_capacity, const int16_t* norm,
                        unsigned max_symbol_value, unsigned table_log) {
  if (table_log > FseMaxTableLog) return fse_error(FSE_ERROR_TABLE_LOG_TOO_LARGE);
  if (table_log < FseMinTableLog) return fse_error(FSE_ERROR_GENERIC);
  if (max_symbol_value > FseMaxSymbolValue) return fse_error(FSE_ERROR_SYMBOL_LIMIT_TOO_LARGE);
  if (!counts_fill_table(norm, max_symbol_value, table_log)) return fse_error(FSE_ERROR_GENERIC);
  return write_header(dst, dst_capacity, norm, max_symbol_value, table_log);
}

int64_t fse_read_counts(int16_t* norm, unsigned* max_symbol_value, unsigned* table_log,
                       const void* src, size_t src_size) {
  BitReader r{static_cast<const uint8_t*>(src), src_size};
  uint32_t v;
  if (!r.get(4, v)) return fse_error(FSE_ERROR_SOURCE_SIZE_WRONG);
  unsigned log = v + FseMinTableLog;
  if (log > FseMaxTableLog) return fse_error(FSE_ERROR_TABLE_LOG_TOO_LARGE);
  const unsigned limit = *max_symbol_value;
  int remaining = (1 << log) + 1;
  int threshold = 1 << log;
  unsigned bits = log + 1;
  unsigned s = 0;
  while (remaining > 1) {
    if (s > limit) return fse_error(FSE_ERROR_SYMBOL_LIMIT_TOO_SMALL);
    int small = 2 * threshold - 1 - remaining;
    uint32_t low;
    if (!r.get(bits - 1, low)) return fse_error(FSE_ERROR_CORRUPT);
    int value = int(low);
    if (value >= small) {
      uint32_t top;
      if (!r.get(1, top)) return fse_error(FSE_ERROR_CORRUPT);
      value |= int(top) << (bits - 1);
      if (value >= threshold) value -= small;
    }
    int count = value - 1;
    norm[s++] = int16_t(count);
    remaining -= count < 0 ? -count : count;
    if (remaining < 1) return fse_error(FSE_ERROR_CORRUPT);
    if (count == 0) {
      for (;;) {
        uint32_t repeat;
        if (!r.get(2, repeat)) return fse_error(FSE_ERROR_CORRUPT);
        if (s + repeat > limit + 1) return fse_error(FSE_ERROR_SYMBOL_LIMIT_TOO_SMALL);
        for (uint32_t k = 0; k < repeat; k++) norm[s++] = 0;
        if (repeat != 3) break;
      }
    }
    while (remaining < threshold) {
      bits--;
      threshold >>= 1;
    }
  }
  *max_symbol_value = s - 1;
  *table_log = log;
  return int64_t((r.position + 7) / 8);
}

// ---- Blocks ---------------------------------------------------------------------------

namespace {

// A block made ready for its bitstream: header written, table built, start
// states chosen.
struct BlockPlan {
  size_t header;
  EncodeTable table;
  uint32_t state_last, state_prev;
};

// Everything of a block before its bitstream: false when `result` is already
// the block's result (an error, raw, one byte), true when the bitstream must
// follow the header.
bool plan_block(BlockPlan& plan, int64_t& result, void* dst, size_t dst_capacity, const void* src,
                size_t src_size, unsigned max_symbol_value, unsigned table_log) {
  const uint8_t* in = static_cast<const uint8_t*>(src);
  uint8_t* out = static_cast<uint8_t*>(dst);
  auto final = [&](int64_t r) {
    result = r;
    return false;
  };
  if (src_size <= 1) return final(0);
  if (max_symbol_value == 0) max_symbol_value = FseMaxSymbolValue;
  if (max_symbol_value > FseMaxSymbolValue) return final(fse_error(FSE_ERROR_SYMBOL_LIMIT_TOO_LARGE));
  if (table_log == 0) table_log = FseDefaultTableLog;
  if (table_log > FseMaxTableLog) return final(fse_error(FSE_ERROR_TABLE_LOG_TOO_LARGE));
  if (src_size > 0xffffffffu) return final(fse_error(FSE_ERROR_SOURCE_SIZE_WRONG));

  uint32_t count[256];
  unsigned max_symbol;
  uint32_t largest = histogram(count, max_symbol, in, src_size);
  if (max_symbol > max_symbol_value) return final(fse_error(FSE_ERROR_SYMBOL_LIMIT_TOO_SMALL));
  if (largest == src_size) return final(1);        // one repeated byte
  if (largest == 1) return final(0);               // no byte twice: nothing to gain
  if (largest < (src_size >> 7)) return final(0);  // flat enough not to pay

  unsigned log = fse_optimal_table_log(table_log, src_size, max_symbol);
  Counts norm = {};
  int64_t r = fse_normalize_counts(norm, log, count, src_size, max_symbol);
  if (fse_is_error(r)) return final(r);
  // The normalisation's counts fill the table: no need to check them again.
  int64_t header = write_header(out, dst_capacity, norm, max_symbol, log);
  if (fse_is_error(header)) return final(header);

  const SymbolSets sets = symbol_sets(norm);
  const SymbolSet present = present_symbols(sets);
  // Most channel blocks are short, and many end up raw. Each coded symbol
  // writes at least table_log - highbit(p - 1) - 1 bits for p > 1 points
  // (table_log for one point); when the header and that bound already reach
  // the raw size, the result is 0 without building the table or coding.
  {
    // One point gives log - 0 - 0 bits, without a branch.
    auto least_bits = [&](unsigned s) -> uint64_t {
      const unsigned p = points(norm[s]);
      return uint32_t(log - highbit32((p - 1) | 1) - (p > 1));
    };
    uint64_t bits = 2 * uint64_t(log) + 1;
    for_each_symbol(present.bits, [&](unsigned s) { bits += uint64_t(count[s]) * least_bits(s); });
    bits -= least_bits(in[src_size - 1]) + least_bits(in[src_size - 2]);
    if (uint64_t(header) + (bits + 7) / 8 >= src_size - 1) return final(0);
  }

  EncodeTable& table = plan.table;
  build_encode_table(table, norm, sets, max_symbol, log);
  // Each state starts at the first cell of its symbol, which reads at least one bit.
  auto start_state = [&](uint8_t s) {
    return uint32_t(table.state[table.symbol[s].find_state + int32_t(points(norm[s]))]);
  };
  plan.state_last = start_state(in[src_size - 1]);
  plan.state_prev = start_state(in[src_size - 2]);
  plan.header = size_t(header);
  return true;
}

EncodeJob stream_job(const BlockPlan& plan, void* dst, size_t dst_capacity, const void* src, size_t src_size) {
  return {static_cast<uint8_t*>(dst) + plan.header, dst_capacity - plan.header, &plan.table,
          static_cast<const uint8_t*>(src), src_size, plan.state_last, plan.state_prev};
}

// The block's result from its header and bitstream sizes.
int64_t block_result(size_t header, size_t stream, size_t src_size) {
  if (stream == 0) return 0;
  const size_t total = header + stream;
  if (total >= src_size - 1) return 0;
  return int64_t(total);
}

}  // namespace

int64_t fse_compress_limited(void* dst, size_t dst_capacity, const void* src, size_t src_size,
                      unsigned max_symbol_value, unsigned table_log) {
  BlockPlan plan;
  int64_t result;
  if (!plan_block(plan, result, dst, dst_capacity, src, src_size, max_symbol_value, table_log)) return result;
  const EncodeJob j = stream_job(plan, dst, dst_capacity, src, src_size);
  const size_t stream = codec_kernels().fse_encode_stream(j.dst, j.capacity, plan.table, j.in, src_size,
                                                          j.state_last, j.state_prev);
  return block_result(plan.header, stream, src_size);
}

int64_t fse_compress(void* dst, size_t dst_capacity, const void* src, size_t src_size) {
  return fse_compress_limited(dst, dst_capacity, src, src_size, FseMaxSymbolValue, FseDefaultTableLog);
}

namespace {

// The blocks of fse_compress_blocks and each lane's plan.
struct CompressLanes {
  const FseBlock* blocks;
  int64_t* results;
  BlockPlan plans[2];
  size_t header[FseMaxBlocks];
};

bool plan_for_lane(void* context, int k, int lane, EncodeJob& job) {
  CompressLanes& c = *static_cast<CompressLanes*>(context);
  const FseBlock& b = c.blocks[k];
  BlockPlan& plan = c.plans[lane];
  if (!plan_block(plan, c.results[k], b.dst, b.dst_capacity, b.src, b.src_size, FseMaxSymbolValue,
                  b.table_log ? b.table_log : FseDefaultTableLog))
    return false;
  c.header[k] = plan.header;
  job = stream_job(plan, b.dst, b.dst_capacity, b.src, b.src_size);
  return true;
}

}  // namespace

void fse_compress_blocks(const FseBlock* blocks, int n, int64_t* results) {
  if (n > FseMaxBlocks) {
    for (; n > 0; n -= FseMaxBlocks, blocks += FseMaxBlocks, results += FseMaxBlocks)
      fse_compress_blocks(blocks, std::min(n, FseMaxBlocks), results);
    return;
  }
  CompressLanes c;
  c.blocks = blocks;
  c.results = results;
  // A stream size for each block that gets one: 0 means "didn't fit".
  size_t streams[FseMaxBlocks];
  for (int k = 0; k < n; k++) streams[k] = SIZE_MAX;
  codec_kernels().fse_encode_lanes(n, plan_for_lane, &c, streams);
  for (int k = 0; k < n; k++)
    if (streams[k] != SIZE_MAX) results[k] = block_result(c.header[k], streams[k], blocks[k].src_size);
}

namespace {

// Reads a block's header and builds its decoding table: the header's size,
// or an error.
int64_t read_block_table(DecodeCell* table, unsigned& log, const uint8_t* in, size_t src_size) {
  Counts norm = {};
  unsigned max_symbol = FseMaxSymbolValue;
  int64_t header = fse_read_counts(norm, &max_symbol, &log, in, src_size);
  if (fse_is_error(header)) return header;
  if (size_t(header) >= src_size) return fse_error(FSE_ERROR_SOURCE_SIZE_WRONG);
  if (!counts_fill_table(norm, max_symbol, log)) return fse_error(FSE_ERROR_CORRUPT);
  build_decode_table(table, norm, max_symbol, log);
  return header;
}

}  // namespace

int64_t fse_decompress(void* dst, size_t dst_capacity, const void* src, size_t src_size) {
  const uint8_t* in = static_cast<const uint8_t*>(src);
  DecodeCell table[1u << FseMaxTableLog];
  unsigned log;
  const int64_t header = read_block_table(table, log, in, src_size);
  if (fse_is_error(header)) return header;
  uint8_t* out = static_cast<uint8_t*>(dst);
  const uint8_t* stream = in + header;
  const size_t stream_size = src_size - size_t(header);
  return codec_kernels().fse_decode_stream(out, dst_capacity, table, log, stream, stream_size);
}

namespace {

struct DecompressLanes {
  const FseBlock* blocks;
  DecodeCell tables[2][1u << FseMaxTableLog];
};

bool open_for_lane(void* context, int k, int lane, DecodeJob& job, int64_t& result) {
  DecompressLanes& c = *static_cast<DecompressLanes*>(context);
  const FseBlock& b = c.blocks[k];
  const uint8_t* in = static_cast<const uint8_t*>(b.src);
  unsigned log = 0;
  const int64_t header = read_block_table(c.tables[lane], log, in, b.src_size);
  if (fse_is_error(header)) {
    result = header;
    return false;
  }
  job = {static_cast<uint8_t*>(b.dst), b.dst_capacity, c.tables[lane], log, in + header,
         b.src_size - size_t(header)};
  return true;
}

}  // namespace

void fse_decompress_blocks(const FseBlock* blocks, int n, int64_t* results) {
  DecompressLanes c;
  c.blocks = blocks;
  codec_kernels().fse_decode_lanes(n, open_for_lane, &c, results);
}

// ---- Baseline loops ---------------------------------------------------------------------
// The loops of fse_impl.h as this file builds them, for the codec's baseline table.

int64_t fse_decode_stream_baseline(uint8_t* dst, size_t dst_capacity, const DecodeCell* table, unsigned log,
                                   const uint8_t* src, size_t src_size) {
  return decode_stream(dst, dst_capacity, table, log, src, src_size);
}

size_t fse_encode_stream_baseline(uint8_t* dst, size_t capacity, const EncodeTable& table, const uint8_t* in,
                                  size_t src_size, uint32_t state_last, uint32_t state_prev) {
  return encode_stream(dst, capacity, table, in, src_size, state_last, state_prev);
}

void fse_decode_lanes_baseline(int n, DecodeOpener open, void* context, int64_t* results) {
  decode_lanes(n, open, context, results);
}

void fse_encode_lanes_baseline(int n, EncodePlanner plan, void* context, size_t* streams) {
  encode_lanes(n, plan, context, streams);
}
