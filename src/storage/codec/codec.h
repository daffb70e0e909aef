// Codecs of store rows: the row transform, the packed block format, and the
// channel codecs behind RowEncoder and RowDecoder (the FSE block coder they
// use is in fse.h).
//
// A row is a sequence of at most 1326 non-negative integers, one per hand.
// Neighbouring rows are alike and neighbouring hands have like values, so
// every codec first replaces a row by the zigzagged differences of the row
// transform and then stores mostly small numbers and zeros.
//
// Packed block format (byte-aligned, no entropy coding). A row is cut into
// blocks of 32 values while at least 32 remain. A block is one control byte
// holding four 2-bit classes (group of values 0..7 in bits 0-1, ..., values
// 24..31 in bits 6-7), then the payload of each group of eight in order:
//
//   class   32-bit form        16-bit form              24-bit form
//   0       all zero           all zero                 all zero
//   1       8 bytes            8 bytes                  8 bytes
//   2       8 x 16 bit         8 x 12 bit (12 bytes)    8 x 16 bit
//   3       8 x 32 bit         8 x 16 bit               8 x 24 bit
//
// The class is the smallest that holds the largest value of the group. The
// rest of the row, fewer than 32 values, goes in groups of up to eight, each a
// control byte and its values, with no zero class:
//   32-bit: bit 0 set if a value reaches 256, bit 1 if one reaches 65536;
//           0 = bytes, 1 = 16 bit, 2 or 3 = 32 bit.
//   16-bit: 1 = bytes, anything else (3 when written) = 16 bit.
//   24-bit: 0 = bytes, 1 = 16 bit, anything else (3 when written) = 24 bit.
// Multi-byte values are little-endian; 12-bit values form a little-endian bit
// stream. Control byte 0 means 32 zeros and 0x55 means 32 bytes.
#pragma once
#include <cstddef>
#include <cstdint>

constexpr int MaxRowValues = 1326;

// ---- Row transform ----------------------------------------------------------
// zigzag maps 0, -1, 1, -2, ... to 0, 1, 2, 3, ...; arithmetic is modulo 2^32.
inline uint32_t zigzag32(uint32_t v) { return (v << 1) ^ uint32_t(int32_t(v) >> 31); }
inline uint32_t unzigzag32(uint32_t t) { return (t >> 1) ^ (0u - (t & 1)); }

// Transforms a row for the channel codecs. `out_first_order` always receives
// the differences of neighbours; with a reference row `out_second_order`
// receives the differences of the differences to the reference, and is used
// (the result is true) only when it has strictly fewer non-zero entries.
// Without a reference `out_second_order` is untouched and the result is false.
// A 16-bit row without reference starts with 2 * x[0]. Both outputs hold
// `count` values; a count above MaxRowValues is fatal.
bool transform_row32(const uint32_t* row, const uint32_t* reference, int count,
                     uint32_t* out_first_order, uint32_t* out_second_order);
bool transform_row16(const uint16_t* row, const uint16_t* reference, int count,
                     uint32_t* out_first_order, uint32_t* out_second_order);
// The inverse: rebuilds a row from its transformed values. `reference` may be
// null; with `uses_reference` set it must be the writer's reference row.
void untransform_row32(uint32_t* row, const uint32_t* reference, const uint32_t* transformed,
                       int count, bool uses_reference);
void untransform_row16(uint16_t* row, const uint16_t* reference, const uint32_t* transformed,
                       int count, bool uses_reference);

