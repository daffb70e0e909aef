// The FSE coder: header bytes computed by hand, the table log rule, round
// trips over sizes, alphabets and table logs, the special results, and a
// seeded fuzz of the decoder with a canary behind its output.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "storage/codec/codec.h"
#include "storage/codec/fse.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes compress(const Bytes& src, unsigned table_log = 0, unsigned max_symbol = 0) {
  Bytes out(fse_compress_bound(src.size()));
  int64_t r = fse_compress_limited(out.data(), out.size(), src.data(), src.size(), max_symbol, table_log);
  EXPECT_GE(r, 0);
  out.resize(r > 1 ? size_t(r) : 0);
  return out;
}

// Decompresses from an exactly sized copy into an exactly sized buffer.
int64_t decompress(const Bytes& coded, Bytes& out, size_t capacity) {
  Bytes in(coded);
  out.assign(capacity, 0);
  return fse_decompress(out.data(), capacity, in.data(), in.size());
}

void expect_round_trip(const Bytes& src, unsigned table_log = 0) {
  Bytes coded = compress(src, table_log);
  ASSERT_FALSE(coded.empty()) << "size " << src.size();
  EXPECT_LT(coded.size(), src.size() - 1);
  Bytes out;
  ASSERT_EQ(decompress(coded, out, src.size()), int64_t(src.size()));
  ASSERT_EQ(out, src);
  // One byte less room is an error, not a write past the end.
  if (src.size() > 2) {
    EXPECT_LT(decompress(coded, out, src.size() - 1), 0);
  }
}

Bytes skewed(std::mt19937& rng, size_t n, int alphabet, double decay) {
  std::vector<double> w(static_cast<size_t>(alphabet));
  double p = 1;
  for (double& x : w) {
    x = p;
    p *= decay;
  }
  std::discrete_distribution<int> d(w.begin(), w.end());
  Bytes out(n);
  for (uint8_t& b : out) b = uint8_t(d(rng));
  return out;
}

// ---- Header -------------------------------------------------------------------

TEST(FseHeader, ExactBytes) {
  struct Case {
    std::vector<int16_t> norm;
    Bytes bytes;
  };
  const Case cases[] = {
      // Table log 5: 24 + 1 = 25 takes 5 bits (below 63 - 33 = 30); then 8
      // points are left: 8 + 1 = 9 takes 4 bits as 9 + 6 = 15.
      {{24, 8}, {0x90, 0x1f}},
      // 30, four zeros (one flag of 3 and one of 0), -1, 1.
      {{30, 0, 0, 0, 0, -1, 1}, {0xf0, 0x35, 0x0c}},
  };
  for (const Case& c : cases) {
    unsigned last = unsigned(c.norm.size() - 1);
    uint8_t out[8];
    ASSERT_EQ(fse_write_counts(out, sizeof out, c.norm.data(), last, 5), int64_t(c.bytes.size()));
    EXPECT_EQ(Bytes(out, out + c.bytes.size()), c.bytes);
    int16_t back[256];
    unsigned max_symbol = 255, log = 0;
    EXPECT_EQ(fse_read_counts(back, &max_symbol, &log, out, c.bytes.size()), int64_t(c.bytes.size()));
    EXPECT_EQ(max_symbol, last);
    EXPECT_EQ(log, 5u);
    EXPECT_EQ(std::vector<int16_t>(back, back + last + 1), c.norm);
    // Cut short, or with a largest symbol below the header's, it fails.
    max_symbol = 255;
    EXPECT_LT(fse_read_counts(back, &max_symbol, &log, out, c.bytes.size() - 1), 0);
    max_symbol = last - 1;
    EXPECT_LT(fse_read_counts(back, &max_symbol, &log, out, c.bytes.size()), 0);
  }
}

TEST(FseHeader, FirstNibbleIsTableLogLessFive) {
  const uint8_t too_large[2] = {0x08, 0xff};  // table log 13
  int16_t norm[256];
  unsigned max_symbol = 255, log;
  EXPECT_EQ(fse_read_counts(norm, &max_symbol, &log, too_large, 2), -int64_t(FSE_ERROR_TABLE_LOG_TOO_LARGE));
  std::mt19937 rng(1);
  // Eight symbols: small enough for table log 5 (40 would need 7).
  Bytes src = skewed(rng, 65536, 8, 0.8);
  for (unsigned want = 5; want <= 12; want++) {
    Bytes coded = compress(src, want);
    ASSERT_FALSE(coded.empty());
    EXPECT_EQ(coded[0] & 15, want - 5) << want;
  }
  // Default: at most 11.
  EXPECT_EQ(compress(src)[0] & 15, 11 - 5);
}

