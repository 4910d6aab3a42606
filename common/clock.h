// The steady clock every age, idle time-out and read history is measured on.
//
// Tests step it forward instead of sleeping: the offset is added to the real
// steady clock, so time still passes normally and only jumps when told to.
// Sleeps and polling intervals are real and unaffected.
#pragma once

#include <chrono>

using SteadyTime = std::chrono::steady_clock::time_point;

// Now, plus whatever tests have added. Safe on any thread.
SteadyTime SteadyNow();

// Moves the clock forward by `delta` for every later SteadyNow() call.
void AdvanceClockForTesting(std::chrono::nanoseconds delta);
// Undoes every AdvanceClockForTesting.
void ResetClockForTesting();
