// FseCodec: transformed rows split into 24 byte channels that are staged in
// 65536-byte blocks and FSE-coded a whole block at a time, so the row loop
// itself does no entropy coding.
//
// Channel roles:
//   0       after the CodecId, one byte per row: uses_reference
//   1       one byte per group of eight values: bit i set if value i isn't
//           zero (a last shorter group has its own byte)
//   2..17   non-zero values less one, channel 2 + context, or 255 as escape;
//           the context is the previous non-zero value less one of the row,
//           cut to 15, and 0 at the row's start
//   18, 19  low and high byte of an escaped value, or 255, 255 to escape again
//   20..23  the four bytes of a doubly escaped value, low byte first
// Each channel is a sequence of blocks: source_size (32 bits), coded_size (32
// bits, the result of fse_compress), then coded_size bytes if coded_size > 1,
// one byte repeated source_size times if coded_size is 1, and source_size raw
// bytes otherwise (0, or an error code).
#include <nmmintrin.h>

#include <algorithm>
#include <cstring>

#include "storage/memory/allocation.h"
#include "storage/memory/fatal.h"
#include "storage/codec/codec.h"
#include "storage/codec/codec_isa.h"
#include "storage/codec/fse.h"

namespace {

constexpr uint32_t BlockBytes = 65536;
// Channel buffers carry a few bytes beyond a block, so that the value loop can
// read the next escape bytes before it knows it needs them.
constexpr uint32_t BufferBytes = BlockBytes + 16;
// Where every read cursor points before its channel's first block.
alignas(16) const uint8_t NoBytes[16] = {};
constexpr size_t CodedBytes = fse_compress_bound(BlockBytes);

[[noreturn]] void fse_failure() { storage_fatal_line("fse error\n"); }

uint8_t* allocate(size_t bytes) {
  void* p = aligned_alloc_bytes(bytes, RowAlignment);
  if (!p) storage_fatal("out of memory");
  return static_cast<uint8_t*>(p);
}

inline void put_u32(uint8_t* p, uint32_t v) { memcpy(p, &v, 4); }

// A decoded value as the value stage keeps it: the transformed value, or for
// 16-bit rows with AVX2 its low 16 bits un-zigzagged, which is all the prefix
// sum of a 16-bit row needs.
inline void keep(uint32_t* p, uint32_t t) { *p = t; }
inline void keep(uint16_t* p, uint32_t t) { *p = uint16_t(unzigzag32(t)); }
inline uint32_t get_u32(const uint8_t* p) {
  uint32_t v;
  memcpy(&v, p, 4);
  return v;
}

// Non-zero lanes of eight values as a bit mask.
inline unsigned nonzero_mask8(const uint32_t* v) {
  __m128i z = _mm_setzero_si128();
  __m128i a = _mm_cmpeq_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(v)), z);
  __m128i b = _mm_cmpeq_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(v + 4)), z);
  unsigned zero = unsigned(_mm_movemask_ps(_mm_castsi128_ps(a))) |
                  unsigned(_mm_movemask_ps(_mm_castsi128_ps(b))) << 4;
  return ~zero & 0xff;
}

class FseEncoder final : public RowEncoder {
 public:
  explicit FseEncoder(ChannelSink s) : sink(s) {
    // A full count makes the first push allocate the buffer.
    for (uint32_t& f : fill) f = BlockBytes;
  }

  ~FseEncoder() override {
    flush_all();
    for (uint8_t* b : staged) aligned_free_bytes(b);
    aligned_free_bytes(coded);
  }

