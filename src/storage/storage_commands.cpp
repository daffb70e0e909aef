// show_memory.
#include <cstdio>

#include "core/core.h"
#include "platform/platform.h"
#include "storage/arena.h"

void cmd_show_memory(const Tokens& t) {
  MemoryStatus m = memory_status();
  // The breakdown goes first: its lines are side information, and END closes
  // the answer.
  if (ShowComments || RawInfoOutput) print_memory_breakdown();
  print_memory_report(m.total_physical, m.load_percent);
}
