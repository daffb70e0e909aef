// RangeCodec: an adaptive binary range coder over a symbol tree.
//
// Channel 0, behind the CodecId: the magic "Cmpr", a histogram of 256
// little-endian 64-bit counts, then the coded rows. Both sides build the same
// tree of 1023 nodes over 1024 symbols from the histogram (CreateOptimalTree).
//
// A row: uses_reference (one probability), then runs of 16 values (the last
// one shorter): a bit "the run is all zero" (probability by a 12-bit history
// of these bits and uses_reference); in other runs a bit per value "is
// non-zero" (16-bit history and uses_reference), followed by its symbol. A
// value t (transformed) below 1024 is symbol t - 1; larger ones are symbol
// 1023 and u = t - 1024 in 17 bits x (u itself below 65536, else
// 65536 | low 16 bits of u) and, for x >= 65536, 16 more bits y = u >> 16,
// each through its own tree of probabilities. The context of a symbol is the
// row's last symbol, 1022 at the row's start; symbols have one set of 1024
// contexts of 1023 node probabilities per uses_reference value.
//
// The coder: 11-bit probabilities starting at 1024, adapted by 1/16; bound =
// (range >> 11) * p, a 0 bit below it; one byte moves when range falls below
// 2^24. The encoder carries with a cached byte and a run count and ends with
// five bytes; the decoder primes its code with five bytes.
#include <cstring>
#include <stdexcept>
#include <vector>

#include "storage/memory/fatal.h"
#include "storage/codec/codec.h"

namespace {

constexpr int Symbols = 1024;
constexpr int TreeNodes = Symbols - 1;
constexpr int EscapeSymbol = Symbols - 1;
constexpr uint32_t StartContext = 1022;
constexpr uint16_t HalfProbability = 1024;
constexpr uint32_t TopValue = 1u << 24;
const char Magic[4] = {'C', 'm', 'p', 'r'};

struct TreeNode {
  uint16_t child;  // the right subtree; the left one is the next node
  uint16_t split;  // first symbol of the right subtree
};

struct SymbolTree {
  TreeNode node[TreeNodes + 1];
  int count = 0;
  const uint64_t* histogram;

  uint64_t mass_of(int lo, int hi) const {
    uint64_t m = 0;
    for (int s = lo; s < hi && s < 256; s++) m += histogram[s];
    return m;
  }

  // Splits [lo, hi) where the running sum from lo reaches half of `mass`, at
  // most at `last`.
  int weighted_split(uint64_t mass, int lo, int last) const {
    uint64_t half = (mass + 1) / 2, sum = 0;
    int p = lo;
    while (p < last) {
      sum += p < 256 ? histogram[p] : 0;
      p++;
      if (sum >= half) break;
    }
    return p;
  }

  void build(uint64_t mass, int lo, int hi) {
    while (hi - lo >= 3) {
      int split;
      uint64_t left;
      if (mass > 0 && lo < 255) {
        int last = hi - 1 < 255 ? hi - 1 : 255;
        split = weighted_split(mass, lo, last);
        left = mass_of(lo, split);
      } else {
        split = (lo + hi) / 2;
        left = 0;
      }
      int n = allocate();
      if (n < 0) return;
      build(left, lo, split);
      node[n].split = uint16_t(split);
      node[n].child = uint16_t(count);
      mass = mass > left ? mass - left : 0;
      lo = split;
    }
    if (hi - lo == 2) {
      int n = allocate();
      if (n < 0) return;
      node[n] = {0, uint16_t(lo + 1)};
    }
  }

  int allocate() {
    if (count > TreeNodes) return -1;
    return count++;
  }
};

void CreateOptimalTree(SymbolTree& tree, const uint64_t* histogram) {
  tree.histogram = histogram;
  tree.count = 0;
  uint64_t total = tree.mass_of(0, 256);
  int split = total == 0 ? Symbols / 2 : tree.weighted_split(total, 0, 256);
  uint64_t left = total == 0 ? 0 : tree.mass_of(0, split);
  int root = tree.allocate();
  tree.build(left, 0, split);
  tree.node[root].split = uint16_t(split);
  tree.node[root].child = uint16_t(tree.count);
  tree.build(total - left, split, Symbols);
  if (tree.count != TreeNodes) throw std::runtime_error("CreateOptimalTree fail");
}

inline void adapt(uint16_t& p, int bit) {
  if (bit)
    p = uint16_t(p - (p >> 4));
  else
    p = uint16_t(p + ((2048 - p) >> 4));
}

// The adaptive probabilities, shared in shape by both sides.
struct Model {
  SymbolTree tree;
  std::vector<uint16_t> symbol_p;   // [uses_reference][context][node]
  std::vector<uint16_t> escape_low;  // 2^17: tree of x
  std::vector<uint16_t> escape_high; // 2^16: tree of y
  std::vector<uint16_t> run_p;       // [uses_reference][12-bit history]
  std::vector<uint16_t> value_p;     // [uses_reference][16-bit history]
  uint16_t flag_p = HalfProbability;
  uint32_t run_history = 0, value_history = 0;

