// show_memory: the machine's memory and the breakdown of the program's.
#include <algorithm>
#include <cstdio>

#include "core/core.h"
#include "platform/platform.h"
#include "storage/memory/allocation.h"
#include "storage/memory/memory_report.h"

// ---- show_memory --------------------------------------------------------------

void print_memory_report(uint64_t total_physical, uint32_t load_percent) {
  // Both figures are cut to 32 bits, as the report has always printed them.
  uint64_t total_mb = total_physical >> 20;
  double available = double(total_physical) * double(100 - load_percent) / 100.0;
  uint64_t available_mb = uint64_t(available) >> 20;
  shell_print("Total Physical Memory: %d MB\n", int32_t(uint32_t(total_mb)));
  shell_print("Available Phys Memory: %d MB\n", int32_t(uint32_t(available_mb)));
  shell_print("END\n");
}

// ---- Breakdown ------------------------------------------------------------------

std::vector<MemoryPart> (*TreeMemoryParts)() = nullptr;

std::vector<MemoryPart> memory_breakdown(int64_t& resident, int64_t& peak) {
  std::vector<MemoryPart> parts;
  if (TreeMemoryParts) parts = TreeMemoryParts();
  AllocatorFigures a = allocator_figures();
  ResidentFigures r = resident_figures();
  int64_t scalable_named = 0, heap_named = 0;
  for (const MemoryPart& p : parts) {
    scalable_named += p.scalable;
    heap_named += p.heap;
  }
  parts.push_back({"row pools", a.row_pool_blocks, a.row_pool_blocks, 0});
  parts.push_back({"channel buffers", a.channel_buffers, a.channel_buffers, 0});
  scalable_named += a.row_pool_blocks + a.channel_buffers;
  // What the allocators hold beyond the parts named: working rows, the walk's
  // lists and everything small.
  parts.push_back({"other rows", std::max<int64_t>(0, a.scalable_in_use - scalable_named), 0, 0});
  parts.push_back({"other heap objects", std::max<int64_t>(0, a.heap_in_use - heap_named), 0, 0});
  parts.push_back({"heap free blocks", a.heap_free, 0, 0});
  parts.push_back({"thread stacks", int64_t(thread_stack_resident()), 0, 0});
  parts.push_back({"code and libraries", int64_t(r.file + r.shared), 0, 0});
  resident = int64_t(r.resident);
  peak = int64_t(r.peak);
  return parts;
}

void print_memory_breakdown() {
  int64_t resident = 0, peak = 0;
  std::vector<MemoryPart> parts = memory_breakdown(resident, peak);
  const double mb = 1024.0 * 1024.0;
  int64_t total = 0;
  for (const MemoryPart& p : parts) {
    shell_print("#memory %s %.1f MB\n", p.name, double(p.bytes) / mb);
    total += p.bytes;
  }
  shell_print("#memory total %.1f MB, resident %.1f MB, peak %.1f MB\n", double(total) / mb, double(resident) / mb,
              double(peak) / mb);
}

void cmd_show_memory(const Tokens& t) {
  MemoryStatus m = memory_status();
  // The breakdown goes first: its lines are side information, and END closes
  // the answer.
  if (ShowComments || RawInfoOutput) print_memory_breakdown();
  print_memory_report(m.total_physical, m.load_percent);
}
