// The FSE coder's tables and its two stream loops, shared by fse.cpp and
// fse_avx2.cpp. The decoding loop is compiled once for the baseline processor
// and once with BMI2, whose flag-free shifts free the register the baseline
// spills; all code here is internal to each file that includes it, so the two
// builds never mix.
#pragma once

#include <algorithm>
#include <cstring>

#ifdef __BMI2__
#include <immintrin.h>
#endif

#include "storage/codec/codec_isa.h"
#include "storage/codec/fse.h"

// Plain data, the same in both builds.
struct DecodeCell {
  uint16_t base;   // next state before the bits are added
  uint8_t symbol;
  uint8_t bits;
};

struct EncodeSymbol {
  int32_t find_state;   // index into the state table, less the state's top bits
  uint32_t delta_bits;  // (state + delta_bits) >> 16 = bits to write
};

struct EncodeTable {
  unsigned table_log;
  uint16_t state[1u << FseMaxTableLog];  // states in [size, 2 * size), by symbol
  EncodeSymbol symbol[FseMaxSymbolValue + 1];
};

// One block for the two-block loops: its bitstream and where it goes.
struct DecodeJob {
  uint8_t* dst;
  size_t dst_capacity;
  const DecodeCell* table;
  unsigned log;
  const uint8_t* src;
  size_t src_size;
};

// src_size >= 2; the start states of the last two symbols.
struct EncodeJob {
  uint8_t* dst;
  size_t capacity;
  const EncodeTable* table;
  const uint8_t* in;
  size_t src_size;
  uint32_t state_last, state_prev;
};

namespace {

inline unsigned highbit32(uint32_t v) { return 31u - unsigned(__builtin_clz(v)); }

inline int64_t fse_error(FseError code) { return -int64_t(code); }

inline uint64_t load_u64(const uint8_t* p) {
  uint64_t v;
  memcpy(&v, p, 8);
  return v;
}

// ---- Bitstream, backward reading ----------------------------------------------------

// Writes forwards in 64-bit steps; the decoder reads the result from its end.
struct StreamWriter {
  uint8_t* start = nullptr;
  uint8_t* out = nullptr;
  uint8_t* limit = nullptr;  // last position where a whole 8-byte store still fits
  uint64_t acc = 0;
  unsigned count = 0;
  bool overflow = false;
  StreamWriter() = default;
  StreamWriter(uint8_t* dst, size_t capacity)
      : start(dst), out(dst), limit(capacity >= 8 ? dst + capacity - 8 : dst) {
    overflow = capacity < 8;
  }
  void put(uint32_t value, unsigned bits) {
    acc |= uint64_t(value & ((1u << bits) - 1)) << count;
    count += bits;
  }
  void flush() {
    if (out > limit) overflow = true;
    if (overflow) {  // keep going without storing; close() reports it
      acc = 0;
      count = 0;
      return;
    }
    memcpy(out, &acc, 8);
    unsigned bytes = count >> 3;
    out += bytes;
    acc = bytes == 8 ? 0 : acc >> (bytes * 8);
    count &= 7;
  }
  // Adds the end mark and returns the size, 0 if the output didn't fit.
  size_t close() {
    put(1, 1);
    flush();
    if (overflow) return 0;
    return size_t(out - start) + (count > 0);
  }
};

struct StreamReader {
  const uint8_t* start;
  const uint8_t* ptr;  // the container holds the 8 bytes from here
  uint64_t container = 0;
  unsigned consumed = 0;  // bits used from the top of the container

