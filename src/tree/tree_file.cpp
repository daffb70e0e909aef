// The stored tree file.
//
// All numbers are little-endian and unaligned. The file is read forward only,
// with no section table and no checksum, so the order below is the format.
// `format` is the file's format number (0 to 9); fields tied to it say so.
// Writers write format 9.
//
//  1  magic              4 bytes     "AI6:"
//  2  format             i32         0 .. 9
//  3  results_absent     u8          format >= 4: section 15d is not in the file
//  4  LowCardIndex       u8          format >= 8
//  5  MustUseHoleCards   u8          format >= 8
//  6  HandTypeOrder      9 bytes     format >= 8; older files: the natural order
//  7  flop mask          u64         card mask
//  8  turn mask          u64
//  9  river mask         u64
// 10  pots               3 doubles   PotOop, PotIp, StartPot
// 11  first range        1326 doubles, hand order of the protocol
// 12  second range       1326 doubles
// 13  schematic tree     record of the root, recursive:
//       player, street, raises, index (i32 each); amount, invested[0],
//       invested[1] (doubles); child_count (i32); then per child its key
//       (double) and its record, children in the tree's order
// 14  tree state         60 bytes: flags (u32: 1 incomplete, 2 isomorphism,
//                        4 new tree), forgotten_street (i32, -1 = none),
//                        second street field (i32), 4 solver figures and
//                        2 evaluation doubles, carried as they are
// 14a compression        i32, the level the stores were planned with
// 15  tree data
//   a. iteration         i32
//   b. per node in array order: if the node takes part, the heads of its
//      street records; then, if forgotten_street < 0 or format < 4, its
//      regret store's and strategy store's stored form (each if present).
//      A node takes part if it has street records and (forgotten_street < 0,
//      or its street <= forgotten_street, or format < 3).
//      -- format < 4 ends here --
//   c. per taking-part node, per record: four u32 lengths of rows 2..5
//      (value[0], value[1], br_value[0], br_value[1]); each row is resized
//      and zeroed.
//   d. unless results_absent: compressed section of those rows, as 32-bit
//      values u, each the float 0.01 * unzigzag(u).
//      -- forgotten_street < 0 ends here --
//   e. compressed section: per node in array order whose street is below
//      forgotten_street and which has a regret store: for the flop store, and
//      for each turn board of a turn store, one 16-bit row per action but the
//      last, in thousandths; the last action is 1000 less the others, at
//      least 0. Rows are put into the regret store with write_row.
// 16  info lines         format >= 7: count (u32), then per line its length
//                        (u32) and its bytes
//
// Street record head (rows: 0 reach[0], 1 reach[1], 2 value[0], 3 value[1],
// 4 br_value[0], 5 br_value[1]):
//   format < 2:   six rows, each an i32 count and that many doubles
//   format 2, 3:  six rows, each an i32 count and that many floats
//   format >= 4:  u8 first_kept, u8 second_kept; if first_kept is 0, row 0 as
//                 an i32 count and that many i16 values, each / 150; the same
//                 for row 1 with second_kept
//   then always   u8 record_flag (bit 0 active, bit 1 frozen), 8 bytes
//                 record_value (carried as 0)
//
// Compressed section: format >= 6 starts with one byte. Non-zero: plain form,
// each row of positive length a u16 byte count and that many bytes of the
// packed block format (32- or 16-bit as the row is). Zero, or format < 6:
// channel form, 24 channels each a u64 size and that many bytes, then the
// rows in order through a row decoder over them, without reference rows.
//
// Every stored length is checked against the bytes left in the file before
// anything is allocated for it; one that runs past the end fails as the read
// of its bytes would, like any file that ends early.
#include "tree/tree_file.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <thread>

#include "platform/platform.h"
#include "storage/codec/codec.h"
#include "storage/store.h"
#include "storage/store_cells.h"
#include "tree/tree.h"

// Each part of the file below has its writer and its reader side by side, in
// the order of the layout; write_tree_file and the read_* steps at the end
// put them together.

static const char Magic[4] = {'A', 'I', '6', ':'};
constexpr int RangeSize = 1326;
constexpr int RecordRows = 6;
// Stored size of a schematic record without its children: what a child count
// can at least cost in the file.
constexpr int64_t SchematicRecordBytes = 4 * 4 + 3 * 8 + 4;

