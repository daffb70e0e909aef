// The channel codecs: round trips of all three ids, the exact channel layout
// of the FSE codec (flags, masks, contexts, escapes, blocks), the nibble
// codec's blocks, and the failures of corrupt or foreign streams.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

#include "codec_support.h"
#include "storage/codec/codec.h"
#include "storage/codec/fse.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Block {
  uint32_t source_size;
  int32_t coded_size;
  Bytes payload;  // after decoding
};

// Splits one FseCodec channel into its blocks (`skip` bytes in front).
std::vector<Block> fse_blocks(const Bytes& channel, size_t skip = 0) {
  std::vector<Block> blocks;
  size_t at = skip;
  while (at < channel.size()) {
    Block b;
    EXPECT_LE(at + 8, channel.size());
    memcpy(&b.source_size, &channel[at], 4);
    memcpy(&b.coded_size, &channel[at + 4], 4);
    at += 8;
    if (b.coded_size > 1) {
      b.payload.resize(b.source_size);
      EXPECT_EQ(fse_decompress(b.payload.data(), b.payload.size(), &channel[at], size_t(b.coded_size)),
                int64_t(b.source_size));
      at += size_t(b.coded_size);
    } else if (b.coded_size == 1) {
      b.payload.assign(b.source_size, channel[at]);
      at += 1;
    } else {
      b.payload.assign(channel.begin() + long(at), channel.begin() + long(at + b.source_size));
      at += b.source_size;
    }
    blocks.push_back(b);
  }
  EXPECT_EQ(at, channel.size());
  return blocks;
}

Bytes fse_payload(const Bytes& channel, size_t skip = 0) {
  Bytes all;
  for (const Block& b : fse_blocks(channel, skip)) all.insert(all.end(), b.payload.begin(), b.payload.end());
  return all;
}

// Encodes transformed rows as given.
void encode_transformed(MemoryChannels& m, CodecId id, const std::vector<std::vector<uint32_t>>& rows) {
  std::unique_ptr<RowEncoder> e(make_encoder(id, m.sink()));
  for (const auto& t : rows) e->encode(t.data(), int(t.size()), false);
}

// ---- Round trips ----------------------------------------------------------------

struct RowCase {
  std::vector<uint32_t> row;
  int reference;  // index of the reference row, or -1
};

std::vector<RowCase> row_cases(std::mt19937& rng, uint32_t max_value) {
  std::vector<RowCase> cases;
  for (int n : test_lengths()) {
    // Adversarial rows alone, then each against the one before it.
    size_t first = cases.size();
    for (auto& row : adversarial_rows(n, max_value)) cases.push_back({row, -1});
    size_t last = cases.size();
    for (size_t k = first + 1; k < last; k++) cases.push_back({cases[k].row, int(k - 1)});
    for (int k = 0; k < 6; k++) {
      std::vector<uint32_t> row = realistic_row(rng, n, k < 3 ? 200 : 40000);
      for (uint32_t& v : row) v = v > max_value ? max_value : v;
      cases.push_back({row, -1});
      std::vector<uint32_t> near = neighbour_row(rng, row);
      for (uint32_t& v : near) v = v > max_value ? max_value : v;
      cases.push_back({near, int(cases.size()) - 1});
    }
  }
  return cases;
}