  // False for an empty stream or one without its end mark.
  bool init(const uint8_t* src, size_t size) {
    if (size == 0) return false;
    uint8_t last = src[size - 1];
    if (last == 0) return false;
    start = src;
    if (size >= 8) {
      ptr = src + size - 8;
      container = load_u64(ptr);
    } else {
      ptr = src;
      for (size_t i = 0; i < size; i++) container |= uint64_t(src[i]) << (8 * i);
      consumed = unsigned(8 - size) * 8;
    }
    consumed += 8 - highbit32(last);
    return true;
  }
  // Bits past the start of the stream read as anything; the caller stops there.
  uint32_t read(unsigned bits) {
    uint32_t v = uint32_t(((container << (consumed & 63)) >> 1) >> (63 - bits));
    consumed += bits;
    return v;
  }
  // true when the container holds unread data for at least 4 symbols
  // (48 bits); false near the start.
  bool reload_fast() {
    if (ptr - start >= 8 && consumed <= 64) {
      ptr -= consumed >> 3;
      consumed &= 7;
      container = load_u64(ptr);
      return true;
    }
    return false;
  }
  // Reloads near the start; true once bits were read past the start.
  bool reload_overflowed() {
    if (consumed > 64) return true;
    if (ptr == start) return false;
    size_t bytes = consumed >> 3;
    if (bytes > size_t(ptr - start)) bytes = size_t(ptr - start);
    ptr -= bytes;
    consumed -= unsigned(bytes) * 8;
    container = load_u64(ptr);
    return false;
  }
};


// ---- Encoding ------------------------------------------------------------------------

// One block's bitstream being written, from its last symbol towards its
// first: the writer, its accumulator and count, the two states and the
// positions [0, i) still to code.
struct StreamEncode {
  StreamWriter w;
  uint64_t acc;
  unsigned count;
  uint32_t state1, state2;  // state 1 carries the even positions
  size_t i;
  const uint8_t* in;
  const EncodeTable* table;
};

// Starts in[0 .. src_size), src_size >= 2, into dst; `state_last` and
// `state_prev` are the start states of the last two symbols. After it, i is
// even, and groups of four follow.
inline StreamEncode encode_open(uint8_t* dst, size_t capacity, const EncodeTable& table,
                                const uint8_t* in, size_t src_size, uint32_t state_last,
                                uint32_t state_prev) {
  const size_t k = src_size - 1;
  StreamEncode e{StreamWriter(dst, capacity), 0, 0, (k & 1) ? state_prev : state_last,
                 (k & 1) ? state_last : state_prev, src_size - 2, in, &table};
  return e;
}

__attribute__((always_inline)) inline void encode_symbol(uint64_t& acc, unsigned& count, uint32_t& state,
                                                         uint8_t s, const EncodeSymbol* sym,
                                                         const uint16_t* state_table) {
  const EncodeSymbol e = sym[s];
  const unsigned bits = (state + e.delta_bits) >> 16;
#ifdef __BMI2__
  const uint32_t low = _bzhi_u32(state, bits);  // one instruction for the mask
#else
  const uint32_t low = state & ((1u << bits) - 1);
#endif
  acc |= uint64_t(low) << count;
  count += bits;
  state = state_table[int32_t(state >> bits) + e.find_state];
}

// The writer's flush on the accumulator and count held outside it.
__attribute__((always_inline)) inline void encode_flush(StreamWriter& w, uint64_t& acc, unsigned& count) {
  w.acc = acc;
  w.count = count;
  w.flush();
  acc = w.acc;
  count = w.count;
}

// How many flushes in a row are sure to find room: a group of four symbols
// adds at most 7 + 4 * 12 bits, so a flush moves on at most 6 bytes.
inline size_t safe_flushes(const StreamWriter& w) {
  if (w.overflow || w.out > w.limit) return 0;
  return size_t(w.limit - w.out) / 6 + 1;
}

// The writer's flush where it is sure to find room.
__attribute__((always_inline)) inline void flush_unchecked(uint8_t*& out, uint64_t& acc, unsigned& count) {
  memcpy(out, &acc, 8);
  out += count >> 3;
  acc >>= count & ~7u;
  count &= 7;
}

// Symbols i-1 .. i-4 (states 2, 1, 2, 1), then a flush.
__attribute__((always_inline)) inline void encode_group(StreamEncode& e, uint64_t& acc, unsigned& count,
                                                        uint32_t& state1, uint32_t& state2, size_t i) {
  const EncodeSymbol* sym = e.table->symbol;
  const uint16_t* st = e.table->state;
  encode_symbol(acc, count, state2, e.in[i - 1], sym, st);
  encode_symbol(acc, count, state1, e.in[i - 2], sym, st);
  encode_symbol(acc, count, state2, e.in[i - 3], sym, st);
  encode_symbol(acc, count, state1, e.in[i - 4], sym, st);
  encode_flush(e.w, acc, count);
}

// The odd symbol in front of the groups, if any.
inline void encode_start(StreamEncode& e) {
  if (e.i & 1) {
    encode_symbol(e.acc, e.count, e.state1, e.in[--e.i], e.table->symbol, e.table->state);
    encode_flush(e.w, e.acc, e.count);
  }
}

// The remaining groups, the last pair, the states and the end mark: the
// stream's size, 0 if it didn't fit. The accumulator, count and states live
// in locals through the loop, so that they stay in registers.
inline size_t encode_close(StreamEncode& e) {
  uint64_t acc = e.acc;
  unsigned count = e.count;
  uint32_t state1 = e.state1, state2 = e.state2;
  size_t i = e.i;
  for (; i >= 4; i -= 4) encode_group(e, acc, count, state1, state2, i);
  if (i >= 2) {
    encode_symbol(acc, count, state2, e.in[i - 1], e.table->symbol, e.table->state);
    encode_symbol(acc, count, state1, e.in[i - 2], e.table->symbol, e.table->state);
    encode_flush(e.w, acc, count);
  }
  StreamWriter& w = e.w;
  w.acc = acc;
  w.count = count;
  w.put(state2, e.table->table_log);
  w.put(state1, e.table->table_log);
  w.flush();
  return w.close();
}

// Codes in[0 .. src_size), src_size >= 2, into dst. Returns the stream's
// size, 0 if it didn't fit.
inline size_t encode_stream(uint8_t* dst, size_t capacity, const EncodeTable& table,
                            const uint8_t* in, size_t src_size, uint32_t state_last,
                            uint32_t state_prev) {
  StreamEncode e = encode_open(dst, capacity, table, in, src_size, state_last, state_prev);
  encode_start(e);
  return encode_close(e);
}

// Blocks in two lanes: each state chain waits on its table loads, so the
// groups of two blocks run side by side while both have four symbols left;
// a lane whose block ends takes the next block that needs a bitstream.
// `plan` makes block k ready for `lane` (its table in the lane's place) and
// says whether it needs a bitstream; streams[k] gets the size of each one
// coded, as encode_stream gives it.
inline void encode_lanes(int n, EncodePlanner plan, void* context, size_t* streams) {
  StreamEncode lane[2];
  int current[2] = {-1, -1};
  int next = 0;
  auto start = [&](int l) {
    while (next < n) {
      const int k = next++;
      EncodeJob j;
      if (!plan(context, k, l, j)) continue;
      lane[l] = encode_open(j.dst, j.capacity, *j.table, j.in, j.src_size, j.state_last, j.state_prev);
      encode_start(lane[l]);
      current[l] = k;
      return true;
    }
    return false;
  };
  bool have0 = start(0), have1 = have0 && start(1);
  while (have0 && have1) {
    StreamEncode& a = lane[0];
    StreamEncode& b = lane[1];
    uint64_t acc_a = a.acc, acc_b = b.acc;
    unsigned count_a = a.count, count_b = b.count;
    uint32_t a1 = a.state1, a2 = a.state2, b1 = b.state1, b2 = b.state2;
    size_t ia = a.i, ib = b.i;
    // Runs of groups in which no flush can find its writer full: they need
    // neither the writers' limits nor their overflow flags, and the fewer
    // values the loop holds, the fewer it keeps on the stack.
    for (;;) {
      size_t groups = std::min(ia, ib) >> 2;
      groups = std::min(groups, std::min(safe_flushes(a.w), safe_flushes(b.w)));
      if (groups == 0) break;
      uint8_t* out_a = a.w.out;
      uint8_t* out_b = b.w.out;
      const uint8_t* in_a = a.in + ia;
      const uint8_t* in_b = b.in + ib;
      const EncodeTable* const ta = a.table;
      const EncodeTable* const tb = b.table;
      for (size_t g = groups; g > 0; g--) {
        in_a -= 4;
        in_b -= 4;
        encode_symbol(acc_a, count_a, a2, in_a[3], ta->symbol, ta->state);
        encode_symbol(acc_b, count_b, b2, in_b[3], tb->symbol, tb->state);
        encode_symbol(acc_a, count_a, a1, in_a[2], ta->symbol, ta->state);
        encode_symbol(acc_b, count_b, b1, in_b[2], tb->symbol, tb->state);
        encode_symbol(acc_a, count_a, a2, in_a[1], ta->symbol, ta->state);
        encode_symbol(acc_b, count_b, b2, in_b[1], tb->symbol, tb->state);
        encode_symbol(acc_a, count_a, a1, in_a[0], ta->symbol, ta->state);
        encode_symbol(acc_b, count_b, b1, in_b[0], tb->symbol, tb->state);
        flush_unchecked(out_a, acc_a, count_a);
        flush_unchecked(out_b, acc_b, count_b);
      }
      a.w.out = out_a;
      b.w.out = out_b;
      ia -= 4 * groups;
      ib -= 4 * groups;
    }
    for (; ia >= 4 && ib >= 4; ia -= 4, ib -= 4) {
      encode_group(a, acc_a, count_a, a1, a2, ia);
      encode_group(b, acc_b, count_b, b1, b2, ib);
    }
    a.acc = acc_a, a.count = count_a, a.state1 = a1, a.state2 = a2, a.i = ia;
    b.acc = acc_b, b.count = count_b, b.state1 = b1, b.state2 = b2, b.i = ib;
    if (ia < 4) {
      streams[current[0]] = encode_close(a);
      have0 = start(0);
    }
    if (ib < 4) {
      streams[current[1]] = encode_close(b);
      have1 = start(1);
    }
  }
  // One lane left, or none.
  for (int l = 0; l < 2; l++)
    if (l == 0 ? have0 : have1) streams[current[l]] = encode_close(lane[l]);
}

// ---- Decoding ------------------------------------------------------------------------

// One block's bitstream being read: the reader, the two states, the output.
struct StreamDecode {
  StreamReader r;
  uint32_t state1, state2;
  uint8_t* dst;
  uint8_t* out;
  uint8_t* end;
  const DecodeCell* table;
  unsigned log;
};

// Reads the start states; false for a stream that can't be decoded.
inline bool decode_open(StreamDecode& d, uint8_t* dst, size_t dst_capacity, const DecodeCell* table,
                        unsigned log, const uint8_t* src, size_t src_size) {
  d.r = StreamReader{};
  d.dst = d.out = dst;
  d.end = dst + dst_capacity;
  d.table = table;
  d.log = log;
  d.state1 = d.state2 = 0;
  if (!d.r.init(src, src_size)) return false;
  d.state1 = d.r.read(log);
  d.state2 = d.r.read(log);
  return !d.r.reload_overflowed();
}

// Whether the fast loop may start: room for four symbols, and far from the
// start a reload leaves at least 57 bits.
inline bool decode_can_run_fast(StreamDecode& d) { return d.end - d.out >= 4 && d.r.reload_fast(); }

// The reader's fields and the states in one place, copied to locals by the
// loops so that they stay in registers.
struct FastDecode {
  const uint8_t* start;
  const uint8_t* ptr;
  uint64_t container;
  unsigned consumed;
  uint32_t state1, state2;
  uint8_t* out;
  uint8_t* end;
};

inline FastDecode fast_from(const StreamDecode& d) {
  return {d.r.start, d.r.ptr, d.r.container, d.r.consumed, d.state1, d.state2, d.out, d.end};
}

inline void fast_back(StreamDecode& d, const FastDecode& f) {
  d.r.ptr = f.ptr;
  d.r.container = f.container;
  d.r.consumed = f.consumed;
  d.state1 = f.state1;
  d.state2 = f.state2;
  d.out = f.out;
}

__attribute__((always_inline)) inline uint8_t fast_step(FastDecode& f, uint32_t& state,
                                                        const DecodeCell* table) {
  const DecodeCell c = table[state];
  state = c.base + uint32_t(((f.container << f.consumed) >> 1) >> (63 - c.bits));
  f.consumed += c.bits;
  return c.symbol;
}

// One group of four symbols of at most 11 bits; false when the stream
// leaves the fast loop after it. The next group's reload is taken after the
// third symbol, so that its load overlaps the fourth instead of holding up
// the next group. From the position after three symbols a reload leaves at
// least 57 bits: 11 for the fourth symbol and 44 for the next group's four.
__attribute__((always_inline)) inline bool fast_group11(FastDecode& f, const DecodeCell* table) {
  const bool more = f.end - f.out >= 8 && f.ptr - f.start >= 8;
  f.out[0] = fast_step(f, f.state1, table);
  f.out[1] = fast_step(f, f.state2, table);
  f.out[2] = fast_step(f, f.state1, table);
  const uint8_t* const next = more ? f.ptr - (f.consumed >> 3) : f.ptr;
  const uint64_t next_container = load_u64(next);
  const unsigned next_consumed = f.consumed & 7;
  const unsigned before = f.consumed;
  f.out[3] = fast_step(f, f.state2, table);
  f.out += 4;
  if (!more) return false;
  f.ptr = next;
  f.container = next_container;
  f.consumed = next_consumed + (f.consumed - before);
  return true;
}

// How many groups in a row are sure to go on past their end (see
// fast_group11): a group writes 4 bytes, and the reader, which holds at most
// 18 used bits at its start, moves back at most 6 bytes after its third
// symbol.
inline size_t sure_groups(const FastDecode& f) {
  const ptrdiff_t data = f.ptr - f.start, room = f.end - f.out;
  if (data < 8 || room < 8) return 0;
  return std::min(size_t(data - 8) / 6, size_t(room - 8) / 4) + 1;
}

// The fast loop of a stream that may run it (decode_can_run_fast).
inline void decode_fast(StreamDecode& d) {
  const DecodeCell* const table = d.table;
  FastDecode f = fast_from(d);
  if (d.log <= 11) {
    while (fast_group11(f, table)) {
    }
  } else {
    for (;;) {
      f.out[0] = fast_step(f, f.state1, table);
      f.out[1] = fast_step(f, f.state2, table);
      f.out[2] = fast_step(f, f.state1, table);
      f.out[3] = fast_step(f, f.state2, table);
      f.out += 4;
      if (!(f.end - f.out >= 4 && f.ptr - f.start >= 8)) break;
      f.ptr -= f.consumed >> 3;
      f.consumed &= 7;
      f.container = load_u64(f.ptr);
    }
  }
  fast_back(d, f);
}

// Symbol by symbol to the end: the decoded size, or an error. `after_fast`
// says the fast loop ran.
inline int64_t decode_close(StreamDecode& d, bool after_fast) {
  StreamReader& r = d.r;
  // The same position with the fewest bits used before the symbol-by-symbol
  // end: up to 62 bits may be used here, too few left for another symbol.
  // With at most 64 used, this never reports an overflow.
  if (after_fast) r.reload_overflowed();
  const DecodeCell* const table = d.table;
  uint8_t* out = d.out;
  uint8_t* const end = d.end;
  uint32_t state1 = d.state1, state2 = d.state2;
  auto step = [&](uint32_t& state) {
    DecodeCell c = table[state];
    state = c.base + r.read(c.bits);
    return c.symbol;
  };
  for (;;) {
    if (out == end) return fse_error(FSE_ERROR_DESTINATION_TOO_SMALL);
    *out++ = step(state1);
    if (r.reload_overflowed()) {
      if (out == end) return fse_error(FSE_ERROR_DESTINATION_TOO_SMALL);
      *out++ = table[state2].symbol;
      break;
    }
    if (out == end) return fse_error(FSE_ERROR_DESTINATION_TOO_SMALL);
    *out++ = step(state2);
    if (r.reload_overflowed()) {
      if (out == end) return fse_error(FSE_ERROR_DESTINATION_TOO_SMALL);
      *out++ = table[state1].symbol;
      break;
    }
  }
  return int64_t(out - d.dst);
}

// Decodes a block's bitstream into dst: the decoded size, or an error.
inline int64_t decode_stream(uint8_t* dst, size_t dst_capacity, const DecodeCell* table,
                             unsigned log, const uint8_t* src, size_t src_size) {
  StreamDecode d;
  if (!decode_open(d, dst, dst_capacity, table, log, src, src_size))
    return fse_error(FSE_ERROR_CORRUPT);
  const bool fast = decode_can_run_fast(d);
  if (fast) decode_fast(d);
  return decode_close(d, fast);
}

// Blocks in two lanes: both fast loops run side by side, four states and
// two readers, while both go on; a lane whose block leaves its fast loop
// ends that block alone and takes the next. `open` reads block k's header
// and builds its table in the lane's place, or sets results[k] to its error.
// The results are those of decode_stream on each block.
inline void decode_lanes(int n, DecodeOpener open, void* context, int64_t* results) {
  StreamDecode lane[2];
  int current[2] = {-1, -1};
  int next = 0;
  // A lane's next block that runs the fast loop of at most 11 bits; the
  // others are decoded on the spot.
  auto start = [&](int l) {
    while (next < n) {
      const int k = next++;
      DecodeJob j;
      if (!open(context, k, l, j, results[k])) continue;
      StreamDecode& d = lane[l];
      if (!decode_open(d, j.dst, j.dst_capacity, j.table, j.log, j.src, j.src_size)) {
        results[k] = fse_error(FSE_ERROR_CORRUPT);
        continue;
      }
      const bool fast = decode_can_run_fast(d);
      if (fast && d.log <= 11) {
        current[l] = k;
        return true;
      }
      if (fast) decode_fast(d);
      results[k] = decode_close(d, fast);
    }
    return false;
  };
  bool have0 = start(0), have1 = have0 && start(1);
  while (have0 && have1) {
    FastDecode fa = fast_from(lane[0]), fb = fast_from(lane[1]);
    const DecodeCell* const ta = lane[0].table;
    const DecodeCell* const tb = lane[1].table;
    // Runs of groups in which neither stream can leave the fast loop: they
    // need no test per group, and hold fewer values.
    for (;;) {
      const size_t groups = std::min(sure_groups(fa), sure_groups(fb));
      if (groups == 0) break;
      const uint8_t* ptr_a = fa.ptr;
      const uint8_t* ptr_b = fb.ptr;
      uint64_t container_a = fa.container, container_b = fb.container;
      unsigned consumed_a = fa.consumed, consumed_b = fb.consumed;
      uint32_t a1 = fa.state1, a2 = fa.state2, b1 = fb.state1, b2 = fb.state2;
      uint8_t* out_a = fa.out;
      uint8_t* out_b = fb.out;
      auto step = [](uint32_t& state, uint64_t container, unsigned& consumed, const DecodeCell* table) {
        const DecodeCell c = table[state];
        state = c.base + uint32_t(((container << consumed) >> 1) >> (63 - c.bits));
        consumed += c.bits;
        return c.symbol;
      };
      for (size_t g = groups; g > 0; g--) {
        out_a[0] = step(a1, container_a, consumed_a, ta);
        out_b[0] = step(b1, container_b, consumed_b, tb);
        out_a[1] = step(a2, container_a, consumed_a, ta);
        out_b[1] = step(b2, container_b, consumed_b, tb);
        out_a[2] = step(a1, container_a, consumed_a, ta);
        out_b[2] = step(b1, container_b, consumed_b, tb);
        const uint8_t* const next_a = ptr_a - (consumed_a >> 3);
        const uint8_t* const next_b = ptr_b - (consumed_b >> 3);
        const uint64_t next_container_a = load_u64(next_a), next_container_b = load_u64(next_b);
        const unsigned before_a = consumed_a, before_b = consumed_b;
        out_a[3] = step(a2, container_a, consumed_a, ta);
        out_b[3] = step(b2, container_b, consumed_b, tb);
        out_a += 4;
        out_b += 4;
        ptr_a = next_a;
        ptr_b = next_b;
        container_a = next_container_a;
        container_b = next_container_b;
        consumed_a = (before_a & 7) + (consumed_a - before_a);
        consumed_b = (before_b & 7) + (consumed_b - before_b);
      }
      fa.ptr = ptr_a, fa.container = container_a, fa.consumed = consumed_a, fa.state1 = a1, fa.state2 = a2;
      fa.out = out_a;
      fb.ptr = ptr_b, fb.container = container_b, fb.consumed = consumed_b, fb.state1 = b1, fb.state2 = b2;
      fb.out = out_b;
    }
    bool go_a, go_b;
    do {
      go_a = fast_group11(fa, ta);
      go_b = fast_group11(fb, tb);
    } while (go_a & go_b);
    fast_back(lane[0], fa);
    fast_back(lane[1], fb);
    if (!go_a) {
      results[current[0]] = decode_close(lane[0], true);
      have0 = start(0);
    }
    if (!go_b) {
      results[current[1]] = decode_close(lane[1], true);
      have1 = start(1);
    }
  }
  // One lane left, or none: it goes on alone, as it would have.
  for (int l = 0; l < 2; l++)
    if (l == 0 ? have0 : have1) {
      decode_fast(lane[l]);
      results[current[l]] = decode_close(lane[l], true);
    }
}

}  // namespace
