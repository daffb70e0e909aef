#include "platform/platform.h"

#include <algorithm>
#include <cerrno>
#include <cpuid.h>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <thread>
#include <unistd.h>

CpuidRegs cpuid(uint32_t leaf, uint32_t subleaf) {
  CpuidRegs r{};
  __cpuid_count(leaf, subleaf, r.eax, r.ebx, r.ecx, r.edx);
  return r;
}

static uint64_t xgetbv0() {
  uint32_t lo, hi;
  __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
  return (uint64_t(hi) << 32) | lo;
}

static uint32_t max_leaf() { return cpuid(0).eax; }

bool cpu_has_avx() {
  CpuidRegs r = cpuid(1);
  bool osxsave = r.ecx & (1u << 27), avx = r.ecx & (1u << 28);
  if (!osxsave || !avx) return false;
  return (xgetbv0() & 6) == 6;
}

bool cpu_has_avx2() {
  if (!cpu_has_avx() || max_leaf() < 7) return false;
  bool fma = cpuid(1).ecx & (1u << 12);
  return fma && (cpuid(7).ebx & (1u << 5));
}

bool cpu_has_avx512() {
  if (!cpu_has_avx2()) return false;
  if ((xgetbv0() & 0xE6) != 0xE6) return false;
  uint32_t b = cpuid(7).ebx;
  const uint32_t need = (1u << 16) | (1u << 17) | (1u << 30) | (1u << 31);  // F DQ BW VL
  return (b & need) == need;
}

std::string cpu_vendor() {
  CpuidRegs r = cpuid(0);
  char s[13];
  memcpy(s, &r.ebx, 4);
  memcpy(s + 4, &r.edx, 4);
  memcpy(s + 8, &r.ecx, 4);
  s[12] = 0;
  return s;
}

std::string cpu_brand() {
  if (cpuid(0x80000000).eax < 0x80000004) return "";
  char s[49];
  for (uint32_t i = 0; i < 3; i++) {
    CpuidRegs r = cpuid(0x80000002 + i);
    memcpy(s + 16 * i, &r, 16);
  }
  s[48] = 0;
  return s;
}

int64_t wall_clock_ticks() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return int64_t(ts.tv_sec) * 10000000 + ts.tv_nsec / 100;
}

double monotonic_seconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

double process_cpu_seconds() {
  rusage u;
  getrusage(RUSAGE_SELF, &u);
  return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) * 1e-6;
}

void* reserve_address_space(size_t bytes) {
  void* p = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return p == MAP_FAILED ? nullptr : p;
}

bool commit_memory(void* base, size_t bytes) {
  if (bytes == 0) return true;
  return mprotect(base, bytes, PROT_READ | PROT_WRITE) == 0;
}

void release_address_space(void* base, size_t bytes) {
  if (base) munmap(base, bytes);
}

void populate_memory(void* base, size_t bytes) {
  static const bool on = !getenv("CORV_NOPOP");
#ifdef MADV_POPULATE_WRITE
  if (on && bytes > 0) madvise(base, bytes, MADV_POPULATE_WRITE);
#endif
}

size_t page_size() { return size_t(sysconf(_SC_PAGESIZE)); }

bool release_address_space_checked(void* base, size_t bytes) {
  return !base || munmap(base, bytes) == 0;
}

MemoryStatus memory_status() {
  MemoryStatus m{};
  struct sysinfo si;
  if (sysinfo(&si) == 0) {
    m.total_physical = uint64_t(si.totalram) * si.mem_unit;
    m.available_physical = uint64_t(si.freeram + si.bufferram) * si.mem_unit;
  }
  // MemAvailable counts reclaimable cache too, which is what a reader means by free.
  std::ifstream f("/proc/meminfo");
  std::string key;
  uint64_t kb;
  std::string unit;
  while (f >> key >> kb) {
    std::getline(f, unit);
    if (key == "MemAvailable:") m.available_physical = kb * 1024;
  }
  if (m.total_physical > 0) {
    uint64_t used = m.total_physical > m.available_physical ? m.total_physical - m.available_physical : 0;
    m.load_percent = uint32_t(used * 100 / m.total_physical);
  }
  return m;
}

static uint64_t status_field_kb(const char* name) {
  std::ifstream f("/proc/self/status");
  std::string line;
  size_t n = strlen(name);
  while (std::getline(f, line)) {
    if (line.compare(0, n, name) == 0) return std::strtoull(line.c_str() + n, nullptr, 10);
  }
  return 0;
}

uint64_t peak_resident_bytes() { return status_field_kb("VmHWM:") * 1024; }
uint64_t current_resident_bytes() { return status_field_kb("VmRSS:") * 1024; }

ResidentFigures resident_figures() {
  ResidentFigures r;
  std::ifstream f("/proc/self/status");
  std::string line;
  auto field = [&](const char* name, uint64_t& out) {
    size_t n = strlen(name);
    if (line.compare(0, n, name) == 0) out = std::strtoull(line.c_str() + n, nullptr, 10) * 1024;
  };
  while (std::getline(f, line)) {
    field("VmRSS:", r.resident);
    field("VmHWM:", r.peak);
    field("RssAnon:", r.anonymous);
    field("RssFile:", r.file);
    field("RssShmem:", r.shared);
  }
  return r;
}

