#include "webdav_listing.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <climits>
#include <memory>
#include <mutex>

#include "http_listing.h"

namespace {

// NAME_MAX of the file systems a volume is mounted beside.
constexpr size_t kMaxNameBytes = 255;

bool IsDav(const xmlNode* node, const char* name) {
  return node->type == XML_ELEMENT_NODE && node->ns != nullptr &&
         xmlStrEqual(node->ns->href, BAD_CAST "DAV:") && xmlStrEqual(node->name, BAD_CAST name);
}

// The element's own text, trimmed. Entity references among its children are
// not followed, so an entity declared by the server is never expanded.
std::string TextOf(const xmlNode* node) {
  std::string text;
  for (const xmlNode* child = node->children; child != nullptr; child = child->next) {
    if ((child->type == XML_TEXT_NODE || child->type == XML_CDATA_SECTION_NODE) && child->content != nullptr) {
      text += reinterpret_cast<const char*>(child->content);
    }
  }
  const size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return std::string();
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// A non-negative decimal count below 10^18, else -1.
long long CountOf(const std::string& text) {
  if (text.empty() || text.size() > 18) return -1;
  long long value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return -1;
    value = value * 10 + (c - '0');
  }
  return value;
}

void ReadProperties(const xmlNode* prop, DavResource* resource) {
  for (const xmlNode* p = prop->children; p != nullptr; p = p->next) {
    if (IsDav(p, "resourcetype")) {
      for (const xmlNode* type = p->children; type != nullptr; type = type->next) {
        if (IsDav(type, "collection")) resource->is_collection = true;
      }
    } else if (IsDav(p, "getcontentlength")) {
      resource->size = CountOf(TextOf(p));
    } else if (IsDav(p, "getlastmodified")) {
      resource->last_modified = TextOf(p);
      if (!ParseHttpDate(resource->last_modified, &resource->mtime)) resource->mtime = 0;
    } else if (IsDav(p, "getetag")) {
      resource->etag = TextOf(p);
    } else if (IsDav(p, "quota-used-bytes")) {
      resource->quota_used = CountOf(TextOf(p));
    } else if (IsDav(p, "quota-available-bytes")) {
      resource->quota_available = CountOf(TextOf(p));
    }
  }
}

// "HTTP/1.1 200 OK": true for a 2xx status.
bool IsSuccessStatus(const std::string& status) {
  const size_t space = status.find(' ');
  return space != std::string::npos && space + 1 < status.size() && status[space + 1] == '2';
}

DavResource ReadResponse(const xmlNode* response) {
  DavResource resource;
  for (const xmlNode* part = response->children; part != nullptr; part = part->next) {
    if (IsDav(part, "href")) {
      resource.href = TextOf(part);
    } else if (IsDav(part, "propstat")) {
      // A server says "404" for each property it does not have, in a
      // propstat of its own: only a successful one carries values.
      bool success = true;
      for (const xmlNode* s = part->children; s != nullptr; s = s->next) {
        if (IsDav(s, "status")) success = IsSuccessStatus(TextOf(s));
      }
      for (const xmlNode* prop = part->children; success && prop != nullptr; prop = prop->next) {
        if (IsDav(prop, "prop")) ReadProperties(prop, &resource);
      }
    }
  }
  return resource;
}

std::string WithoutTrailingSlashes(std::string path) {
  while (!path.empty() && path.back() == '/') path.pop_back();
  return path;
}

// For messages: a hostile href may be megabytes long.
std::string Shortened(const std::string& text) {
  return "\"" + (text.size() > 80 ? text.substr(0, 80) + "..." : text) + "\"";
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string ValidatorOf(const DavResource& resource) {
  return resource.etag.empty() ? resource.last_modified : resource.etag;
}

bool ParseMultistatus(const std::string& body, std::vector<DavResource>* resources, std::string* error) {
  resources->clear();
  // libxml2 sets up its global state here once; later parses on any thread
  // each use a context of their own.
  static std::once_flag initialised;
  std::call_once(initialised, xmlInitParser);
  if (body.size() > static_cast<size_t>(INT_MAX)) {
    *error = "the WebDAV answer is too large";
    return false;
  }
  std::unique_ptr<xmlParserCtxt, void (*)(xmlParserCtxtPtr)> context(xmlNewParserCtxt(), xmlFreeParserCtxt);
  if (context == nullptr) {
    *error = "out of memory for the XML parser";
    return false;
  }
  // Deliberately without XML_PARSE_NOENT (entity substitution),
  // XML_PARSE_DTDLOAD and XML_PARSE_HUGE (which lifts the depth and size
  // limits); NONET forbids any fetch. Errors are reported here, not printed.
  const int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
  std::unique_ptr<xmlDoc, void (*)(xmlDocPtr)> doc(
      xmlCtxtReadMemory(context.get(), body.data(), static_cast<int>(body.size()), nullptr, nullptr, options),
      xmlFreeDoc);
  if (doc == nullptr) {
    const xmlError* failure = xmlCtxtGetLastError(context.get());
    std::string why = failure != nullptr && failure->message != nullptr ? failure->message : "no document";
    while (!why.empty() && (why.back() == '\n' || why.back() == ' ')) why.pop_back();
    *error = "the WebDAV answer is not XML (line " + std::to_string(failure != nullptr ? failure->line : 0) +
             "): " + why;
    return false;
  }
  const xmlNode* root = xmlDocGetRootElement(doc.get());
  if (root == nullptr || !IsDav(root, "multistatus")) {
    *error = "the WebDAV answer is not a DAV:multistatus";
    return false;
  }
  for (const xmlNode* node = root->children; node != nullptr; node = node->next) {
    if (IsDav(node, "response")) resources->push_back(ReadResponse(node));
  }
  return true;
}

std::string UrlPathOf(const std::string& url) {
  if (url.empty() || url[0] == '/') return url;
  const size_t scheme = url.find("://");
  if (scheme == std::string::npos) return url;
  const size_t slash = url.find('/', scheme + 3);
  return slash == std::string::npos ? "/" : url.substr(slash);
}

// By hand: curl_easy_unescape() and libxml2's unescaper pass a malformed
// escape through as it is, which would name a file the server does not have.
bool PercentDecode(const std::string& text, std::string* decoded) {
  decoded->clear();
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      *decoded += text[i];
      continue;
    }
    const int high = i + 2 < text.size() ? HexValue(text[i + 1]) : -1;
    const int low = i + 2 < text.size() ? HexValue(text[i + 2]) : -1;
    if (high < 0 || low < 0 || (high == 0 && low == 0)) return false;
    *decoded += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return true;
}

bool ParsePropfindListing(const std::string& body, const std::string& directory_url,
                          std::vector<OriginEntry>* entries, std::vector<std::string>* warnings,
                          std::string* error) {
  entries->clear();
  std::vector<DavResource> resources;
  if (!ParseMultistatus(body, &resources, error)) return false;
  std::string directory;
  PercentDecode(WithoutTrailingSlashes(UrlPathOf(directory_url)), &directory);
  for (const DavResource& resource : resources) {
    const std::string path = WithoutTrailingSlashes(UrlPathOf(resource.href));
    std::string decoded_path;
    std::string name;
    const char* problem = nullptr;
    if (resource.href.empty()) {
      problem = "it has no href";
    } else if (!PercentDecode(path, &decoded_path) || !PercentDecode(path.substr(path.rfind('/') + 1), &name)) {
      problem = "its href has a malformed escape";
    } else if (decoded_path == directory) {
      if (resource.is_collection) continue;  // the directory itself
      *error = "not a directory";
      return false;
    } else if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) {
      problem = "its href does not end in a file name";
    } else if (name.size() > kMaxNameBytes) {
      problem = "its name is longer than 255 bytes";
    } else if (!resource.is_collection && resource.size < 0) {
      problem = "it is a file without a size";
    }
    if (problem != nullptr) {
      warnings->push_back("skipped the entry " + Shortened(resource.href) + ": " + problem);
      continue;
    }
    OriginEntry entry;
    entry.name = std::move(name);
    entry.is_directory = resource.is_collection;
    entry.size = resource.is_collection ? 0 : resource.size;
    entry.mtime = resource.mtime;
    entry.validator = ValidatorOf(resource);
    entries->push_back(std::move(entry));
  }
  return true;
}