[[noreturn]] static void invalid_file() { throw TreeFileError("invalid file"); }

// Bytes that `count` elements of `width` bytes need, if the source still has
// them. No file holds a negative count; one past the end is read as far as
// the file goes, which is where a cut file fails too.
static void need(ByteSource& s, int64_t count, int64_t width) {
  if (count < 0) invalid_file();
  if (count > s.remaining() / width) s.fail_read();
}

// ---- 1-12 The game: magic, format, flags, boards, pots, ranges ---------------------------

static void write_game(ByteWriter& w, const TreeFileGame& g) {
  w.write(Magic, 4);
  write_value<int32_t>(w, TreeFileFormat);
  write_value<uint8_t>(w, 0);  // the results are always written
  write_value<uint8_t>(w, uint8_t(g.low_card));
  write_value<uint8_t>(w, uint8_t(g.must_use_hole_cards));
  w.write(g.hand_type_order, 9);
  write_value<uint64_t>(w, g.flop);
  write_value<uint64_t>(w, g.turn);
  write_value<uint64_t>(w, g.river);
  w.write(g.pots, sizeof g.pots);
  for (const std::vector<double>& r : g.ranges) {
    if (r.size() != size_t(RangeSize)) throw TreeFileError("ranges not set");
    w.write(r.data(), RangeSize * sizeof(double));
  }
}

static void read_game(ByteSource& s, TreeFileGame& g) {
  char magic[4];
  s.read(magic, 4);
  if (memcmp(magic, Magic, 4) != 0) invalid_file();
  g.format = read_value<int32_t>(s);
  if (g.format > TreeFileFormat) throw TreeFileError("unsupported data format, update to latest version");
  if (g.format < 0) invalid_file();
  s.format = g.format;

  g.results_absent = g.format >= 4 ? read_value<uint8_t>(s) != 0 : false;
  if (g.format >= 8) {
    g.low_card = read_value<uint8_t>(s);
    g.must_use_hole_cards = read_value<uint8_t>(s);
    s.read(g.hand_type_order, 9);
    g.has_hand_type_order = true;
    if (g.low_card > 4 || g.must_use_hole_cards > 2) invalid_file();
  }
  g.flop = read_value<uint64_t>(s);
  g.turn = read_value<uint64_t>(s);
  g.river = read_value<uint64_t>(s);
  const uint64_t deck = (uint64_t(1) << 52) - 1;
  if (__builtin_popcountll(g.flop) != 3 || __builtin_popcountll(g.turn) > 1 ||
      __builtin_popcountll(g.river) > 1 || ((g.flop | g.turn | g.river) & ~deck) ||
      (g.flop & g.turn) || (g.flop & g.river) || (g.turn & g.river))
    invalid_file();
  s.read(g.pots, sizeof g.pots);
  for (double p : g.pots)
    if (!std::isfinite(p)) invalid_file();
  for (std::vector<double>& r : g.ranges) {
    r.resize(RangeSize);
    s.read(r.data(), RangeSize * sizeof(double));
    for (double w : r)
      if (!std::isfinite(w)) invalid_file();
  }
}

// ---- 13 The schematic tree -----------------------------------------------------------------

static void write_schematic(ByteWriter& w, const std::vector<SchematicRecord>& nodes) {
  // Records are in pre-order already; a child's key goes before its record.
  for (size_t i = 0; i < nodes.size(); i++) {
    const SchematicRecord& r = nodes[i];
    if (i > 0) write_value<double>(w, r.key);
    write_value<int32_t>(w, r.player);
    write_value<int32_t>(w, r.street);
    write_value<int32_t>(w, r.raises);
    write_value<int32_t>(w, r.index);
    write_value<double>(w, r.amount);
    write_value<double>(w, r.invested[0]);
    write_value<double>(w, r.invested[1]);
    write_value<int32_t>(w, r.child_count);
  }
}

