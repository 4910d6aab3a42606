// Shared between the benchmarks of ReadonlyCache and the runner's summary.
#pragma once

// Benchmark names. Warm reads are registered as kWarmCache/<bytes>,
// kWarmPread/<bytes> and kWarmCacheNoFetch/<bytes>, so that the summary can
// pair them by request size.
inline constexpr const char* kWarmCache = "warm_read/cache";
inline constexpr const char* kWarmCacheNoFetch = "warm_read/cache_nofetch";
inline constexpr const char* kWarmPread = "warm_read/pread";
inline constexpr const char* kColdRead = "cold_sequential_read/cache";
inline constexpr const char* kColdSmallRead = "cold_small_read/cache";
inline constexpr const char* kIdleRelease = "release_cache/idle";

// Counters of the cold read.
inline constexpr const char* kCapFraction = "cap_fraction";
inline constexpr const char* kRampedCapFraction = "ramped_cap_fraction";
inline constexpr const char* kFetchedPerRead = "fetched_per_read";
inline constexpr const char* kOriginRequests = "origin_requests";
inline constexpr const char* kStalledReads = "stalled_reads";
inline constexpr const char* kStalledMs = "stalled_ms";
inline constexpr const char* kMedianMs = "median_ms";
inline constexpr const char* kReadsPerSecond = "reads_per_s";
inline constexpr const char* kReleaseMs = "release_ms";

// The cold read's origin, for the summary's wording.
inline constexpr long long kColdFileMiB = 256;
inline constexpr long long kRampMiB = 64;
inline constexpr double kOriginCapBytesPerSecond = 400e6;
inline constexpr int kOriginLatencyMs = 5;

// Removes the files the warm-read benchmarks share. Call after the run.
void ReleaseWarmFiles();