  void encode(const uint32_t* t, int count, bool uses_reference) override {
    if (count > MaxRowValues) storage_fatal("row too long");
    push(0, uses_reference ? 1 : 0);
    if (count <= 0) return;
    // The row's masks go first, straight into channel 1's block when they fit;
    // each channel keeps its own order, so the bytes are those of a pass that
    // alternates masks and values.
    const int groups = (count + 7) >> 3, full = count >> 3;
    uint8_t spare[MaxRowValues / 8 + 1];
    const bool in_place = BlockBytes - fill[1] >= uint32_t(groups);
    uint8_t* masks = in_place ? staged[1] + fill[1] : spare;
    for (int g = 0; g < full; g++) masks[g] = uint8_t(nonzero_mask8(t + 8 * g));
    if (full < groups) {
      unsigned mask = 0;
      for (int j = 0; 8 * full + j < count; j++) mask |= unsigned(t[8 * full + j] != 0) << j;
      masks[full] = uint8_t(mask);
    }
    if (in_place)
      fill[1] += uint32_t(groups);
    else
      for (int g = 0; g < groups; g++) push(1, spare[g]);
    // The values go through a dense list of the non-zero ones, so that the
    // loop below runs once per value with no branch on where the zeros are.
    // values[-1] reads as 1: the first value's context is 0.
    const CodecKernels& k = codec_kernels();
    uint32_t dense[MaxRowValues + 16];
    dense[0] = 1;
    uint32_t* values = dense + 1;
    int n = k.compact_groups(values, t, masks, full);
    for (int i = 8 * full; i < count; i++) {
      values[n] = t[i];
      n += t[i] != 0;
    }
    if (n == 0) return;
    if (!room_for(n + 8))
      push_values_checked(values, n);
    else if (!k.split_values || !push_split(k, values, n))
      push_values(values, n);
  }

 private:
  // Whether every channel a row of n values can touch, short of the four of
  // a double escape, has room for n more bytes in its present block.
  bool room_for(int n) const {
    uint32_t least = BlockBytes;
    for (int c = 2; c <= 19; c++) least = std::min(least, BlockBytes - fill[c]);
    return int(least) >= n;
  }

  // The value loop when no block can fill up: write cursors live in
  // registers and an escape moves the cursors of channels 18 and 19 by a
  // flag instead of a branch. The context of a value is the previous byte of
  // the context channels cut to 15, which an escape's 255 gives as well.
  void push_values(const uint32_t* values, int n) {
    uint8_t* at[16];
    for (int c = 0; c < 16; c++) at[c] = staged[2 + c] + fill[2 + c];
    uint8_t* low = staged[18] + fill[18];
    uint8_t* high = staged[19] + fill[19];
    unsigned context = 0;
    for (int i = 0; i < n; i++) {
      const uint32_t v = values[i] - 1;
      const uint32_t escape = v >= 255;
      const uint8_t b = escape ? 255 : uint8_t(v);
      *at[context]++ = b;
      if (__builtin_expect(v >= 65535, 0)) {
        fill[18] = uint32_t(low - staged[18]);
        fill[19] = uint32_t(high - staged[19]);
        push_double_escape(v);
        low = staged[18] + fill[18];
        high = staged[19] + fill[19];
      } else {
        *low = uint8_t(v);
        *high = uint8_t(v >> 8);
        low += escape;
        high += escape;
      }
      context = b < 15 ? b : 15;
    }
    for (int c = 0; c < 16; c++) fill[2 + c] = uint32_t(at[c] - staged[2 + c]);
    fill[18] = uint32_t(low - staged[18]);
    fill[19] = uint32_t(high - staged[19]);
  }

  // With a vector form: the context-15 bytes and the escape bytes leave by
  // vector stores, and only the values of other contexts go one by one. False
  // for a row with a double escape, which then takes the scalar loop.
  bool push_split(const CodecKernels& k, const uint32_t* values, int n) {
    uint8_t other_context[MaxRowValues + 8], other_byte[MaxRowValues + 8];
    int counts[4];
    if (!k.split_values(values, n, staged[17] + fill[17], staged[18] + fill[18], staged[19] + fill[19],
                           other_context, other_byte, counts))
      return false;
    fill[17] += uint32_t(counts[0]);
    fill[18] += uint32_t(counts[1]);
    fill[19] += uint32_t(counts[1]);
    uint8_t* at[16];
    for (int c = 0; c < 15; c++) at[c] = staged[2 + c] + fill[2 + c];
    for (int k = 0; k < counts[2]; k++) *at[other_context[k]]++ = other_byte[k];
    for (int c = 0; c < 15; c++) fill[2 + c] = uint32_t(at[c] - staged[2 + c]);
    return true;
  }

