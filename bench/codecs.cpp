// Throughput of the row codecs on one core: the packed block format and the
// FSE channel codec, on rows shaped like store rows (neighbouring rows alike,
// small values, many zeros). Prints values per second and bytes per value.
//
//   bench_codecs [BLOCKS [rounds]]
//
// With BLOCKS, a file of recorded FSE blocks (each a 32-bit size, then the
// bytes), it times fse_compress and fse_decompress of those blocks instead and
// prints a digest of every result, so that two builds can be checked for the
// same bytes.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <vector>

#include "platform/platform.h"
#include "storage/codec/codec.h"
#include "storage/codec/fse.h"

namespace {

struct Rows {
  int count;  // values per row
  std::vector<std::vector<uint32_t>> rows;
  std::vector<int> reference;  // index of the reference row, or -1
  size_t values() const { return rows.size() * size_t(count); }
};

// Cells of a river group: each cell has `actions` rows; the rows of one action
// in neighbouring cells differ a little. Values are regret-like: a third zero,
// the rest a smooth walk of small numbers.
Rows make_rows(std::mt19937& rng, int cells, int actions, int count, uint32_t scale,
               uint32_t change_one_in = 6) {
  Rows r{count, {}, {}};
  std::vector<std::vector<uint32_t>> base(static_cast<size_t>(actions),
                                         std::vector<uint32_t>(static_cast<size_t>(count)));
  for (auto& row : base) {
    uint32_t v = 0;
    for (int i = 0; i < count; i++) {
      uint32_t k = rng() % 12;
      if (k < 4) v = 0;
      else if (k < 9) v = v;
      else v = (v + rng() % (scale / 4 + 1)) % scale;
      row[size_t(i)] = v;
    }
  }
  for (int c = 0; c < cells; c++) {
    for (int a = 0; a < actions; a++) {
      for (uint32_t& v : base[size_t(a)])
        if (rng() % change_one_in == 0) v = v ? v + rng() % 9 - 4 : rng() % 3;
      r.rows.push_back(base[size_t(a)]);
      r.reference.push_back(c == 0 ? -1 : int(r.rows.size()) - 1 - actions);
    }
  }
  return r;
}

// Channels in memory, grown in advance so the sink costs a copy only.
struct Channels {
  std::vector<uint8_t> data[CodecChannelCount];
  size_t size[CodecChannelCount] = {};
  size_t position[CodecChannelCount] = {};
  static void write(void* ctx, int c, const uint8_t* bytes, size_t n) {
    auto* m = static_cast<Channels*>(ctx);
    if (m->size[c] + n > m->data[c].size()) m->data[c].resize((m->size[c] + n) * 2);
    memcpy(m->data[c].data() + m->size[c], bytes, n);
    m->size[c] += n;
  }
  static size_t read(void* ctx, int c, uint8_t* bytes, size_t n) {
    auto* m = static_cast<Channels*>(ctx);
    size_t left = m->size[c] - m->position[c];
    if (n > left) n = left;
    memcpy(bytes, m->data[c].data() + m->position[c], n);
    m->position[c] += n;
    return n;
  }
  void clear() {
    for (int c = 0; c < CodecChannelCount; c++) size[c] = position[c] = 0;
  }
  void rewind() {
    for (size_t& p : position) p = 0;
  }
  size_t total() const {
    size_t t = 0;
    for (size_t s : size) t += s;
    return t;
  }
};

// Processor time of this (single-threaded) process, so that other work on a
// shared machine doesn't count against the figures.
template <typename F>
double seconds_per_pass(F&& pass) {
  pass();  // warm up
  int passes = 0;
  double start = process_cpu_seconds(), now;
  do {
    pass();
    passes++;
    now = process_cpu_seconds();
  } while (now - start < 0.4);
  return (now - start) / passes;
}

void report(const char* name, size_t values, double seconds, double bytes) {
  printf("%-34s %8.1f M values/s   %6.3f bytes/value\n", name, double(values) / seconds / 1e6,
         bytes / double(values));
}

void bench_packed(const Rows& r, const char* label) {
  std::vector<uint8_t> buffer(r.rows.size() * pack_bound32(r.count));
  std::vector<uint32_t> out(static_cast<size_t>(r.count));
  size_t bytes32 = 0;
  double pack = seconds_per_pass([&] {
    uint8_t* p = buffer.data();
    for (const auto& row : r.rows) p = pack32(p, row.data(), r.count);
    bytes32 = size_t(p - buffer.data());
  });
  uint64_t check = 0;
  double unpack = seconds_per_pass([&] {
    const uint8_t* p = buffer.data();
    for (size_t i = 0; i < r.rows.size(); i++) {
      p = unpack32(out.data(), r.count, p);
      check += out[0];
    }
  });
  char name[64];
  snprintf(name, sizeof name, "pack32 %s", label);
  report(name, r.values(), pack, double(bytes32));
  snprintf(name, sizeof name, "unpack32 %s", label);
  report(name, r.values(), unpack, double(bytes32));

  std::vector<std::vector<uint16_t>> narrow;
  for (const auto& row : r.rows) {
    std::vector<uint16_t> n(row.size());
    for (size_t i = 0; i < row.size(); i++) n[i] = uint16_t(row[i] > 65535 ? 65535 : row[i]);
    narrow.push_back(n);
  }
  std::vector<uint16_t> out16(static_cast<size_t>(r.count));
  size_t bytes16 = 0;
  pack = seconds_per_pass([&] {
    uint8_t* p = buffer.data();
    for (const auto& row : narrow) p = pack16(p, row.data(), r.count);
    bytes16 = size_t(p - buffer.data());
  });
  unpack = seconds_per_pass([&] {
    const uint8_t* p = buffer.data();
    for (size_t i = 0; i < narrow.size(); i++) {
      p = unpack16(out16.data(), r.count, p);
      check += out16[0];
    }
  });
  snprintf(name, sizeof name, "pack16 %s", label);
  report(name, r.values(), pack, double(bytes16));
  snprintf(name, sizeof name, "unpack16 %s", label);
  report(name, r.values(), unpack, double(bytes16));
  if (check == 1) printf("\n");
}

void bench_fse_codec(const Rows& r, const char* label) {
  Channels ch;
  ChannelSink sink{&ch, &Channels::write};
  ChannelSource source{&ch, &Channels::read};
  auto ref = [&](size_t i) { return r.reference[i] < 0 ? nullptr : r.rows[size_t(r.reference[i])].data(); };
  double encode = seconds_per_pass([&] {
    ch.clear();
    RowEncoder* e = make_encoder(CodecId::FseCodec, sink);
    for (size_t i = 0; i < r.rows.size(); i++) encode_row32(*e, r.rows[i].data(), ref(i), r.count);
    delete e;
  });
  const size_t bytes = ch.total();
  std::vector<std::vector<uint32_t>> decoded(r.rows.size(),
                                            std::vector<uint32_t>(static_cast<size_t>(r.count)));
  double decode = seconds_per_pass([&] {
    ch.rewind();
    RowDecoder* d = make_decoder(source);
    for (size_t i = 0; i < r.rows.size(); i++) {
      const uint32_t* reference = r.reference[i] < 0 ? nullptr : decoded[size_t(r.reference[i])].data();
      d->decode32(decoded[i].data(), reference, r.count);
    }
    delete d;
  });
  for (size_t i = 0; i < r.rows.size(); i++)
    if (decoded[i] != r.rows[i]) {
      printf("FseCodec round trip failed at row %zu\n", i);
      return;
    }
  char name[64];
  snprintf(name, sizeof name, "FseCodec encode %s", label);
  report(name, r.values(), encode, double(bytes));
  snprintf(name, sizeof name, "FseCodec decode %s", label);
  report(name, r.values(), decode, double(bytes));

  // The entropy coder alone, on the mask channel's bytes.
  std::vector<uint8_t> masks;
  for (const auto& row : r.rows)
    for (int i = 0; i < r.count; i += 8) {
      uint8_t m = 0;
      for (int j = 0; j < 8 && i + j < r.count; j++) m |= uint8_t((row[size_t(i + j)] != 0) << j);
      masks.push_back(m);
    }
  if (masks.size() > 65536) masks.resize(65536);
  std::vector<uint8_t> coded(fse_compress_bound(masks.size())), back(masks.size());
  // Both builds of the decoding loop where the processor has BMI2.
  const bool bmi2 = codec_isa() >= CODEC_AVX2;
  for (bool use : {false, true}) {
    if (use && !bmi2) continue;
    CodecIsaLimit = use ? CODEC_AVX2 : CODEC_BASELINE;
    int64_t size = 0;
    double c = seconds_per_pass([&] { size = fse_compress(coded.data(), coded.size(), masks.data(), masks.size()); });
    double d = seconds_per_pass([&] { fse_decompress(back.data(), back.size(), coded.data(), size_t(size)); });
    printf("%-34s %8.1f MB/s compress, %8.1f MB/s decompress, ratio %.3f\n",
           use ? "FSE on mask bytes (BMI2)" : "FSE on mask bytes", double(masks.size()) / c / 1e6,
           double(masks.size()) / d / 1e6, double(size) / double(masks.size()));
  }
  CodecIsaLimit = CODEC_AVX512;
}

uint64_t fnv(uint64_t h, const void* p, size_t n) {
  const uint8_t* b = static_cast<const uint8_t*>(p);
  for (size_t i = 0; i < n; i++) h = (h ^ b[i]) * 0x100000001b3ull;
  return h;
}

int replay_blocks(const char* path, int rounds) {
  FILE* f = fopen(path, "rb");
  if (!f) {
    fprintf(stderr, "can't read %s\n", path);
    return 2;
  }
  std::vector<std::vector<uint8_t>> blocks;
  uint32_t n;
  while (fread(&n, 4, 1, f) == 1) {
    std::vector<uint8_t> b(n);
    if (n > 65536 || fread(b.data(), 1, n, f) != n) break;
    blocks.push_back(std::move(b));
  }
  fclose(f);
  std::vector<std::vector<uint8_t>> coded(blocks.size());
  std::vector<int64_t> result(blocks.size());
  size_t bytes = 0;
  for (size_t i = 0; i < blocks.size(); i++) {
    coded[i].resize(fse_compress_bound(blocks[i].size()));
    bytes += blocks[i].size();
  }
  std::vector<uint8_t> back(65536);
  double compress = 1e300, decompress = 1e300;
  uint64_t check = 0;
  // Processor time of this thread: on a shared machine it counts less of the
  // others' work than the wall clock does.
  auto now = [] {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + 1e-9 * double(t.tv_nsec);
  };
  for (int r = 0; r < rounds; r++) {
    const double a = now();
    for (size_t i = 0; i < blocks.size(); i++)
      result[i] = fse_compress(coded[i].data(), coded[i].size(), blocks[i].data(), blocks[i].size());
    const double b = now();
    for (size_t i = 0; i < blocks.size(); i++)
      if (result[i] > 1)
        check += uint64_t(fse_decompress(back.data(), back.size(), coded[i].data(), size_t(result[i])));
    const double c = now();
    compress = std::min(compress, b - a);
    decompress = std::min(decompress, c - b);
  }
  uint64_t digest = 0xcbf29ce484222325ull;
  size_t coded_blocks = 0, coded_bytes = 0;
  for (size_t i = 0; i < blocks.size(); i++) {
    digest = fnv(digest, &result[i], 8);
    if (result[i] > 1) {
      digest = fnv(digest, coded[i].data(), size_t(result[i]));
      coded_blocks++;
      coded_bytes += blocks[i].size();
      fse_decompress(back.data(), back.size(), coded[i].data(), size_t(result[i]));
      if (memcmp(back.data(), blocks[i].data(), blocks[i].size()) != 0)
        printf("block %zu doesn't come back\n", i);
    }
  }
  printf("%zu blocks, %zu bytes (%zu blocks, %zu bytes coded); compress %.3f ns/byte, "
         "decompress %.3f ns/coded byte;"
         " digest %016llx (best of %d)\n",
         blocks.size(), bytes, coded_blocks, coded_bytes, compress * 1e9 / double(bytes),
         decompress * 1e9 / double(coded_bytes), static_cast<unsigned long long>(digest), rounds);
  return check == 1 ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) return replay_blocks(argv[1], argc > 2 ? atoi(argv[2]) : 5);
  std::mt19937 rng(2024);
  printf("one core; rows of 1326 values, 48 cells x 3 actions\n");
  Rows small = make_rows(rng, 48, 3, 1326, 400);
  Rows wide = make_rows(rng, 48, 3, 1326, 60000);
  // Late river regrets: few entries change from one river card to the next.
  Rows sparse = make_rows(rng, 48, 3, 1326, 60000, 20);
  bench_packed(small, "(small)");
  bench_packed(wide, "(16-bit)");
  bench_fse_codec(small, "(small)");
  bench_fse_codec(wide, "(16-bit)");
  bench_fse_codec(sparse, "(sparse)");
  return 0;
}
