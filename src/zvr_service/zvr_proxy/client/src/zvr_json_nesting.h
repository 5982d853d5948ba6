// A bound on the nesting of JSON text, checked before it is parsed. Internal to the library.
//
// JsonCpp's reader recurses once per level of nesting; a small thread stack overflows a few
// hundred levels deep, and a 4096-byte segment can hold about 2,000. An event record is one flat
// object, so text nested deeper than kMaxJsonNesting is refused before the parser sees it.

#ifndef ZVR_JSON_NESTING_H_
#define ZVR_JSON_NESTING_H_

#include <string_view>

namespace velmora {

constexpr int kMaxJsonNesting = 64;

// True when no bracket or brace of `text` opens more than `limit` levels deep. Brackets inside
// strings (with their escapes) and inside comments (JsonCpp reads "//" and "/* */" comments) do
// not count; a "//" comment ends at a line feed or a carriage return, as JsonCpp ends it.
// Unbalanced text passes: the parser refuses it on its own.
inline bool jsonNestingWithin(std::string_view text, int limit = kMaxJsonNesting) {
  int depth = 0;
  const std::size_t n = text.size();
  for (std::size_t i = 0; i < n; ++i) {
    const char c = text[i];
    if (c == '"') {
      for (++i; i < n && text[i] != '"'; ++i) {
        if (text[i] == '\\') ++i;
      }
    } else if (c == '/' && i + 1 < n && text[i + 1] == '/') {
      while (i < n && text[i] != '\n' && text[i] != '\r') ++i;
    } else if (c == '/' && i + 1 < n && text[i + 1] == '*') {
      i += 2;
      while (i + 1 < n && !(text[i] == '*' && text[i + 1] == '/')) ++i;
      ++i;
    } else if (c == '{' || c == '[') {
      if (++depth > limit) return false;
    } else if (c == '}' || c == ']') {
      --depth;
    }
  }
  return true;
}

}  // namespace velmora

#endif  // ZVR_JSON_NESTING_H_