uint64_t thread_stack_resident() {
  std::ifstream f("/proc/self/smaps");
  std::string line;
  uint64_t total = 0;
  uintptr_t guard_end = 0;  // end of the last one-page inaccessible mapping
  bool in_stack = false;
  while (std::getline(f, line)) {
    unsigned long start = 0, end = 0;
    char perms[8] = {};
    unsigned long long offset = 0;
    char dev[16] = {};
    unsigned long inode = 1;
    int name_at = 0;
    if (sscanf(line.c_str(), "%lx-%lx %7s %llx %15s %lu %n", &start, &end, perms, &offset, dev, &inode, &name_at) >= 6) {
      std::string name = name_at > 0 ? line.substr(size_t(name_at)) : std::string();
      bool anonymous = inode == 0 && (name.empty() || name == "[stack]");
      in_stack = anonymous && perms[0] == 'r' && perms[1] == 'w' &&
                 (name == "[stack]" || (guard_end != 0 && start == guard_end));
      guard_end = (perms[0] == '-' && perms[1] == '-' && end - start == page_size()) ? end : 0;
      continue;
    }
    if (in_stack && line.compare(0, 4, "Rss:") == 0) total += std::strtoull(line.c_str() + 4, nullptr, 10) * 1024;
  }
  return total;
}

uint64_t resident_bytes_in(const void* base, size_t bytes) {
  if (!base || bytes == 0) return 0;
  const size_t page = page_size();
  uintptr_t first = reinterpret_cast<uintptr_t>(base) / page;
  uintptr_t last = (reinterpret_cast<uintptr_t>(base) + bytes + page - 1) / page;
  // The page map tells a page of our own from the shared zero page that a
  // read of untouched memory maps: only the first takes physical memory.
  // Without it, mincore counts both.
  static int pagemap = open("/proc/self/pagemap", O_RDONLY | O_CLOEXEC);
  uint64_t resident = 0;
  if (pagemap >= 0) {
    uint64_t entries[512];
    for (uintptr_t at = first; at < last;) {
      size_t n = std::min<size_t>(last - at, 512);
      ssize_t got = pread(pagemap, entries, n * 8, off_t(at * 8));
      if (got <= 0) break;
      n = size_t(got) / 8;
      for (size_t i = 0; i < n; i++) {
        const uint64_t present = uint64_t(1) << 63, exclusive = uint64_t(1) << 56;
        resident += (entries[i] & (present | exclusive)) == (present | exclusive);
      }
      at += n;
    }
    return resident * page;
  }
  unsigned char marks[4096];
  for (uintptr_t at = first; at < last;) {
    size_t n = std::min<size_t>(last - at, sizeof marks);
    if (mincore(reinterpret_cast<void*>(at * page), n * page, marks) != 0) break;
    for (size_t i = 0; i < n; i++) resident += marks[i] & 1;
    at += n;
  }
  return resident * page;
}

std::vector<std::string> running_process_names() {
  std::vector<std::string> names;
  DIR* d = opendir("/proc");
  if (!d) return names;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
    std::string base = std::string("/proc/") + e->d_name;
    // argv[0] holds the whole file name (comm is cut at 15 characters).
    std::ifstream c(base + "/cmdline", std::ios::binary);
    std::string arg0;
    std::getline(c, arg0, '\0');
    if (!arg0.empty()) {
      size_t slash = arg0.find_last_of("/\\");
      names.push_back(slash == std::string::npos ? arg0 : arg0.substr(slash + 1));
      continue;
    }
    std::ifstream m(base + "/comm");
    std::string comm;
    if (std::getline(m, comm) && !comm.empty()) names.push_back(comm);
  }
  closedir(d);
  return names;
}

void set_current_thread_priority(int level) {
  // Linux keeps a nice value per thread; a higher priority needs privileges and
  // is simply not had without them.
  pid_t tid = pid_t(syscall(SYS_gettid));
  setpriority(PRIO_PROCESS, id_t(tid), -level);
}

void sleep_milliseconds(int64_t ms) {
  if (ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

bool is_regular_file(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

bool stdout_is_terminal() { return isatty(STDOUT_FILENO) == 1; }

void set_console_attribute(int attribute) {
  if (!stdout_is_terminal()) return;
  const char* seq = "\x1b[0m";
  if (attribute == 2) seq = "\x1b[32m";
  else if (attribute == 6) seq = "\x1b[33m";
  fputs(seq, stdout);
}

static int SavedStdout = -1;

bool redirect_stdout(const std::string& path, bool append) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | (append ? O_APPEND : O_TRUNC), 0644);
  if (fd < 0) return false;
  fflush(stdout);
  if (SavedStdout < 0) SavedStdout = dup(STDOUT_FILENO);
  dup2(fd, STDOUT_FILENO);
  close(fd);
  return true;
}

void restore_stdout() {
  fflush(stdout);
  if (SavedStdout >= 0) dup2(SavedStdout, STDOUT_FILENO);
}
