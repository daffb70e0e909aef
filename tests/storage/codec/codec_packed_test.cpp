// The packed block format: hand-computed bytes, round trips of every form,
// measured sizes, bounds, and reads that stop at the row's end.
#include <gtest/gtest.h>

#include "codec_support.h"
#include "storage/codec/codec.h"

namespace {

using Bytes = std::vector<uint8_t>;

// One form's writer, reader, size and bound.
template <class T>
struct Form {
  uint8_t* (*pack)(uint8_t*, const T*, int);
  const uint8_t* (*unpack)(T*, int, const uint8_t*);
  int64_t (*size)(const uint8_t*, size_t, int);
  size_t (*bound)(int);
  uint32_t mask;  // the bits a value keeps
};
const Form<uint32_t> F32{pack32, unpack32, packed_size32, pack_bound32, 0xffffffff};
const Form<uint16_t> F16{pack16, unpack16, packed_size16, pack_bound16, 0xffff};
const Form<uint32_t> F24{pack24, unpack24, packed_size24, pack_bound24, 0xffffff};

template <class T>
Bytes packed(const Form<T>& f, const std::vector<T>& row) {
  Bytes out(f.bound(int(row.size())) + 16, 0xcc);
  uint8_t* end = f.pack(out.data(), row.data(), int(row.size()));
  EXPECT_LE(size_t(end - out.data()), f.bound(int(row.size())));
  out.resize(size_t(end - out.data()));
  return out;
}
Bytes packed32(const std::vector<uint32_t>& row) { return packed(F32, row); }
Bytes packed16(const std::vector<uint16_t>& row) { return packed(F16, row); }
Bytes packed24(const std::vector<uint32_t>& row) { return packed(F24, row); }

Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

Bytes repeat(uint8_t b, size_t n) { return Bytes(n, b); }

// ---- Exact bytes --------------------------------------------------------------

TEST(PackedFormat, ExactBlockClasses32) {
  std::vector<uint32_t> row(32, 0);
  for (int i = 8; i < 16; i++) row[size_t(i)] = 255;           // class 1
  row[16] = 256;                                                // class 2
  row[31] = 65536;                                              // class 3
  Bytes expect = {0xe4};
  expect = concat({expect, repeat(255, 8), {0, 1}, repeat(0, 14), repeat(0, 28), {0, 0, 1, 0}});
  EXPECT_EQ(packed32(row), expect);
}

TEST(PackedFormat, ExactShortcutAndTail32) {
  // 32 one-byte values: control 0x55 and 32 bytes; 33rd value: a tail group.
  std::vector<uint32_t> row(33);
  for (int i = 0; i < 32; i++) row[size_t(i)] = uint32_t(i);
  row[32] = 300;
  Bytes expect = {0x55};
  for (int i = 0; i < 32; i++) expect.push_back(uint8_t(i));
  expect = concat({expect, {1, 0x2c, 0x01}});
  EXPECT_EQ(packed32(row), expect);
  // A zero block costs one byte; zeros in the tail cost a byte each.
  EXPECT_EQ(packed32(std::vector<uint32_t>(32, 0)), Bytes{0});
  EXPECT_EQ(packed32(std::vector<uint32_t>(5, 0)), (Bytes{0, 0, 0, 0, 0, 0}));
  // Tail classes: 0 bytes, 1 16 bits, 3 32 bits; 2 is never written alone.
  EXPECT_EQ(packed32({255, 1}), (Bytes{0, 255, 1}));
  EXPECT_EQ(packed32({256}), (Bytes{1, 0, 1}));
  EXPECT_EQ(packed32({65536, 1}), (Bytes{3, 0, 0, 1, 0, 1, 0, 0, 0}));
  // Nine values: two tail groups.
  EXPECT_EQ(packed32(std::vector<uint32_t>(9, 7)), concat({{0}, repeat(7, 8), {0, 7}}));
  EXPECT_TRUE(packed32({}).empty());
}

TEST(PackedFormat, ExactTwelveBitGroup) {
  std::vector<uint16_t> row(32, 0);
  const uint16_t g[8] = {1, 2, 3, 4, 5, 6, 7, 4095};
  for (int i = 0; i < 8; i++) row[size_t(8 + i)] = g[i];
  row[24] = 4096;  // 16 bits from 4096 on
  Bytes expect = {uint8_t(0 | 2 << 2 | 0 << 4 | 3 << 6)};
  expect = concat({expect, {0x01, 0x20, 0x00, 0x03, 0x40, 0x00, 0x05, 0x60, 0x00, 0x07, 0xf0, 0xff},
                   {0x00, 0x10}, repeat(0, 14)});
  EXPECT_EQ(packed16(row), expect);
  // The reader's formula for the same three words.
  const uint32_t w0 = 0x03002001, w1 = 0x60050040, w2 = 0xfff00700;
  const uint32_t values[8] = {w0 & 0xfff, w0 >> 12 & 0xfff, (w1 & 15) << 8 | w0 >> 24, w1 >> 4 & 0xfff,
                              w1 >> 16 & 0xfff, (w2 & 255) << 4 | w1 >> 28, w2 >> 8 & 0xfff, w2 >> 20};
  for (int i = 0; i < 8; i++) EXPECT_EQ(values[i], g[i]);
}

TEST(PackedFormat, ExactTail16And24) {
  EXPECT_EQ(packed16({255, 0}), (Bytes{1, 255, 0}));
  EXPECT_EQ(packed16({256, 0}), (Bytes{3, 0, 1, 0, 0}));
  std::vector<uint16_t> bytes32(32, 9);
  EXPECT_EQ(packed16(bytes32), concat({{0x55}, repeat(9, 32)}));
  // Unpacking takes any tail control other than 1 as 16 bits.
  uint16_t out[2];
  const Bytes zero_control = {0, 0x34, 0x12, 0x01, 0x00};
  EXPECT_EQ(unpack16(out, 2, zero_control.data()), zero_control.data() + 5);
  EXPECT_EQ(out[0], 0x1234);
  EXPECT_EQ(out[1], 1);

  EXPECT_EQ(packed24({0x123456}), (Bytes{3, 0x56, 0x34, 0x12}));
  EXPECT_EQ(packed24({0x1000001}), (Bytes{0, 1}));  // low 24 bits only
  std::vector<uint32_t> block(32, 0);
  block[0] = 0xabcdef;
  block[7] = 1;
  Bytes expect = concat({{3}, {0xef, 0xcd, 0xab}, repeat(0, 18), {1, 0, 0}});
  EXPECT_EQ(packed24(block), expect);
  // Any tail control other than 0 and 1 reads three bytes.
  uint32_t v;
  const Bytes two = {2, 1, 2, 3};
  unpack24(&v, 1, two.data());
  EXPECT_EQ(v, 0x030201u);
}

// ---- Round trips ----------------------------------------------------------------

// Exactly sized input, so a read past the row's end is an error under ASan;
// the value after the row stays untouched.
template <class T>
void check(const Form<T>& f, const std::vector<T>& row) {
  const int n = int(row.size());
  Bytes p = packed(f, row);
  EXPECT_EQ(f.size(p.data(), p.size(), n), int64_t(p.size()));
  std::vector<T> back(row.size() + 1, T(0xdeadbeef));
  EXPECT_EQ(f.unpack(back.data(), n, p.data()), p.data() + p.size());
  EXPECT_EQ(back.back(), T(0xdeadbeef));
  back.pop_back();
  for (size_t i = 0; i < row.size(); i++) ASSERT_EQ(back[i], row[i] & f.mask) << i;
}
void check32(const std::vector<uint32_t>& row) { check(F32, row); }
void check16(const std::vector<uint16_t>& row) { check(F16, row); }
void check24(const std::vector<uint32_t>& row) { check(F24, row); }

std::vector<uint16_t> narrow(const std::vector<uint32_t>& v) {
  std::vector<uint16_t> out(v.size());
  for (size_t i = 0; i < v.size(); i++) out[i] = uint16_t(v[i] > 65535 ? 65535 : v[i]);
  return out;
}

TEST(PackedFormat, RoundTripsAdversarial) {
  for (int n : test_lengths()) {
    for (const auto& row : adversarial_rows(n, 0xffffffffu)) {
      check32(row);
      check24(row);
    }
    for (const auto& row : adversarial_rows(n, 65535)) check16(narrow(row));
  }
}

TEST(PackedFormat, RoundTripsRandom) {
  std::mt19937 rng(3);
  for (int n = 0; n <= 130; n++) {
    for (uint32_t scale : {1u, 200u, 5000u, 70000u, 20000000u}) {
      std::vector<uint32_t> row = realistic_row(rng, n, scale);
      check32(row);
      check24(row);
      check16(narrow(row));
    }
    // Every class in every group position, including the 12-bit border.
    std::vector<uint32_t> mixed(static_cast<size_t>(n));
    const uint32_t tops[] = {0, 255, 256, 4095, 4096, 65535, 65536, 0xffffff};
    for (int i = 0; i < n; i++) mixed[size_t(i)] = tops[(size_t(i) / 8 + size_t(n)) % 8] >> (rng() % 2);
    check32(mixed);
    check24(mixed);
    check16(narrow(mixed));
  }
  for (int k = 0; k < 50; k++) {
    std::vector<uint32_t> row = realistic_row(rng, 1326, 1u << (k % 24));
    check32(row);
    check24(row);
    check16(narrow(row));
  }
}

// A row whose groups of eight each take a random class of `borders`, with
// values at both ends of the class among random ones.
std::vector<uint32_t> classed_row(std::mt19937& rng, int n, const std::vector<uint32_t>& borders) {
  std::vector<uint32_t> row(size_t(n), 0);
  for (int g = 0; g < n; g += 8) {
    size_t k = rng() % borders.size();
    uint32_t low = k ? borders[k - 1] + 1 : 0, high = borders[k];
    for (int i = g; i < n && i < g + 8; i++) {
      uint32_t r = rng() % 4;
      row[size_t(i)] = r == 0 ? low : r == 1 ? high : low + rng() % (high - low + 1);
    }
  }
  return row;
}

// The vector builds write the baseline's bytes, read them back to the same
// row, and stay inside the row's bytes and values.
TEST(PackedFormat, VectorBuildsAgree) {
  if (codec_isa() < CODEC_AVX2) GTEST_SKIP() << "no AVX2 on this processor";
  auto agree = [](const auto& f, const auto& row) {
    using T = typename std::decay_t<decltype(row)>::value_type;
    const int n = int(row.size());
    CodecIsaLimit = CODEC_BASELINE;
    Bytes base = packed(f, row);
    CodecIsaLimit = CODEC_AVX2;
    Bytes fast = packed(f, row);
    ASSERT_EQ(fast, base) << "length " << n;
    for (bool vector : {false, true}) {
      CodecIsaLimit = vector ? CODEC_AVX2 : CODEC_BASELINE;
      std::vector<T> back(size_t(n) + 1, T(0x5a5a5a5a));
      ASSERT_EQ(f.unpack(back.data(), n, base.data()), base.data() + base.size());
      ASSERT_EQ(back.back(), T(0x5a5a5a5a)) << "wrote past the row";
      back.pop_back();
      ASSERT_EQ(back, row) << "length " << n << (vector ? " vector" : " baseline");
    }
  };
  std::mt19937 rng(9);
  const std::vector<uint32_t> borders32 = {0, 255, 65535, 0xffffffff};
  for (int n = 0; n <= 4 * 32 + 31; n++) {
    for (int k = 0; k < 12; k++) {
      agree(F32, classed_row(rng, n, borders32));
      std::vector<uint32_t> row16 = classed_row(rng, n, {0, 255, 4095, 65535});
      agree(F16, std::vector<uint16_t>(row16.begin(), row16.end()));
    }
  }
  // Every control byte of a block, ahead of a tail.
  for (uint32_t c = 0; c < 256; c++) {
    std::vector<uint32_t> row32(45), row16(45);
    for (int i = 0; i < 45; i++) {
      uint32_t k = i < 32 ? (c >> (i / 8 * 2)) & 3 : uint32_t(i % 4);
      row32[size_t(i)] = i % 3 ? borders32[k] : borders32[k] >> 1;
      row16[size_t(i)] = (i % 3 ? std::vector<uint32_t>{0, 255, 4095, 65535}[k] : k ? 1u << (4 * k + 3) : 0);
    }
    agree(F32, row32);
    agree(F16, std::vector<uint16_t>(row16.begin(), row16.end()));
  }
  CodecIsaLimit = CODEC_AVX512;
}

TEST(PackedFormat, BoundsAreTight) {
  // Every value at full width reaches the bound exactly.
  for (int n : test_lengths()) {
    EXPECT_EQ(packed32(std::vector<uint32_t>(size_t(n), 0xffffffff)).size(), pack_bound32(n));
    EXPECT_EQ(packed16(std::vector<uint16_t>(size_t(n), 0xffff)).size(), pack_bound16(n));
    EXPECT_EQ(packed24(std::vector<uint32_t>(size_t(n), 0xffffff)).size(), pack_bound24(n));
  }
  EXPECT_EQ(pack_bound32(1326), size_t(41 * 129 + 2 + 14 * 4));
  EXPECT_EQ(pack_bound16(31), size_t(4 + 62));
}

TEST(PackedFormat, MeasureRejectsShortInput) {
  std::mt19937 rng(5);
  for (int n : {1, 9, 32, 33, 100, 1326}) {
    std::vector<uint32_t> row = realistic_row(rng, n, 100000);
    auto refuses_prefixes = [n](const auto& f, const auto& r) {
      Bytes p = packed(f, r);
      for (size_t cut = 0; cut < p.size(); cut++) {
        Bytes prefix(p.begin(), p.begin() + long(cut));  // exactly sized for ASan
        EXPECT_EQ(f.size(prefix.data(), cut, n), -1) << n << " " << cut;
      }
    };
    refuses_prefixes(F32, row);
    refuses_prefixes(F16, narrow(row));
    refuses_prefixes(F24, row);
  }
  EXPECT_EQ(packed_size32(nullptr, 0, 0), 0);
}

}  // namespace