// Encodes the cases as rows of T and decodes them; each row must come back
// with the decoded row before as its reference, and nothing written past it.
template <class T>
void round_trip(CodecId id, const std::vector<RowCase>& cases) {
  std::vector<std::vector<T>> rows;
  for (const RowCase& c : cases) rows.emplace_back(c.row.begin(), c.row.end());
  MemoryChannels m;
  {
    std::unique_ptr<RowEncoder> e(make_encoder(id, m.sink()));
    ASSERT_TRUE(e);
    for (size_t i = 0; i < cases.size(); i++) {
      const T* ref = cases[i].reference < 0 ? nullptr : rows[size_t(cases[i].reference)].data();
      if constexpr (sizeof(T) == 4)
        encode_row32(*e, rows[i].data(), ref, int(rows[i].size()));
      else
        encode_row16(*e, rows[i].data(), ref, int(rows[i].size()));
    }
  }
  std::unique_ptr<RowDecoder> d(make_decoder(m.source()));
  ASSERT_TRUE(d);
  EXPECT_TRUE(d->handles_reference());
  std::vector<std::vector<T>> decoded;
  for (size_t i = 0; i < cases.size(); i++) {
    std::vector<T> row(rows[i].size() + 1, T(0xabababab));
    const T* ref = cases[i].reference < 0 ? nullptr : decoded[size_t(cases[i].reference)].data();
    if constexpr (sizeof(T) == 4)
      d->decode32(row.data(), ref, int(rows[i].size()));
    else
      d->decode16(row.data(), ref, int(rows[i].size()));
    EXPECT_EQ(row.back(), T(0xabababab)) << "wrote past the row";
    row.pop_back();
    ASSERT_EQ(row, rows[i]) << "row " << i << " of codec " << int(id);
    decoded.push_back(row);
  }
}

TEST(CodecStreams, RoundTripAllCodecs) {
  std::mt19937 rng(21);
  std::vector<RowCase> cases = row_cases(rng, 0xffffffffu);
  for (CodecId id : {CodecId::FseCodec, CodecId::NibbleCodec, CodecId::RangeCodec}) round_trip<uint32_t>(id, cases);
  // 16-bit rows decode through their own inverse transform on each path.
  std::vector<RowCase> cases16 = row_cases(rng, 65535);
  for (int32_t limit : {CODEC_BASELINE, CODEC_AVX2}) {
    CodecIsaLimit = limit;
    round_trip<uint16_t>(CodecId::FseCodec, cases16);
  }
  CodecIsaLimit = CODEC_AVX512;
}

TEST(CodecStreams, ManyBlocksPerChannel) {
  // Enough rows that several channels pass 65536 bytes and are cut in blocks.
  std::mt19937 rng(23);
  std::vector<RowCase> cases;
  for (int k = 0; k < 500; k++) {
    std::vector<uint32_t> row = realistic_row(rng, 1326, k % 2 ? 300 : 100000);
    cases.push_back({row, -1});
    cases.push_back({neighbour_row(rng, row), int(cases.size()) - 1});
  }
  round_trip<uint32_t>(CodecId::FseCodec, cases);
  round_trip<uint32_t>(CodecId::NibbleCodec, cases);
}

// ---- FseCodec layout -------------------------------------------------------------

TEST(FseCodecLayout, AllZeroRow) {
  MemoryChannels m;
  encode_transformed(m, CodecId::FseCodec, {std::vector<uint32_t>(16, 0)});
  // Channel 0: the id, then a one-byte block, stored raw.
  EXPECT_EQ(m.data[0], (Bytes{2, 1, 0, 0, 0, 0, 0, 0, 0, 0}));
  // Channel 1: two zero masks, one repeated byte: coded_size 1.
  EXPECT_EQ(m.data[1], (Bytes{2, 0, 0, 0, 1, 0, 0, 0, 0}));
  for (int c = 2; c < CodecChannelCount; c++) EXPECT_TRUE(m.data[c].empty()) << c;
}

TEST(FseCodecLayout, ContextsAndEscapes) {
  MemoryChannels m;
  // t values: 3 (v 2, context 0), 0, 20 (v 19, context 2), 5 (v 4, context 15),
  // 255 (v 254, plain, context 3), 256 (v 255: escape), 65535 (v 65534),
  // 65536 (v 65535: second escape), then a short group: 0, 1.
  encode_transformed(m, CodecId::FseCodec, {{3, 0, 20, 5, 255, 256, 65535, 65536, 0, 1}});
  EXPECT_EQ(fse_payload(m.data[0], 1), (Bytes{0}));
  EXPECT_EQ(fse_payload(m.data[1]), (Bytes{0xfd, 0x02}));
  EXPECT_EQ(fse_payload(m.data[2 + 0]), (Bytes{2}));
  EXPECT_EQ(fse_payload(m.data[2 + 2]), (Bytes{19}));
  EXPECT_EQ(fse_payload(m.data[2 + 15]), (Bytes{4, 255, 255, 255, 0}));
  EXPECT_EQ(fse_payload(m.data[2 + 4]), (Bytes{254}));
  EXPECT_EQ(fse_payload(m.data[18]), (Bytes{255, 254, 255}));
  EXPECT_EQ(fse_payload(m.data[19]), (Bytes{0, 255, 255}));
  EXPECT_EQ(fse_payload(m.data[20]), (Bytes{0xff}));
  EXPECT_EQ(fse_payload(m.data[21]), (Bytes{0xff}));
  EXPECT_EQ(fse_payload(m.data[22]), (Bytes{0}));
  EXPECT_EQ(fse_payload(m.data[23]), (Bytes{0}));
  for (int c : {3, 5, 7, 8, 16}) EXPECT_TRUE(m.data[c].empty()) << c;
  // The context resets at each row.
  MemoryChannels n;
  encode_transformed(n, CodecId::FseCodec, {{20}, {20}});
  EXPECT_EQ(fse_payload(n.data[2]), (Bytes{19, 19}));
}