// Without recursion: a line may be as deep as it is long.
static void read_schematic(ByteSource& s, std::vector<SchematicRecord>& nodes) {
  nodes.clear();
  struct Open {
    int32_t record;
    int32_t children_left;
  };
  std::vector<Open> stack;
  double key = 0;
  int32_t parent = -1;
  for (;;) {
    SchematicRecord r;
    r.player = read_value<int32_t>(s);
    r.street = read_value<int32_t>(s);
    r.raises = read_value<int32_t>(s);
    r.index = read_value<int32_t>(s);
    r.amount = read_value<double>(s);
    r.invested[0] = read_value<double>(s);
    r.invested[1] = read_value<double>(s);
    r.child_count = read_value<int32_t>(s);
    r.key = key;
    r.parent = parent;
    const SchematicRecord* up = parent >= 0 ? &nodes[size_t(parent)] : nullptr;
    if (r.player < 0 || r.player > 1 || r.street < 0 || r.street > 3 || r.raises < 0 ||
        !std::isfinite(r.amount) || !std::isfinite(r.invested[0]) || !std::isfinite(r.invested[1]) ||
        (up && r.street < up->street))
      invalid_file();
    // Each child costs its key and a record at least.
    need(s, r.child_count, SchematicRecordBytes + 8);
    nodes.push_back(r);
    if (r.child_count > 0) stack.push_back({int32_t(nodes.size() - 1), r.child_count});
    while (!stack.empty() && stack.back().children_left == 0) stack.pop_back();
    if (stack.empty()) break;
    stack.back().children_left--;
    parent = stack.back().record;
    key = read_value<double>(s);
    if (!std::isfinite(key)) invalid_file();
  }
}

// ---- 14, 14a The tree state and the compression level --------------------------------------

static void write_state(ByteWriter& w, const Tree& t, int32_t compression) {
  write_value<uint32_t>(w, t.flags);
  write_value<int32_t>(w, t.forgotten_street);
  write_value<int32_t>(w, t.second_street);
  w.write(t.solver_figures, sizeof t.solver_figures);
  w.write(t.evaluation, sizeof t.evaluation);
  write_value<int32_t>(w, compression);
}

static void read_state(ByteSource& s, TreeFileState& st) {
  st.flags = read_value<uint32_t>(s);
  st.forgotten_street = read_value<int32_t>(s);
  st.second_street = read_value<int32_t>(s);
  s.read(st.solver_figures, sizeof st.solver_figures);
  s.read(st.evaluation, sizeof st.evaluation);
  st.compression = read_value<int32_t>(s);
  if (st.forgotten_street < -1 || st.forgotten_street > 3 || st.forgotten_street == 0 ||
      st.compression < 0 || st.compression > 5)
    invalid_file();
  if (st.forgotten_street < 0) st.forgotten_street = -1;
}

// ---- Street record heads (15b) ----------------------------------------------------------------

static HandVector& record_row(SubgameResults& r, int row) {
  if (row < 2) return r.reach[row];
  if (row < 4) return r.value[row - 2];
  return r.br_value[row - 4];
}

static const HandVector& record_row(const SubgameResults& r, int row) {
  return record_row(const_cast<SubgameResults&>(r), row);
}

static void set_row_length(HandVector& v, int32_t n) {
  v.release();
  if (n <= 0) return;
  v.resize(n, false);
  memset(v.data, 0, size_t(n) * sizeof(float));
}

// A reach row goes into the file if it has weights and every weight, in
// 150ths, fits 16 bits; the weighted sums of a run in progress don't, and stay
// out of the file, as empty rows do.
static bool reach_fits(const HandVector& v) {
  if (!v.data || v.count <= 0) return false;
  for (int32_t i = 0; i < v.count; i++)
    if (!(std::fabs(v.data[i]) * 150.0f <= 32767.0f)) return false;
  return true;
}

static void write_record_head(ByteWriter& w, const SubgameResults& r) {
  uint8_t kept[2] = {uint8_t(reach_fits(r.reach[0]) ? 0 : 1), uint8_t(reach_fits(r.reach[1]) ? 0 : 1)};
  w.write(kept, 2);
  for (int p = 0; p < 2; p++) {
    if (kept[p]) continue;
    const HandVector& v = r.reach[p];
    int32_t n = v.count;
    write_value<int32_t>(w, n);
    std::vector<int16_t> q(static_cast<size_t>(n));
    for (int32_t i = 0; i < n; i++) q[size_t(i)] = int16_t(std::lround(v.data[i] * 150.0f));
    if (n) w.write(q.data(), q.size() * sizeof(int16_t));
  }
  write_value<uint8_t>(w, uint8_t((r.active ? 1 : 0) | (r.frozen ? 2 : 0)));
  write_value<double>(w, 0.0);
}