  Model()
      : symbol_p(size_t(2) * Symbols * Symbols, HalfProbability),
        escape_low(size_t(1) << 17, HalfProbability),
        escape_high(size_t(1) << 16, HalfProbability),
        run_p(size_t(2) << 12, HalfProbability),
        value_p(size_t(2) << 16, HalfProbability) {}
};

// The structure of a row, for either side: `Coder` supplies bit(p, b) that
// codes or decodes one bit and returns it.
template <typename Coder>
void code_row(Coder& c, Model& m, uint32_t* t, int count, bool& uses_reference) {
  uses_reference = c.bit(m.flag_p, uses_reference);
  const size_t ur = uses_reference ? 1 : 0;
  uint32_t context = StartContext;
  for (int i = 0; i < count; i += 16) {
    int n = count - i < 16 ? count - i : 16;
    int all_zero = 1;
    for (int j = 0; j < n; j++) all_zero &= t[i + j] == 0;
    all_zero = c.bit(m.run_p[(ur << 12) | m.run_history], all_zero);
    m.run_history = ((m.run_history << 1) | uint32_t(all_zero)) & 0xfff;
    if (all_zero) {
      for (int j = 0; j < n; j++) t[i + j] = 0;
      continue;
    }
    for (int j = 0; j < n; j++) {
      int nonzero = c.bit(m.value_p[(ur << 16) | m.value_history], t[i + j] != 0);
      m.value_history = ((m.value_history << 1) | uint32_t(nonzero)) & 0xffff;
      if (!nonzero) {
        t[i + j] = 0;
        continue;
      }
      uint32_t v = t[i + j];
      uint32_t s = v - 1 < uint32_t(EscapeSymbol) ? v - 1 : EscapeSymbol;
      uint16_t* p = &m.symbol_p[(ur * Symbols + context) * Symbols];
      int node = 0, lo = 0, hi = Symbols;
      while (hi - lo > 1) {
        const TreeNode& nd = m.tree.node[node];
        if (c.bit(p[node], s >= nd.split)) {
          lo = nd.split;
          node = nd.child;
        } else {
          hi = nd.split;
          node++;
        }
      }
      s = uint32_t(lo);
      context = s;
      if (s != EscapeSymbol) {
        t[i + j] = s + 1;
        continue;
      }
      uint32_t u = v - 1024;
      uint32_t x = u < 65536 ? u : 65536 | (u & 0xffff);
      uint32_t k = 1;
      for (int b = 16; b >= 0; b--) k = (k << 1) | uint32_t(c.bit(m.escape_low[k], (x >> b) & 1));
      x = k - (1u << 17);
      if (x < 65536) {
        t[i + j] = x + 1024;
        continue;
      }
      uint32_t y = u >> 16;
      k = 1;
      for (int b = 15; b >= 0; b--) k = (k << 1) | uint32_t(c.bit(m.escape_high[k], (y >> b) & 1));
      y = k - (1u << 16);
      t[i + j] = ((x & 0xffff) | y << 16) + 1024;
    }
  }
}

struct RangeEncoderState {
  uint64_t low = 0;
  uint32_t range = 0xffffffff;
  uint8_t cache = 0;
  uint64_t cache_size = 1;
  std::vector<uint8_t> out;

  void shift_low() {
    if (uint32_t(low) < 0xff000000u || (low >> 32) != 0) {
      uint8_t carry = uint8_t(low >> 32);
      uint8_t b = cache;
      do {
        out.push_back(uint8_t(b + carry));
        b = 0xff;
      } while (--cache_size != 0);
      cache = uint8_t(uint32_t(low) >> 24);
    }
    cache_size++;
    low = uint64_t(uint32_t(low) << 8);
  }
  int bit(uint16_t& p, int b) {
    uint32_t bound = (range >> 11) * p;
    if (b) {
      low += bound;
      range -= bound;
    } else {
      range = bound;
    }
    adapt(p, b);
    if (range < TopValue) {
      range <<= 8;
      shift_low();
    }
    return b;
  }
  void flush() {
    for (int i = 0; i < 5; i++) shift_low();
  }
};

class RangeEncoder final : public RowEncoder {
 public:
  explicit RangeEncoder(ChannelSink s) : sink(s) {}