// ---- Packed block format ----------------------------------------------------
// Writers return the end of their output; `dst` must hold pack_bound*(count)
// bytes, and the bytes between the end and the bound may be overwritten.
// pack24 stores the low 24 bits of each value.
uint8_t* pack32(uint8_t* dst, const uint32_t* row, int count);
uint8_t* pack16(uint8_t* dst, const uint16_t* row, int count);
uint8_t* pack24(uint8_t* dst, const uint32_t* row, int count);
// Readers return the end of their input. They trust the bytes: a row from an
// outside source must first be measured with packed_size*.
const uint8_t* unpack32(uint32_t* row, int count, const uint8_t* src);
const uint8_t* unpack16(uint16_t* row, int count, const uint8_t* src);
const uint8_t* unpack24(uint32_t* row, int count, const uint8_t* src);
// Worst-case packed sizes of a row of `count` values.
size_t pack_bound32(int count);
size_t pack_bound16(int count);
size_t pack_bound24(int count);
// Bytes a packed row of `count` values takes at `src`, reading control bytes
// only and never beyond `size`; -1 if the row would run past `size`.
int64_t packed_size32(const uint8_t* src, size_t size, int count);
int64_t packed_size16(const uint8_t* src, size_t size, int count);
int64_t packed_size24(const uint8_t* src, size_t size, int count);

// ---- Instruction sets -------------------------------------------------------
// The vector forms of the transform, the packed format and the FSE loops
// exist once per instruction set and are chosen on every call, as the
// solver's kernels are: AVX-512 for the 16-bit transform when UseAvx512 is
// set and the processor has it (AVX2 for the rest), else AVX2 with BMI2 when
// the processor has both, else the baseline build. All forms give the same
// bytes.
enum CodecIsa : int32_t { CODEC_BASELINE = 0, CODEC_AVX2 = 1, CODEC_AVX512 = 2 };

// The widest set the codecs may choose; lowered by tests and benchmarks to
// compare the forms. Starts at CODEC_AVX512.
extern int32_t CodecIsaLimit;

// The set the codecs use now.
CodecIsa codec_isa();

// ---- Channels -----------------------------------------------------------------
// A codec doesn't own its bytes: it moves them to or from numbered channels
// through a callback with its context.
constexpr int CodecChannelCount = 24;

// Appends `count` bytes to channel `channel`.
struct ChannelSink {
  void* context;
  void (*write)(void* context, int channel, const uint8_t* bytes, size_t count);
};

// Copies the next `count` bytes of channel `channel` and returns how many it
// copied: fewer than asked only at the end of the channel. Decoders ask for
// more than remains (the range and nibble coders read ahead in blocks), so a
// source must stop at the channel's end and never read past it.
struct ChannelSource {
  void* context;
  size_t (*read)(void* context, int channel, uint8_t* bytes, size_t count);
};

// ---- Row codecs ---------------------------------------------------------------
// The first byte of channel 0 of every codec stream.
enum class CodecId : uint8_t { RangeCodec = 0, NibbleCodec = 1, FseCodec = 2 };

// Codes transformed rows. Destroying the encoder flushes every channel and
// ends the stream; the sink must outlive it.
class RowEncoder {
 public:
  virtual ~RowEncoder() = default;
  // `values` is a row after transform_row32/16, with its uses_reference.
  virtual void encode(const uint32_t* values, int count, bool uses_reference) = 0;
};

// Decodes rows and undoes the row transform. `reference` is the decoded row
// that was the reference when the row was written, or null.
class RowDecoder {
 public:
  virtual ~RowDecoder() = default;
  virtual void decode32(uint32_t* row, const uint32_t* reference, int count) = 0;
  // FseCodec only; the other codecs leave the row as it is.
  virtual void decode16(uint16_t* row, const uint16_t* reference, int count) = 0;
  virtual bool handles_reference() const = 0;
};

// Writes the CodecId to channel 0 and returns a new encoder, owned by the
// caller (delete it to end the stream). Every new stream uses
// CodecId::FseCodec; the other two exist to match their decoders.
RowEncoder* make_encoder(CodecId codec_id, ChannelSink sink);
// Reads the CodecId from channel 0 and returns the matching decoder, owned by
// the caller, or null for an unknown id or an empty channel. A range coder
// stream with a bad magic throws std::runtime_error("compressor wrong id").
// A corrupt FSE block found later prints "fse error" and exits with code 1.
RowDecoder* make_decoder(ChannelSource source);

// Transform and encode in one step, as the arenas and the tree file write rows.
void encode_row32(RowEncoder& encoder, const uint32_t* row, const uint32_t* reference, int count);
void encode_row16(RowEncoder& encoder, const uint16_t* row, const uint16_t* reference, int count);