static void read_record_head(ByteSource& s, SubgameResults& r) {
  const int32_t format = s.format;
  auto counted = [&](int32_t width) {
    int32_t n = read_value<int32_t>(s);
    if (n > MaxRowValues) invalid_file();
    need(s, n, width);
    return n;
  };
  if (format < 4) {
    for (int row = 0; row < RecordRows; row++) {
      HandVector& v = record_row(r, row);
      int32_t n = counted(format < 2 ? 8 : 4);
      set_row_length(v, n);
      for (int32_t i = 0; i < n; i++)
        v.data[i] = format < 2 ? float(read_value<double>(s)) : read_value<float>(s);
    }
  } else {
    uint8_t kept[2];
    s.read(kept, 2);
    for (int row = 0; row < 2; row++) {
      if (kept[row]) continue;
      HandVector& v = record_row(r, row);
      int32_t n = counted(2);
      set_row_length(v, n);
      for (int32_t i = 0; i < n; i++) v.data[i] = float(read_value<int16_t>(s)) / 150.0f;
    }
  }
  uint8_t flag = read_value<uint8_t>(s);
  read_value<double>(s);
  r.active = (flag & 1) != 0;
  r.frozen = (flag & 2) != 0;
}

// ---- Compressed sections (15d, 15e) -------------------------------------------------------

namespace {

// Writes the plain form: the simpler of the two, and as fast to read.
class SectionWriter {
 public:
  explicit SectionWriter(ByteWriter& w) : writer(w) { write_value<uint8_t>(w, 1); }

  void row32(const uint32_t* row, int32_t n) {
    if (n <= 0) return;
    put(pack32(bytes, row, n));
  }
  void row16(const uint16_t* row, int32_t n) {
    if (n <= 0) return;
    put(pack16(bytes, row, n));
  }

 private:
  void put(const uint8_t* end) {
    size_t count = size_t(end - bytes);
    if (count > 0xffff) throw TreeFileError("row too long");
    write_value<uint16_t>(writer, uint16_t(count));
    writer.write(bytes, count);
  }
  ByteWriter& writer;
  alignas(16) uint8_t bytes[8 * MaxRowValues + 64];
};

// Reads the rows of one compressed section, in either form.
class SectionReader {
 public:
  explicit SectionReader(ByteSource& s) : source(s) {
    plain = s.format >= 6 && read_value<uint8_t>(s) != 0;
    if (plain) return;
    for (int c = 0; c < CodecChannelCount; c++) {
      int64_t size = int64_t(read_value<uint64_t>(s));
      need(s, size, 1);
      channels[c].resize(size_t(size));
      if (size) s.read(channels[c].data(), size_t(size));
    }
    decoder.reset(make_decoder(ChannelSource{this, channel_read}));
    if (!decoder) invalid_file();
  }

  void row32(uint32_t* row, int32_t n) {
    if (n <= 0) return;
    if (plain) {
      load_row(n, packed_size32);
      unpack32(row, n, bytes);
    } else {
      decoder->decode32(row, nullptr, n);
    }
  }

  void row16(uint16_t* row, int32_t n) {
    if (n <= 0) return;
    if (plain) {
      load_row(n, packed_size16);
      unpack16(row, n, bytes);
    } else {
      decoder->decode16(row, nullptr, n);
    }
  }

 private:
  // The counted bytes of one packed row, measured before they are unpacked.
  void load_row(int32_t n, int64_t (*measure)(const uint8_t*, size_t, int)) {
    if (n > MaxRowValues) invalid_file();
    uint16_t count = read_value<uint16_t>(source);
    source.read(bytes, count);
    int64_t used = measure(bytes, count, n);
    if (used < 0 || used > count) invalid_file();
  }

  static size_t channel_read(void* context, int channel, uint8_t* out, size_t count) {
    SectionReader& r = *static_cast<SectionReader*>(context);
    std::vector<uint8_t>& c = r.channels[channel];
    size_t left = c.size() - r.cursor[channel];
    if (count > left) count = left;
    if (count) memcpy(out, c.data() + r.cursor[channel], count);
    r.cursor[channel] += count;
    return count;
  }

  ByteSource& source;
  bool plain = false;
  std::vector<uint8_t> channels[CodecChannelCount];
  size_t cursor[CodecChannelCount] = {};
  std::unique_ptr<RowDecoder> decoder;
  alignas(16) uint8_t bytes[65536 + 64];
};

}  // namespace

