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

constexpr size_t FileBufferBytes = size_t(1) << 20;

// Reads a file forward through one buffer of 1 MiB, refilled whole. Reads of
// a buffer's size or more go straight into place. A read past the end fails
// at once: a short file is never waited on.
class FileByteSource : public ByteSource {
 public:
  explicit FileByteSource(const std::string& path);
  ~FileByteSource() override;
  FileByteSource(const FileByteSource&) = delete;
  FileByteSource& operator=(const FileByteSource&) = delete;

  void read(void* buffer, size_t count) override;
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
// removes the temporary file and leaves the target as it was.
class FileByteWriter : public ByteWriter {
 public:
  explicit FileByteWriter(const std::string& target);
  ~FileByteWriter() override;
  FileByteWriter(const FileByteWriter&) = delete;
  FileByteWriter& operator=(const FileByteWriter&) = delete;

  void write(const void* bytes, size_t count) override;
  void commit();
  const std::string& temp_name() const { return temp; }

 private:
  void flush_buffer();
  [[noreturn]] void fail(int error) const;
  int fd = -1;
  std::string target, temp;
  std::vector<uint8_t> buffer;
  size_t filled = 0;
};