TEST(FseCodecLayout, BlocksOf65536) {
  // Rows of length 0 cost one flag byte each in channel 0.
  for (int rows : {65536, 65537}) {
    MemoryChannels m;
    {
      std::unique_ptr<RowEncoder> e(make_encoder(CodecId::FseCodec, m.sink()));
      for (int i = 0; i < rows; i++) e->encode(nullptr, 0, i % 3 == 0);
    }
    std::vector<Block> blocks = fse_blocks(m.data[0], 1);
    ASSERT_EQ(blocks.size(), rows == 65536 ? 1u : 2u);
    EXPECT_EQ(blocks[0].source_size, 65536u);
    EXPECT_GT(blocks[0].coded_size, 1);  // two symbols, 1 : 2, compress
    if (rows == 65537) {
      EXPECT_EQ(blocks[1].source_size, 1u);
      EXPECT_EQ(blocks[1].coded_size, 0);
    }
    for (int c = 1; c < CodecChannelCount; c++) EXPECT_TRUE(m.data[c].empty());
    std::unique_ptr<RowDecoder> d(make_decoder(m.source()));
    for (int i = 0; i < rows; i++) d->decode32(nullptr, nullptr, 0);
  }
}

TEST(FseCodecLayout, IncompressibleBlockGoesRaw) {
  // Masks of random bytes don't compress: coded_size 0 and the raw bytes.
  std::mt19937 rng(31);
  std::vector<uint32_t> t(1024);
  for (uint32_t& v : t) v = rng() % 2;
  MemoryChannels m;
  encode_transformed(m, CodecId::FseCodec, {t});
  std::vector<Block> blocks = fse_blocks(m.data[1]);
  ASSERT_EQ(blocks.size(), 1u);
  EXPECT_EQ(blocks[0].coded_size, 0);
  EXPECT_EQ(m.data[1].size(), 8u + 128u);
}