// ---- 15 Tree data -------------------------------------------------------------------------------

static bool takes_part(const Node& node, int32_t forgot, int32_t format) {
  return node.street_records && node.street_record_count > 0 &&
         (forgot < 0 || node.street <= forgot || format < 3);
}

// Calls visit(record) for the street records of every node that takes part.
template <typename Tree_, typename Visit>
static void each_record(Tree_& t, int32_t format, Visit&& visit) {
  for (auto& node : t.nodes) {
    if (!takes_part(node, t.forgotten_street, format)) continue;
    for (int32_t r = 0; r < node.street_record_count; r++) visit(node.street_records[r]);
  }
}

// The fewest bytes the stored form of a store can take: enough to refuse a
// file that is too short for its tree before the stores get their memory.
static int64_t least_stored_bytes(Store* store) {
  if (!store) return 0;
  if (auto* c = dynamic_cast<CompositeStore*>(store)) {
    int64_t sum = 0;
    for (RowStore* p : c->parts) sum += least_stored_bytes(p);
    return sum;
  }
  if (dynamic_cast<RowStore*>(store)) return 4 + 4 * store->value_count(-1);
  auto* shaped = dynamic_cast<ShapedStore*>(store);
  if (!shaped) return 0;
  int64_t locks = 4 * int64_t(shaped->shape->cell_count);
  if (dynamic_cast<FloatFlatStore*>(store)) return locks + 4 * store->value_count(-1);
  // Counted rows: two bytes of count at least per row (a cell may be empty).
  int64_t rows = int64_t(shaped->shape->cell_count) * shaped->shape->actions;
  if (dynamic_cast<Word16FlatStore*>(store)) return locks + 2 * rows;
  if (dynamic_cast<WideningStore*>(store)) return locks + 1 + shaped->shape->group_count + 2 * rows;
  return locks + 1;  // PackedStore
}

static std::vector<float> uniform_defaults(int32_t actions) {
  return std::vector<float>(size_t(actions > 0 ? actions : 1), actions > 0 ? 1.0f / float(actions) : 0.0f);
}

// The turn boards of a turn node's store, or the one flop cell.
static int32_t strategy_groups(Store* store, int32_t street) {
  if (street == 1) return 1;
  auto* c = dynamic_cast<CompositeStore*>(store);
  return c ? int32_t(c->parts.size()) : 0;
}

// Before the stores are read: a forgotten street keeps none (the streets
// above come from step e), the file must hold at least what the stores in it
// take, and every store gets its memory.
static void prepare_stores(ByteSource& s, Tree& t, bool stores_in_file) {
  const int32_t forgot = t.forgotten_street;
  if (forgot >= 0)
    for (Node& node : t.nodes)
      if (node.street >= forgot) {
        delete node.regretStore;
        delete node.strategyStore;
        node.regretStore = node.strategyStore = nullptr;
        node.stores_ready = false;
      }
  if (stores_in_file) {
    int64_t least = 0;
    for (Node& node : t.nodes) least += least_stored_bytes(node.regretStore) + least_stored_bytes(node.strategyStore);
    if (least > s.remaining()) s.fail_read();
  }
  bool all = true;
  for (Node& node : t.nodes) {
    if (!node.regretStore || node.stores_ready) continue;
    if (!node.regretStore->materialise() || (node.strategyStore && !node.strategyStore->materialise())) {
      all = false;
      continue;
    }
    node.stores_ready = true;
  }
  if (!all) throw std::runtime_error("out of memory");
  t.stores_ready = true;
}

// a, b. The iteration, then per node its street record heads and its stores.
static void write_heads_and_stores(ByteWriter& w, Tree& t, int32_t format, bool stores_in_file) {
  write_value<int32_t>(w, t.iteration);
  for (Node& node : t.nodes) {
    if (takes_part(node, t.forgotten_street, format))
      for (int32_t r = 0; r < node.street_record_count; r++) write_record_head(w, node.street_records[r]);
    if (stores_in_file) {
      if (node.regretStore) node.regretStore->save(w);
      if (node.strategyStore) node.strategyStore->save(w);
    }
  }
}

