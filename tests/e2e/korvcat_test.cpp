// korvcat: one remote file through the cache to standard output, the path
// that works where FUSE does not.
#include <gtest/gtest.h>

#include <random>

#include "client/support/nginx_server.h"
#include "client/support/volume_mount.h"
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
  std::mt19937 random(7);
  std::string bytes(5 * 1024 * 1024 + 17, '\0');
  for (char& c : bytes) c = static_cast<char>(random());
  nginx.WriteFile("dir/file one.bin", bytes);
  TempDir cache;
  const std::string korvcat = ClientBinary("korvcat");
  const std::string url = nginx.Url() + "/dir/file%20one.bin";

  std::string out, err;
  ASSERT_EQ(RunProgram({korvcat, url, "--cache-dir", cache.path(), "--verify", Digest(bytes)}, &out, &err), 0)
      << err;
  EXPECT_TRUE(out == bytes);
  EXPECT_NE(err.find("SHA-256 verified"), std::string::npos) << err;

  EXPECT_EQ(RunProgram({korvcat, url, "--cache-dir", cache.path(), "--verify", Digest("other")}, &out, &err), 1);
  EXPECT_NE(err.find("expected " + Digest("other")), std::string::npos) << err;

  EXPECT_EQ(RunProgram({korvcat, nginx.Url() + "/dir/missing", "--cache-dir", cache.path()}, &out, &err), 1);
  EXPECT_NE(err.find("No such file"), std::string::npos) << err;
  EXPECT_EQ(out, "");

  nginx.Stop();
  EXPECT_EQ(RunProgram({korvcat, url, "--cache-dir", cache.path(), "--timeout-ms", "1000"}, &out, &err), 1);
  EXPECT_NE(err.find("Input/output error"), std::string::npos) << err;

  EXPECT_EQ(RunProgram({korvcat, url, "--limit", "lots"}, &out, &err), 2);
  EXPECT_NE(err.find("--limit"), std::string::npos) << err;
}

}  // namespace