TEST(FseHeader, ExactBlockOfTheTwoSymbolExample) {
  Bytes src(64, 0);
  for (int i = 0; i < 16; i++) src[size_t(i * 4 + 1)] = 1;
  // The header of the two-symbol example above, then the bitstream.
  Bytes coded = compress(src);
  EXPECT_EQ(coded, (Bytes{0x90, 0x1f, 0x50, 0xb1, 0x28, 0x15, 0xa3, 0x62, 0x91, 0x2b}));
  Bytes out;
  EXPECT_EQ(decompress(coded, out, 64), 64);
  EXPECT_EQ(out, src);
}

TEST(FseHeader, TableLogRule) {
  EXPECT_EQ(fse_optimal_table_log(0, 65536, 255), 11u);
  EXPECT_EQ(fse_optimal_table_log(12, 65536, 255), 12u);
  EXPECT_EQ(fse_optimal_table_log(11, 1000, 255), 9u);  // highbit(999) - 2 = 7, but 255 symbols need 9
  EXPECT_EQ(fse_optimal_table_log(11, 1000, 3), 7u);
  EXPECT_EQ(fse_optimal_table_log(11, 64, 1), 5u);
  EXPECT_EQ(fse_optimal_table_log(20, 1 << 20, 255), 12u);
}

TEST(FseHeader, NormalisedCountsFillTheTable) {
  std::mt19937 rng(9);
  for (int k = 0; k < 200; k++) {
    uint32_t count[256] = {};
    size_t total = 0;
    unsigned max_symbol = 1 + rng() % 255;
    for (unsigned s = 0; s <= max_symbol; s++) {
      count[s] = rng() % 3 == 0 ? 0 : rng() % (1u << (rng() % 16));
      total += count[s];
    }
    count[max_symbol] += 1;
    count[0] += 1;
    total += 2;
    unsigned log = fse_optimal_table_log(0, total, max_symbol);
    int16_t norm[256];
    ASSERT_EQ(fse_normalize_counts(norm, log, count, total, max_symbol), int64_t(log));
    int sum = 0;
    for (unsigned s = 0; s <= max_symbol; s++) {
      if (count[s] == 0) EXPECT_EQ(norm[s], 0);
      else EXPECT_TRUE(norm[s] == -1 || norm[s] >= 1);
      sum += norm[s] == -1 ? 1 : norm[s];
    }
    EXPECT_EQ(sum, 1 << log);
    // The header comes back from exactly its own bytes.
    uint8_t header[512];
    int64_t size = fse_write_counts(header, sizeof header, norm, max_symbol, log);
    ASSERT_GT(size, 0);
    int16_t back[256];
    unsigned back_max = 255, back_log = 0;
    Bytes exact(header, header + size);
    ASSERT_EQ(fse_read_counts(back, &back_max, &back_log, exact.data(), exact.size()), size);
    EXPECT_EQ(std::vector<int16_t>(back, back + back_max + 1), std::vector<int16_t>(norm, norm + max_symbol + 1));
  }
}

// ---- Blocks -----------------------------------------------------------------------

TEST(FseBlock, SpecialResults) {
  uint8_t out[fse_compress_bound(4096)];
  Bytes src(4096, 7);
  EXPECT_EQ(fse_compress(out, sizeof out, src.data(), 0), 0);
  EXPECT_EQ(fse_compress(out, sizeof out, src.data(), 1), 0);
  EXPECT_EQ(fse_compress(out, sizeof out, src.data(), 2), 1);     // one repeated byte
  EXPECT_EQ(fse_compress(out, sizeof out, src.data(), 4096), 1);
  for (int i = 0; i < 256; i++) src[size_t(i)] = uint8_t(i);
  EXPECT_EQ(fse_compress(out, sizeof out, src.data(), 256), 0);   // no byte twice
  std::mt19937 rng(2);
  for (uint8_t& b : src) b = uint8_t(rng());
  EXPECT_EQ(fse_compress(out, sizeof out, src.data(), src.size()), 0);  // noise
  // Parameters out of range are errors.
  EXPECT_LT(fse_compress_limited(out, sizeof out, src.data(), src.size(), 255, 13), 0);
  EXPECT_LT(fse_compress_limited(out, sizeof out, src.data(), src.size(), 256, 11), 0);
  EXPECT_LT(fse_compress_limited(out, sizeof out, src.data(), src.size(), 100, 11), 0);
  EXPECT_EQ(fse_compress_bound(65536), size_t(65536 + 512 + 512));
}

