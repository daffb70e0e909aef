// Process-wide storage byte counters: compressed bytes read by finished read
// passes and produced by finished write passes. Each pass adds once, at its end.
#pragma once
#include <atomic>
#include <cstdint>

extern std::atomic<int64_t> StorageBytesRead;
extern std::atomic<int64_t> StorageBytesWritten;
// At process start and whenever storage is planned.
void reset_storage_counters();

struct StorageThroughput {
  int32_t read_mb_per_s;
  int32_t write_mb_per_s;
};
// Both counters over `elapsed_seconds`, in MiB per second, truncated; the
// solver prints them as "#storage %d MB/s read, %d MB/s write\n".
StorageThroughput storage_throughput(double elapsed_seconds);
