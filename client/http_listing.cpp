#include "http_listing.h"

#include <json/json.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <memory>

namespace {

const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// Reads exactly `count` digits at `*pos`.
bool ReadDigits(const std::string& text, size_t* pos, int count, int* value) {
  if (*pos + count > text.size()) return false;
  int result = 0;
  for (int i = 0; i < count; ++i) {
    char c = text[*pos + i];
    if (c < '0' || c > '9') return false;
    result = result * 10 + (c - '0');
  }
  *pos += count;
  *value = result;
  return true;
}

bool Expect(const std::string& text, size_t* pos, char c) {
  if (*pos >= text.size() || text[*pos] != c) return false;
  ++*pos;
  return true;
}

}  // namespace

std::string FormatHttpDate(long long seconds) {
  const time_t when = static_cast<time_t>(seconds);
  struct tm tm;
  if (seconds < 0 || gmtime_r(&when, &tm) == nullptr || tm.tm_year + 1900 > 9999) return std::string();
  char text[32];
  snprintf(text, sizeof(text), "%s, %02d %s %04d %02d:%02d:%02d GMT", kDays[tm.tm_wday], tm.tm_mday,
           kMonths[tm.tm_mon], tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec);
  return text;
}

// Parsed by hand rather than with strptime because %a and %b follow the
// process's locale, and a program that calls setlocale() would then reject
// every date a server sends.
bool ParseHttpDate(const std::string& text, long long* seconds) {
  if (text.size() != 29 || text.compare(3, 2, ", ") != 0 || text.compare(25, 4, " GMT") != 0) {
    return false;
  }
  bool day_known = false;
  for (const char* day : kDays) day_known = day_known || text.compare(0, 3, day) == 0;
  if (!day_known) return false;

  struct tm tm;
  memset(&tm, 0, sizeof(tm));
  size_t pos = 5;
  int year = 0;
  if (!ReadDigits(text, &pos, 2, &tm.tm_mday) || !Expect(text, &pos, ' ')) return false;
  tm.tm_mon = -1;
  for (int i = 0; i < 12; ++i) {
    if (text.compare(pos, 3, kMonths[i]) == 0) tm.tm_mon = i;
  }
  pos += 3;
  if (tm.tm_mon < 0 || !Expect(text, &pos, ' ') || !ReadDigits(text, &pos, 4, &year) ||
      !Expect(text, &pos, ' ') || !ReadDigits(text, &pos, 2, &tm.tm_hour) ||
      !Expect(text, &pos, ':') || !ReadDigits(text, &pos, 2, &tm.tm_min) ||
      !Expect(text, &pos, ':') || !ReadDigits(text, &pos, 2, &tm.tm_sec)) {
    return false;
  }
  if (tm.tm_mday < 1 || tm.tm_mday > 31 || tm.tm_hour > 23 || tm.tm_min > 59 || tm.tm_sec > 60 ||
      year < 1970) {
    return false;
  }
  tm.tm_year = year - 1900;
  time_t result = timegm(&tm);
  if (result == static_cast<time_t>(-1)) return false;
  *seconds = static_cast<long long>(result);
  return true;
}

bool ParseJsonListing(const std::string& body, std::vector<OriginEntry>* entries,
                      std::string* error) {
  entries->clear();
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  std::string parse_error;
  bool parsed = false;
  try {
    parsed = reader->parse(body.data(), body.data() + body.size(), &root, &parse_error);
  } catch (const std::exception& e) {  // jsoncpp throws past its nesting limit (1,000 levels)
    parse_error = e.what();
  }
  if (!parsed) {
    // Servers without `autoindex_format json` answer an HTML page; say so
    // rather than echo a parser message about a '<'.
    *error = "directory listing is not JSON (is autoindex_format json set?): " + parse_error;
    return false;
  }
  if (!root.isArray()) {
    *error = "directory listing is not a JSON array";
    return false;
  }
  for (const Json::Value& item : root) {
    if (!item.isObject() || !item["name"].isString() || !item["type"].isString()) {
      *error = "directory listing has an entry without a name or type";
      return false;
    }
    OriginEntry entry;
    entry.name = item["name"].asString();
    const std::string type = item["type"].asString();
    // A name that is not a single path component cannot be addressed later.
    if (entry.name.empty() || entry.name == "." || entry.name == ".." ||
        entry.name.find('/') != std::string::npos ||
        entry.name.find('\0') != std::string::npos) {
      continue;
    }
    if (type == "directory") {
      entry.is_directory = true;
    } else if (type == "file") {
      const Json::Value& size = item["size"];
      if (!size.isIntegral() || !size.isInt64() || size.asInt64() < 0) {
        *error = "directory listing has no valid size for \"" + entry.name + "\"";
        return false;
      }
      entry.size = size.asInt64();
    } else {
      continue;  // sockets, fifos, dangling links: nothing a reader could open
    }
    long long mtime = 0;
    if (item["mtime"].isString() && ParseHttpDate(item["mtime"].asString(), &mtime)) {
      entry.mtime = mtime;
    }
    entries->push_back(std::move(entry));
  }
  return true;
}