  // The same bytes, one push at a time, for a row that may fill a block.
  void push_values_checked(const uint32_t* values, int n) {
    unsigned context = 0;
    for (int i = 0; i < n; i++) {
      const uint32_t v = values[i] - 1;
      if (v < 255) {
        push(2 + int(context), uint8_t(v));
        context = v < 16 ? v : 15;
        continue;
      }
      push(2 + int(context), 255);
      context = 15;
      if (v < 65535) {
        push(18, uint8_t(v));
        push(19, uint8_t(v >> 8));
      } else {
        push_double_escape(v);
      }
    }
  }

  // 255, 255 in channels 18 and 19, then the value's four bytes.
  void push_double_escape(uint32_t v) {
    push(18, 255);
    push(19, 255);
    for (int b = 0; b < 4; b++) push(20 + b, uint8_t(v >> (8 * b)));
  }

  ChannelSink sink;
  uint8_t* staged[CodecChannelCount] = {};
  uint32_t fill[CodecChannelCount];
  uint8_t* coded = nullptr;

  inline void push(int c, uint8_t b) {
    if (fill[c] == BlockBytes) make_room(c);
    staged[c][fill[c]++] = b;
  }

  void make_room(int c) {
    if (staged[c])
      cut_block(c);
    else
      staged[c] = allocate(BlockBytes);
    fill[c] = 0;
  }

  void cut_block(int c) {
    if (!coded) coded = allocate(CodedBytes);
    const uint32_t size = fill[c];
    write_block(c, fse_compress(coded, CodedBytes, staged[c], size), coded);
  }

  // The block's head, then its coded bytes, its one byte or its raw bytes.
  void write_block(int c, int64_t r, const uint8_t* coded_bytes) {
    const uint32_t size = fill[c];
    uint8_t head[8];
    put_u32(head, size);
    put_u32(head + 4, uint32_t(int32_t(r)));
    sink.write(sink.context, c, head, 8);
    if (r > 1)
      sink.write(sink.context, c, coded_bytes, size_t(r));
    else if (r == 1)
      sink.write(sink.context, c, staged[c], 1);
    else
      sink.write(sink.context, c, staged[c], size);
    fill[c] = 0;
  }

  // The last blocks of all channels, coded two at a time from the largest
  // down (fse_compress_blocks), then written in channel order. Each channel's
  // coded bytes get the bound of its own size: a block that is kept coded
  // fits in it, so the results are those of cut_block's larger room.
  void flush_all() {
    int order[CodecChannelCount];
    int n = 0;
    size_t offset[CodecChannelCount + 1] = {};
    for (int c = 0; c < CodecChannelCount; c++) {
      offset[c + 1] = offset[c];
      if (!staged[c] || fill[c] == 0) continue;
      order[n++] = c;
      offset[c + 1] += fse_compress_bound(fill[c]);
    }
    if (n == 0) return;
    uint8_t* area = allocate(offset[CodecChannelCount]);
    std::sort(order, order + n, [&](int a, int b) { return fill[a] > fill[b] || (fill[a] == fill[b] && a < b); });
    FseBlock blocks[CodecChannelCount];
    for (int k = 0; k < n; k++) {
      const int c = order[k];
      blocks[k] = {area + offset[c], fse_compress_bound(fill[c]), staged[c], fill[c]};
    }
    int64_t sorted[CodecChannelCount], result[CodecChannelCount];
    fse_compress_blocks(blocks, n, sorted);
    for (int k = 0; k < n; k++) result[order[k]] = sorted[k];
    for (int c = 0; c < CodecChannelCount; c++)
      if (staged[c] && fill[c] > 0) write_block(c, result[c], area + offset[c]);
    aligned_free_bytes(area);
  }
};

class FseDecoder final : public RowDecoder {
 public:
  explicit FseDecoder(ChannelSource s) : source(s) {
    for (int c = 0; c < CodecChannelCount; c++) cursor[c] = end[c] = NoBytes;
  }

  ~FseDecoder() override {
    for (uint8_t* b : buffer) aligned_free_bytes(b);
    aligned_free_bytes(coded);
    aligned_free_bytes(first_coded);
  }

  void decode32(uint32_t* row, const uint32_t* reference, int count) override { decode(row, reference, count); }
  void decode16(uint16_t* row, const uint16_t* reference, int count) override { decode(row, reference, count); }

  bool handles_reference() const override { return true; }

