// File-name matching against wildcard expressions, by the DOS file-system
// rules. Besides "*" (any run of characters) and "?" (exactly one character)
// an expression may hold the DOS-compatibility wildcards:
//   '"'  DOS dot: matches a "." or nothing;
//   '<'  DOS star: matches characters up to, not including, the last "." of
//        the rest of the name; to the name's end when the rest has no dot,
//        except at the very start of the name, where it then matches
//        nothing ("<" does not match "abc", "a<" matches "abc");
//   '>'  DOS question mark: matches one character, but at the name's last "."
//        matches nothing.
// Unlike the DOS rule, "?" and ">" need a character of the name: "a?" and
// "a>" do not match "a". Every other character matches itself; with
// `ignore_case` after toupper (towupper for wide characters) of both sides.
//
// Both strings must be NUL-terminated; a null pointer never matches. The
// functions keep no state and may be called from any thread.
#pragma once

#include "korvcache.h"

// Byte strings; case folding uses the C library's current locale.
KORV_EXPORT bool IsNameInExpressionA(const char* expression, const char* name, bool ignore_case);

// Wide-character strings; case folding uses the C library's current locale.
KORV_EXPORT bool IsNameInExpression(const wchar_t* expression, const wchar_t* name,
                                    bool ignore_case);
