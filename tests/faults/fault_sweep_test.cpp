// Many client threads on one manager, with origin faults and closed handles
// injected at random while the quota thread clears: every byte served is the
// origin's, each clearing pass over the limit brings the directory back
// within it, and ReleaseCache leaves nothing behind.
//
// The sweep runs in rounds. In a round every thread makes a fixed number of
// operations (seeded, so each thread's sequence is the same every run):
// streaming reads of shared read-only files and dropped table entries.
// Between rounds, with the clients quiet, a ballast puts the directory over its limit by half the
// sector bytes, the clock steps past the over-limit ages, and the quota
// thread must bring the directory back within the limit. `make test` runs
// three rounds; KORV_FAULT_SWEEP_SECONDS=n runs rounds for n seconds
// (`make soak`).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <deque>
#include <filesystem>
#include <random>

#include "common/clock.h"
#include "support/fake_origin.h"
#include "support/file_helpers.h"
#include "support/requests.h"
#include "support/settings_file.h"
#include "support/temp_dir.h"
#include "support/test_queue.h"
#include "support/waits.h"

namespace {

using namespace std::chrono_literals;
constexpr int kThreads = 6;
constexpr int kSharedFiles = 8;
constexpr long long kSharedSize = 6 * kMiB;
// ThreadSanitizer runs the sweep about twenty times slower: rounds of
// fewer operations keep it within seconds there, checking the same things.
#if defined(__SANITIZE_THREAD__)
constexpr int kOperationsPerRound = 10;
#else
constexpr int kOperationsPerRound = 40;
#endif
constexpr int kModes = 5;  // FakeOrigin::Mode, kNormal first
// Shared files by name; one origin per fault, all with the same bytes, so a
// read picks its fault by picking its fetcher and faults never leak into
// other reads.
using SharedOrigins = std::vector<std::deque<FakeOrigin>>;

// Where a client thread's streaming read goes on.
struct Cursor {
  int file = -1;
  long long offset = 0;
};

// Every round starts clearing what is a second old, under the clients.
constexpr char kBusy[] = R"({"cache":{"ra":{"hit":2,"min":1048576,"max":4194304},"read":{"timeout":10000,)"
                         R"("maxfetch":1048576},"clear":{"period":100,"usedblock":1,"unusedblock":1,)"
                         R"("over":{"usedblock":0,"unusedblock":0}}}})";
// Quiet then: only the over-limit clearing may bring the directory down.
constexpr char kQuiet[] = R"({"cache":{"clear":{"period":100,"usedblock":3600,"unusedblock":3600,)"
                          R"("over":{"usedblock":1,"unusedblock":1}}}})";

std::string SharedName(long long k) { return "shared/file" + std::to_string(k) + ".bin"; }

// One round of a client thread, seeded by `seed`: streaming reads, each
// holding its file for one read only as a client holds a file from open to
// release, with a fault or a closed handle at random; dropped table entries.
void ClientRound(ICache_V2* cache, SharedOrigins& shared, Cursor& cursor, uint64_t seed,
                 std::atomic<long long>& verified) {
  std::mt19937_64 random(seed);
  auto uniform = [&](long long low, long long high) { return std::uniform_int_distribution(low, high)(random); };
  for (int i = 0; i < kOperationsPerRound; ++i) {
    const long long pick = uniform(0, 99);
    if (pick >= 90) {
      cache->Close(SharedName(uniform(0, kSharedFiles - 1)).c_str());
      continue;
    }
    if (cursor.file < 0 || cursor.offset >= shared[cursor.file][0].size()) {
      cursor.file = static_cast<int>(uniform(0, kSharedFiles - 1));
      cursor.offset = uniform(0, kSharedSize / (512 * 1024) - 2) * 512 * 1024;
    }
    std::deque<FakeOrigin>& origins = shared[cursor.file];
    auto file = cache->Open(SharedName(cursor.file).c_str(), 'r', origins[0].size(), &origins[0]);
    const long long at = cursor.offset;
    const long long size = std::min(uniform(64 * 1024, kMiB), origins[0].size() - at);
    const int fault = uniform(0, 99) < 15 ? static_cast<int>(uniform(1, kModes - 1)) : 0;
    const bool closed = uniform(0, 99) < 5;
    auto handle = OpenHandle();
    if (closed) CloseClientHandle(handle);
    ReadOutcome r = ReadAndCheck(*file, origins[fault], at, static_cast<size_t>(size), 0, handle);
    // A fault fails the reads that wait for the same sectors too.
    const bool allowed = r.status == kOk || r.status == kErrRead || (closed && r.status == kErrHandleClosed);
    EXPECT_TRUE(allowed) << "shared read at " << at << " gave " << r.status << ", fault " << fault;
    if (r.status != kOk) continue;
    EXPECT_TRUE(r.Clean()) << "wrong byte " << r.mismatch << " of shared read at " << at << ", fault " << fault;
    EXPECT_EQ(r.transferred, static_cast<unsigned long long>(size)) << "shared read at " << at;
    verified += static_cast<long long>(r.transferred);
    cursor.offset += size;
  }
}

long long SectorBytes(const std::string& directory) {
  long long total = 0;
  struct stat st;
  for (const std::string& file : SectorCacheFiles(directory)) {
    if (stat(file.c_str(), &st) == 0) total += static_cast<long long>(st.st_blocks) * 512;
  }
  return total;
}

TEST(FaultSweep, ClientsUnderFaultsGetExactBytesWhileTheLimitHoldsAndReleaseLeavesNothing) {
  const char* seconds_text = std::getenv("KORV_FAULT_SWEEP_SECONDS");
  const long long seconds = seconds_text != nullptr ? std::atoll(seconds_text) : 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  SettingsFile none("");
  TempDir dir;
  const std::string path = dir.path() + "/cache";
  const std::string ballast = path + "/ballast";
  Cache_UnbindAsyncQ();
  ICache_V2* cache = nullptr;
  ASSERT_EQ(InitCache(path.c_str(), 64 * kMiB, &cache), kOk);
  Watchdog watchdog("the fault sweep", std::chrono::seconds(300 + seconds));
  SharedOrigins shared(kSharedFiles);
  for (int k = 0; k < kSharedFiles; ++k) {
    for (int m = 0; m < kModes; ++m) shared[k].emplace_back(kSharedSize - 1000 * k).set_mode(FakeOrigin::Mode(m));
  }
  std::atomic<long long> verified{0};
  int rounds = 0, cleared_rounds = 0;
  {
    TestQueue queue(TestQueue::Mode::kRun, 4);
    std::vector<Cursor> cursors(kThreads);
    while (rounds < 3 || std::chrono::steady_clock::now() < deadline) {
      ASSERT_EQ(cache->SetConfiguration(kBusy), kOk);
      std::vector<std::thread> threads;
      for (int t = 0; t < kThreads; ++t) {
        const uint64_t seed = t * 7919ULL + static_cast<uint64_t>(rounds);
        threads.emplace_back([&, t, seed] { ClientRound(cache, shared, cursors[t], seed, verified); });
      }
      for (std::thread& thread : threads) thread.join();
      ASSERT_TRUE(queue.WaitIdle());
      ++rounds;

      ASSERT_EQ(cache->SetConfiguration(kQuiet), kOk);
      const long long sectors = SectorBytes(path);
      if (sectors == 0) continue;
      const long long limit = static_cast<long long>(cache->GetLimit());
      ASSERT_TRUE(WriteBallast(ballast, 0));
      const long long others = BytesInDirectory(path) - sectors;
      ASSERT_GT(limit - others - sectors / 2, 0);
      ASSERT_TRUE(WriteBallast(ballast, (limit - others - sectors / 2) / 4096 * 4096));
      AdvanceClockForTesting(5s);
      EXPECT_TRUE(WaitFor([&] { return BytesInDirectory(path) <= limit || SectorBytes(path) == 0; }))
          << "round " << rounds << ": " << BytesInDirectory(path) << " bytes over the limit " << limit;
      ++cleared_rounds;
    }
  }
  ResetClockForTesting();
  EXPECT_GE(cleared_rounds, 2);
  EXPECT_GT(verified.load(), 0);
  std::filesystem::remove(ballast);
  EXPECT_EQ(ReleaseCache(path.c_str()), kOk);
  EXPECT_TRUE(std::filesystem::is_empty(path)) << "ReleaseCache left files behind";
  std::printf("fault sweep: %d rounds, %lld bytes verified\n", rounds, verified.load());
}

}  // namespace
