#pragma once

// For benchmark programs that do their own timing: figures of several repetitions, whose medians are printed as JSON.

#include <algorithm>
#include <chrono>
#include <iostream>
#include <map>
#include <string>
#include <vector>

using SteadyClock = std::chrono::steady_clock;

constexpr int REPETITIONS = 5;

inline std::map<std::string, std::vector<double>> results; // by name, with a figure for each repetition

inline double nsBetween(SteadyClock::time_point start, SteadyClock::time_point end)
{
    return std::chrono::duration<double, std::nano>(end - start).count();
}

/// Prints the median of each result to standard output.
inline void printMedians()
{
    std::cout << "{";
    for (const char* separator = ""; auto& [name, values] : results)
    {
        std::ranges::sort(values);
        std::cout << separator << "\n\"" << name << "\": " << values[values.size() / 2];
        separator = ",";
    }
    std::cout << "\n}" << std::endl;
}