TEST(FseBlock, TooSmallDestination) {
  std::mt19937 rng(4);
  Bytes src = skewed(rng, 20000, 20, 0.5);
  Bytes full = compress(src);
  ASSERT_FALSE(full.empty());
  // Room for the header only, or for nothing: an error or "incompressible",
  // never a write past the end.
  for (size_t room : {size_t(0), size_t(1), size_t(5), size_t(20), full.size() - 1}) {
    Bytes out(room + 1, 0xab);
    int64_t r = fse_compress(out.data(), room, src.data(), src.size());
    EXPECT_LE(r, 0) << room;
    EXPECT_EQ(out[room], 0xab) << room;
  }
}

TEST(FseBlock, RoundTripsTableLogsAndAlphabets) {
  std::mt19937 rng(8);
  for (unsigned log = 5; log <= 12; log++) {
    for (int alphabet : {2, 3, 17, 64, 256}) {
      Bytes src = skewed(rng, 65536, alphabet, alphabet == 256 ? 0.98 : 0.6);
      expect_round_trip(src, log);
    }
  }
  // A symbol far below one point takes the -1 count.
  Bytes rare(65536, 3);
  rare[100] = 200;
  rare[200] = 0;
  expect_round_trip(rare);
  // Only the largest symbol value at 255.
  Bytes high(5000, 255);
  for (size_t i = 0; i < high.size(); i += 3) high[i] = 254;
  expect_round_trip(high);
}

TEST(FseBlock, RandomSourcesRoundTrip) {
  // Any source either codes and comes back, or is reported as raw or one byte.
  for (uint32_t seed = 0; seed < 1500; seed++) {
    std::mt19937 rng(seed);
    size_t n = 2 + rng() % (seed % 10 == 0 ? 65535 : 3000);
    int alphabet = 1 + int(rng() % 256);
    Bytes src = skewed(rng, n, alphabet, 0.05 + 0.95 * double(rng() % 1000) / 1000);
    if (seed % 7 == 0)
      for (uint8_t& b : src) b = uint8_t(b * 37 + 200);  // symbols spread over the byte range
    Bytes coded(fse_compress_bound(n));
    int64_t r = fse_compress(coded.data(), coded.size(), src.data(), n);
    ASSERT_GE(r, 0) << "seed " << seed;
    if (r == 1) {
      ASSERT_EQ(std::count(src.begin(), src.end(), src[0]), long(n)) << "seed " << seed;
      continue;
    }
    if (r == 0) continue;
    coded.resize(size_t(r));
    Bytes out;
    ASSERT_EQ(decompress(coded, out, n), int64_t(n)) << "seed " << seed;
    ASSERT_EQ(out, src) << "seed " << seed;
  }
}

TEST(FseBlock, Bmi2DecoderMatchesBaseline) {
  if (codec_isa() < CODEC_AVX2) GTEST_SKIP() << "no BMI2 on this processor";
  auto both = [](auto&& f) {
    CodecIsaLimit = CODEC_BASELINE;
    auto plain = f();
    CodecIsaLimit = CODEC_AVX2;
    return std::make_pair(plain, f());
  };
  for (uint32_t seed = 0; seed < 400; seed++) {
    std::mt19937 rng(seed);
    size_t n = seed < 40 ? 2 + seed : 2 + rng() % (seed % 8 == 0 ? 65535 : 2000);
    Bytes src = skewed(rng, n, 1 + int(rng() % 256), 0.05 + 0.95 * double(rng() % 1000) / 1000);
    Bytes plain = compress(src, 5 + seed % 8);
    if (plain.empty()) continue;
    // Whole, cut short, one byte flipped, and one byte of room too few.
    Bytes damaged = plain;
    damaged[rng() % damaged.size()] ^= uint8_t(1 + rng() % 255);
    for (const Bytes& in : {plain, Bytes(plain.begin(), plain.end() - 1), damaged})
      for (size_t room : {n, n - 1}) {
        auto [a, b] = both([&] {
          Bytes out;
          int64_t r = decompress(in, out, room);
          return std::make_pair(r, r > 0 ? Bytes(out.begin(), out.begin() + r) : Bytes());
        });
        ASSERT_EQ(a, b) << "seed " << seed << " size " << in.size() << " room " << room;
      }
  }
  CodecIsaLimit = CODEC_AVX512;
}

