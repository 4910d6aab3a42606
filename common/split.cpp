#include "common/split.h"

namespace {

template <typename String, typename Regex>
std::vector<String> SplitPieces(const String& text, const Regex& pattern) {
  using TokenIterator = std::regex_token_iterator<typename String::const_iterator>;
  // Submatch -1 asks for the text between matches; the iterator's own rules
  // on empty pieces (kept inside, dropped at the end, whole text when
  // nothing matches) are the contract of split.
  return std::vector<String>(TokenIterator(text.begin(), text.end(), pattern, -1), TokenIterator());
}

}  // namespace

std::vector<std::string> split(const std::string& text, const std::regex& pattern) {
  return SplitPieces(text, pattern);
}

std::vector<std::wstring> split(const std::wstring& text, const std::wregex& pattern) {
  return SplitPieces(text, pattern);
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> pieces;
  size_t start = 0;
  for (size_t at = text.find(separator); at != std::string::npos; at = text.find(separator, start)) {
    pieces.push_back(text.substr(start, at - start));
    start = at + 1;
  }
  if (start < text.size() || pieces.empty()) pieces.push_back(text.substr(start));
  return pieces;
}
