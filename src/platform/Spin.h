#pragma once

// Waiting for what another processor is about to change, without falling asleep. Falling asleep and being woken take
// some microseconds, so it pays to look for about as long first. A spin-wait hint (x86's PAUSE, ARM's YIELD) lets the
// processor's other threads go on meanwhile. One takes 10 to 50 ns, depending on the processor.
//
//     if (!isSet() && !platform::spinUntil(isSet, {.looks = 100})) ... fall asleep
//
// Where one thread runs at a time, nothing changes during a spin: simulated/ looks once, after a switch point.

#include "NativeRelax.h"

namespace platform
{

struct SpinBudget
{
    int looks;            ///< at most
    int hintsPerLook = 1; ///< more, where a look takes a cache line away from whoever is about to change it
};

/// Gives the hints and looks, at most as often as the budget says. Returns whether a look found the condition true;
/// it has not been called since then.
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
