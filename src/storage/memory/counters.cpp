// The storage byte counters.
#include "storage/memory/counters.h"

std::atomic<int64_t> StorageBytesRead{0};
std::atomic<int64_t> StorageBytesWritten{0};

void reset_storage_counters() {
  StorageBytesRead.store(0);
  StorageBytesWritten.store(0);
}

StorageThroughput storage_throughput(double elapsed_seconds) {
  if (!(elapsed_seconds > 0)) return {0, 0};
  auto rate = [&](int64_t bytes) {
    return int32_t(double(bytes) / elapsed_seconds / 1024.0 / 1024.0);
  };
  return {rate(StorageBytesRead.load()), rate(StorageBytesWritten.load())};
}
