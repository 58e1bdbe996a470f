#pragma once

// Waits without falling asleep for a change that another processor is about to make. Falling asleep and being woken
// take some microseconds, so it pays to look for about as long first. A spin-wait hint (x86's PAUSE, ARM's YIELD) lets
// the processor's other threads go on meanwhile; one hint takes 10 to 50 ns, depending on the processor.
//
//     if (!isSet() && !platform::spinUntil(isSet, {.looks = 100})) ... fall asleep
//
// Where one thread runs at a time, nothing changes during a spin: simulated/ looks once, after a switch point.

#include "NativeRelax.h"

namespace platform
{

/// How long a spin may last.
struct SpinBudget
{
    int looks;            ///< how often the condition is checked, at most
    int hintsPerLook = 1; ///< more than 1 if each look takes a cache line from the thread that is about to change it
};

/// Checks the condition after each group of hints, as often as the budget allows. Returns true as soon as the condition
/// does, without another call of it, because the condition may take what it has found.
template <class Condition> [[nodiscard]] bool spinUntil(const Condition& condition, SpinBudget budget)
{
    const int looks = RUNS_ONE_THREAD_AT_A_TIME ? 1 : budget.looks;
    const int hintsPerLook = RUNS_ONE_THREAD_AT_A_TIME ? 1 : budget.hintsPerLook;
    for (int look = 0; look < looks; ++look)
    {
        for (int hint = 0; hint < hintsPerLook; ++hint)
        {
            relax();
        }
        if (condition())
        {
            return true;
        }
    }
    return false;
}

} // namespace platform
