// EntropyArena: rows coded by the FSE row codec into 24 channels.
//
// A write pass stages each channel in its own growing buffer and copies the
// channels into the region once, at the end, one behind the other. The region
// has no header: channel_position (after a write or a load) holds the length of
// each channel, and a read pass finds the channels by walking those lengths.
// The staging buffers are recycled through a per-thread stack, so a write pass
// allocates nothing once a thread has run a few.
#include <cstring>
#include <stdexcept>

#include "core/core.h"
#include "platform/platform.h"
#include "storage/arena.h"
#include "storage/memory/allocation.h"
#include "storage/memory/counters.h"
#include "storage/memory/fatal.h"
#include "storage/codec/codec.h"

static_assert(CodecChannelCount == ChannelCount);

static int64_t round_to_granule(int64_t size, uint32_t mask) {
  return (size + int64_t(mask)) & ~int64_t(mask);
}

// ---- Per-thread stack of idle ChannelBuffers -------------------------------------

namespace {

struct ChannelBufferStack {
  std::vector<ChannelBuffers*> idle;
  ~ChannelBufferStack() {
    for (ChannelBuffers* b : idle) {
      for (int c = 0; c < ChannelCount; c++) {
        count_channel_buffer_bytes(-int64_t(b->capacity[c]));
        scalable_give(b->data[c]);
      }
      delete b;
    }
  }
};

thread_local ChannelBufferStack IdleChannelBuffers;

}  // namespace

ChannelBuffers* take_channel_buffers() {
  std::vector<ChannelBuffers*>& idle = IdleChannelBuffers.idle;
  if (idle.empty()) return new ChannelBuffers{};
  ChannelBuffers* b = idle.back();
  idle.pop_back();
  return b;
}

void give_channel_buffers(ChannelBuffers* buffers) {
  if (buffers) IdleChannelBuffers.idle.push_back(buffers);
}

size_t idle_channel_buffers() { return IdleChannelBuffers.idle.size(); }

// ---- Channel sink and source ----------------------------------------------------

// Channels 1 (masks) and 17 (the largest-value context) carry the most bytes,
// so they grow in larger steps.
static int64_t channel_step(int channel) { return channel == 1 || channel == 17 ? 65536 : 16384; }

static void sink_write(void* context, int channel, const uint8_t* bytes, size_t count) {
  EntropyArena& a = *static_cast<EntropyArena*>(context);
  ChannelBuffers& b = *a.channel_buffers;
  int64_t end = int64_t(a.channel_position[channel]) + int64_t(count);
  if (end > a.channel_size[channel]) {
    a.channel_size[channel] = int32_t(end);
    int64_t step = channel_step(channel);
    int64_t allocation = (end + step - 1) / step * step;
    if (allocation > int64_t(b.capacity[channel])) {
      void* grown = scalable_regrow(b.data[channel], size_t(allocation), RowAlignment);
      if (!grown) storage_fatal("out of memory");
      count_channel_buffer_bytes(allocation - int64_t(b.capacity[channel]));
      b.data[channel] = static_cast<uint8_t*>(grown);
      b.capacity[channel] = uint32_t(allocation);
    }
  }
  memcpy(b.data[channel] + a.channel_position[channel], bytes, count);
  a.channel_position[channel] = int32_t(end);
}

// Stops at the channel's stored end, so a damaged stream can't lead a decoder
// out of the region.
static size_t source_read(void* context, int channel, uint8_t* bytes, size_t count) {
  EntropyArena& a = *static_cast<EntropyArena*>(context);
  int64_t left = int64_t(a.channel_size[channel]) - a.channel_position[channel];
  if (left <= 0) return 0;
  if (int64_t(count) > left) count = size_t(left);
  memcpy(bytes, a.channel_start[channel] + a.channel_position[channel], count);
  a.channel_position[channel] += int32_t(count);
  return count;
}

// ---- EntropyArena ------------------------------------------------------------------

EntropyArena::EntropyArena(int64_t values) : reserved(entropy_reservation(values)) {}

EntropyArena::~EntropyArena() {
  delete encoder;
  delete decoder;
  give_channel_buffers(channel_buffers);
  release_region(base, reserved);
}

void EntropyArena::begin_write() {
  if (encoder || decoder) storage_fatal(nullptr);
  channel_buffers = take_channel_buffers();
  for (int c = 0; c < ChannelCount; c++) channel_size[c] = channel_position[c] = 0;
  encoder = make_encoder(CodecId::FseCodec, ChannelSink{this, sink_write});
}

