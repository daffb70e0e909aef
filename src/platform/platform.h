// Thin layer over the operating system: processor features, clocks, address
// space, memory figures, the process list, console colours and standard output.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// ---- Processor ------------------------------------------------------------
struct CpuidRegs { uint32_t eax, ebx, ecx, edx; };
CpuidRegs cpuid(uint32_t leaf, uint32_t subleaf = 0);
bool cpu_has_avx();      // processor and operating system (XSAVE of YMM state)
bool cpu_has_avx2();     // AVX2 and FMA, with AVX state enabled
bool cpu_has_avx512();   // AVX-512 F/BW/DQ/VL, with ZMM state enabled
std::string cpu_vendor();
std::string cpu_brand();

// ---- Time -----------------------------------------------------------------
int64_t wall_clock_ticks();   // 100-nanosecond ticks of the real-time clock
double monotonic_seconds();   // the solver's clock
double process_cpu_seconds(); // user + system time of the whole process

// ---- Address space --------------------------------------------------------
// reserve maps inaccessible pages; commit makes a prefix readable and
// writable; release unmaps the whole reservation. errno tells why on failure.
void* reserve_address_space(size_t bytes);
bool commit_memory(void* base, size_t bytes);
void release_address_space(void* base, size_t bytes);
// Gives committed pages their memory now, in one call, rather than one fault
// at a time as they are first written; only a hint.
void populate_memory(void* base, size_t bytes);
size_t page_size();
// release_address_space that reports whether the system gave the range back.
bool release_address_space_checked(void* base, size_t bytes);

// ---- Memory figures -------------------------------------------------------
struct MemoryStatus {
  uint64_t total_physical;
  uint64_t available_physical;
  uint32_t load_percent;   // share of physical memory in use, 0..100
};
MemoryStatus memory_status();
uint64_t peak_resident_bytes();
uint64_t current_resident_bytes();
// Resident bytes of the process by kind, from the system's own count.
struct ResidentFigures {
  uint64_t resident = 0, peak = 0;
  uint64_t anonymous = 0;  // private memory: heaps, stacks, stores
  uint64_t file = 0;       // mapped files: the program and its libraries
  uint64_t shared = 0;
};
ResidentFigures resident_figures();
// Resident bytes of the stacks of all threads: the main stack and every
// anonymous mapping that sits right above a one-page guard.
uint64_t thread_stack_resident();
// Bytes of [base, base + bytes) that are in physical memory; a committed page
// that was never touched is not.
uint64_t resident_bytes_in(const void* base, size_t bytes);

// ---- Processes and threads ------------------------------------------------
// Executable file names of the running processes.
std::vector<std::string> running_process_names();
// Relative priority: 1 above normal, 0 normal, -2 lowest. Failures are ignored.
void set_current_thread_priority(int level);
void sleep_milliseconds(int64_t ms);

// ---- Files and console ----------------------------------------------------
bool is_regular_file(const std::string& path);  // exists and is not a directory
bool stdout_is_terminal();
// Console text attribute as the colour numbers of the protocol (2 green,
// 6 yellow, 7 normal); written as ANSI sequences, on a terminal only.
void set_console_attribute(int attribute);

// Standard output can be pointed at a file and back at the descriptor the
// process started with.
bool redirect_stdout(const std::string& path, bool append);
void restore_stdout();
