#include "cache/number_text.h"

#include <locale>
#include <sstream>

std::string LocaleNumber(long long value) {
  std::ostringstream text;
  try {
    text.imbue(std::locale(""));
  } catch (const std::runtime_error&) {
    // An unknown LANG: keep the classic locale.
  }
  text << value;
  return text.str();
}
