// Named points in the library's threads where a test may stop one.
//
// KORV_TEST_POINT("quota: clearing a file") costs one relaxed load while no
// test listens, and compiles to nothing in Release builds. A test installs a
// hook that sees every point reached, on the thread that reaches it, and may
// block there (see tests/support/test_point_gate.h).
#pragma once

#include <functional>

#if defined(KORV_TEST_POINTS)
#define KORV_TEST_POINT(name) ReachTestPoint(name)
#else
#define KORV_TEST_POINT(name) ((void)0)
#endif

// Calls the installed hook, if any, with `name`.
void ReachTestPoint(const char* name);

// Installs `hook` for every later point (an empty one removes it). Returns
// once no thread runs the hook it replaced, so whatever that hook used may be
// destroyed; a thread the old hook holds must have been let go first.
void SetTestPointHook(std::function<void(const char* name)> hook);
