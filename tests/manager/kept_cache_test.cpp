// Sector cache files kept from one run to the next: what a restart serves
// again, what it drops, and what a run that did not end cleanly leaves.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <numeric>

#include "cache/cache_manager.h"
#include "cache/sector.h"
#include "common/clock.h"
#include "common/file_io.h"
#include "support/fake_origin.h"
#include "support/file_helpers.h"
#include "support/recording_log.h"
#include "support/requests.h"
#include "support/settings_file.h"
#include "support/temp_dir.h"

namespace {

using namespace std::chrono_literals;

constexpr long long kSize = 3 * kMiB;

// One run over `dir`, keeping files or not.
std::unique_ptr<Cache> StartRun(const TempDir& dir, bool keep = true) {
  auto run = std::make_unique<Cache>(dir.path().c_str(), 1ull << 30);
  EXPECT_EQ(run->SetConfiguration(keep ? R"({"cache":{"keep":1}})" : R"({"cache":{"keep":0}})"), kOk);
  return run;
}

// Opens `name` at `version` and reads all of it; the bytes the origin was
// asked for, or -1 when the read was not served exactly.
long long ReadWhole(Cache& run, const char* name, FakeOrigin& origin, const char* version) {
  origin.ClearRequests();
  std::shared_ptr<ICacheObj> file = run.OpenVersion(name, 'r', origin.size(), &origin, version);
  if (!Served(*file, origin, 0, static_cast<size_t>(origin.size()))) return -1;
  const auto asked = origin.Requests();
  return std::accumulate(asked.begin(), asked.end(), 0LL, [](long long sum, const auto& r) { return sum + r.second; });
}

std::string IndexOf(const std::string& cache_file) { return cache_file.substr(0, cache_file.size() - 6) + ".index"; }

// Changes one byte of the file at `path`, at `offset`.
void FlipByte(const std::string& path, long long offset) {
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  file.seekg(offset);
  const char byte = static_cast<char>(file.get() ^ 0x40);
  file.seekp(offset);
  file.put(byte);
}

enum class Between { kNothing, kNoIndex, kFlippedSlotByte, kTruncatedIndex, kCorruptIndex };

TEST(KeptCache, ARestartServesOnlyKeptBytesThatAreStillTheOrigins) {
  SettingsFile none("");
  const struct {
    const char* what;
    Between between;
    const char* version;  // the first run's is "v1"
    long long size;
    bool keep;
    long long fetched;  // from the origin by the second run's read
    bool warned;        // a warning in the second run
    bool index_after;   // the index still on disk after that read
  } cases[] = {
      {"a clean restart", Between::kNothing, "v1", kSize, true, 0, false, true},
      {"another version", Between::kNothing, "v2", kSize, true, kSize, false, false},
      {"another size", Between::kNothing, "v1", kSize - 1000, true, kSize, false, false},  // asked in whole sectors
      {"keeping off", Between::kNothing, "v1", kSize, false, kSize, false, false},
      // A run that ended while it wrote: its index was never written, or
      // was removed by its first write.
      {"no index", Between::kNoIndex, "v1", kSize, true, kSize, true, false},
      {"a flipped byte in a slot", Between::kFlippedSlotByte, "v1", kSize, true, kSectorSize, true, false},
      {"a truncated index", Between::kTruncatedIndex, "v1", kSize, true, kSize, true, false},
      {"a corrupt index", Between::kCorruptIndex, "v1", kSize, true, kSize, true, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir dir;
    FakeOrigin first(kSize), second(c.size);
    ASSERT_EQ(ReadWhole(*StartRun(dir), "d/a.bin", first, "v1"), kSize);
    const std::vector<std::string> kept = SectorCacheFiles(dir.path());
    ASSERT_EQ(kept.size(), 1u);
    ASSERT_TRUE(Exists(IndexOf(kept[0])));
    const std::string index = IndexOf(kept[0]);
    switch (c.between) {
      case Between::kNothing: break;
      case Between::kNoIndex: std::remove(index.c_str()); break;
      // Sectors were fetched in order: the second sits in the second slot.
      case Between::kFlippedSlotByte: FlipByte(kept[0], kSectorSize + 100); break;
      case Between::kTruncatedIndex: std::filesystem::resize_file(index, FileSize(index) / 2); break;
      // The last sector's read count: only the index's checksum tells.
      case Between::kCorruptIndex: FlipByte(index, FileSize(index) - 32); break;
    }
    {
      RecordingLog log;
      auto run = StartRun(dir, c.keep);
      EXPECT_EQ(ReadWhole(*run, "d/a.bin", second, c.version), c.fetched);
      EXPECT_EQ(Exists(index), c.index_after);
      const auto lines = log.Lines();
      EXPECT_EQ(std::any_of(lines.begin(), lines.end(), [](const auto& l) { return l.first == LOGLEVEL_WARNING; }),
                c.warned);
    }
    // What the second run kept is served whole by a third.
    EXPECT_EQ(SectorCacheFiles(dir.path()).size(), c.keep ? 1u : 0u);
    if (c.keep) {
      EXPECT_EQ(ReadWhole(*StartRun(dir), "d/a.bin", second, c.version), 0);
    }
  }
}

// Kept files count against the limit from the start and are cleared by the
// read times they were kept with; a file closed by name is kept too.
TEST(KeptCache, KeptFilesCountAndAgeByTheirLastReads) {
  SettingsFile none("");
  TempDir dir;
  FakeOrigin origin(kSize);
  {
    auto run = StartRun(dir);
    ASSERT_EQ(ReadWhole(*run, "old.bin", origin, "v"), kSize);
    AdvanceClockForTesting(2h);  // old.bin was last read two hours ago
    ASSERT_EQ(ReadWhole(*run, "new.bin", origin, "v"), kSize);
    EXPECT_EQ(run->Close("new.bin"), kOk);
    EXPECT_EQ(ReadWhole(*run, "new.bin", origin, "v"), 0);  // back from where Close kept it
  }
  ResetClockForTesting();
  auto run = StartRun(dir);
  long long on_disk = 0;
  for (const std::string& file : SectorCacheFiles(dir.path())) on_disk += CacheFileIo().DiskBytesAt(file);
  EXPECT_EQ(run->GetUsedBytes(), static_cast<unsigned long long>(on_disk));
  run->RunQuotaPassNow();  // sectors unread for an hour go, by default
  EXPECT_EQ(SectorCacheFiles(dir.path()).size(), 1u);
  EXPECT_EQ(ReadWhole(*run, "new.bin", origin, "v"), 0);
  EXPECT_EQ(ReadWhole(*run, "old.bin", origin, "v"), kSize);
}

}  // namespace
