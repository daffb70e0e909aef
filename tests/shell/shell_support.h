// What the shell answers to one input line, with the output buffer left empty.
#pragma once
#include <string>

#include "shell/shell.h"

inline std::string run(const std::string& line) {
  OutputBuffer.clear();
  process_line(tokenize_line(line));
  std::string out = OutputBuffer;
  OutputBuffer.clear();
  return out;
}