static void read_heads_and_stores(ByteSource& s, Tree& t, int32_t format, bool stores_in_file) {
  t.iteration = read_value<int32_t>(s);
  if (t.iteration < 0) invalid_file();
  RegretIteration = t.iteration;
  for (Node& node : t.nodes) {
    if (takes_part(node, t.forgotten_street, format))
      for (int32_t r = 0; r < node.street_record_count; r++) read_record_head(s, node.street_records[r]);
    if (stores_in_file) {
      if (node.regretStore) node.regretStore->load(s);
      if (node.strategyStore) node.strategyStore->load(s);
    }
  }
}

// c. The lengths of the value rows of every record.
static void write_row_lengths(ByteWriter& w, Tree& t, int32_t format) {
  each_record(t, format, [&](const SubgameResults& record) {
    for (int row = 2; row < RecordRows; row++) {
      const HandVector& v = record_row(record, row);
      write_value<int32_t>(w, v.data ? v.count : 0);
    }
  });
}

static void read_row_lengths(ByteSource& s, Tree& t, int32_t format) {
  each_record(t, format, [&](SubgameResults& record) {
    for (int row = 2; row < RecordRows; row++) {
      int32_t n = read_value<int32_t>(s);
      if (n < 0 || n > MaxRowValues) invalid_file();
      set_row_length(record_row(record, row), n);
    }
  });
}

// d. The value rows, in hundredths of a chip, zigzagged.
static void write_results(ByteWriter& w, Tree& t, int32_t format) {
  SectionWriter section(w);
  alignas(16) uint32_t raw[MaxRowValues + 32];
  each_record(t, format, [&](const SubgameResults& record) {
    for (int row = 2; row < RecordRows; row++) {
      const HandVector& v = record_row(record, row);
      if (!v.data) continue;
      if (v.count > MaxRowValues) throw TreeFileError("row too long");
      for (int32_t i = 0; i < v.count; i++)
        raw[i] = zigzag32(uint32_t(int32_t(std::clamp(std::round(double(v.data[i]) * 100.0), -2147483648.0, 2147483647.0))));
      section.row32(raw, v.count);
    }
  });
}

static void read_results(ByteSource& s, Tree& t, int32_t format) {
  SectionReader section(s);
  alignas(16) uint32_t raw[MaxRowValues + 32];
  each_record(t, format, [&](SubgameResults& record) {
    for (int row = 2; row < RecordRows; row++) {
      HandVector& v = record_row(record, row);
      if (!v.data) continue;
      section.row32(raw, v.count);
      for (int32_t i = 0; i < v.count; i++) v.data[i] = float(0.01 * double(int32_t(unzigzag32(raw[i]))));
    }
  });
}

// e. The strategies above a forgotten street: for the flop store, and for
// each turn board of a turn store, a row per action but the last, in
// thousandths.
template <typename Visit>
static void each_kept_strategy(Tree& t, Visit&& visit) {
  for (Node& node : t.nodes) {
    if (node.street >= t.forgotten_street || !node.regretStore) continue;
    const int32_t actions = int32_t(node.children.size());
    if (actions <= 0 || actions > MaxStoreActions) continue;
    const int32_t groups = strategy_groups(node.regretStore, node.street);
    for (int32_t g = 0; g < groups; g++) {
      const int32_t group = node.street == 1 ? -1 : g, cell = node.street == 1 ? -1 : 0;
      visit(*node.regretStore, actions, group, cell);
    }
  }
}

static void write_kept_strategies(ByteWriter& w, Tree& t) {
  SectionWriter section(w);
  alignas(16) uint16_t raw[MaxRowValues + 32];
  each_kept_strategy(t, [&](Store& store, int32_t actions, int32_t group, int32_t cell) {
    std::vector<float> defaults = uniform_defaults(actions);
    std::vector<HandVector> rows(static_cast<size_t>(actions));
    const int32_t n = store.row_length(group, cell);
    for (HandVector& v : rows) v.resize(n, false);
    store.read_strategy(rows.data(), group, cell, defaults.data());
    for (int32_t a = 0; a + 1 < actions; a++) {
      for (int32_t i = 0; i < n; i++)
        raw[i] = uint16_t(std::lround(std::clamp(rows[size_t(a)].data[i], 0.0f, 1.0f) * 1000.0f));
      section.row16(raw, n);
    }
  });
}

