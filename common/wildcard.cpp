#include "common/wildcard.h"

#include <cctype>
#include <cstddef>
#include <cwctype>
#include <string>
#include <unordered_set>

namespace {

inline int FoldCase(char c) { return std::toupper(static_cast<unsigned char>(c)); }
inline wint_t FoldCase(wchar_t c) { return std::towupper(static_cast<wint_t>(c)); }

// One matcher for both character types. Positions never pass the name's
// length, so no step reads the terminator or anything beyond it: a step that
// needs a character where the name has ended fails instead. An expression
// longer than the name is walked the same way: once the name is used up, the
// rest of the expression matches only if every remaining character can match
// nothing ("*", "<", the DOS dot); any other character fails the match.
template <typename CharT>
class Matcher {
 public:
  Matcher(const CharT* expression, const CharT* name, bool ignore_case)
      : expression_(expression),
        expression_length_(std::char_traits<CharT>::length(expression)),
        name_(name),
        name_length_(std::char_traits<CharT>::length(name)),
        ignore_case_(ignore_case) {}

  // Whether the expression from position p matches the name from n.
  bool Match(size_t p, size_t n) {
    // The answer depends on (p, n) alone. Remembering the failures bounds the
    // work of expressions with many stars (such as "*a*a*a*a*b" against a
    // long run of "a") to a polynomial instead of an exponential.
    const size_t state = p * (name_length_ + 1) + n;
    if (failed_.count(state) != 0) return false;
    bool matched = Walk(p, n);
    if (!matched) failed_.insert(state);
    return matched;
  }

 private:
  static constexpr CharT kStar = static_cast<CharT>('*');
  static constexpr CharT kQuestion = static_cast<CharT>('?');
  static constexpr CharT kDosDot = static_cast<CharT>('"');
  static constexpr CharT kDosStar = static_cast<CharT>('<');
  static constexpr CharT kDosQuestion = static_cast<CharT>('>');
  static constexpr CharT kDot = static_cast<CharT>('.');

  bool Same(CharT a, CharT b) const {
    return ignore_case_ ? FoldCase(a) == FoldCase(b) : a == b;
  }

  bool Walk(size_t p, size_t n) {
    for (;;) {
      if (p == expression_length_) return n == name_length_;
      const CharT c = expression_[p];
      if (c == kDosDot) {
        if (n < name_length_ && name_[n] == kDot) ++n;
        ++p;
      } else if (c == kStar) {
        if (p + 1 == expression_length_) return true;
        ++p;
        if (n < name_length_) {
          for (size_t k = n; k < name_length_; ++k) {
            if (Match(p, k)) return true;
          }
          n = name_length_;
        }
      } else if (c == kDosStar) {
        // 0 stands for "no dot", so at the start of a dotless name the DOS
        // star matches nothing: long-standing behaviour that is kept.
        size_t last_dot = 0;
        for (size_t i = n; i < name_length_; ++i) {
          if (name_[i] == kDot) last_dot = i;
        }
        ++p;
        if (n != last_dot && n < name_length_) {
          const size_t end = last_dot > n ? last_dot : name_length_;
          for (size_t k = n; k < end; ++k) {
            if (Match(p, k)) return true;
          }
          n = end;
        }
      } else if (c == kDosQuestion) {
        // Needs a character even at the name's end, unlike the DOS rule that
        // lets it match nothing there. Deliberate; kept.
        if (n == name_length_) return false;
        if (name_[n] != kDot || HasDotAfter(n)) ++n;
        ++p;
      } else if (c == kQuestion) {
        if (n == name_length_) return false;
        ++n;
        ++p;
      } else {
        if (n == name_length_ || !Same(c, name_[n])) return false;
        ++n;
        ++p;
      }
    }
  }

  bool HasDotAfter(size_t n) const {
    for (size_t i = n + 1; i < name_length_; ++i) {
      if (name_[i] == kDot) return true;
    }
    return false;
  }

  const CharT* const expression_;
  const size_t expression_length_;
  const CharT* const name_;
  const size_t name_length_;
  const bool ignore_case_;
  std::unordered_set<size_t> failed_;  // states (p, n) known not to match
};

template <typename CharT>
bool IsNameInExpressionT(const CharT* expression, const CharT* name, bool ignore_case) {
  if (expression == nullptr || name == nullptr) return false;
  return Matcher<CharT>(expression, name, ignore_case).Match(0, 0);
}

}  // namespace

bool IsNameInExpressionA(const char* expression, const char* name, bool ignore_case) {
  return IsNameInExpressionT(expression, name, ignore_case);
}

bool IsNameInExpression(const wchar_t* expression, const wchar_t* name, bool ignore_case) {
  return IsNameInExpressionT(expression, name, ignore_case);
}