// The channel bytes written straight from the format's rules, one value at a
// time: the encoder's dense lists, register cursors and vector paths must give
// the same bytes, rows that cross block ends included, and the decoder must
// read them back on both paths.
TEST(FseCodecLayout, MatchesTheRulesAcrossBlocksAndPaths) {
  std::mt19937 rng(43);
  std::vector<std::vector<uint32_t>> rows;
  for (int k = 0; k < 900; k++) {
    std::vector<uint32_t> t = realistic_row(rng, 1 + int(rng() % 1326), k % 2 ? 300 : 70000);
    for (uint32_t& v : t) v = rng() % 3 == 0 ? 0 : v;
    if (k % 50 == 0) t[rng() % t.size()] = 0x12345678;  // a double escape mid-row
    rows.push_back(t);
  }
  Bytes rules[CodecChannelCount];
  for (const auto& t : rows) {
    rules[0].push_back(0);
    for (size_t g = 0; g < t.size(); g += 8) {
      uint8_t mask = 0;
      for (size_t j = g; j < t.size() && j < g + 8; j++) mask |= uint8_t((t[j] != 0) << (j - g));
      rules[1].push_back(mask);
    }
    unsigned context = 0;
    for (uint32_t x : t) {
      if (!x) continue;
      const uint32_t v = x - 1;
      rules[2 + context].push_back(uint8_t(v < 255 ? v : 255));
      context = v < 15 ? v : 15;
      if (v < 255) continue;
      const bool wide = v >= 65535;
      rules[18].push_back(wide ? 255 : uint8_t(v));
      rules[19].push_back(wide ? 255 : uint8_t(v >> 8));
      for (int b = 0; wide && b < 4; b++) rules[20 + b].push_back(uint8_t(v >> (8 * b)));
    }
  }
  ASSERT_GT(rules[17].size(), 65536u * 2);  // several block ends inside rows
  for (int32_t limit : {CODEC_BASELINE, CODEC_AVX2}) {
    CodecIsaLimit = limit;
    MemoryChannels m;
    encode_transformed(m, CodecId::FseCodec, rows);
    for (int c = 0; c < CodecChannelCount; c++) {
      EXPECT_EQ(fse_payload(m.data[c], c == 0 ? 1 : 0), rules[c]) << "channel " << c;
      std::vector<Block> blocks = fse_blocks(m.data[c], c == 0 ? 1 : 0);
      for (size_t k = 0; k + 1 < blocks.size(); k++) EXPECT_EQ(blocks[k].source_size, 65536u) << c;
    }
    std::unique_ptr<RowDecoder> d(make_decoder(m.source()));
    for (const auto& t : rows) {
      std::vector<uint32_t> row(t.size()), expected(t.size());
      uint32_t sum = 0;
      for (size_t i = 0; i < t.size(); i++) expected[i] = sum += unzigzag32(t[i]);
      d->decode32(row.data(), nullptr, int(t.size()));
      ASSERT_EQ(row, expected);
    }
  }
  CodecIsaLimit = CODEC_AVX512;
}

TEST(FseCodecDeathTest, CorruptBlockEndsTheProcess) {
  std::mt19937 rng(41);
  MemoryChannels m;
  {
    std::unique_ptr<RowEncoder> e(make_encoder(CodecId::FseCodec, m.sink()));
    for (int k = 0; k < 50; k++) encode_row32(*e, realistic_row(rng, 1326, 100).data(), nullptr, 1326);
  }
  std::vector<Block> blocks = fse_blocks(m.data[1]);
  ASSERT_GT(blocks[0].coded_size, 1);
  auto decode_all = [](MemoryChannels& c) {
    std::unique_ptr<RowDecoder> d(make_decoder(c.source()));
    std::vector<uint32_t> row(1326);
    for (int k = 0; k < 50; k++) d->decode32(row.data(), nullptr, 1326);
  };
  // A bitstream without its end mark.
  MemoryChannels bad_payload = m;
  bad_payload.data[1][8 + size_t(blocks[0].coded_size) - 1] = 0;
  EXPECT_EXIT(decode_all(bad_payload), testing::ExitedWithCode(1), "");
  // A header whose counts don't fill the table.
  MemoryChannels bad_header = m;
  bad_header.data[1][8] ^= 0x30;
  EXPECT_EXIT(decode_all(bad_header), testing::ExitedWithCode(1), "");
  MemoryChannels truncated = m;
  truncated.data[1].resize(truncated.data[1].size() / 2);
  EXPECT_EXIT(decode_all(truncated), testing::ExitedWithCode(1), "");
  MemoryChannels bad_size = m;
  bad_size.data[1][2] = 9;  // source_size above 65536
  EXPECT_EXIT(decode_all(bad_size), testing::ExitedWithCode(1), "");
  // The decoder reads the first blocks of all channels at once, but a bad one
  // ends the process only when its channel is needed: here the double
  // escapes' channel, first needed by the last row.
  MemoryChannels late;
  {
    std::unique_ptr<RowEncoder> e(make_encoder(CodecId::FseCodec, late.sink()));
    for (int k = 0; k < 50; k++) encode_row32(*e, realistic_row(rng, 1326, 100).data(), nullptr, 1326);
    const uint32_t wide[8] = {1u << 24};
    encode_row32(*e, wide, nullptr, 8);
  }
  ASSERT_GT(late.data[20].size(), 8u);
  late.data[20][0] = late.data[20][1] = 0;  // source_size 0
  EXPECT_EXIT(
      {
        std::unique_ptr<RowDecoder> d(make_decoder(late.source()));
        std::vector<uint32_t> row(1326);
        for (int k = 0; k < 50; k++) d->decode32(row.data(), nullptr, 1326);
        fprintf(stderr, "fifty rows\n");
        d->decode32(row.data(), nullptr, 8);
      },
      testing::ExitedWithCode(1), "fifty rows");
}

