// The file streams: reading forward through one buffer, writing to a hidden
// temporary file that replaces the target once complete.
#include "storage/memory/file_bytes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

// ---- Reading --------------------------------------------------------------------------

FileByteSource::FileByteSource(const std::string& path) : name(path) {
  fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    if (fd >= 0) ::close(fd);
    fd = -1;
    throw IOException("can't open file (" + path + ")");
  }
  posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  unread = int64_t(st.st_size);
  buffer.resize(FileBufferBytes);
}

FileByteSource::~FileByteSource() {
  if (fd >= 0) ::close(fd);
}

void FileByteSource::fail_read() const { throw IOException("can't read from file (" + name + ")"); }

// Reads exactly `count` bytes at `out`; anything less is a failure.
static bool read_fully(int fd, uint8_t* out, size_t count) {
  while (count > 0) {
    ssize_t n = ::read(fd, out, count);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    out += n;
    count -= size_t(n);
  }
  return true;
}

void FileByteSource::read(void* out, size_t count) {
  if (fd < 0 || int64_t(count) > remaining()) fail_read();
  uint8_t* dst = static_cast<uint8_t*>(out);
  size_t have = filled - position;
  if (count <= have) {
    memcpy(dst, buffer.data() + position, count);
    position += count;
    return;
  }
  memcpy(dst, buffer.data() + position, have);
  dst += have;
  count -= have;
  position = filled = 0;
  // Large blocks (arenas, flat stores) go straight into their final place.
  if (count >= buffer.size()) {
    if (!read_fully(fd, dst, count)) fail_read();
    unread -= int64_t(count);
    return;
  }
  size_t want = size_t(std::min<int64_t>(unread, int64_t(buffer.size())));
  if (!read_fully(fd, buffer.data(), want)) fail_read();
  unread -= int64_t(want);
  filled = want;
  memcpy(dst, buffer.data(), count);
  position = count;
}

void FileByteSource::close() {
  if (fd < 0) return;
  int r = ::close(fd);
  fd = -1;
  if (r != 0) throw IOException("can't close file (" + name + ")");
}

// ---- Writing ------------------------------------------------------------------------------

FileByteWriter::FileByteWriter(const std::string& target_) : target(target_) {
  size_t slash = target.rfind('/');
  std::string dir = slash == std::string::npos ? "." : target.substr(0, slash + 1);
  std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
  if (base.empty()) throw IOException("can't open file (" + target + ")");
  // Hidden and unique in the target's folder, so the rename stays on one
  // file system and never meets another writer's file.
  std::string pattern = (slash == std::string::npos ? std::string() : dir) + "." + base + ".XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  fd = mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) {
    int error = errno;
    throw IOException("can't open file (" + target + "): " + strerror(error));
  }
  temp = name.data();
  // The file gets the mode an ordinary create would give it, or the mode of
  // the file it replaces.
  struct stat st;
  mode_t mode;
  if (stat(target.c_str(), &st) == 0) {
    mode = st.st_mode & 07777;
  } else {
    mode_t mask = umask(0);
    umask(mask);
    mode = 0666 & ~mask;
  }
  fchmod(fd, mode);
  buffer.resize(FileBufferBytes);
}

FileByteWriter::~FileByteWriter() {
  if (fd >= 0) {
    ::close(fd);
    ::unlink(temp.c_str());
  }
}

void FileByteWriter::fail(int error) const {
  throw IOException("can't write to file (" + target + "): " + strerror(error));
}

static void write_fully(int fd, const uint8_t* p, size_t count, int& error) {
  while (count > 0 && !error) {
    ssize_t n = ::write(fd, p, count);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      error = errno;
      return;
    }
    if (n == 0) error = ENOSPC;
    p += n;
    count -= size_t(n);
  }
}

void FileByteWriter::flush_buffer() {
  int error = 0;
  write_fully(fd, buffer.data(), filled, error);
  filled = 0;
  if (error) fail(error);
}

void FileByteWriter::write(const void* bytes, size_t count) {
  if (fd < 0) fail(EBADF);
  const uint8_t* p = static_cast<const uint8_t*>(bytes);
  if (filled + count <= buffer.size()) {
    memcpy(buffer.data() + filled, p, count);
    filled += count;
    return;
  }
  flush_buffer();
  if (count >= buffer.size()) {
    int error = 0;
    write_fully(fd, p, count, error);
    if (error) fail(error);
    return;
  }
  memcpy(buffer.data(), p, count);
  filled = count;
}

void FileByteWriter::commit() {
  flush_buffer();
  // The data must be on the disk before the name points at it.
  if (fsync(fd) != 0) fail(errno);
  int r = ::close(fd);
  fd = -1;
  if (r != 0) {
    int error = errno;
    ::unlink(temp.c_str());
    fail(error);
  }
  if (rename(temp.c_str(), target.c_str()) != 0) {
    int error = errno;
    ::unlink(temp.c_str());
    fail(error);
  }
  // And the new name itself, with its folder.
  size_t slash = target.rfind('/');
  std::string dir = slash == std::string::npos ? "." : target.substr(0, slash == 0 ? 1 : slash);
  int dfd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd >= 0) {
    fsync(dfd);
    ::close(dfd);
  }
}
