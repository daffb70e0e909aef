// The finite-state entropy coder in its block format (fse.cpp has the layout):
// a header of normalised counts (first four bits: table log - 5), then two
// interleaved states on one bitstream that is read backwards from a
// terminating 1 bit. Results below 0 are errors; fse_compress returns 0 for
// incompressible input (also for 0 or 1 byte) and 1 for a block of one
// repeated byte, which the caller stores itself.
#pragma once
#include <cstddef>
#include <cstdint>

// The negated error codes; a block head may carry one as its coded size.
enum FseError : int {
  FSE_OK = 0,
  FSE_ERROR_GENERIC,
  FSE_ERROR_TABLE_LOG_TOO_LARGE,
  FSE_ERROR_SYMBOL_LIMIT_TOO_LARGE,
  FSE_ERROR_SYMBOL_LIMIT_TOO_SMALL,
  FSE_ERROR_DESTINATION_TOO_SMALL,
  FSE_ERROR_SOURCE_SIZE_WRONG,
  FSE_ERROR_CORRUPT,
  FSE_ERROR_COUNT
};
constexpr unsigned FseMinTableLog = 5;
constexpr unsigned FseMaxTableLog = 12;
constexpr unsigned FseDefaultTableLog = 11;
constexpr unsigned FseMaxSymbolValue = 255;

constexpr size_t fse_compress_bound(size_t size) { return size + (size >> 7) + 512; }
inline bool fse_is_error(int64_t result) { return result < 0; }

// Largest symbol 255, table log by the usual rule with at most 11.
int64_t fse_compress(void* dst, size_t dst_capacity, const void* src, size_t src_size);
// The same with a largest symbol value and a largest table log (0: defaults).
int64_t fse_compress_limited(void* dst, size_t dst_capacity, const void* src, size_t src_size,
                             unsigned max_symbol_value, unsigned table_log);
// Returns the number of bytes regenerated, at most `dst_capacity`.
int64_t fse_decompress(void* dst, size_t dst_capacity, const void* src, size_t src_size);

// Blocks coded two at a time, each with the result and bytes fse_compress
// or fse_decompress would give it alone (fse_compress_limited with
// `table_log` when it isn't 0): the coding loops of two blocks run side by
// side, which hides the latency of each one's table loads, and a block that
// ends is followed by the next. Longest first pairs them best.
struct FseBlock {
  void* dst;
  size_t dst_capacity;
  const void* src;
  size_t src_size;
  unsigned table_log = 0;
};
constexpr int FseMaxBlocks = 64;  // a larger list goes in parts of this many
void fse_compress_blocks(const FseBlock* blocks, int n, int64_t* results);
void fse_decompress_blocks(const FseBlock* blocks, int n, int64_t* results);

// ---- Header of normalised counts (public for tests and tools) ----------------
// Table log for a source of `src_size` bytes whose largest symbol is
// `max_symbol_value`, at most `max_table_log`.
unsigned fse_optimal_table_log(unsigned max_table_log, size_t src_size, unsigned max_symbol_value);
// Scales `count` (total `total`) to 1 << table_log points: every present
// symbol gets at least one; -1 marks a symbol below one point. Returns the
// table log or an error.
int64_t fse_normalize_counts(int16_t* norm, unsigned table_log, const uint32_t* count, size_t total,
                             unsigned max_symbol_value);
// Writes the header of counts that fill the table; its size or an error.
int64_t fse_write_counts(void* dst, size_t dst_capacity, const int16_t* norm, unsigned max_symbol_value,
                         unsigned table_log);
// Reads a header; on entry *max_symbol_value is the largest allowed symbol,
// on return the largest one present. Returns the header's size in bytes.
int64_t fse_read_counts(int16_t* norm, unsigned* max_symbol_value, unsigned* table_log, const void* src,
                        size_t src_size);
