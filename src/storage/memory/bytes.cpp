// Fatal failure lines and the byte streams in memory.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/core.h"
#include "storage/memory/bytes.h"
#include "storage/memory/fatal.h"

// ---- Fatal failures ---------------------------------------------------------

// Fatal lines may come from any thread, so they bypass the loop's output buffer
// and go straight out under the output lock. _Exit skips static destructors,
// which could otherwise wait on worker threads that are still running.
void storage_fatal_line(const std::string& line) {
  write_direct(line);
  fflush(stdout);
  std::_Exit(1);
}

void storage_fatal(const char* text) {
  if (!text) storage_fatal_line("fail\n");
  storage_fatal_line(std::string("fail (") + text + ")\n");
}

// ---- Byte streams -----------------------------------------------------------

void MemoryByteWriter::write(const void* data, size_t count) {
  const uint8_t* p = static_cast<const uint8_t*>(data);
  bytes.insert(bytes.end(), p, p + count);
}

MemoryByteSource::MemoryByteSource(const void* bytes, size_t count)
    : data(static_cast<const uint8_t*>(bytes)), size(count) {}

void MemoryByteSource::fail_read() const { fail_command("can't read from memory"); }

void MemoryByteSource::read(void* buffer, size_t count) {
  if (count > size - position) fail_read();
  if (count) memcpy(buffer, data + position, count);
  position += count;
}
