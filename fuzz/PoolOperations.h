#pragma once

// Operations on memory pools, for a fuzz target and for a test with random bytes.

#include <string>
#include <string_view>

/// Does with three memory pools what the bytes say: modules, requests, giving back, growth that answers at once, late,
/// or not at all, sub-pools and their reports. After each step everything that can be seen is compared with a plain
/// model. At the end all is given back. Returns the first difference, or an empty text if there is none. Every pool is
/// made and destroyed within the call; after a difference the pools are never destroyed.
std::string poolFaultOf(std::string_view bytes);
