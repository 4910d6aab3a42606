// Which files a reader walking a directory gets read ahead, and when none.
#include "directory_read_ahead.h"

#include <gtest/gtest.h>

#include <mutex>
#include <sstream>

namespace {

TEST(DirectoryReadAhead, ReadersWalkingInListingOrNameOrderGetTheNextFilesEachOnceAndOthersNone) {
  // /d lists its files backwards: its listing order is not its name order.
  const struct {
    const char* opens;  // paths opened, one after the other
    const char* filled;  // what was read ahead after each open, "|" between opens
  } cases[] = {
      {"/d/a", ""},
      {"/d/a /d/b", "|/d/c /d/d"},                       // by name
      {"/d/h /d/g", "|/d/f /d/e"},                       // by listing
      {"/d/a /d/b /d/c /d/d", "|/d/c /d/d|/d/e|/d/f"},   // each file once
      {"/d/a /d/c /d/e", "|/d/d /d/e|/d/f /d/g"},        // skipping a file is a step
      {"/d/a /d/e /d/a /d/h", "|||"},                    // jumping about
      {"/d/a /d/a /d/b", "||/d/c /d/d"},                 // the same file again, then on
      {"/d/f /d/g /d/h", "|/d/h|"},                      // the end of the directory
      {"/x /y /z", "|/z|"},                              // the root
      {"/d/a /d/new /d/b", "||"},                        // a name the listing lacks: listed again
      {"/gone/a /gone/b", "|"},                          // cannot be listed
  };
  for (const auto& c : cases) {
    std::mutex lock;
    std::vector<std::string> filled;
    int listings = 0;
    DirectoryReadAhead read_ahead(
        1, 2,
        [&](const std::string& directory, std::vector<std::string>* names) {
          std::lock_guard<std::mutex> guard(lock);
          ++listings;
          if (directory == "/d") *names = {"h", "g", "f", "e", "d", "c", "b", "a"};
          else if (directory == "/") *names = {"x", "y", "z"};
          return directory != "/gone";
        },
        [&](const std::string& path) {
          std::lock_guard<std::mutex> guard(lock);
          filled.push_back(path);
        });
    std::istringstream opens(c.opens);
    std::string path, seen;
    for (bool first = true; opens >> path; first = false) {
      read_ahead.Opened(path);
      read_ahead.WaitIdle();
      std::lock_guard<std::mutex> guard(lock);
      seen += first ? "" : "|";
      for (size_t i = 0; i < filled.size(); ++i) seen += (i == 0 ? "" : " ") + filled[i];
      filled.clear();
    }
    EXPECT_EQ(seen, c.filled) << c.opens;
    if (std::string(c.opens).find("new") != std::string::npos) {
      EXPECT_EQ(listings, 2);
    }
  }
}

TEST(DirectoryReadAhead, NoneWhenTurnedOffAndNothingAfterStop) {
  int calls = 0;
  auto list = [&](const std::string&, std::vector<std::string>* names) {
    ++calls;
    *names = {"a", "b", "c"};
    return true;
  };
  DirectoryReadAhead off(1, 0, list, [&](const std::string&) { ++calls; });
  DirectoryReadAhead stopped(1, 2, list, [&](const std::string&) { ++calls; });
  stopped.Stop();
  for (DirectoryReadAhead* read_ahead : {&off, &stopped}) {
    read_ahead->Opened("/a");
    read_ahead->Opened("/b");
    read_ahead->WaitIdle();
  }
  EXPECT_EQ(calls, 0);
}

}  // namespace