void EntropyArena::end_write() {
  if (!encoder) storage_fatal(nullptr);
  // Destroying the encoder flushes every channel through the sink.
  delete encoder;
  encoder = nullptr;
  int64_t total = 0;
  for (int c = 0; c < ChannelCount; c++) total += channel_position[c];
  size_target = total;
  committed_target = round_to_granule(size_target, granule_mask);
  grow_region(committed_target, committed, reserved, base);
  uint8_t* p = base;
  for (int c = 0; c < ChannelCount; c++) {
    if (channel_position[c] > 0) memcpy(p, channel_buffers->data[c], size_t(channel_position[c]));
    p += channel_position[c];
  }
  StorageBytesWritten.fetch_add(total);
  give_channel_buffers(channel_buffers);
  channel_buffers = nullptr;
}

bool EntropyArena::has_data() const { return channel_size[0] > 0; }

void EntropyArena::begin_read() {
  if (encoder || decoder) storage_fatal(nullptr);
  const uint8_t* p = base;
  for (int c = 0; c < ChannelCount; c++) {
    channel_size[c] = channel_position[c];
    channel_start[c] = p;
    if (p) p += channel_size[c];
    channel_position[c] = 0;
  }
  decoder = make_decoder(ChannelSource{this, source_read});
}

void EntropyArena::end_read() {
  delete decoder;
  decoder = nullptr;
  int64_t total = 0;
  for (int c = 0; c < ChannelCount; c++) total += channel_position[c];
  StorageBytesRead.fetch_add(total);
  // The cursors go back to the stored lengths, so that a read pass that
  // stopped early still leaves the lengths for the next pass and for save.
  for (int c = 0; c < ChannelCount; c++) channel_position[c] = channel_size[c];
}

void EntropyArena::write_row32(const uint32_t* row, const uint32_t* reference, int32_t count) {
  if (!encoder) storage_fatal(nullptr);
  encode_row32(*encoder, row, reference, count);
}

void EntropyArena::write_row16(const uint16_t* row, const uint16_t* reference, int32_t count) {
  if (!encoder) storage_fatal(nullptr);
  encode_row16(*encoder, row, reference, count);
}

void EntropyArena::read_row32(uint32_t* row, const uint32_t* reference, int32_t count) {
  if (!decoder) storage_fatal(nullptr);
  decoder->decode32(row, reference, count);
}

void EntropyArena::read_row16(uint16_t* row, const uint16_t* reference, int32_t count) {
  if (!decoder) storage_fatal(nullptr);
  decoder->decode16(row, reference, count);
}

void EntropyArena::save(ByteWriter& writer) {
  for (int c = 0; c < ChannelCount; c++) {
    write_value<int32_t>(writer, channel_size[c]);
    write_value<int32_t>(writer, channel_position[c]);
  }
  write_value<int64_t>(writer, reserved);
  write_value<int64_t>(writer, size_target);
  if (size_target > 0) writer.write(base, size_t(size_target));
}

void EntropyArena::load(ByteSource& source) {
  int32_t sizes[ChannelCount], positions[ChannelCount];
  int64_t total = 0;
  for (int c = 0; c < ChannelCount; c++) {
    sizes[c] = read_value<int32_t>(source);
    positions[c] = read_value<int32_t>(source);
    if (positions[c] < 0) fail_command("invalid file");
    total += positions[c];
  }
  int64_t stored_reserved = read_value<int64_t>(source);
  int64_t stored_size = read_value<int64_t>(source);
  // A read pass walks the channel lengths through the region: they must lie
  // inside the stored bytes.
  if (total > stored_size || !stored_region_fits(stored_size, stored_reserved, granule_mask, source))
    fail_command("invalid file");
  if (base && stored_reserved != reserved) {
    release_region(base, reserved);
    committed = 0;
  }
  memcpy(channel_size, sizes, sizeof sizes);
  memcpy(channel_position, positions, sizeof positions);
  reserved = stored_reserved;
  size_target = stored_size;
  committed_target = round_to_granule(size_target, granule_mask);
  grow_region(committed_target, committed, reserved, base);
  if (size_target > 0) {
    populate_memory(base, size_t(size_target));
    source.read(base, size_t(size_target));
  }
}