// ---- Blocks in lanes -----------------------------------------------------------------

// The two-lane coder against the one-block coder, on both builds: blocks of
// 2 to 65536 bytes and table logs 5 to 12, one raw and one of a single byte,
// in an order that makes the lanes swap blocks unevenly; then damaged blocks
// among good ones fail alone.
TEST(FseBlocks, LanesGiveTheBytesAndResultsOfSingleBlocks) {
  std::mt19937 rng(21);
  std::vector<Bytes> sources;
  std::vector<unsigned> logs;
  for (size_t n : {65536, 2, 300, 20000, 3, 1500, 7, 65536, 900, 4096, 64, 12000}) {
    sources.push_back(skewed(rng, n, 2 + int(rng() % 60), 0.3 + 0.1 * double(rng() % 7)));
    logs.push_back(5 + unsigned(sources.size() % 8));
  }
  sources[4] = Bytes(5000, 9);  // one byte
  sources[6].resize(3000);
  for (uint8_t& b : sources[6]) b = uint8_t(rng());  // raw
  for (size_t k = 0; k < sources.size(); k++) {
    if (k == 6) continue;
    for (size_t i = 0; i < sources[k].size(); i++) sources[k][i] = uint8_t(sources[k][i] * 5);
  }
  const size_t n = sources.size();
  for (bool avx2 : {false, true}) {
    CodecIsaLimit = avx2 ? CODEC_AVX2 : CODEC_BASELINE;
    std::vector<Bytes> coded(n);
    std::vector<FseBlock> blocks(n);
    for (size_t k = 0; k < n; k++) {
      coded[k].assign(fse_compress_bound(sources[k].size()), 0);
      blocks[k] = {coded[k].data(), coded[k].size(), sources[k].data(), sources[k].size(), logs[k]};
    }
    std::vector<int64_t> results(n);
    fse_compress_blocks(blocks.data(), int(n), results.data());
    size_t streams = 0;
    for (size_t k = 0; k < n; k++) {
      Bytes alone(fse_compress_bound(sources[k].size()));
      const int64_t r = fse_compress_limited(alone.data(), alone.size(), sources[k].data(), sources[k].size(), 255, logs[k]);
      alone.resize(r > 1 ? size_t(r) : 0);
      ASSERT_EQ(results[k], r) << k;
      coded[k].resize(results[k] > 1 ? size_t(results[k]) : 0);
      ASSERT_EQ(coded[k], alone) << k;
      streams += r > 1;
    }
    ASSERT_GE(streams, n - 3);
    EXPECT_EQ(results[4], 1);
    EXPECT_EQ(results[6], 0);
    // Decoding: the coded blocks as a list, with exact rooms, then with two
    // damaged (a bitstream without its end mark, a header that doesn't fill
    // the table) and one given a byte too little room.
    for (int damaged : {0, 1}) {
      std::vector<Bytes> in, out;
      std::vector<FseBlock> list;
      std::vector<size_t> which;
      for (size_t k = 0; k < n; k++) {
        if (coded[k].empty()) continue;
        which.push_back(k);
        in.push_back(coded[k]);
        out.emplace_back(sources[k].size() + 1, 0x5c);
      }
      if (damaged) {
        in[0].back() = 0;
        in[3][0] ^= 0x30;
      }
      for (size_t j = 0; j < in.size(); j++) {
        const size_t room = out[j].size() - 1 - (damaged && j == 5);
        list.push_back({out[j].data(), room, in[j].data(), in[j].size()});
      }
      std::vector<int64_t> back(list.size());
      fse_decompress_blocks(list.data(), int(list.size()), back.data());
      for (size_t j = 0; j < list.size(); j++) {
        Bytes single(list[j].dst_capacity + 1, 0x5c);
        const int64_t r = fse_decompress(single.data(), list[j].dst_capacity, in[j].data(), in[j].size());
        EXPECT_EQ(back[j], r) << j;
        EXPECT_EQ(out[j][list[j].dst_capacity], 0x5c) << "wrote past the room of " << j;
        const bool bad = damaged && (j == 0 || j == 3 || j == 5);
        if (bad) {
          EXPECT_NE(back[j], int64_t(sources[which[j]].size())) << j;
        } else {
          EXPECT_TRUE(std::equal(sources[which[j]].begin(), sources[which[j]].end(), out[j].begin())) << j;
        }
      }
    }
  }
  CodecIsaLimit = CODEC_AVX512;
}

