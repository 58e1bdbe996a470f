#pragma once

// The places at which the tests of the guarded allocator take memory and release it.

#include "datapath/common/infra/MemShield.h"

constexpr AllocationSite SITE{"Thing", {"maker.cpp", 11}};
constexpr AllocationSite ARRAY_SITE{"s8", {"maker.cpp", 12}};
constexpr SourcePlace PLACE{"user.cpp", 22};

using Bytes = unsigned char*;

inline Bytes makeObject(std::uint64_t size = 100) { return static_cast<Bytes>(MemShield::allocate(size, 0, SITE)); }
