// NibbleCodec: three streams moved in blocks of exactly 256 bytes.
//   channel 1  bits, 2048 to a block, least significant bit of each 64-bit
//              word first
//   channel 2  nibbles, 512 to a block, low nibble first
//   channel 0  bytes, behind the CodecId
// A row: uses_reference as one bit; per group of up to eight values one bit
// "has a non-zero value"; in such a group one bit per value "is non-zero", and
// a non-zero value v = t - 1 as a nibble (below 15: v), else a byte (below
// 255: v), else 16 bits (below 65535: v), else 32 bits, the wider forms
// little-endian in the byte stream.
#include <cstring>

#include "storage/memory/fatal.h"
#include "storage/codec/codec.h"

namespace {

constexpr size_t BlockBytes = 256;

class NibbleEncoder final : public RowEncoder {
 public:
  explicit NibbleEncoder(ChannelSink s) : sink(s) {}

  // Partly filled blocks go out whole, bits first, then nibbles, then bytes.
  ~NibbleEncoder() override {
    if (bit_count) sink.write(sink.context, 1, reinterpret_cast<const uint8_t*>(bits), BlockBytes);
    if (nibble_count) sink.write(sink.context, 2, nibbles, BlockBytes);
    if (byte_count) sink.write(sink.context, 0, bytes, BlockBytes);
  }

  void encode(const uint32_t* t, int count, bool uses_reference) override {
    if (count > MaxRowValues) storage_fatal("row too long");
    put_bit(uses_reference);
    for (int i = 0; i < count; i += 8) {
      int m = count - i < 8 ? count - i : 8;
      bool any = false;
      for (int j = 0; j < m; j++) any |= t[i + j] != 0;
      put_bit(any);
      if (!any) continue;
      for (int j = 0; j < m; j++) {
        put_bit(t[i + j] != 0);
        if (t[i + j] != 0) put_value(t[i + j] - 1);
      }
    }
  }

 private:
  ChannelSink sink;
  uint64_t bits[BlockBytes / 8] = {};
  uint8_t nibbles[BlockBytes] = {};
  uint8_t bytes[BlockBytes] = {};
  unsigned bit_count = 0, nibble_count = 0, byte_count = 0;

  void put_bit(bool b) {
    bits[bit_count >> 6] |= uint64_t(b) << (bit_count & 63);
    if (++bit_count == BlockBytes * 8) {
      sink.write(sink.context, 1, reinterpret_cast<const uint8_t*>(bits), BlockBytes);
      memset(bits, 0, sizeof bits);
      bit_count = 0;
    }
  }
  void put_nibble(unsigned v) {
    nibbles[nibble_count >> 1] |= uint8_t(v << (4 * (nibble_count & 1)));
    if (++nibble_count == BlockBytes * 2) {
      sink.write(sink.context, 2, nibbles, BlockBytes);
      memset(nibbles, 0, sizeof nibbles);
      nibble_count = 0;
    }
  }
  void put_byte(uint8_t v) {
    bytes[byte_count] = v;
    if (++byte_count == BlockBytes) {
      sink.write(sink.context, 0, bytes, BlockBytes);
      byte_count = 0;
    }
  }
  void put_value(uint32_t v) {
    put_nibble(v < 15 ? v : 15);
    if (v < 15) return;
    put_byte(v < 255 ? uint8_t(v) : 255);
    if (v < 255) return;
    uint32_t w = v < 65535 ? v : 65535;
    put_byte(uint8_t(w));
    put_byte(uint8_t(w >> 8));
    if (v < 65535) return;
    for (int k = 0; k < 4; k++) put_byte(uint8_t(v >> (8 * k)));
  }
};

class NibbleDecoder final : public RowDecoder {
 public:
  explicit NibbleDecoder(ChannelSource s) : source(s) {}

  void decode32(uint32_t* row, const uint32_t* reference, int count) override {
    if (count > MaxRowValues) storage_fatal("row too long");
    uint32_t t[MaxRowValues];
    bool uses_reference = get_bit();
    for (int i = 0; i < count; i += 8) {
      int m = count - i < 8 ? count - i : 8;
      bool any = get_bit();
      for (int j = 0; j < m; j++) t[i + j] = any && get_bit() ? get_value() + 1 : 0;
    }
    untransform_row32(row, reference, t, count, uses_reference);
  }

  // Rows of 16-bit stores are never written in this codec.
  void decode16(uint16_t*, const uint16_t*, int) override {}

  bool handles_reference() const override { return true; }

 private:
  ChannelSource source;
  uint8_t bits[BlockBytes], nibbles[BlockBytes], bytes[BlockBytes];
  unsigned bit_count = BlockBytes * 8, nibble_count = BlockBytes * 2, byte_count = BlockBytes;

  // A stream that ends early reads as zeros.
  void load(int channel, uint8_t* block) {
    size_t got = source.read(source.context, channel, block, BlockBytes);
    memset(block + got, 0, BlockBytes - got);
  }
  bool get_bit() {
    if (bit_count == BlockBytes * 8) {
      load(1, bits);
      bit_count = 0;
    }
    bool b = (bits[bit_count >> 3] >> (bit_count & 7)) & 1;
    bit_count++;
    return b;
  }
  unsigned get_nibble() {
    if (nibble_count == BlockBytes * 2) {
      load(2, nibbles);
      nibble_count = 0;
    }
    unsigned v = (nibbles[nibble_count >> 1] >> (4 * (nibble_count & 1))) & 15;
    nibble_count++;
    return v;
  }
  uint8_t get_byte() {
    if (byte_count == BlockBytes) {
      load(0, bytes);
      byte_count = 0;
    }
    return bytes[byte_count++];
  }
  uint32_t get_value() {
    uint32_t v = get_nibble();
    if (v < 15) return v;
    v = get_byte();
    if (v < 255) return v;
    v = get_byte();
    v |= uint32_t(get_byte()) << 8;
    if (v < 65535) return v;
    v = 0;
    for (int k = 0; k < 4; k++) v |= uint32_t(get_byte()) << (8 * k);
    return v;
  }
};

}  // namespace

RowEncoder* make_nibble_encoder(ChannelSink sink) { return new NibbleEncoder(sink); }
RowDecoder* make_nibble_decoder(ChannelSource source) { return new NibbleDecoder(source); }
