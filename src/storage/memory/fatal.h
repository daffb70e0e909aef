// Storage failures that can't be recovered: one line on standard output and
// exit code 1. Any thread may raise them; they bypass the answer buffer.
#pragma once
#include <string>

// A null text prints "fail", any other "fail (text)".
[[noreturn]] void storage_fatal(const char* text);
// Prints `line` as it is (it carries its own line feed) and exits with code 1.
[[noreturn]] void storage_fatal_line(const std::string& line);
