// delay_proxy TARGET_PORT DELAY_MS [RATE_MBPS]: a TCP proxy on loopback that
// adds latency to every request, so that the client benchmark can compare
// readers against an origin that is some milliseconds away. It listens on a
// free loopback port, prints "port=N" on standard output and serves until it
// is signalled.
//
// Each request is held DELAY_MS before it is passed on to the server: the
// first chunk the client sends on a connection, and the first one after each
// answer. The answers are not delayed. `tc netem` on loopback would do the
// same without a proxy in the path, but its qdisc is missing from many
// container kernels (this machine's among them).
//
// With RATE_MBPS (MB/s, 10^6 bytes), the answers of all connections together
// are paced to that rate, as one link would carry them: each piece of at most
// 64 KiB is given the next free slot of the link (no earlier than now, so an
// idle link saves up no burst) and written when its slot ends. Requests
// (uploads too) are not paced.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

namespace {

constexpr size_t kAnswerBuffer = 1 << 20;
constexpr ssize_t kPacedPiece = 64 << 10;

// The one link every answer shares when a rate is given.
class Link {
 public:
  explicit Link(double bytes_per_second) : bytes_per_second_(bytes_per_second) {}
  bool paced() const { return bytes_per_second_ > 0; }
  // Reserves the link for BYTES and waits until they have passed it.
  void Pass(ssize_t bytes) {
    using Clock = std::chrono::steady_clock;
    const auto duration = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(static_cast<double>(bytes) / bytes_per_second_));
    Clock::time_point done;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      const Clock::time_point now = Clock::now();
      if (free_at_ < now) free_at_ = now;
      free_at_ += duration;
      done = free_at_;
    }
    std::this_thread::sleep_until(done);
  }

 private:
  const double bytes_per_second_;
  std::mutex mutex_;
  std::chrono::steady_clock::time_point free_at_{};
};

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

void NoDelay(int fd) {
  int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

bool WriteAll(int fd, const char* data, ssize_t length) {
  while (length > 0) {
    const ssize_t put = write(fd, data, static_cast<size_t>(length));
    if (put <= 0) return false;
    data += put;
    length -= put;
  }
  return true;
}

// Client to server: small, and the only direction that is delayed. A chunk
// is a new request when it is the connection's first or the server has
// answered since the last one (HTTP/1.1 clients do not pipeline); the rest of
// a request, such as an upload's body, follows without a second delay.
void Requests(int client, int server, std::chrono::milliseconds delay, std::atomic<bool>* answered) {
  std::unique_ptr<char[]> buffer(new char[65536]);
  bool first = true;
  for (;;) {
    const ssize_t got = read(client, buffer.get(), 65536);
    if (got <= 0) break;
    const bool new_request = answered->exchange(false) || first;
    first = false;
    if (delay.count() > 0 && new_request) std::this_thread::sleep_for(delay);
    if (!WriteAll(server, buffer.get(), got)) break;
  }
  shutdown(server, SHUT_WR);
}

// Server to client. Plain reads and writes of 1 MiB: on loopback here they
// moved about 1.3 GB/s, where splice() through a pipe moved 0.85 GB/s.
// With a paced link, each piece waits for its slot before it is written.
void Answers(int server, int client, std::atomic<bool>* answered, Link* link) {
  std::unique_ptr<char[]> buffer(new char[kAnswerBuffer]);
  for (;;) {
    const ssize_t got = read(server, buffer.get(), kAnswerBuffer);
    if (got <= 0) break;
    answered->store(true);
    if (!link->paced()) {
      if (!WriteAll(client, buffer.get(), got)) break;
      continue;
    }
    bool ok = true;
    for (ssize_t at = 0; ok && at < got; at += kPacedPiece) {
      const ssize_t piece = std::min(kPacedPiece, got - at);
      link->Pass(piece);
      ok = WriteAll(client, buffer.get() + at, piece);
    }
    if (!ok) break;
  }
  shutdown(client, SHUT_WR);
}

void Serve(int client, int target_port, std::chrono::milliseconds delay, Link* link) {
  const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = Loopback(target_port);
  if (server < 0 || connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    if (server >= 0) close(server);
    close(client);
    return;
  }
  NoDelay(server);
  NoDelay(client);
  std::atomic<bool> answered(false);
  std::thread answers(Answers, server, client, &answered, link);
  Requests(client, server, delay, &answered);
  answers.join();
  close(server);
  close(client);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    fprintf(stderr, "usage: delay_proxy TARGET_PORT DELAY_MS [RATE_MBPS]\n");
    return 2;
  }
  const int target_port = atoi(argv[1]);
  const std::chrono::milliseconds delay(atoi(argv[2]));
  const double rate_mbps = argc == 4 ? atof(argv[3]) : 0;
  if (target_port <= 0 || target_port > 65535 || delay.count() < 0 || rate_mbps < 0) {
    fprintf(stderr, "delay_proxy: bad port, delay or rate\n");
    return 2;
  }
  // Lives as long as the process: connections are served by detached threads.
  static Link link(rate_mbps * 1e6);
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = Loopback(0);
  socklen_t size = sizeof(address);
  if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listener, 128) != 0 || getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    perror("delay_proxy: listen");
    return 1;
  }
  printf("port=%d\n", ntohs(address.sin_port));
  fflush(stdout);
  for (;;) {
    const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      perror("delay_proxy: accept");
      return 1;
    }
    std::thread(Serve, client, target_port, delay, &link).detach();
  }
}
