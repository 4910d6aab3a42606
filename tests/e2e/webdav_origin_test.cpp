// The HTTP origin's WebDAV operations against a real nginx with its dav and
// dav-ext modules: each one's status, and the files it leaves in nginx's root.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "client/support/nginx_server.h"
#include "http_origin.h"
#include "support/temp_dir.h"

namespace {

// "name=size" per file, "name/" per directory, sorted: of nginx's root on disk, or of a listing.
std::string Tree(const std::string& root) {
  std::set<std::string> found;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    const std::string name = entry.path().string().substr(root.size() + 1);
    found.insert(entry.is_directory() ? name + "/" : name + "=" + std::to_string(entry.file_size()));
  }
  std::string tree;
  for (const std::string& item : found) tree += item + " ";
  return tree;
}
std::string Listed(Origin& origin, const std::string& path) {
  std::vector<OriginEntry> entries;
  std::string error, listed;
  EXPECT_EQ(origin.List(path, &entries, &error), OriginStatus::kOk) << error;
  std::sort(entries.begin(), entries.end(), [](auto& a, auto& b) { return a.name < b.name; });
  for (const OriginEntry& e : entries) listed += e.name + (e.is_directory ? "/ " : "=" + std::to_string(e.size) + " ");
  return listed;
}

TEST(WebDavOriginTest, EachOperationLeavesNginxRootAsAFileSystemWould) {
  if (access(NginxServer::kProgram, X_OK) != 0) GTEST_SKIP() << "no nginx (scripts/install-deps.sh installs it)";
  ASSERT_EQ(curl_global_init(CURL_GLOBAL_DEFAULT), CURLE_OK);
  TempDir dir;
  NginxServer nginx{dir.path()};
  ASSERT_TRUE(nginx.Start()) << nginx.ErrorLog();
  for (const char* name : {"empty", "full"}) mkdir((nginx.Root() + "/" + name).c_str(), 0755);
  const char* files[][2] = {{".hidden", "h"}, {"a.txt", "abc"}, {"b.txt", "bb"}, {"full/x", "x"}};
  for (const auto& file : files) dir.Write("root/" + std::string(file[0]), file[1]);
  std::string error;
  std::unique_ptr<Origin> origin = MakeHttpOrigin(nginx.Url(), OriginOptions(), &error);
  ASSERT_NE(origin, nullptr) << error;
  EXPECT_EQ(Listed(*origin, "/"), "a.txt=3 b.txt=2 empty/ full/ ");  // nginx lists no dot names
  long long quota[2];
  EXPECT_FALSE(origin->Space(&quota[0], &quota[1]));  // nginx reports no quota

  auto run = [&](const std::string& op, const std::string& a, const std::string& b) {
    const ByteSource bytes = [&](long long at, char* to, size_t n) { return b.copy(to, n, at), 0LL + n; };
    if (op == "mkdir") return origin->MakeDirectory(a, &error);
    if (op == "rm") return origin->Remove(a, &error);
    if (op == "rmdir") return origin->RemoveDirectory(a, &error);
    if (op == "put") return origin->Upload(a, static_cast<long long>(b.size()), bytes, &error);
    return origin->Rename(a, b, &error);
  };
  using S = OriginStatus;
  const std::string start = ".hidden=1 a.txt=3 b.txt=2 empty/ full/ full/x=1";
  // Each step's status and nginx's root afterwards (empty: as before).
  const struct { const char *op, *a, *b; S status; std::string tree; } steps[] = {
      {"mkdir", "/new", "", S::kOk, start + " new/"},
      {"mkdir", "/no/such", "", S::kNotFound, ""},
      {"put", "/new/f", "xyz", S::kOk, start + " new/ new/f=3"},
      {"mv", "/new/f", "/new/g #1", S::kOk, start + " new/ new/g #1=3"},
      {"mv", "/a.txt", "/b.txt", S::kOk, ".hidden=1 b.txt=3 empty/ full/ full/x=1 new/ new/g #1=3"},
      {"mv", "/new", "/full", S::kNotEmpty, ""},
      {"mv", "/new", "/empty", S::kOk, ".hidden=1 b.txt=3 empty/ empty/g #1=3 full/ full/x=1"},
      {"mv", "/empty", "/moved", S::kOk, ".hidden=1 b.txt=3 full/ full/x=1 moved/ moved/g #1=3"},
      {"mv", "/b.txt", "/moved", S::kFailed, ""},
      {"rm", "/b.txt", "", S::kOk, ".hidden=1 full/ full/x=1 moved/ moved/g #1=3"},
      {"rm", "/moved", "", S::kFailed, ""},  // a directory is never removed as a file
      {"rmdir", "/full", "", S::kNotEmpty, ""},
      {"rm", "/full/x", "", S::kOk, ".hidden=1 full/ moved/ moved/g #1=3"},
      {"rmdir", "/full", "", S::kOk, ".hidden=1 moved/ moved/g #1=3"},
      {"rmdir", "/full", "", S::kNotFound, ""},
  };
  std::string tree = start + " ";
  for (const auto& step : steps) {
    SCOPED_TRACE(std::string(step.op) + " " + step.a + " " + step.b);
    EXPECT_EQ(run(step.op, step.a, step.b), step.status) << error;
    tree = step.tree.empty() ? tree : step.tree + " ";
    EXPECT_EQ(Tree(nginx.Root()), tree);
  }
  EXPECT_EQ(Listed(*origin, "/moved"), "g #1=3 ");

  // nginx without the dav-ext module refuses PROPFIND: its JSON index lists the same.
  NginxServer plain{dir.File("plain"), false};
  ASSERT_TRUE(mkdir(dir.File("plain").c_str(), 0755) == 0 && plain.Start()) << plain.ErrorLog();
  dir.Write("plain/root/f", "f");
  EXPECT_EQ(Listed(*MakeHttpOrigin(plain.Url(), OriginOptions(), &error), "/"), "f=1 ");
}

}  // namespace