// The last action is 1000 less the others, at least 0.
static void read_kept_strategies(ByteSource& s, Tree& t) {
  SectionReader section(s);
  alignas(16) uint16_t raw[MaxRowValues + 32];
  std::vector<float> rows[MaxStoreActions];
  each_kept_strategy(t, [&](Store& store, int32_t actions, int32_t group, int32_t cell) {
    const int32_t n = store.row_length(group, cell);
    if (n < 0 || n > MaxRowValues) invalid_file();
    std::vector<float> last(size_t(n), 1000.0f);
    for (int32_t a = 0; a + 1 < actions; a++) {
      section.row16(raw, n);
      std::vector<float>& row = rows[a];
      row.assign(size_t(n), 0.0f);
      for (int32_t i = 0; i < n; i++) {
        row[size_t(i)] = float(raw[i]);
        last[size_t(i)] -= float(raw[i]);
      }
      store.write_row(group, cell, a, row.data());
    }
    for (float& x : last) x = std::max(x, 0.0f);
    store.write_row(group, cell, actions - 1, last.data());
  });
}

// ---- 16 Info lines -------------------------------------------------------------------------

static void write_info_lines(ByteWriter& w, const std::vector<std::string>& lines) {
  write_value<uint32_t>(w, uint32_t(lines.size()));
  for (const std::string& line : lines) {
    write_value<uint32_t>(w, uint32_t(line.size()));
    if (!line.empty()) w.write(line.data(), line.size());
  }
}

void read_info_lines(ByteSource& s, std::vector<std::string>& lines) {
  lines.clear();
  if (s.format < 7) return;
  uint32_t count = read_value<uint32_t>(s);
  need(s, int64_t(count), 4);
  for (uint32_t i = 0; i < count; i++) {
    uint32_t n = read_value<uint32_t>(s);
    need(s, int64_t(n), 1);
    std::string line(n, '\0');
    if (n) s.read(line.data(), n);
    lines.push_back(std::move(line));
  }
}

// ---- The whole file ---------------------------------------------------------------------------

void write_tree_file(ByteWriter& w, const TreeFileGame& g, Tree& t, int32_t compression,
                     const std::vector<std::string>& info_lines) {
  const int32_t format = TreeFileFormat;
  write_game(w, g);
  write_schematic(w, g.schematic);
  write_state(w, t, compression);
  write_heads_and_stores(w, t, format, t.forgotten_street < 0);
  write_row_lengths(w, t, format);
  write_results(w, t, format);  // the results are always written
  if (t.forgotten_street >= 0) write_kept_strategies(w, t);
  write_info_lines(w, info_lines);
}

void read_tree_head(ByteSource& s, TreeFileGame& g) {
  read_game(s, g);
  read_schematic(s, g.schematic);
}

void read_tree_state(ByteSource& s, TreeFileState& st) { read_state(s, st); }

void apply_tree_state(Tree& t, const TreeFileState& st, int32_t format) {
  t.format = format;
  t.flags = st.flags & (INCOMPLETE_TREE | ISOMORPHISM_ON | NEW_TREE);
  t.forgotten_street = st.forgotten_street;
  t.second_street = st.second_street;
  memcpy(t.solver_figures, st.solver_figures, sizeof t.solver_figures);
  memcpy(t.evaluation, st.evaluation, sizeof t.evaluation);
}

// The flat stores' blocks are known before their bytes are read: their pages
// are asked for on another core while the file is read.
struct FlatPagesAhead {
  explicit FlatPagesAhead(const Tree& t) {
    std::vector<PageBlock> blocks;
    for (const Node& node : t.nodes)
      for (Store* store : {node.regretStore, node.strategyStore}) add_flat_pages(store, blocks);
    start_pages_ahead(std::move(blocks));
  }
  ~FlatPagesAhead() { finish_pages_ahead(); }
};

void read_tree_data(ByteSource& s, Tree& t, bool results_absent) {
  const int32_t format = s.format;
  const bool stores_in_file = t.forgotten_street < 0 || format < 4;
  prepare_stores(s, t, stores_in_file);
  {
    FlatPagesAhead ahead(t);
    read_heads_and_stores(s, t, format, stores_in_file);
  }
  if (format < 4) return;
  read_row_lengths(s, t, format);
  if (!results_absent) read_results(s, t, format);
  if (t.forgotten_street >= 0) read_kept_strategies(s, t);
}
