// The memory breakdown of show_memory: what the tree, the pools, the
// allocators, the stacks and the code take, beside the resident size.
#pragma once
#include <cstdint>
#include <vector>

#include "core/core.h"

// One line of the breakdown: bytes in all, and how many of them the scalable
// allocator and the C heap hold (the rest is mapped directly).
struct MemoryPart {
  const char* name;
  int64_t bytes = 0;
  int64_t scalable = 0;
  int64_t heap = 0;
};
// The parts that the present tree owns (stores, hole sets, tables); installed
// by the layer that knows the tree. Null or empty without a tree.
extern std::vector<MemoryPart> (*TreeMemoryParts)();
// The whole breakdown, every line "#memory ...", ending with the components'
// total beside the resident size the system counts.
std::vector<MemoryPart> memory_breakdown(int64_t& resident, int64_t& peak);
void print_memory_breakdown();

// The lines of show_memory for a machine with `total_physical` bytes at
// `load_percent` load, then "END".
void print_memory_report(uint64_t total_physical, uint32_t load_percent);

// ---- Commands ---------------------------------------------------------------
void cmd_show_memory(const Tokens& t);