// ---- Other codecs ------------------------------------------------------------------

TEST(NibbleCodecLayout, BlocksOf256) {
  MemoryChannels m;
  // Bits: flag 0; group 1: any 1, then 1 0 1; group 2 (one value): any 1, 1.
  // Nibbles: v 2, v 15 -> 15 then byte 15; v 300 -> 15, byte 255, 16 bits 300.
  encode_transformed(m, CodecId::NibbleCodec, {{3, 0, 16}, {301}});
  Bytes bits(256, 0), nibbles(256, 0), bytes(256, 0);
  bits[0] = 0b11010110;  // row 1: 0, 1, 1, 0, 1; row 2 from bit 5: 0, 1, 1
  nibbles[0] = 0xf2;
  nibbles[1] = 0x0f;
  bytes[0] = 15;
  bytes[1] = 255;
  bytes[2] = 0x2c;
  bytes[3] = 0x01;
  EXPECT_EQ(m.data[1], bits);
  EXPECT_EQ(m.data[2], nibbles);
  bytes.insert(bytes.begin(), 1);  // the CodecId in front
  EXPECT_EQ(m.data[0], bytes);
}

TEST(CodecStreams, GarbageInOlderCodecs) {
  // The nibble and range decoders have no error path: damaged or short
  // streams give some rows, read as zeros past their end, and stay in bounds.
  for (uint32_t seed = 0; seed < 60; seed++) {
    std::mt19937 rng(seed);
    MemoryChannels m;
    const uint8_t id = seed % 2 ? 1 : 0;
    m.data[0] = id == 0 ? Bytes{0, 'C', 'm', 'p', 'r'} : Bytes{1};
    for (int c = 0; c < 3; c++)
      for (uint32_t k = rng() % 3000; k; k--) m.data[c].push_back(uint8_t(rng()));
    std::unique_ptr<RowDecoder> d(make_decoder(m.source()));
    ASSERT_TRUE(d);
    std::vector<uint32_t> row(1326), ref(1326, 5);
    for (int r = 0; r < 20; r++) d->decode32(row.data(), r % 2 ? ref.data() : nullptr, int(rng() % 1327));
  }
}

TEST(CodecStreams, ForeignStreams) {
  MemoryChannels empty;
  EXPECT_EQ(make_decoder(empty.source()), nullptr);
  MemoryChannels unknown;
  unknown.data[0] = {3};
  EXPECT_EQ(make_decoder(unknown.source()), nullptr);
  MemoryChannels wrong_magic;
  wrong_magic.data[0] = {0, 'C', 'm', 'p', 'x'};
  try {
    make_decoder(wrong_magic.source());
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "compressor wrong id");
  }
  // The range coder's stream starts with its magic and histogram.
  MemoryChannels m;
  encode_transformed(m, CodecId::RangeCodec, {{1, 2, 3}});
  ASSERT_GE(m.data[0].size(), 1u + 4 + 2048);
  EXPECT_EQ(Bytes(m.data[0].begin(), m.data[0].begin() + 5), (Bytes{0, 'C', 'm', 'p', 'r'}));
  uint64_t count0;
  memcpy(&count0, &m.data[0][5], 8);
  EXPECT_EQ(count0, 1u);  // symbol 0 is t = 1
  // Decoders of the older codecs leave 16-bit rows alone.
  MemoryChannels nib;
  encode_transformed(nib, CodecId::NibbleCodec, {{5}});
  std::unique_ptr<RowDecoder> d(make_decoder(nib.source()));
  uint16_t row[1] = {77};
  d->decode16(row, nullptr, 1);
  EXPECT_EQ(row[0], 77);
}

}  // namespace
