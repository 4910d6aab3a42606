// A korvmount child of the test on a fresh mount point and cache (64 MiB
// limit), of nginx (WebDAV) serving Origin() or of another origin's URL.
// nginx and korvmount die with the test (also when it is killed).
#pragma once

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "client/support/nginx_server.h"
#include "support/file_helpers.h"
#include "support/temp_dir.h"

class MountTest : public ::testing::Test {
 protected:
  void SetUp() override { MountOrSkip(""); }

  // Mounts `url`, or nginx when it is empty. Skips where nginx or FUSE cannot run here.
  void MountOrSkip(const std::string& url) {
    if (access(NginxServer::kProgram, X_OK) != 0) GTEST_SKIP() << "no nginx (scripts/install-deps.sh installs it)";
    // Opened, not only looked up: a container may list the device and refuse it.
    const int fuse = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (fuse < 0 || close(fuse) != 0 || (getuid() != 0 && access("/usr/bin/fusermount3", X_OK) != 0)) {
      GTEST_SKIP() << "FUSE tests skipped: /dev/fuse cannot be opened, or not root and no fusermount3";
    }
    ASSERT_TRUE(!url.empty() || nginx_.Start()) << "nginx did not start: " << nginx_.ErrorLog();
    ASSERT_EQ(mkdir(mnt_.c_str(), 0755), 0);
    url_ = url.empty() ? nginx_.Url() : url;
    Mount({});
  }

  // Starts korvmount with the options `extra` besides the usual ones.
  void Mount(const std::vector<std::string>& extra) {
    std::vector<std::string> argv = {std::string(KORV_BIN_DIR) + "/korvmount", url_, mnt_, "--foreground",
                                     "--cache-dir", dir_.File("cache"), "--timeout-ms", "3000", "--limit", "64M"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    const int log_fd = open(dir_.File("korvmount.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    korvmount_ = Spawn(argv, log_fd);
    close(log_fd);
    for (int tick = 0; tick < 2000 && !Mounted(); ++tick) {
      if (WaitChild(korvmount_, std::chrono::milliseconds(10)) < 0) continue;
      korvmount_ = -1;
      if (Messages().find("cannot mount on") != std::string::npos) GTEST_SKIP() << "FUSE tests skipped: " << Messages();
      FAIL() << "korvmount ended before mounting: " << Messages();
    }
    ASSERT_TRUE(Mounted()) << "korvmount did not mount within 20 s: " << Messages();
  }

  // Unmounts and expects korvmount to end cleanly, also when a test failed.
  void TearDown() override { EXPECT_EQ(Unmount(0), 0) << Messages(); }

  // korvmount's exit status, or -1. With MNT_DETACH: the mount of a korvmount that is gone.
  int Unmount(int flags) {
    if ((korvmount_ > 0 || flags != 0) && umount2(mnt_.c_str(), flags) != 0) {
      WaitChild(Spawn({"/usr/bin/fusermount3", flags != 0 ? "-uz" : "-u", mnt_}, -1), std::chrono::seconds(30));
    }
    const int status = korvmount_ > 0 ? WaitChild(korvmount_, std::chrono::seconds(30)) : 0;
    if (status < 0 && StopChild(korvmount_) >= 0) umount2(mnt_.c_str(), MNT_DETACH);
    korvmount_ = -1;
    return status;
  }

  bool Mounted() const { return FileContents("/proc/self/mountinfo").find(" " + mnt_ + " ") != std::string::npos; }
  std::string Path(const std::string& rel) const { return mnt_ + "/" + rel; }
  std::string Origin(const std::string& rel) const { return dir_.File("root/" + rel); }
  std::string Messages() const { return FileContents(dir_.File("korvmount.log")); }
  void WriteOnOrigin(const std::string& rel, const std::string& bytes) const {
    std::filesystem::create_directories(std::filesystem::path(Origin(rel)).parent_path());
    std::ofstream(Origin(rel), std::ios::binary) << bytes;
  }

  TempDir dir_;
  const std::string mnt_ = dir_.File("mnt");
  NginxServer nginx_{dir_.path()};
  std::string url_;
  pid_t korvmount_ = -1;
};