// ---- Same bytes ---------------------------------------------------------------------

// Stored tree files hold these blocks, so the encoder's bytes must never
// change. The digests below were taken from the first, plain build of the
// coder over blocks made by a generator of our own (the standard
// distributions may differ between library versions).
struct SplitMix {
  uint64_t x;
  uint64_t next() {
    uint64_t z = (x += 0x9e3779b97f4a7c15ull);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
  }
};

uint64_t fnv(uint64_t h, const void* p, size_t n) {
  for (size_t i = 0; i < n; i++) h = (h ^ static_cast<const uint8_t*>(p)[i]) * 0x100000001b3ull;
  return h;
}

// Edge and random blocks: one symbol, two, 255 and 256 present, symbols at
// the top of the range, rare symbols below one point, 2 to 65536 bytes.
std::vector<Bytes> digest_blocks() {
  std::vector<Bytes> blocks;
  SplitMix g{15};
  const size_t sizes[] = {2, 3, 5, 17, 64, 100, 255, 256, 700, 1023, 1024, 4096, 20000, 65536};
  for (size_t n : sizes)
    for (int kind = 0; kind < 8; kind++) {
      Bytes b(n);
      const unsigned shift = unsigned(g.next() % 7);
      for (size_t i = 0; i < n; i++) {
        const uint64_t r = g.next();
        switch (kind) {
          case 0: b[i] = uint8_t(r % 97 == 0); break;                        // two symbols, one rare
          case 1: b[i] = uint8_t(i % 255); break;                              // 255 present, flat
          case 2: b[i] = uint8_t(r % 256 < 200 ? 0 : r >> 8); break;          // 256 present, skewed
          case 3: b[i] = uint8_t(255 - __builtin_ctzll(r | (1ull << 40)) * 3); break;  // near 255
          case 4: b[i] = uint8_t((r >> 8) % (1u + (r & 255) % (2u << shift))); break;
          case 5: b[i] = i == n / 2 ? 9 : 4; break;                            // one odd byte
          case 6: b[i] = uint8_t(__builtin_ctzll(r) + (r % 1000 == 0 ? 200 : 0)); break;
          default: b[i] = uint8_t(r % 3 ? 0 : __builtin_popcountll(r) * 5);
        }
      }
      blocks.push_back(b);
    }
  blocks.push_back(Bytes(300, 42));
  // Rare symbols at the end: the decoder's last groups read the most bits.
  for (size_t n : {size_t(700), size_t(5000), size_t(65536)}) {
    Bytes b(n);
    for (size_t i = 0; i < n; i++) b[i] = i + 200 < n ? uint8_t(g.next() % 2) : uint8_t(2 + (n - i) % 250);
    blocks.push_back(b);
  }
  return blocks;
}

