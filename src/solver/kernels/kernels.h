// Terminal kernels: the value of every hand of the traverser at a fold or a
// showdown, from the other player's reach over the same board's hands, in time
// linear in the number of hands.
//
// Card removal is exact and done by inclusion and exclusion: a pass keeps a
// total and one sum per card, and a hand's result is the total less what its
// two cards block. An opponent hand sharing one card is taken off once; the
// hand with both cards (the same pair) is taken off twice and put back once.
//
// The showdown kernel walks the river list in ascending strength: the first
// pass puts every live hand on the "stronger" side, the second walks up the
// runs of equal strength (HandGroups) and moves each run to the "weaker" side
// after its own hands are done, so tied hands count for nothing.
//
// Conventions shared by all kernels:
// - Hands are positions in one board's list; `packed` holds per hand the low
//   card in the low byte and the high card in the high byte.
// - A reach pointer of nullptr is an empty vector: all zeros. Reach is never
//   negative; only entries above 0.0 take part.
// - Values are single precision and signed; the caller signs a fold for the
//   traverser. A showdown value is what the loser pays the winner.
// - When the sum of value x reach over the reach is at most FLT_MIN in
//   magnitude, the output is all zeros rather than cancelling noise.
// - Nothing allocates: scratch lives on the stack. Any number of kernels may
//   run at once; they touch only their arguments.
#pragma once
#include <cstdint>

// A river board leaves 47 cards: C(47, 2) hands at most.
constexpr int32_t MaxRiverHands = 1081;
// Runs of at most this many hands carry a live-hand mask word; longer runs
// are tested hand by hand.
constexpr int32_t MaskedGroupLimit = 16;

// The runs of equal strength of one river list, as the showdown kernels read
// them. `masks` are the calling thread's GroupMasks: bit i of word g is set
// when hand i of run g may have reach above 0.0 in any reach the kernel is
// given (a superset only costs time). Words of runs above MaskedGroupLimit
// hands are not read.
struct RiverGroups {
  const int16_t* lengths;  // HandGroups, ascending strength, adding up to the hand count
  const uint16_t* masks;   // one word per run
  int32_t count;           // number of runs
};

// GroupMasks of a reach vector: one word per run, bit i = hand i of the run
// has reach above 0.0; zero for runs above MaskedGroupLimit hands and for an
// empty reach. `count` is at most MaxRiverHands.
void compute_group_masks(uint16_t* masks, const float* reach, int32_t count, const int16_t* lengths,
                         int32_t group_count);

// ---- One terminal -----------------------------------------------------------
// out[i] = value x (reach of the opponent hands sharing no card with hand i).
void fold_value(float* out, const float* reach, int32_t count, const uint16_t* packed, float value);

// out[i] = value x (reach of the disjoint hands that hand i beats - reach of
// those it loses to); ties pay nothing. `count` is at most MaxRiverHands.
void showdown_value(float* out, const float* reach, int32_t count, const RiverGroups& groups,
                    const uint16_t* packed, float value);

// A showdown and a fold sharing one reach vector (the call and the fold below
// the traverser's own river decision), in one walk of the list.
void showdown_and_fold(float* out_showdown, float* out_fold, const float* reach, int32_t count,
                       const RiverGroups& groups, const uint16_t* packed, float showdown_value,
                       float fold_value);

// The same with a reach vector each (below the other player's decision).
// Either reach may be empty.
void showdown_and_fold2(float* out_showdown, float* out_fold, const float* reach_showdown,
                        const float* reach_fold, int32_t count, const RiverGroups& groups,
                        const uint16_t* packed, float showdown_value, float fold_value);

// ---- Batches ----------------------------------------------------------------
// n terminals of one board: values[t] and reach[t] in, out[t] filled. Each
// lane gives what the one-terminal kernel gives, up to float rounding. The
// terminals go in lane batches of the largest width that SimdLevel allows and
// that still fits the terminals left: showdowns 8, 6, 4, 3, 2, 1; folds
// 8 to 1 at level 8 (a terminal that batches of four would leave alone still
// goes alone: the one-terminal fold rounds its last step its own way), else
// 4, 3, 2, 1. The walk of `packed` and the runs is shared by the lanes.
void showdown_value_batch(float* const* out, const float* const* reach, const float* values,
                          int32_t n, int32_t count, const RiverGroups& groups,
                          const uint16_t* packed);
void fold_value_batch(float* const* out, const float* const* reach, const float* values, int32_t n,
                      int32_t count, const uint16_t* packed);

// The width of the next batch when `left` terminals remain.
int32_t showdown_batch_width(int32_t left);
int32_t fold_batch_width(int32_t left);

// One batch of exactly `width` terminals, width one of the table's widths;
// width 1 is the one-terminal kernel.
void showdown_value_lanes(int32_t width, float* const* out, const float* const* reach,
                          const float* values, int32_t count, const RiverGroups& groups,
                          const uint16_t* packed);
void fold_value_lanes(int32_t width, float* const* out, const float* const* reach,
                      const float* values, int32_t count, const uint16_t* packed);

// ---- Rows of the walk -------------------------------------------------------
// Plain row arithmetic of the walk, vectorised as wide as the processor allows
// with the same rounding everywhere (no fused multiply-add).

// out = s[0] c[0] + s[1] c[1] + ... + s[rows-1] c[rows-1], added in that order; rows >= 1.
void weighted_rows(float* out, const float* const* s, const float* const* c, int32_t rows, int32_t count);
// x *= reach element by element; returns the sum of the new x (in an order
// of its own: callers only compare it with FLT_MIN).
float reach_row(float* x, const float* reach, int32_t count);
// out[i] = in[index[i]]: a parent's hand vector down to a child board.
void gather_row(float* out, const float* in, const uint16_t* index, int32_t count);

// ---- Instruction sets -------------------------------------------------------
// The kernels exist once per instruction set and are chosen on every call:
// AVX-512 when UseAvx512 is set and the processor has it, else AVX2 with FMA
// when the processor has it, else the portable build.
enum KernelIsa : int32_t { KERNEL_PORTABLE = 0, KERNEL_AVX2 = 1, KERNEL_AVX512 = 2 };

// The widest set the kernels may choose; lowered by tests and benchmarks to
// compare the forms. Starts at KERNEL_AVX512.
extern int32_t KernelIsaLimit;

// set_simd_level: the widest lane batch the kernels and the walk's river
// batches may use (1 keeps one terminal at a time). Starts at 8.
extern int32_t SimdLevel;

// The set the kernels use now.
KernelIsa kernel_isa();
const char* kernel_isa_name(KernelIsa isa);
