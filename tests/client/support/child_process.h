// Programs a test runs: children that die with the test process (also when
// it is killed), waited for with a time limit.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

// Starts argv[0] with standard input from /dev/null, standard output to
// `out_fd` and standard error to `err_fd` (inherited when negative), and no
// other descriptor of the test. Returns its pid, or -1.
pid_t SpawnChild(const std::vector<std::string>& argv, int out_fd, int err_fd);
// Waits up to `limit` for the child to end and reaps it. Returns its exit
// status (128 + the signal when killed), or -1 while it still runs.
int WaitChild(pid_t pid, std::chrono::milliseconds limit);
// SIGTERM, then SIGKILL if it is still there after 10 s; returns as WaitChild.
int StopChild(pid_t pid);

// Runs a program to completion (2 minutes at most) with standard output into
// `out` (when not null) and standard error to the test's. Returns its exit
// status, or -1.
int RunProgram(const std::vector<std::string>& argv, std::string* out);
// korvmount or korvcat of this build.
std::string ClientBinary(const std::string& name);