  // The histogram must precede the rows, so rows are kept and coded here.
  ~RangeEncoder() override {
    uint64_t histogram[256] = {};
    for (uint32_t v : values)
      if (v != 0 && v - 1 < 256) histogram[v - 1]++;
    Model* m = new Model;
    CreateOptimalTree(m->tree, histogram);
    RangeEncoderState e;
    size_t at = 0;
    for (const RowHead& r : rows) {
      bool ur = r.uses_reference;
      code_row(e, *m, values.data() + at, r.count, ur);
      at += size_t(r.count);
    }
    e.flush();
    delete m;
    sink.write(sink.context, 0, reinterpret_cast<const uint8_t*>(Magic), 4);
    sink.write(sink.context, 0, reinterpret_cast<const uint8_t*>(histogram), sizeof histogram);
    sink.write(sink.context, 0, e.out.data(), e.out.size());
  }

  void encode(const uint32_t* t, int count, bool uses_reference) override {
    if (count > MaxRowValues) storage_fatal("row too long");
    if (count < 0) count = 0;
    rows.push_back({count, uses_reference});
    values.insert(values.end(), t, t + count);
  }

 private:
  struct RowHead {
    int count;
    bool uses_reference;
  };
  ChannelSink sink;
  std::vector<RowHead> rows;
  std::vector<uint32_t> values;
};

class RangeDecoder final : public RowDecoder {
 public:
  explicit RangeDecoder(ChannelSource s) : source(s) {
    uint8_t magic[4];
    if (read(magic, 4) != 4 || memcmp(magic, Magic, 4) != 0)
      throw std::runtime_error("compressor wrong id");
    uint64_t histogram[256] = {};
    read(reinterpret_cast<uint8_t*>(histogram), sizeof histogram);
    CreateOptimalTree(model.tree, histogram);
    for (int i = 0; i < 5; i++) code = (code << 8) | next_byte();
  }

  void decode32(uint32_t* row, const uint32_t* reference, int count) override {
    if (count > MaxRowValues) storage_fatal("row too long");
    if (count < 0) count = 0;
    uint32_t t[MaxRowValues] = {};
    bool uses_reference = false;
    code_row(*this, model, t, count, uses_reference);
    untransform_row32(row, reference, t, count, uses_reference);
  }

  // Rows of 16-bit stores are never written in this codec.
  void decode16(uint16_t*, const uint16_t*, int) override {}

  bool handles_reference() const override { return true; }

  // The decoding side of code_row: the value passed in is ignored.
  int bit(uint16_t& p, int) {
    uint32_t bound = (range >> 11) * p;
    int b;
    if (code < bound) {
      range = bound;
      b = 0;
    } else {
      code -= bound;
      range -= bound;
      b = 1;
    }
    adapt(p, b);
    if (range < TopValue) {
      range <<= 8;
      code = (code << 8) | next_byte();
    }
    return b;
  }

 private:
  ChannelSource source;
  Model model;
  uint32_t range = 0xffffffff, code = 0;
  uint8_t block[4096];
  size_t block_size = 0, block_position = 0;

  size_t read(uint8_t* dst, size_t n) {
    size_t got = 0;
    while (got < n) {
      if (block_position == block_size && !refill()) break;
      size_t k = block_size - block_position < n - got ? block_size - block_position : n - got;
      memcpy(dst + got, block + block_position, k);
      block_position += k;
      got += k;
    }
    return got;
  }
  bool refill() {
    block_size = source.read(source.context, 0, block, sizeof block);
    block_position = 0;
    return block_size > 0;
  }
  // A stream that ends early reads as zeros.
  uint8_t next_byte() {
    if (block_position == block_size && !refill()) return 0;
    return block[block_position++];
  }
};

}  // namespace

RowEncoder* make_range_encoder(ChannelSink sink) { return new RangeEncoder(sink); }
RowDecoder* make_range_decoder(ChannelSource source) { return new RangeDecoder(source); }
