// The HTTP origin's WebDAV operations against a real nginx with its dav and
// dav-ext modules: each one's status, and the files it leaves in nginx's root.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <set>

#include "client/support/nginx_server.h"
#include "http_origin.h"
#include "support/temp_dir.h"

namespace {

// "name=size" for each file and "name/" for each directory under `root`, sorted.
std::string Tree(const std::string& root) {
  std::set<std::string> found;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    const std::string name = entry.path().string().substr(root.size() + 1);
    found.insert(entry.is_directory() ? name + "/" : name + "=" + std::to_string(entry.file_size()));
  }
  std::string tree;
  for (const std::string& item : found) tree += (tree.empty() ? "" : " ") + item;
  return tree;
}

std::string Listed(Origin& origin, const std::string& path) {
  std::vector<OriginEntry> entries;
  std::string error;
  std::set<std::string> found;
  EXPECT_EQ(origin.List(path, &entries, &error), OriginStatus::kOk) << error;
  for (const OriginEntry& e : entries) found.insert(e.name + (e.is_directory ? "/" : "=" + std::to_string(e.size)));
  std::string listed;
  for (const std::string& item : found) listed += (listed.empty() ? "" : " ") + item;
  return listed;
}

TEST(WebDavOriginTest, EachOperationLeavesNginxRootAsAFileSystemWould) {
  if (access(NginxServer::kProgram, X_OK) != 0) GTEST_SKIP() << "no nginx (scripts/install-deps.sh installs it)";
  ASSERT_EQ(curl_global_init(CURL_GLOBAL_DEFAULT), CURLE_OK);
  TempDir dir;
  NginxServer nginx(dir.path());
  ASSERT_TRUE(nginx.Start()) << nginx.ErrorLog();
  const std::string root = nginx.Root();
  for (const char* name : {"empty", "full"}) mkdir((root + "/" + name).c_str(), 0755);
  for (const auto& [name, bytes] : std::map<std::string, std::string>{
           {".hidden", "h"}, {"a.txt", "abc"}, {"b.txt", "bb"}, {"full/x", "x"}}) {
    dir.Write("root/" + name, bytes);
  }
  std::string error;
  std::unique_ptr<Origin> origin = MakeHttpOrigin(nginx.Url(), OriginOptions(), &error);
  ASSERT_NE(origin, nullptr) << error;
  Origin& o = *origin;
  EXPECT_EQ(Listed(o, "/"), "a.txt=3 b.txt=2 empty/ full/");  // nginx lists no dot names
  long long used = 0, available = 0;
  EXPECT_FALSE(o.Space(&used, &available));  // nginx reports no quota

  const ByteSource xyz = [](long long at, char* buffer, size_t n) { return memcpy(buffer, "xyz" + at, n), 3 - at; };
  const OriginStatus ok = OriginStatus::kOk, failed = OriginStatus::kFailed, not_found = OriginStatus::kNotFound,
                     not_empty = OriginStatus::kNotEmpty;
  const std::string start = ".hidden=1 a.txt=3 b.txt=2 empty/ full/ full/x=1";
  struct Step {
    const char* what;
    std::function<OriginStatus()> op;
    OriginStatus status;
    std::string tree;  // nginx's root afterwards
  };
  const Step steps[] = {
      {"mkdir", [&] { return o.MakeDirectory("/new", &error); }, ok, start + " new/"},
      {"mkdir of an existing one", [&] { return o.MakeDirectory("/new", &error); }, failed, start + " new/"},
      {"mkdir without a parent", [&] { return o.MakeDirectory("/no/such", &error); }, not_found, start + " new/"},
      {"upload", [&] { return o.Upload("/new/f", 3, xyz, &error); }, ok, start + " new/ new/f=3"},
      {"rename a file", [&] { return o.Rename("/new/f", "/new/g #1", &error); }, ok, start + " new/ new/g #1=3"},
      {"rename onto a file", [&] { return o.Rename("/a.txt", "/b.txt", &error); }, ok,
       ".hidden=1 b.txt=3 empty/ full/ full/x=1 new/ new/g #1=3"},
      {"rename a directory onto a full one", [&] { return o.Rename("/new", "/full", &error); }, not_empty,
       ".hidden=1 b.txt=3 empty/ full/ full/x=1 new/ new/g #1=3"},
      {"rename a directory onto an empty one", [&] { return o.Rename("/new", "/empty", &error); }, ok,
       ".hidden=1 b.txt=3 empty/ empty/g #1=3 full/ full/x=1"},
      {"rename a directory", [&] { return o.Rename("/empty", "/moved", &error); }, ok,
       ".hidden=1 b.txt=3 full/ full/x=1 moved/ moved/g #1=3"},
      {"rename a file onto a directory", [&] { return o.Rename("/b.txt", "/moved", &error); }, failed,
       ".hidden=1 b.txt=3 full/ full/x=1 moved/ moved/g #1=3"},
      {"rename a missing file", [&] { return o.Rename("/nope", "/x", &error); }, not_found,
       ".hidden=1 b.txt=3 full/ full/x=1 moved/ moved/g #1=3"},
      {"remove", [&] { return o.Remove("/b.txt", &error); }, ok, ".hidden=1 full/ full/x=1 moved/ moved/g #1=3"},
      {"remove a missing file", [&] { return o.Remove("/b.txt", &error); }, not_found,
       ".hidden=1 full/ full/x=1 moved/ moved/g #1=3"},
      {"remove a directory as a file", [&] { return o.Remove("/moved", &error); }, failed,
       ".hidden=1 full/ full/x=1 moved/ moved/g #1=3"},
      {"rmdir of a full one", [&] { return o.RemoveDirectory("/full", &error); }, not_empty,
       ".hidden=1 full/ full/x=1 moved/ moved/g #1=3"},
      {"rmdir", [&] { return o.Remove("/full/x", &error) == ok ? o.RemoveDirectory("/full", &error) : failed; }, ok,
       ".hidden=1 moved/ moved/g #1=3"},
      {"rmdir of a missing one", [&] { return o.RemoveDirectory("/full", &error); }, not_found,
       ".hidden=1 moved/ moved/g #1=3"},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    error.clear();
    EXPECT_EQ(step.op(), step.status) << error;
    EXPECT_EQ(Tree(root), step.tree);
  }
  EXPECT_EQ(Listed(o, "/moved"), "g #1=3");

  // nginx without the dav-ext module refuses PROPFIND: its JSON index lists the same.
  NginxServer plain(dir.File("plain"), false);
  ASSERT_TRUE(mkdir(dir.File("plain").c_str(), 0755) == 0 && plain.Start()) << plain.ErrorLog();
  dir.Write("plain/root/f", "f");
  EXPECT_EQ(Listed(*MakeHttpOrigin(plain.Url(), OriginOptions(), &error), "/"), "f=1");
}

}  // namespace
