// The FSE coder's tables and its two stream loops, shared by fse.cpp and
// fse_avx2.cpp. The decoding loop is compiled once for the baseline processor
// and once with BMI2, whose flag-free shifts free the register the baseline
// spills; all code here is internal to each file that includes it, so the two
// builds never mix.
#pragma once

#include <cstring>

#include "storage/codec.h"

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
  uint16_t state[1u << FSE_MAX_TABLELOG];  // states in [size, 2 * size), by symbol
  EncodeSymbol symbol[FSE_MAX_SYMBOL_VALUE + 1];
};

namespace {

inline unsigned highbit32(uint32_t v) { return 31u - unsigned(__builtin_clz(v)); }

inline int64_t fse_error(FseErrorCode code) { return -int64_t(code); }

inline uint64_t load_u64(const uint8_t* p) {
  uint64_t v;
  memcpy(&v, p, 8);
  return v;
}

// ---- Bitstream, backward reading ----------------------------------------------------

// Writes forwards in 64-bit steps; the decoder reads the result from its end.
struct StreamWriter {
  uint8_t* start;
  uint8_t* out;
  uint8_t* limit;  // last position where a whole 8-byte store still fits
  uint64_t acc = 0;
  unsigned count = 0;
  bool overflow = false;
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


// Codes in[0 .. src_size), src_size >= 2, into dst; `state_last` and
// `state_prev` are the start states of the last two symbols. Returns the
// stream's size, 0 if it didn't fit.
inline size_t encode_stream(uint8_t* dst, size_t capacity, const EncodeTable& table,
                            const uint8_t* in, size_t src_size, uint32_t state_last,
                            uint32_t state_prev) {
  const uint16_t* state_table = table.state;
  const EncodeSymbol* sym = table.symbol;
  const unsigned log = table.table_log;
  StreamWriter w(dst, capacity);
  // The writer's accumulator and count stay in locals through the loop; its
  // overflow test runs once per four symbols.
  uint64_t acc = 0;
  unsigned count = 0;
  auto encode = [&](uint32_t& state, uint8_t s) {
    const EncodeSymbol e = sym[s];
    const unsigned bits = (state + e.delta_bits) >> 16;
    acc |= uint64_t(state & ((1u << bits) - 1)) << count;
    count += bits;
    state = state_table[int32_t(state >> bits) + e.find_state];
  };
  auto flush = [&] {
    w.acc = acc;
    w.count = count;
    w.flush();
    acc = w.acc;
    count = w.count;
  };
  // State 1 carries the even positions. Copies, not references to the
  // arguments: the states must live in registers.
  const size_t k = src_size - 1;
  uint32_t state1 = (k & 1) ? state_prev : state_last;
  uint32_t state2 = (k & 1) ? state_last : state_prev;
  size_t i = src_size - 2;  // positions [0, i) remain
  if (i & 1) {
    encode(state1, in[--i]);  // position i is even
    flush();
  }
  // Now i is even: pairs (i-1: state 2, i-2: state 1).
  for (; i >= 4; i -= 4) {
    encode(state2, in[i - 1]);
    encode(state1, in[i - 2]);
    encode(state2, in[i - 3]);
    encode(state1, in[i - 4]);
    flush();
  }
  if (i >= 2) {
    encode(state2, in[i - 1]);
    encode(state1, in[i - 2]);
    flush();
  }
  w.acc = acc;
  w.count = count;
  w.put(state2, log);
  w.put(state1, log);
  w.flush();
  return w.close();
}

// Decodes a block's bitstream into dst: the decoded size, or an error.
inline int64_t decode_stream(uint8_t* dst, size_t dst_capacity, const DecodeCell* table,
                             unsigned log, const uint8_t* src, size_t src_size) {
  StreamReader r;
  if (!r.init(src, src_size)) return fse_error(FSE_ERROR_corruptionDetected);
  uint8_t* out = dst;
  uint8_t* const end = out + dst_capacity;
  uint32_t state1 = r.read(log);
  uint32_t state2 = r.read(log);
  if (r.reload_overflowed()) return fse_error(FSE_ERROR_corruptionDetected);

  auto step = [&](uint32_t& state) {
    DecodeCell c = table[state];
    state = c.base + r.read(c.bits);
    return c.symbol;
  };
  // Far from the start a reload leaves at least 57 bits: four symbols.
  if (end - out >= 4 && r.reload_fast()) {
    // The reader's fields in locals, so that they stay in registers.
    const uint8_t* const start = r.start;
    const uint8_t* ptr = r.ptr;
    uint64_t container = r.container;
    unsigned consumed = r.consumed;
    auto fast_step = [&](uint32_t& state) {
      const DecodeCell c = table[state];
      state = c.base + uint32_t(((container << consumed) >> 1) >> (63 - c.bits));
      consumed += c.bits;
      return c.symbol;
    };
    if (log <= 11) {
      // Symbols of at most 11 bits: the next group's reload is taken after the
      // third symbol, so that its load overlaps the fourth instead of holding
      // up the next group. From the position after three symbols a reload
      // leaves at least 57 bits: 11 for the fourth symbol and 44 for the next
      // group's four.
      for (;;) {
        const bool more = end - out >= 8 && ptr - start >= 8;
        out[0] = fast_step(state1);
        out[1] = fast_step(state2);
        out[2] = fast_step(state1);
        const uint8_t* const next = more ? ptr - (consumed >> 3) : ptr;
        const uint64_t next_container = load_u64(next);
        const unsigned next_consumed = consumed & 7;
        const unsigned before = consumed;
        out[3] = fast_step(state2);
        out += 4;
        if (!more) break;
        ptr = next;
        container = next_container;
        consumed = next_consumed + (consumed - before);
      }
    } else {
      for (;;) {
        out[0] = fast_step(state1);
        out[1] = fast_step(state2);
        out[2] = fast_step(state1);
        out[3] = fast_step(state2);
        out += 4;
        if (!(end - out >= 4 && ptr - start >= 8)) break;
        ptr -= consumed >> 3;
        consumed &= 7;
        container = load_u64(ptr);
      }
    }
    r.ptr = ptr;
    r.container = container;
    r.consumed = consumed;
    // The same position with the fewest bits used before the symbol-by-symbol
    // end: up to 62 bits may be used here, too few left for another symbol.
    // With at most 64 used, this never reports an overflow.
    r.reload_overflowed();
  }
  for (;;) {
    if (out == end) return fse_error(FSE_ERROR_dstSize_tooSmall);
    *out++ = step(state1);
    if (r.reload_overflowed()) {
      if (out == end) return fse_error(FSE_ERROR_dstSize_tooSmall);
      *out++ = table[state2].symbol;
      break;
    }
    if (out == end) return fse_error(FSE_ERROR_dstSize_tooSmall);
    *out++ = step(state2);
    if (r.reload_overflowed()) {
      if (out == end) return fse_error(FSE_ERROR_dstSize_tooSmall);
      *out++ = table[state1].symbol;
      break;
    }
  }
  return int64_t(out - dst);
}

}  // namespace

// The decoding loop built with BMI2 (fse_avx2.cpp); only for processors that have it.
int64_t fse_decode_stream_bmi2(uint8_t* dst, size_t dst_capacity, const DecodeCell* table,
                               unsigned log, const uint8_t* src, size_t src_size);
// The encoding loop built with BMI2 (fse_avx2.cpp).
size_t fse_encode_stream_bmi2(uint8_t* dst, size_t capacity, const EncodeTable& table,
                              const uint8_t* in, size_t src_size, uint32_t state_last,
                              uint32_t state_prev);
