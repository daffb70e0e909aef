// The file streams: reading forward through one buffer, writing to a hidden
// temporary file that replaces the target once complete.
#include "storage/memory/file_bytes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
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

// At most this many pieces go to the system in one call.
constexpr int PieceBatch = 256;

// Reads into the `n` areas of `iov` in order until they are full or the file
// ends; the bytes read. The areas are used up as they fill.
static size_t read_areas(int fd, iovec* iov, int n) {
  size_t got = 0;
  while (n > 0) {
    ssize_t r = ::readv(fd, iov, n);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    got += size_t(r);
    size_t left = size_t(r);
    for (; n > 0 && left >= iov->iov_len; iov++, n--) left -= iov->iov_len;
    if (n > 0) {
      iov->iov_base = static_cast<uint8_t*>(iov->iov_base) + left;
      iov->iov_len -= left;
    }
  }
  return got;
}

void FileByteSource::read(void* out, size_t count) {
  if (fd >= 0 && count <= filled - position) {
    memcpy(out, buffer.data() + position, count);
    position += count;
    return;
  }
  BytePiece piece{out, count};
  read_pieces(&piece, 1);
}

void FileByteSource::read_pieces(const BytePiece* pieces, size_t n) {
  int64_t total = 0;
  for (size_t i = 0; i < n; i++) total += int64_t(pieces[i].count);
  if (fd < 0 || total > remaining()) fail_read();
  size_t i = 0, done = 0;  // piece and bytes of it filled
  // What the buffer holds goes first.
  while (i < n && position < filled) {
    size_t k = std::min(filled - position, pieces[i].count - done);
    memcpy(static_cast<uint8_t*>(pieces[i].data) + done, buffer.data() + position, k);
    position += k;
    done += k;
    if (done == pieces[i].count) i++, done = 0;
  }
  // The rest straight into place, a batch at a time, and after the last piece
  // the buffer refilled in the same call.
  while (i < n) {
    iovec iov[PieceBatch + 1];
    int m = 0;
    size_t want = 0;
    for (; i < n && m < PieceBatch; i++, done = 0) {
      size_t k = pieces[i].count - done;
      if (k == 0) continue;
      iov[m++] = {static_cast<uint8_t*>(pieces[i].data) + done, k};
      want += k;
    }
    position = filled = 0;
    size_t extra = i == n ? size_t(std::min<int64_t>(unread - int64_t(want), int64_t(buffer.size()))) : 0;
    if (extra > 0) iov[m++] = {buffer.data(), extra};
    size_t got = read_areas(fd, iov, m);
    if (got < want) fail_read();
    unread -= int64_t(got);
    filled = got - want;
  }
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

// Writing out of the page cache starts once this much has been written since
// the last start.
constexpr int64_t WritebackBytes = int64_t(8) << 20;

// Writes the `n` areas of `iov` whole, in order; the system's reason on a
// failure, else 0. The areas are used up as they go.
static int write_areas(int fd, iovec* iov, int n) {
  while (n > 0) {
    ssize_t w = ::writev(fd, iov, n);
    if (w < 0 && errno == EINTR) continue;
    if (w < 0) return errno;
    if (w == 0) return ENOSPC;
    size_t left = size_t(w);
    for (; n > 0 && left >= iov->iov_len; iov++, n--) left -= iov->iov_len;
    if (n > 0) {
      iov->iov_base = static_cast<uint8_t*>(iov->iov_base) + left;
      iov->iov_len -= left;
    }
  }
  return 0;
}

void FileByteWriter::put(iovec* iov, int n) {
  int64_t count = 0;
  for (int k = 0; k < n; k++) count += int64_t(iov[k].iov_len);
  if (int error = write_areas(fd, iov, n)) fail(error);
  written += count;
  if (written - writeback >= WritebackBytes) {
    sync_file_range(fd, writeback, written - writeback, SYNC_FILE_RANGE_WRITE);
    writeback = written;
  }
}

void FileByteWriter::flush_buffer() {
  if (filled == 0) return;
  iovec iov{buffer.data(), filled};
  filled = 0;
  put(&iov, 1);
}

void FileByteWriter::write(const void* bytes, size_t count) {
  if (fd >= 0 && filled + count <= buffer.size()) {
    memcpy(buffer.data() + filled, bytes, count);
    filled += count;
    return;
  }
  BytePiece piece{const_cast<void*>(bytes), count};
  write_pieces(&piece, 1);
}

void FileByteWriter::write_pieces(const BytePiece* pieces, size_t n) {
  if (fd < 0) fail(EBADF);
  size_t total = 0;
  for (size_t i = 0; i < n; i++) total += pieces[i].count;
  if (total < FileDirectBytes) {
    // Through the buffer, which goes out whenever it is full.
    for (size_t i = 0; i < n; i++) {
      const uint8_t* p = static_cast<const uint8_t*>(pieces[i].data);
      size_t left = pieces[i].count;
      while (left > 0) {
        if (filled == buffer.size()) flush_buffer();
        size_t k = std::min(left, buffer.size() - filled);
        memcpy(buffer.data() + filled, p, k);
        filled += k;
        p += k;
        left -= k;
      }
    }
    return;
  }
  // Straight from where the pieces lie, behind what the buffer holds.
  size_t i = 0;
  while (i < n) {
    iovec iov[PieceBatch + 1];
    int m = 0;
    if (filled > 0) iov[m++] = {buffer.data(), filled};
    filled = 0;
    for (; i < n && m < PieceBatch; i++)
      if (pieces[i].count > 0) iov[m++] = {pieces[i].data, pieces[i].count};
    put(iov, m);
  }
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