TEST(FseSameBytes, BlocksAndHeadersMatchTheFirstBuild) {
  uint64_t blocks = 0xcbf29ce484222325ull, counts = blocks;
  Bytes out(fse_compress_bound(65536)), back(65537);
  for (const Bytes& src : digest_blocks())
    for (unsigned log = 5; log <= 12; log++) {
      const int64_t r = fse_compress_limited(out.data(), out.size(), src.data(), src.size(), 255, log);
      blocks = fnv(blocks, &r, sizeof r);
      if (r <= 1) continue;
      blocks = fnv(blocks, out.data(), size_t(r));
      for (bool avx2 : {false, true}) {
        CodecIsaLimit = avx2 ? CODEC_AVX2 : CODEC_BASELINE;
        ASSERT_EQ(fse_decompress(back.data(), src.size(), out.data(), size_t(r)), int64_t(src.size()));
        ASSERT_TRUE(std::equal(src.begin(), src.end(), back.begin())) << src.size() << " " << log;
        // Damaged, it fails or stops, and never writes past its room.
        Bytes damaged(out.begin(), out.begin() + r);
        damaged[size_t(r) / 2] ^= 0x24;
        back[src.size()] = 0x5c;
        const int64_t r2 = fse_decompress(back.data(), src.size(), damaged.data(), damaged.size());
        EXPECT_LE(r2, int64_t(src.size()));
        EXPECT_EQ(back[src.size()], 0x5c);
      }
    }
  // Normalisation and header alone, on totals far beyond a block.
  SplitMix g{3};
  for (int k = 0; k < 300; k++) {
    uint32_t count[256] = {};
    size_t total = 0;
    const unsigned max_symbol = 1 + unsigned(g.next() % 255);
    for (unsigned s = 0; s <= max_symbol; s++) {
      // One draw a statement: the order of two draws in one expression is unspecified.
      const uint64_t present = g.next() % 3;
      const uint64_t shift = g.next() % 24;
      count[s] = present == 0 ? 0 : uint32_t(g.next() % (1ull << shift));
      total += count[s];
    }
    count[0]++;
    count[max_symbol]++;
    total += 2;
    const unsigned log = 5 + unsigned(g.next() % 8);
    int16_t norm[256];
    const int64_t r = fse_normalize_counts(norm, log, count, total, max_symbol);
    counts = fnv(counts, &r, sizeof r);
    if (r < 0) continue;
    counts = fnv(counts, norm, sizeof(int16_t) * (max_symbol + 1));
    uint8_t header[512];
    const int64_t size = fse_write_counts(header, sizeof header, norm, max_symbol, log);
    ASSERT_GT(size, 0);
    counts = fnv(counts, header, size_t(size));
  }
  CodecIsaLimit = CODEC_AVX512;
  EXPECT_EQ(blocks, 0x37cab5ea3073ecbeull);
  EXPECT_EQ(counts, 0xe7525128b2d7eecfull);
}

// ---- Fuzz -------------------------------------------------------------------------

TEST(FseFuzz, CorruptTruncatedAndGarbageInput) {
  constexpr size_t Capacity = 4096;
  constexpr uint8_t Canary = 0x5c;
  std::mt19937 rng(12345);
  std::vector<Bytes> samples;
  for (int k = 0; k < 12; k++) {
    Bytes src = skewed(rng, 64 + rng() % (Capacity - 64), 2 + int(rng() % 100), 0.3 + 0.06 * k);
    Bytes coded = compress(src);
    if (!coded.empty()) samples.push_back(coded);
  }
  ASSERT_GE(samples.size(), 8u);
  for (int iteration = 0; iteration < 20000; iteration++) {
    const uint32_t seed = uint32_t(iteration);
    std::mt19937 r(seed);
    Bytes in = samples[r() % samples.size()];
    switch (r() % 4) {
      case 0:  // flip a few bytes
        for (uint32_t k = 1 + r() % 4; k; k--) in[r() % in.size()] ^= uint8_t(1 + r() % 255);
        break;
      case 1:  // cut short
        in.resize(r() % in.size());
        break;
      case 2:  // garbage of any length
        in.resize(r() % 300);
        for (uint8_t& b : in) b = uint8_t(r());
        break;
      default:  // a valid header in front of garbage
        for (size_t i = 2 + r() % 8; i < in.size(); i++) in[i] = uint8_t(r());
    }
    Bytes exact(in);  // exactly sized: ASan sees any read past it
    Bytes out(Capacity + 16, Canary);
    int64_t result = fse_decompress(out.data(), Capacity, exact.data(), exact.size());
    ASSERT_LE(result, int64_t(Capacity)) << "seed " << seed;
    for (size_t i = Capacity; i < out.size(); i++)
      ASSERT_EQ(out[i], Canary) << "wrote past the output, seed " << seed;
  }
}

TEST(FseFuzz, EveryTruncationFailsOrStops) {
  std::mt19937 rng(77);
  Bytes src = skewed(rng, 3000, 30, 0.7);
  Bytes coded = compress(src);
  ASSERT_FALSE(coded.empty());
  for (size_t cut = 0; cut < coded.size(); cut++) {
    Bytes part(coded.begin(), coded.begin() + long(cut));
    Bytes out;
    int64_t r = decompress(part, out, src.size());
    EXPECT_NE(r, int64_t(src.size())) << cut;
  }
}

}  // namespace
