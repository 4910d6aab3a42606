// read_load: the reader of the client benchmark. Prints one line of JSON.
//
//   read_load random FILE --block BYTES [--threads N] [--count OPS] [--seconds S] [--seed X] [--direct]
//       preads of BYTES at random offsets aligned to BYTES, from N threads,
//       each with a descriptor of its own, until OPS reads are done or S
//       seconds have passed; also counts the 512 KiB sectors the reads touch
//       (--sector to change), which bounds what a sector cache should fetch.
//       --direct opens with O_DIRECT: on a FUSE mount every read then reaches
//       the file system process as it is, where the kernel's page cache would
//       otherwise answer the repeats of a long run and its read-ahead would
//       widen the first reads.
//   read_load sequential FILE [--block BYTES]
//       the whole file from start to end in reads of BYTES (default 1 MiB).
//   read_load files DIR [--threads N] [--block BYTES]
//       every regular file of DIR, in name order, opened, read whole and
//       closed, N files at a time.
//
// Times cover the reads only: opening the files of `random` and `sequential`
// (which for a mount means a lookup and, for korvmount, an origin request)
// happens before the clock starts and is reported as open_seconds. `files`
// times each open and close too, since that is part of reading many files.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  std::string mode;
  std::string path;
  long long block = 0;
  int threads = 1;
  long long count = 0;     // 0: no limit
  double seconds = 0;      // 0: no limit
  unsigned long long seed = 1;
  long long sector = 512 * 1024;
  bool direct = false;
};

struct Tally {
  long long ops = 0;
  long long bytes = 0;
  long long short_reads = 0;
  long long errors = 0;
  std::vector<long long> sectors;  // touched, with repeats
};

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

[[noreturn]] void Usage(const char* why) {
  fprintf(stderr,
          "read_load: %s\n"
          "usage: read_load random FILE --block BYTES [--threads N] [--count OPS] [--seconds S] [--seed X] [--direct]\n"
          "       read_load sequential FILE [--block BYTES]\n"
          "       read_load files DIR [--threads N] [--block BYTES]\n",
          why);
  exit(2);
}

Options Parse(int argc, char** argv) {
  if (argc < 3) Usage("a mode and a path are needed");
  Options options;
  options.mode = argv[1];
  options.path = argv[2];
  for (int i = 3; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "--direct") {
      options.direct = true;
      continue;
    }
    if (i + 1 >= argc) Usage(("no value after " + name).c_str());
    const char* value = argv[++i];
    if (name == "--block") options.block = atoll(value);
    else if (name == "--threads") options.threads = atoi(value);
    else if (name == "--count") options.count = atoll(value);
    else if (name == "--seconds") options.seconds = atof(value);
    else if (name == "--seed") options.seed = strtoull(value, nullptr, 10);
    else if (name == "--sector") options.sector = atoll(value);
    else Usage(("unknown option " + name).c_str());
  }
  if (options.mode != "random" && options.mode != "sequential" && options.mode != "files") Usage("unknown mode");
  if (options.block == 0 && options.mode != "random") options.block = 1 << 20;
  if (options.block <= 0 || options.threads < 1 || options.sector <= 0) Usage("bad block, thread or sector count");
  if (options.mode == "random" && options.count <= 0 && options.seconds <= 0) Usage("random needs --count or --seconds");
  return options;
}

void RandomReader(const Options& options, int fd, long long file_size, int index, std::atomic<long long>* left,
                  Clock::time_point deadline, Tally* tally) {
  std::mt19937_64 random(options.seed * 1000 + static_cast<unsigned long long>(index));
  const long long slots = file_size / options.block;
  void* memory = nullptr;
  if (posix_memalign(&memory, 4096, static_cast<size_t>(options.block)) != 0) {
    ++tally->errors;
    return;
  }
  std::unique_ptr<char, decltype(&free)> buffer(static_cast<char*>(memory), &free);
  for (;;) {
    if (options.count > 0 && left->fetch_sub(1, std::memory_order_relaxed) <= 0) break;
    if (options.seconds > 0 && Clock::now() >= deadline) break;
    const long long offset = static_cast<long long>(random() % static_cast<unsigned long long>(slots)) * options.block;
    const ssize_t got = pread(fd, buffer.get(), static_cast<size_t>(options.block), offset);
    if (got < 0) {
      ++tally->errors;
      continue;
    }
    if (got < options.block) ++tally->short_reads;
    ++tally->ops;
    tally->bytes += got;
    for (long long s = offset / options.sector; s <= (offset + options.block - 1) / options.sector; ++s) {
      tally->sectors.push_back(s);
    }
  }
}

