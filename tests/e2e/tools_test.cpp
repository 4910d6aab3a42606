// Everyday tools inside a korvmount of nginx: each runs as a user would run
// it, and afterwards the mount shows exactly what nginx keeps on disk, with
// no temporary file left behind. Then origins that answer listings with
// hostile bodies: the directory fails, the mount goes on.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <map>
#include <regex>
#include <thread>

#include "e2e/mount_fixture.h"

namespace {

// "path dir" or "path size hash" per entry beneath `root`, sorted; the
// drive's statistics file is its own, not the origin's.
std::vector<std::string> Listing(const std::string& root) {
  std::vector<std::string> lines;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    const std::string path = entry.path().string().substr(root.size() + 1);
    if (path == ".korvcache-stats") continue;
    lines.push_back(path + (entry.is_directory() ? " dir"
                                                 : " " + std::to_string(entry.file_size()) + " " +
                                                       std::to_string(std::hash<std::string>()(FileContents(entry.path())))));
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

TEST_F(MountTest, EverydayToolsLeaveTheOriginAsTheUserSeesIt) {
  ASSERT_EQ(mkdir(dir_.File("local").c_str(), 0755), 0);
  // nginx cannot hold a directory's time, and korvmount refuses one with
  // EPERM: tar -m and cp --no-preserve=timestamps skip times altogether,
  // rsync -O skips those of directories. File times are kept (an upload
  // carries them): the second rsync finds nothing to do.
  const struct { const char* dir; std::string command; int status; } steps[] = {
      {"local", "mkdir -p tree/a/b tree/c && for d in a a/b c; do for i in $(seq 9); do echo \"$d $i\" > tree/$d/f$i;"
                " done; done && echo dot > tree/.profile && head -c 2097152 /dev/urandom > tree/a/big.bin", 0},
      {"local", "git init -q repo && cd repo && for i in $(seq 18); do mkdir -p s$((i % 3)) && echo $i > s$((i % 3))/f$i;"
                " done && echo '*.o' > .gitignore && echo hi > README && git add -A &&"
                " git -c user.name=t -c user.email=t@example.com commit -qm files", 0},
      {"local", "mkdir -p t/x/y && echo 1 > t/x/a && echo 2 > t/x/y/b && tar -cf t.tar -C t x", 0},
      {"mnt", "printf 'one\\ntwo\\n' > s.txt && sed -i s/two/three/ s.txt && test \"$(cat s.txt)\" = \"$(printf 'one\\nthree')\"", 0},
      // An editor's save: a new file, fsync'ed, renamed over the old one.
      {"mnt", "echo old > notes.txt && echo saved | dd of=.notes.txt.swp conv=fsync status=none &&"
              " mv .notes.txt.swp notes.txt && test \"$(cat notes.txt)\" = saved", 0},
      {"mnt", "mkdir -p a/b/c && mv notes.txt a/b/c/n.txt && mv s.txt ../local/ && test -f ../local/s.txt -a ! -e s.txt", 0},
      {"mnt", "rsync -a -O ../local/tree/ r/", 0},
      {"mnt", "test -z \"$(rsync -a -O -n -i ../local/tree/ r/)\"", 0},
      {"local", "rsync -a ../mnt/r/ back/ && diff -r tree back", 0},
      {"mnt", "rm -r r && ! test -e r", 0},
      {"mnt", "touch -d @1000000000 stamped && test $(stat -c %Y stamped) = 1000000000", 0},
      {"mnt", "touch -d @1000000000 a", 1},  // a directory's time
      {"mnt", "tar -xf ../local/t.tar", 2},  // "Cannot utime": the directories' times were not kept
      {"mnt", "tar -xmf ../local/t.tar && test \"$(cat x/y/b)\" = 2", 0},
      {"mnt", "git clone -q ../local/repo clone", 0},
      {"mnt/clone", "test -z \"$(git status --porcelain)\" && git diff --quiet HEAD", 0},
      {"mnt", "cp -a --no-preserve=timestamps ../local/tree copy && diff -r ../local/tree copy", 0},
  };
  for (const auto& step : steps) {
    const int log_fd = open(dir_.File("step.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const pid_t pid = Spawn({"/bin/sh", "-c", "cd " + dir_.File(step.dir) + " && " + step.command}, log_fd);
    close(log_fd);
    const int status = WaitChild(pid, std::chrono::seconds(30));
    if (status < 0) StopChild(pid);
    EXPECT_EQ(status, step.status) << step.command << "\n" << FileContents(dir_.File("step.log")) << Messages();
  }
  const std::vector<std::string> stored = Listing(nginx_.Root());
  EXPECT_EQ(Listing(mnt_), stored);
  const std::regex temporary(R"((^|/)(sed\w{6}|\.[^/ ]*\.swp|\.[^/ ]+\.\w{6}|[^/ ]*\.lock) )");
  for (const std::string& line : stored) EXPECT_FALSE(std::regex_search(line, temporary)) << line;
  EXPECT_GT(stored.size(), 100u);
}

// An HTTP server of canned WebDAV answers on a loopback port, one request
// per connection: PROPFIND of a directory answers its body, anything else 404.
struct CannedDavServer {
  std::map<std::string, std::string> listings;  // "/dir/" -> 207 body
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int port = 0;
  std::thread thread;

  bool Start() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(listener, 16) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      return false;
    }
    port = ntohs(address.sin_port);
    thread = std::thread([this] {
      for (int fd; (fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; close(fd)) Answer(fd);
    });
    return true;
  }
  void Answer(int fd) const {
    std::string request;
    char buffer[4096];
    for (ssize_t got; request.find("\r\n\r\n") == std::string::npos && (got = read(fd, buffer, sizeof(buffer))) > 0;) {
      request.append(buffer, static_cast<size_t>(got));
    }
    const size_t space = request.find(' ');
    const std::string target = request.substr(space + 1, request.find(' ', space + 1) - space - 1);
    const auto it = request.compare(0, 9, "PROPFIND ") == 0 ? listings.find(target) : listings.end();
    const std::string body = it == listings.end() ? "" : it->second;
    const std::string answer = std::string(it == listings.end() ? "HTTP/1.1 404 Not Found" : "HTTP/1.1 207 Multi-Status") +
                               "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
    // The rest of the request is read before the close, which would otherwise reset the connection.
    if (write(fd, answer.data(), answer.size()) > 0 && shutdown(fd, SHUT_WR) == 0) {
      while (read(fd, buffer, sizeof(buffer)) > 0) {}
    }
  }
  ~CannedDavServer() {
    shutdown(listener, SHUT_RDWR);
    if (thread.joinable()) thread.join();
    close(listener);
  }
};

std::string Response(const std::string& href, long long size, const std::string& more = "") {
  return "<D:response><D:href>" + href + "</D:href><D:propstat><D:prop><D:resourcetype>" +
         (size < 0 ? "<D:collection/>" : "") + "</D:resourcetype><D:getcontentlength>" + std::to_string(size) +
         "</D:getcontentlength>" + more + "</D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>";
}
std::string Multistatus(const std::string& responses) {
  return "<?xml version=\"1.0\"?><D:multistatus xmlns:D=\"DAV:\">" + responses + "</D:multistatus>";
}

class HostileOriginTest : public MountTest {
 protected:
  void SetUp() override {
    std::string nested;  // 1,001 elements deep
    for (int i = 0; i < 1001; ++i) nested = "<a>" + nested + "</a>";
    server_.listings = {
        {"/", Multistatus(Response("/", -1) + Response("/deep/", -1) + Response("/long/", -1) +
                          Response("/junk/", -1) + Response("/good/", -1))},
        {"/deep/", Multistatus(Response("/deep/", -1) + Response("/deep/f", 1, nested))},
        {"/long/", Multistatus(Response("/long/", -1) + Response("/long/" + std::string(5000, 'n'), 1) +
                               Response("/long/ok", 2))},
        {"/junk/", "this is no XML <"},
        {"/good/", Multistatus(Response("/good/", -1) + Response("/good/a", 1))},
    };
    ASSERT_TRUE(server_.Start());
    MountOrSkip("http://127.0.0.1:" + std::to_string(server_.port));
  }
  CannedDavServer server_;
};

// The names of a directory of the mount, or "errno N".
std::string Names(const std::string& directory) {
  std::error_code error;
  std::vector<std::string> names;
  for (std::filesystem::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
    names.push_back(it->path().filename());
  }
  std::sort(names.begin(), names.end());
  std::string joined = error ? "errno " + std::to_string(error.value()) : "";
  for (const std::string& name : names) joined += name + " ";
  return joined;
}

TEST_F(HostileOriginTest, ABadListingFailsItsDirectoryAlone) {
  const struct { const char* dir; std::string names; } lists[] = {
      {"deep", "errno " + std::to_string(EIO)}, {"long", "ok "}, {"junk", "errno " + std::to_string(EIO)},
      {"good", "a "}, {"deep", "errno " + std::to_string(EIO)}, {"good", "a "},
  };
  for (const auto& list : lists) EXPECT_EQ(Names(Path(list.dir)), list.names) << list.dir;
  EXPECT_EQ(WaitChild(korvmount_, std::chrono::milliseconds(0)), -1) << "korvmount ended: " << Messages();
}

}  // namespace