 private:
  ChannelSource source;
  uint8_t* buffer[CodecChannelCount] = {};
  // Read cursor and end of each channel's current block; equal when a refill
  // is due. Pointers rather than counts, so that stores of decoded values
  // can't be taken as changing them.
  const uint8_t* cursor[CodecChannelCount];
  const uint8_t* end[CodecChannelCount];
  uint8_t* coded = nullptr;

  inline uint8_t get(int c) {
    if (cursor[c] == end[c]) refill(c);
    return *cursor[c]++;
  }

  void read_exact(int c, uint8_t* dst, size_t n) {
    if (source.read(source.context, c, dst, n) != n) fse_failure();
  }

  // Context channel k (channel 2 + k) is read two bytes ahead: the chain
  // from one value to the next is then one load of a byte already fetched,
  // not the load of a cursor and then of the byte it points at.
  uint32_t ahead_first[16] = {}, ahead_second[16] = {};
  int32_t ahead_count[16] = {};

  // Brings channel k's bytes ahead up to two where the channel has them; a
  // byte that is needed and missing ends the process.
  void top_up(unsigned k) {
    const int c = 2 + int(k);
    while (ahead_count[k] < 2) {
      if (cursor[c] == end[c] && !refill_if_any(c)) break;
      const uint32_t b = *cursor[c]++;
      (ahead_count[k] == 0 ? ahead_first[k] : ahead_second[k]) = b;
      ahead_count[k]++;
    }
    if (ahead_count[k] == 0) fse_failure();
  }

  inline uint32_t take(unsigned k) {
    if (__builtin_expect(ahead_count[k] != 2, 0)) {
      top_up(k);
      if (ahead_count[k] == 1) {
        ahead_count[k] = 0;
        return ahead_first[k];
      }
    }
    const uint32_t b = ahead_first[k];
    ahead_first[k] = ahead_second[k];
    const int c = 2 + int(k);
    if (__builtin_expect(cursor[c] == end[c], 0) && !refill_if_any(c)) {
      ahead_count[k] = 1;
      return b;
    }
    ahead_second[k] = *cursor[c]++;
    return b;
  }

  // The first blocks of all channels are read at the first refill of any, so
  // that their bitstreams can be decoded two at a time. A block read that way
  // waits in its buffer until its channel asks for it; a block found bad
  // waits as a failure, so that the process ends where it would have ended
  // had the block been read then.
  enum : uint8_t { Nothing, Waiting, Bad };
  bool first_read = false;
  uint8_t first_block[CodecChannelCount] = {};
  uint32_t first_size[CodecChannelCount] = {};
  uint8_t* first_coded = nullptr;

  void read_first_blocks() {
    first_read = true;
    int32_t coded_size[CodecChannelCount] = {};
    size_t offset[CodecChannelCount + 1] = {};
    int order[CodecChannelCount];
    int n = 0;
    for (int c = 0; c < CodecChannelCount; c++) {
      offset[c + 1] = offset[c];
      uint8_t head[8];
      const size_t got = source.read(source.context, c, head, 8);
      if (got == 0) continue;  // no block: the channel's refill says so itself
      first_block[c] = Bad;
      if (got != 8) continue;
      const uint32_t source_size = get_u32(head);
      coded_size[c] = int32_t(get_u32(head + 4));
      if (!head_fits(source_size, coded_size[c])) continue;
      block_buffer(c);
      first_size[c] = source_size;
      if (coded_size[c] > 1) {
        order[n++] = c;
        offset[c + 1] += size_t(coded_size[c]);
        first_block[c] = Waiting;
      } else if (read_plain(c, source_size, coded_size[c])) {
        first_block[c] = Waiting;
      }
    }
    if (n == 0) return;
    first_coded = allocate(offset[CodecChannelCount]);
    int ready = 0;
    for (int k = 0; k < n; k++) {
      const int c = order[k];
      const size_t size = size_t(coded_size[c]);
      if (source.read(source.context, c, first_coded + offset[c], size) != size)
        first_block[c] = Bad;
      else
        order[ready++] = c;
    }
    // Longest first: the decoding loop runs once per source byte.
    std::sort(order, order + ready,
              [&](int a, int b) { return first_size[a] > first_size[b] || (first_size[a] == first_size[b] && a < b); });
    FseBlock blocks[CodecChannelCount];
    for (int k = 0; k < ready; k++) {
      const int c = order[k];
      blocks[k] = {buffer[c], BlockBytes, first_coded + offset[c], size_t(coded_size[c])};
    }
    int64_t results[CodecChannelCount];
    fse_decompress_blocks(blocks, ready, results);
    for (int k = 0; k < ready; k++)
      if (results[k] != int64_t(first_size[order[k]])) first_block[order[k]] = Bad;
  }

