// Cutting a string at a separator character or at the matches of a regular
// expression.
#pragma once

#include <regex>
#include <string>
#include <vector>

#include "korvcache.h"

// The pieces of `text` that lie between successive matches of `pattern`, in
// order, untrimmed: the sequence std::sregex_token_iterator yields for
// submatch -1. So an empty piece between two adjacent matches, or before a
// match at the start, is kept; a match at the very end adds no empty piece;
// a text without any match (the empty text included) is one piece.
// The pattern is applied with default match flags; its grammar is the
// caller's. Safe on any thread.
KORV_EXPORT std::vector<std::string> split(const std::string& text, const std::regex& pattern);

// The same on wide strings.
KORV_EXPORT std::vector<std::wstring> split(const std::wstring& text, const std::wregex& pattern);

// The pieces of `text` between occurrences of `separator`, by the same rules:
// empty pieces inside are kept, a separator at the very end adds no empty
// piece, and a text without the separator (the empty text included) is one
// piece. For callers that cut at one literal character, without the cost of
// a regular expression. Safe on any thread.
KORV_EXPORT std::vector<std::string> split(const std::string& text, char separator);
