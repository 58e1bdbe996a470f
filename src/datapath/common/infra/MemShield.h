#pragma once

// The mode of the guarded allocator, which holds for the life of the process.

class MemShield
{
public:
    /// Whether allocations are guarded, or only counted. Any thread may ask.
    [[nodiscard]] static bool isEnabled() { return s_isEnabled; }

    /// Start-up only, before anything is allocated through the allocator.
    static void setEnabled(bool isEnabled) { s_isEnabled = isEnabled; }

private:
    static constinit inline bool s_isEnabled = true; // until the entry point has read the configuration
};
