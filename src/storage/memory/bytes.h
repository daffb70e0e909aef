// Byte streams: what a stored tree is written to and read from, and the
// fixed-width fields on them.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

// One piece of a gathered write or a scattered read: the rows of a store lie
// apart in memory (padded) and one behind the other in the file.
struct BytePiece {
  void* data;
  size_t count;
};

// What a stored tree is written to. Failures are raised as exceptions by the
// implementation.
struct ByteWriter {
  virtual ~ByteWriter() = default;
  virtual void write(const void* bytes, size_t count) = 0;
  // The pieces one behind the other, as writes of each would put them; the
  // pieces' bytes are only read.
  virtual void write_pieces(const BytePiece* pieces, size_t n) {
    for (size_t i = 0; i < n; i++) write(pieces[i].data, pieces[i].count);
  }
};

// What a stored tree is read from. `format` is the file's format number, kept
// for the readers below the source. A source that can't deliver `count` bytes
// raises an exception through fail_read; it never returns short.
struct ByteSource {
  int32_t format = 9;
  virtual ~ByteSource() = default;
  virtual void read(void* buffer, size_t count) = 0;
  // Fills the pieces in order, as reads of each would.
  virtual void read_pieces(const BytePiece* pieces, size_t n) {
    for (size_t i = 0; i < n; i++) read(pieces[i].data, pieces[i].count);
  }
  // Bytes left to read. Readers compare every stored length with it before
  // they allocate, so a damaged length can't ask for more than the file holds;
  // a length that runs past the end fails through fail_read, as the read of
  // its bytes would: the source can't tell a cut file from a long length.
  virtual int64_t remaining() const { return INT64_MAX; }
  [[noreturn]] virtual void fail_read() const = 0;
};

// A writer that appends to a byte vector.
struct MemoryByteWriter : ByteWriter {
  std::vector<uint8_t> bytes;
  void write(const void* data, size_t count) override;
};

// A source over a byte range that it doesn't own; reading past the end raises
// an error through fail_command.
struct MemoryByteSource : ByteSource {
  const uint8_t* data = nullptr;
  size_t size = 0;
  size_t position = 0;
  MemoryByteSource(const void* bytes, size_t count);
  void read(void* buffer, size_t count) override;
  int64_t remaining() const override { return int64_t(size - position); }
  [[noreturn]] void fail_read() const override;
};

// Little-endian helpers for fixed-width fields (the host is x86-64).
template <typename T>
inline void write_value(ByteWriter& w, T v) { w.write(&v, sizeof v); }
template <typename T>
inline T read_value(ByteSource& s) {
  T v;
  s.read(&v, sizeof v);
  return v;
}
