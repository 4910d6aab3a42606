// The clock that ages what a drive knows of its origin: steady time, and a
// function so that tests can age it without waiting.
#pragma once

#include <chrono>
#include <functional>

using DriveTime = std::chrono::steady_clock::time_point;
using DriveClock = std::function<DriveTime()>;
