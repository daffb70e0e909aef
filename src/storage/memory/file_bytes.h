// Byte streams on files: a buffered reader, and a writer that replaces its
// target only with a complete, synced file.
#pragma once
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "storage/memory/bytes.h"

// Failures of the file itself: "can't open file (name)", "can't read from
// file (name)", "can't close file (name)", and for writing "can't write to
// file (name)" with the system's reason.
class IOException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The buffer of small fields, small enough to stay in the core's cache.
constexpr size_t FileBufferBytes = size_t(256) << 10;
// Pieces of this much or more in all skip the buffer on writing: they go to
// the system from where they lie.
constexpr size_t FileDirectBytes = size_t(64) << 10;

// Reads a file forward through one buffer of small fields. Whatever the buffer
// doesn't hold goes straight into place, in the same call that refills the
// buffer behind it, so the bulk of a file is copied once, by the system. A
// read past the end fails at once: a short file is never waited on.
class FileByteSource : public ByteSource {
 public:
  explicit FileByteSource(const std::string& path);
  ~FileByteSource() override;
  FileByteSource(const FileByteSource&) = delete;
  FileByteSource& operator=(const FileByteSource&) = delete;

  void read(void* buffer, size_t count) override;
  void read_pieces(const BytePiece* pieces, size_t n) override;
  int64_t remaining() const override { return int64_t(filled - position) + unread; }
  [[noreturn]] void fail_read() const override;
  void close();

 private:
  int fd = -1;
  std::string name;
  std::vector<uint8_t> buffer;
  size_t filled = 0, position = 0;
  int64_t unread = 0;  // bytes of the file not yet in the buffer
};

// Writes a file so that the target name only ever holds a complete file: the
// bytes go to a temporary file in the target's folder, which commit() flushes,
// syncs and renames over the target. Destroying the writer before commit()
// removes the temporary file and leaves the target as it was. Small fields
// are gathered in a buffer; large writes go out from where they lie. The disk
// starts on each stretch of the file as soon as it is written, so the sync
// at the end has little left to wait for.
class FileByteWriter : public ByteWriter {
 public:
  explicit FileByteWriter(const std::string& target);
  ~FileByteWriter() override;
  FileByteWriter(const FileByteWriter&) = delete;
  FileByteWriter& operator=(const FileByteWriter&) = delete;

  void write(const void* bytes, size_t count) override;
  void write_pieces(const BytePiece* pieces, size_t n) override;
  void commit();
  const std::string& temp_name() const { return temp; }

 private:
  void flush_buffer();
  void put(struct iovec* iov, int n);
  [[noreturn]] void fail(int error) const;
  int fd = -1;
  std::string target, temp;
  std::vector<uint8_t> buffer;
  size_t filled = 0;
  int64_t written = 0;    // bytes handed to the system
  int64_t writeback = 0;  // of those, bytes whose writing out has been started
};
