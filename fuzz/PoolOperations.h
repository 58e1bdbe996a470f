#pragma once

// What both the fuzz target of the memory pool and a test with random bytes do.

#include <string>
#include <string_view>

/// Does with three memory pools what the bytes say: modules, requests, giving back, growth that answers at once, late,
/// or not at all, sub-pools and their reports. After each step everything that can be seen is compared with a plain
/// model. At the end all is given back. Returns the first difference, empty if there is none; the pools are left alone
/// then. Every pool starts and ends within the call.
std::string poolFaultOf(std::string_view bytes);