  // Hands over a first block read ahead: true if there was one.
  bool take_first_block(int c) {
    if (first_block[c] == Nothing) return false;
    if (first_block[c] == Bad) fse_failure();
    first_block[c] = Nothing;
    cursor[c] = buffer[c];
    end[c] = buffer[c] + first_size[c];
    return true;
  }

  // Loads the channel's next block, or says there is none.
  bool refill_if_any(int c) {
    if (__builtin_expect(!first_read, 0)) read_first_blocks();
    if (take_first_block(c)) return true;
    uint8_t head[8];
    const size_t got = source.read(source.context, c, head, 8);
    if (got == 0) return false;
    if (got != 8) fse_failure();
    load_block(c, head);
    return true;
  }

  void refill(int c) {
    if (!refill_if_any(c)) fse_failure();
  }

  // Whether a block head's sizes can be those of a block.
  static bool head_fits(uint32_t source_size, int32_t coded_size) {
    return source_size > 0 && source_size <= BlockBytes && (coded_size <= 1 || size_t(coded_size) <= CodedBytes);
  }

  // The channel's block buffer, made on first use; its slack reads as zeros.
  uint8_t* block_buffer(int c) {
    if (!buffer[c]) {
      buffer[c] = allocate(BufferBytes);
      memset(buffer[c] + BlockBytes, 0, BufferBytes - BlockBytes);
    }
    return buffer[c];
  }

  // A block stored as one repeated byte or raw, into the channel's buffer;
  // false if the source runs short.
  bool read_plain(int c, uint32_t source_size, int32_t coded_size) {
    uint8_t* b = block_buffer(c);
    if (coded_size == 1) {
      uint8_t v;
      if (source.read(source.context, c, &v, 1) != 1) return false;
      memset(b, v, source_size);
      return true;
    }
    return source.read(source.context, c, b, source_size) == source_size;
  }

  void load_block(int c, const uint8_t* head) {
    const uint32_t source_size = get_u32(head);
    const int32_t coded_size = int32_t(get_u32(head + 4));
    if (!head_fits(source_size, coded_size)) fse_failure();
    if (coded_size > 1) {
      if (!coded) coded = allocate(CodedBytes);
      read_exact(c, coded, size_t(coded_size));
      int64_t r = fse_decompress(block_buffer(c), BlockBytes, coded, size_t(coded_size));
      if (r != int64_t(source_size)) fse_failure();
    } else if (!read_plain(c, source_size, coded_size)) {
      fse_failure();
    }
    cursor[c] = buffer[c];
    end[c] = buffer[c] + source_size;
  }

  // Channel 1's masks of a row's `groups` groups of eight: read in place when
  // the current block holds them all, else gathered into `spare`.
  const uint8_t* take_masks(int groups, uint8_t* spare) {
    if (end[1] - cursor[1] >= groups) {
      const uint8_t* p = cursor[1];
      cursor[1] += groups;
      return p;
    }
    for (int g = 0; g < groups; g++) spare[g] = get(1);
    return spare;
  }

