// Operations on the rows of one cell, shared by the store classes: each store
// finds the rows of a cell in its own layout and hands them over as one
// pointer per action.
#pragma once
#include <cstdint>

#include "storage/codec/codec.h"
#include "storage/store.h"

// Enough for any betting line; the stores keep per-action pointer arrays on
// the stack.
constexpr int32_t MaxStoreActions = 64;
// Scratch rows on the stack hold a whole row with room for a vector's tail.
constexpr int32_t ScratchRowValues = MaxRowValues + 18;

// A zero row as long as any row, for vectors without data.
extern const float ZeroRow[ScratchRowValues];

// Checks an action count against MaxStoreActions (fatal beyond it).
void check_action_count(int32_t actions);

// The frozen-hand mask for a row of `n` hands, or null. A mask shorter than
// the row is copied into `scratch` with the missing hands free.
const uint8_t* cell_mask(const CellLock& lock, int32_t n, uint8_t* scratch);

inline const float* row_or_zero(const HandVector& v) { return v.data ? v.data : ZeroRow; }

// Regret matching. Float rows: a sum below the smallest normal float takes
// `defaults`. 16-bit rows: a zero sum takes `defaults`, and with two actions
// the second result is 1 - the first. `four_at_once` reads four 16-bit rows
// in one kernel. Integer sums (32-bit rows): an all-zero hand gets
// 1 / actions with non-null `defaults`, else 0.
void match_rows_f32(const float* const* rows, int32_t actions, int32_t n, const float* defaults,
                    HandVector* out);
void match_rows_u16(const uint16_t* const* rows, int32_t actions, int32_t n,
                    const float* defaults, HandVector* out, bool four_at_once);
void match_rows_u32(const uint32_t* const* rows, int32_t actions, int32_t n,
                    const float* defaults, HandVector* out);
// The same for rows of 16-bit sums, whose defaults are the switch above.
void match_sums_u16(const uint16_t* const* rows, int32_t actions, int32_t n,
                    const float* defaults, HandVector* out);

// Float regrets: v = max(v + sign(d) |d|^0.75, 0).
void update_rows_f32(float* const* rows, int32_t actions, int32_t n, const HandVector& baseline,
                     const HandVector* action_rows, const uint8_t* mask);
// 16-bit regrets with the cell's factor, group averaging and the adaptive
// rescale of the cell.
void update_rows_u16(uint16_t* const* rows, int32_t actions, int32_t n, const HandVector& baseline,
                     const HandVector* action_rows, const HandGroupRuns* groups, double scale,
                     float& cell_factor, const uint8_t* mask);
// Replaces each run of `groups` by the integer mean of its unfrozen hands.
void average_runs(uint16_t* row, int32_t n, const HandGroupRuns& groups, const uint8_t* mask);
// The adaptive rescale of a 16-bit cell; returns the factor applied (1 if none).
double rescale_rows_u16(uint16_t* const* rows, int32_t actions, int32_t n, float& cell_factor);

// Sums. `prescale` weighs the reach once for the cell when there are more
// than four actions.
void accumulate_rows_f32(float* const* rows, int32_t actions, int32_t n, const HandVector* strategy,
                         const HandVector& reach, float weight, const uint8_t* mask,
                         bool prescale);
void accumulate_rows_u32(uint32_t* const* rows, int32_t actions, int32_t n,
                         const HandVector* strategy, const HandVector& reach, float weight,
                         const uint8_t* mask);

// write_row conversions: truncation limited to the value range.
void store_row_u16(uint16_t* dst, const float* row, int32_t n);
void store_row_u32(uint32_t* dst, const float* row, int32_t n);
void store_row_u24(uint8_t* dst, const float* row, int32_t n);

// Three-byte little-endian values.
inline uint32_t load24(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16; }
inline void store24(uint8_t* p, uint32_t v) {
  p[0] = uint8_t(v);
  p[1] = uint8_t(v >> 8);
  p[2] = uint8_t(v >> 16);
}
void unpack_row24(uint32_t* dst, const uint8_t* src, int32_t n);
void pack_row24(uint8_t* dst, const uint32_t* src, int32_t n);

// Stored rows in the packed block format behind a 16-bit byte count. A row
// whose bytes don't describe `n` values raises an error.
void save_packed_row16(ByteWriter& writer, const uint16_t* row, int32_t n);
void load_packed_row16(ByteSource& source, uint16_t* row, int32_t n);
void save_packed_row24(ByteWriter& writer, const uint32_t* row, int32_t n);
void load_packed_row24(ByteSource& source, uint32_t* row, int32_t n);
