// The PROPFIND answer as a hostile server may send it: bad entries are
// skipped with a warning and the rest still listed, a body that does not
// parse is an error, and nothing the server declares is expanded or fetched.
#include "webdav_listing.h"

#include <gtest/gtest.h>

namespace {

// DAV: as the default namespace here; nginx, in the end-to-end test, names it D:.
std::string Response(const std::string& href, const std::string& props) {
  return "<response>" + (href.empty() ? "" : "<href>" + href + "</href>") + "<propstat><prop>" + props +
         "<getlastmodified>Sat, 03 Feb 2001 04:05:06 GMT</getlastmodified></prop><status>HTTP/1.1 200 OK</status>"
         "</propstat></response>";
}
std::string Dir(const std::string& href) { return Response(href, "<resourcetype><collection/></resourcetype>"); }
std::string File(const std::string& href, int size = 1) {
  return Response(href, "<resourcetype/><getcontentlength>" + std::to_string(size) + "</getcontentlength>");
}
std::string Multistatus(const std::string& responses, const std::string& doctype = "") {
  return "<?xml version=\"1.0\"?>" + doctype + "<multistatus xmlns=\"DAV:\">" + Dir("/d/") + responses +
         "</multistatus>";
}

TEST(WebDavListingTest, ListsWhatCanBeNamedSkipsTheRestAndRefusesWhatDoesNotParse) {
  std::string nested;
  for (int i = 0; i < 1001; ++i) nested = "<prop>" + nested + "</prop>";
  const std::string entities = "<!DOCTYPE multistatus [<!ENTITY e \"evil\"><!ENTITY f SYSTEM \"/etc/hostname\">]>";
  // What a user sees: "name=size" per file and "name/" per directory, and how many entries were skipped.
  const struct { const char *what; std::string body, seen; } cases[] = {
      {"dotfile, directory, escapes", Multistatus(File("/d/.hidden", 3) + Dir("/d/sub/") + File("/d/a%20b%25.txt", 7)),
       ".hidden=3 sub/ a b%.txt=7 +0"},
      {"absolute URLs", Multistatus(Dir("http://h:1/d/") + File("http://h:1/d/x")), "x=1 +0"},
      {"no href", Multistatus(File("") + File("/d/k")), "k=1 +1"},
      {"name of 5,000 bytes", Multistatus(File("/d/" + std::string(5000, 'n')) + File("/d/k")), "k=1 +1"},
      {"names no file can have", Multistatus(File("/d/a%2Fb") + File("/d/..") + File("/d/%zz") + File("/d/%00") +
                                             Response("/d/nosize", "") + File("/d/k")), "k=1 +5"},
      {"entities not expanded", Multistatus(File("/d/x&e;&f;"), entities), "x=1 +0"},
      {"1,001 nested elements", Multistatus(nested), "no listing"},
      {"not XML", "<html><body>Index of /d/", "no listing"},
      {"not a multistatus", "<?xml version=\"1.0\"?><multistatus/>", "no listing"},
      {"the directory is a file", Multistatus(File("/d/")), "no listing"},
  };
  for (const auto& c : cases) {
    std::vector<OriginEntry> entries;
    std::vector<std::string> skipped;
    std::string error, seen;
    const bool parsed = ParsePropfindListing(c.body, "http://127.0.0.1:1/d/", &entries, &skipped, &error);
    EXPECT_EQ(error.empty(), parsed) << c.what << ": " << error;
    for (const OriginEntry& e : entries) {
      seen += e.name + (e.is_directory ? "/ " : "=" + std::to_string(e.size) + " ");
      EXPECT_EQ(e.mtime, 981173106) << c.what;
      // Without ETags (nginx's listing) the date tells the version a HEAD tells by its ETag.
      const OriginFileInfo head{e.is_directory, e.size, e.mtime, "\"3e-1\""};
      const OriginFileInfo later{e.is_directory, e.size, e.mtime + 1, "\"3f-1\""};
      EXPECT_TRUE(e.validator == "Sat, 03 Feb 2001 04:05:06 GMT" && SameVersion(VersionOf(e), head) &&
                  !SameVersion(VersionOf(e), later)) << c.what;
    }
    EXPECT_EQ(parsed ? seen + "+" + std::to_string(skipped.size()) : "no listing", c.seen) << c.what;
  }
}

}  // namespace