  // The row's non-zero values, in order, into values[0 .. n). One pass per
  // value with the context chain as its only dependency: the bytes of
  // channels 18 and 19 are read ahead and taken by a flag (1 for an escape,
  // computed so that no branch stands on it). When both channels hold n more
  // bytes in their blocks, as nearly always, their cursors move as one index
  // and only a double escape leaves the straight path.
  template <typename V>
  void decode_dense(V* values, int n) {
    if (end[18] - cursor[18] < n || end[19] - cursor[19] < n) return decode_dense_checked(values, n);
    const uint8_t* low = cursor[18];
    const uint8_t* high = cursor[19];
    uint32_t escapes = 0;
    unsigned context = 0;
    for (int i = 0; i < n; i++) {
      const uint32_t b = take(context);
      context = b < 15 ? b : 15;
      const uint32_t escape = (b + 1) >> 8;
      const uint32_t wide = uint32_t(low[escapes]) | uint32_t(high[escapes]) << 8;
      if (__builtin_expect(escape & uint32_t(wide == 0xffff), 0)) {
        cursor[18] = low + escapes + 1;
        cursor[19] = high + escapes + 1;
        keep(values + i, wide_escape() + 1);
        return decode_dense_checked(values + i + 1, n - i - 1, context);
      }
      escapes += escape;
      const uint32_t take = 0u - escape;
      keep(values + i, ((wide & take) | (b & ~take)) + 1);
    }
    cursor[18] = low + escapes;
    cursor[19] = high + escapes;
  }

  // The four bytes of a doubly escaped value.
  uint32_t wide_escape() {
    uint32_t v = get(20);
    v |= uint32_t(get(21)) << 8;
    v |= uint32_t(get(22)) << 16;
    v |= uint32_t(get(23)) << 24;
    return v;
  }

  // The same values with every channel read checked, from `context` on.
  template <typename V>
  void decode_dense_checked(V* values, int n, unsigned context = 0) {
    for (int i = 0; i < n; i++) {
      const uint32_t b = take(context);
      context = b < 15 ? b : 15;
      uint32_t v = b;
      if (b == 255) {
        v = get(18);
        v |= uint32_t(get(19)) << 8;
        if (v == 0xffff) v = wide_escape();
      }
      keep(values + i, v + 1);
    }
  }

  // Entropy stage, then the inverse transform. With a vector form the dense
  // values go into the prefix sum group by group, without a row of them between.
  template <typename T>
  void decode(T* row, const T* reference, int count) {
    if (count > MaxRowValues) storage_fatal("row too long");
    const bool uses_reference = get(0) != 0;
    if (count <= 0) return;
    const int groups = (count + 7) >> 3;
    uint8_t spare[MaxRowValues / 8 + 8];
    const uint8_t* masks = take_masks(groups, spare);
    // Bits of a last shorter group beyond the row are ignored.
    if (8 * groups > count) {
      if (masks != spare) {
        memcpy(spare, masks, size_t(groups));
        masks = spare;
      }
      spare[groups - 1] &= uint8_t((1u << (count - 8 * (groups - 1))) - 1);
    }
    int n = 0;
    for (int g = 0; g < groups; g++) n += __builtin_popcount(masks[g]);
    const CodecKernels& k = codec_kernels();
    if constexpr (sizeof(T) == 2) {
      if (k.untransform_diffs16) {
        uint16_t diffs[MaxRowValues + 16];
        decode_dense(diffs, n);
        k.untransform_diffs16(row, reference, diffs, masks, count, uses_reference);
        return;
      }
    }
    uint32_t values[MaxRowValues + 8];
    decode_dense(values, n);
    if constexpr (sizeof(T) == 4) {
      if (k.untransform_dense32) {
        k.untransform_dense32(row, reference, values, masks, count, uses_reference);
        return;
      }
    }
    uint32_t t[MaxRowValues + 8];
    memset(t, 0, sizeof(uint32_t) * 8 * size_t(groups));
    const uint32_t* v = values;
    for (int g = 0; g < groups; g++)
      for (unsigned m = masks[g]; m; m &= m - 1) t[8 * g + __builtin_ctz(m)] = *v++;
    if constexpr (sizeof(T) == 4)
      untransform_row32(row, reference, t, count, uses_reference);
    else
      untransform_row16(row, reference, t, count, uses_reference);
  }
};

}  // namespace

RowEncoder* make_fse_encoder(ChannelSink sink) { return new FseEncoder(sink); }
RowDecoder* make_fse_decoder(ChannelSource source) { return new FseDecoder(source); }

int compact_groups_baseline(uint32_t* values, const uint32_t* t, const uint8_t* masks, int groups) {
  int n = 0;
  for (int g = 0; g < groups; g++)
    for (unsigned m = masks[g]; m; m &= m - 1) values[n++] = t[8 * g + __builtin_ctz(m)];
  return n;
}