int RunRandom(const Options& options) {
  std::vector<int> fds;
  const Clock::time_point open_start = Clock::now();
  for (int i = 0; i < options.threads; ++i) {
    const int fd = open(options.path.c_str(), O_RDONLY | O_CLOEXEC | (options.direct ? O_DIRECT : 0));
    if (fd < 0) {
      fprintf(stderr, "read_load: %s: %s\n", options.path.c_str(), strerror(errno));
      return 1;
    }
    fds.push_back(fd);
  }
  const double open_seconds = Seconds(Clock::now() - open_start);
  struct stat st;
  if (fstat(fds[0], &st) != 0 || st.st_size < options.block) {
    fprintf(stderr, "read_load: %s is smaller than one block\n", options.path.c_str());
    return 1;
  }
  std::atomic<long long> left(options.count);
  std::vector<Tally> tallies(static_cast<size_t>(options.threads));
  std::vector<std::thread> threads;
  const Clock::time_point start = Clock::now();
  const Clock::time_point deadline =
      start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options.seconds));
  for (int i = 0; i < options.threads; ++i) {
    threads.emplace_back(RandomReader, std::cref(options), fds[static_cast<size_t>(i)],
                         static_cast<long long>(st.st_size), i, &left, deadline, &tallies[static_cast<size_t>(i)]);
  }
  for (std::thread& thread : threads) thread.join();
  const double seconds = Seconds(Clock::now() - start);
  for (int fd : fds) close(fd);

  Tally total;
  std::unordered_set<long long> touched;
  for (const Tally& tally : tallies) {
    total.ops += tally.ops;
    total.bytes += tally.bytes;
    total.short_reads += tally.short_reads;
    total.errors += tally.errors;
    touched.insert(tally.sectors.begin(), tally.sectors.end());
  }
  printf("{\"mode\": \"random\", \"direct\": %s, \"block\": %lld, \"threads\": %d, \"ops\": %lld, \"bytes\": %lld, "
         "\"seconds\": %.6f, \"ops_per_s\": %.1f, \"mb_per_s\": %.1f, \"sectors_touched\": %zu, "
         "\"sector_bytes\": %lld, \"open_seconds\": %.6f, \"short_reads\": %lld, \"errors\": %lld}\n",
         options.direct ? "true" : "false", options.block, options.threads, total.ops, total.bytes, seconds,
         total.ops / seconds,
         total.bytes / seconds / 1e6, touched.size(), options.sector, open_seconds, total.short_reads,
         total.errors);
  return total.errors == 0 && total.ops > 0 ? 0 : 1;
}

// Reads from the descriptor's current position to its end.
bool ReadToEnd(int fd, std::vector<char>* buffer, long long* bytes, long long* ops) {
  for (;;) {
    const ssize_t got = read(fd, buffer->data(), buffer->size());
    if (got < 0) return false;
    if (got == 0) return true;
    *bytes += got;
    ++*ops;
  }
}

int RunSequential(const Options& options) {
  const Clock::time_point open_start = Clock::now();
  const int fd = open(options.path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    fprintf(stderr, "read_load: %s: %s\n", options.path.c_str(), strerror(errno));
    return 1;
  }
  const double open_seconds = Seconds(Clock::now() - open_start);
  std::vector<char> buffer(static_cast<size_t>(options.block));
  long long bytes = 0;
  long long ops = 0;
  const Clock::time_point start = Clock::now();
  const bool ok = ReadToEnd(fd, &buffer, &bytes, &ops);
  const double seconds = Seconds(Clock::now() - start);
  close(fd);
  printf("{\"mode\": \"sequential\", \"block\": %lld, \"ops\": %lld, \"bytes\": %lld, \"seconds\": %.6f, "
         "\"mb_per_s\": %.1f, \"open_seconds\": %.6f, \"errors\": %d}\n",
         options.block, ops, bytes, seconds, bytes / seconds / 1e6, open_seconds, ok ? 0 : 1);
  return ok ? 0 : 1;
}

int RunFiles(const Options& options) {
  std::vector<std::string> names;
  DIR* dir = opendir(options.path.c_str());
  if (dir == nullptr) {
    fprintf(stderr, "read_load: %s: %s\n", options.path.c_str(), strerror(errno));
    return 1;
  }
  while (struct dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    names.push_back(options.path + "/" + entry->d_name);
  }
  closedir(dir);
  std::sort(names.begin(), names.end());

  std::atomic<size_t> next(0);
  std::vector<Tally> tallies(static_cast<size_t>(options.threads));
  auto reader = [&](Tally* tally) {
    std::vector<char> buffer(static_cast<size_t>(options.block));
    for (size_t i = next.fetch_add(1); i < names.size(); i = next.fetch_add(1)) {
      const int fd = open(names[i].c_str(), O_RDONLY | O_CLOEXEC);
      long long ignored_ops = 0;
      if (fd < 0 || !ReadToEnd(fd, &buffer, &tally->bytes, &ignored_ops)) ++tally->errors;
      else ++tally->ops;
      if (fd >= 0) close(fd);
    }
  };
  std::vector<std::thread> threads;
  const Clock::time_point start = Clock::now();
  for (int i = 0; i < options.threads; ++i) threads.emplace_back(reader, &tallies[static_cast<size_t>(i)]);
  for (std::thread& thread : threads) thread.join();
  const double seconds = Seconds(Clock::now() - start);
  Tally total;
  for (const Tally& tally : tallies) {
    total.ops += tally.ops;
    total.bytes += tally.bytes;
    total.errors += tally.errors;
  }
  printf("{\"mode\": \"files\", \"threads\": %d, \"files\": %lld, \"bytes\": %lld, \"seconds\": %.6f, "
         "\"files_per_s\": %.1f, \"mb_per_s\": %.1f, \"errors\": %lld}\n",
         options.threads, total.ops, total.bytes, seconds, total.ops / seconds, total.bytes / seconds / 1e6,
         total.errors);
  return total.errors == 0 && total.ops > 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = Parse(argc, argv);
  if (options.mode == "random") return RunRandom(options);
  if (options.mode == "sequential") return RunSequential(options);
  return RunFiles(options);
}
