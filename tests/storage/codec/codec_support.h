// Helpers of the codec tests: channels in memory and row generators.
#pragma once
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "storage/codec/codec.h"

// 24 byte vectors behind a ChannelSink and a ChannelSource.
struct MemoryChannels {
  std::vector<uint8_t> data[CodecChannelCount];
  size_t position[CodecChannelCount] = {};

  static void write(void* context, int channel, const uint8_t* bytes, size_t count) {
    auto* m = static_cast<MemoryChannels*>(context);
    m->data[channel].insert(m->data[channel].end(), bytes, bytes + count);
  }
  static size_t read(void* context, int channel, uint8_t* bytes, size_t count) {
    auto* m = static_cast<MemoryChannels*>(context);
    size_t left = m->data[channel].size() - m->position[channel];
    size_t n = count < left ? count : left;
    if (n) memcpy(bytes, m->data[channel].data() + m->position[channel], n);
    m->position[channel] += n;
    return n;
  }
  ChannelSink sink() { return {this, &MemoryChannels::write}; }
  ChannelSource source() { return {this, &MemoryChannels::read}; }
  void rewind() {
    for (size_t& p : position) p = 0;
  }
};

// Rows like store rows: neighbours alike, small values, many zeros.
inline std::vector<uint32_t> realistic_row(std::mt19937& rng, int count, uint32_t scale) {
  std::vector<uint32_t> row(static_cast<size_t>(count));
  uint32_t v = rng() % (scale + 1);
  for (int i = 0; i < count; i++) {
    uint32_t r = rng() % 16;
    if (r < 5) v = 0;
    else if (r < 12) v = v;
    else v = v + rng() % (scale / 8 + 2) - (scale / 16 + 1) * (v > scale / 16);
    row[size_t(i)] = v;
  }
  return row;
}

// A neighbour of `row`: mostly the same, some entries moved.
inline std::vector<uint32_t> neighbour_row(std::mt19937& rng, const std::vector<uint32_t>& row) {
  std::vector<uint32_t> out = row;
  for (uint32_t& v : out)
    if (rng() % 8 == 0) v += rng() % 5;
  return out;
}

// The lengths every codec is tried with.
inline const std::vector<int>& test_lengths() {
  static const std::vector<int> lengths = {0, 1, 2, 7, 8, 9, 15, 16, 17, 31, 32, 33, 40, 63, 64, 65, 100, 1325, 1326};
  return lengths;
}

// Rows of adversarial values: all zero, all equal, the class borders.
inline std::vector<std::vector<uint32_t>> adversarial_rows(int count, uint32_t max_value) {
  std::vector<std::vector<uint32_t>> rows;
  const uint32_t borders[] = {0, 1, 254, 255, 256, 257, 4095, 4096, 65534, 65535, 65536, 65537,
                              0xfffffe, 0xffffff, 0x1000000, 0x7fffffff, 0x80000000, 0xfffffffe,
                              0xffffffff};
  rows.push_back(std::vector<uint32_t>(size_t(count), 0));
  for (uint32_t b : borders) {
    if (b > max_value) continue;
    rows.push_back(std::vector<uint32_t>(size_t(count), b));
    std::vector<uint32_t> alternating(static_cast<size_t>(count));
    for (int i = 0; i < count; i++) alternating[size_t(i)] = i % 2 ? b : 0;
    rows.push_back(alternating);
    std::vector<uint32_t> single(size_t(count), 0);
    if (count) single[size_t(count - 1)] = b;
    rows.push_back(single);
  }
  std::vector<uint32_t> mixed(static_cast<size_t>(count));
  for (int i = 0; i < count; i++) {
    uint32_t b = borders[size_t(i) % (sizeof borders / sizeof borders[0])];
    mixed[size_t(i)] = b > max_value ? max_value : b;
  }
  rows.push_back(mixed);
  return rows;
}
