// korvcat: one remote file through the cache to standard output, the path
// that works where FUSE does not.
#include <gtest/gtest.h>

#include "client/support/child_process.h"
#include "client/support/nginx_server.h"
#include "client/support/test_bytes.h"
#include "sha256.h"
#include "support/temp_dir.h"

namespace {

std::string Digest(const std::string& bytes) {
  Sha256 sha;
  sha.Update(bytes.data(), bytes.size());
  return sha.HexDigest();
}

TEST(Korvcat, ReadsVerifiesAndReportsErrors) {
  std::string why;
  if (!NginxServer::Installed(&why)) GTEST_SKIP() << why;
  NginxServer nginx;
  ASSERT_TRUE(nginx.Start(&why)) << why;
  const std::string bytes = RandomBytes(5 * 1024 * 1024 + 17, 7);
  nginx.WriteFile("dir/file one.bin", bytes);
  TempDir cache;
  const std::string url = nginx.Url() + "/dir/file%20one.bin";
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string out;
  };
  const Case cases[] = {
      {{url, "--verify", Digest(bytes)}, 0, bytes},
      {{url, "--verify", Digest("other")}, 1, bytes},
      {{nginx.Url() + "/dir/missing"}, 1, ""},
      {{url, "--limit", "lots"}, 2, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + (c.args.size() > 1 ? c.args[1] : ""));
    std::vector<std::string> argv = {ClientBinary("korvcat"), "--cache-dir", cache.path()};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    std::string out, err;
    EXPECT_EQ(RunProgram(argv, &out, &err), c.status) << err;
    EXPECT_TRUE(Same(out, c.out));
  }
  // A file cached by an earlier run is not served without asking the origin.
  nginx.Stop();
  EXPECT_EQ(RunProgram({ClientBinary("korvcat"), url, "--cache-dir", cache.path(), "--timeout-ms", "1000"}, nullptr,
                       nullptr),
            1);
}

}  // namespace
