// The PROPFIND answer as a hostile server may send it: bad entries are
// skipped with a warning and the rest still listed, a body that does not
// parse is an error, and nothing the server declares is expanded or fetched.
#include "webdav_listing.h"

#include <gtest/gtest.h>

namespace {

std::string Response(const std::string& href, const std::string& props) {
  return "<D:response>" + (href.empty() ? "" : "<D:href>" + href + "</D:href>") + "<D:propstat><D:prop>" + props +
         "<D:getlastmodified>Sat, 03 Feb 2001 04:05:06 GMT</D:getlastmodified></D:prop>"
         "<D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>";
}
std::string Dir(const std::string& href) { return Response(href, "<D:resourcetype><D:collection/></D:resourcetype>"); }
std::string File(const std::string& href, int size = 1) {
  return Response(href, "<D:resourcetype/><D:getcontentlength>" + std::to_string(size) + "</D:getcontentlength>");
}
std::string Multistatus(const std::string& responses, const std::string& doctype = "") {
  return "<?xml version=\"1.0\"?>" + doctype + "<D:multistatus xmlns:D=\"DAV:\">" + Dir("/d/") + responses +
         "</D:multistatus>";
}

TEST(WebDavListingTest, ListsWhatCanBeNamedSkipsTheRestAndRefusesWhatDoesNotParse) {
  std::string nested;
  for (int i = 0; i < 1001; ++i) nested = "<D:prop>" + nested + "</D:prop>";
  const std::string entities = "<!DOCTYPE D:multistatus [<!ENTITY e \"evil\"><!ENTITY f SYSTEM \"/etc/hostname\">]>";
  struct Case {
    const char* what;
    std::string body;
    bool parses;
    std::string listed;  // "name=size" for files, "name/" for directories
    size_t warnings;
  };
  const Case cases[] = {
      {"files, a dotfile, a directory, escapes", Multistatus(File("/d/.hidden", 3) + Dir("/d/sub/") +
                                                             File("/d/a%20b%25.txt", 7)), true,
       ".hidden=3 sub/ a b%.txt=7 ", 0},
      {"absolute URLs", Multistatus(Dir("http://h:1/d/") + File("http://h:1/d/x")), true, "x=1 ", 0},
      {"no href", Multistatus(File("") + File("/d/k")), true, "k=1 ", 1},
      {"name of 5,000 bytes", Multistatus(File("/d/" + std::string(5000, 'n')) + File("/d/k")), true, "k=1 ", 1},
      {"names no file can have", Multistatus(File("/d/a%2Fb") + File("/d/..") + File("/d/%zz") + File("/d/%00") +
                                             Response("/d/nosize", "") + File("/d/k")), true, "k=1 ", 5},
      {"entities not expanded", Multistatus(File("/d/x&e;&f;"), entities), true, "x=1 ", 0},
      {"1,001 nested elements", Multistatus(nested), false, "", 0},
      {"not XML", "<html><body>Index of /d/", false, "", 0},
      {"not a multistatus", "<?xml version=\"1.0\"?><a/>", false, "", 0},
      {"the directory is a file", Multistatus(File("/d/")), false, "", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<OriginEntry> entries;
    std::vector<std::string> warnings;
    std::string error, listed;
    EXPECT_EQ(ParsePropfindListing(c.body, "http://127.0.0.1:1/d/", &entries, &warnings, &error), c.parses);
    EXPECT_EQ(error.empty(), c.parses) << error;
    for (const OriginEntry& e : entries) {
      listed += e.name + (e.is_directory ? "/ " : "=" + std::to_string(e.size) + " ");
      EXPECT_EQ(e.mtime, 981173106);
    }
    EXPECT_EQ(listed, c.listed);
    EXPECT_EQ(warnings.size(), c.warnings);
  }
}

}  // namespace
