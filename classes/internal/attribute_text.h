// SPDX-License-Identifier: MIT
// vorta: the one reader of the attribute block's "key\nvalue\n" text, shared by the map and single-key
// lookups.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

namespace zev {
namespace detail {

/// Calls visit(key, value) for each pair of the attribute text in block, in
/// the order written: the text ends at the first NUL or after size bytes,
/// tokens are split at newlines only, nothing is trimmed, empty tokens are
/// dropped, tokens pair up as key then value and a final key without a
/// value is ignored. Allocates nothing.
template <class Visit>
void forEachAttribute(const char* block, std::size_t size, Visit visit) {
  const char* at = block;
  const char* const end = block + strnlen(block, size);
  const char* key = nullptr;
  std::size_t keyLength = 0;
  while (at < end) {
    const char* newline = static_cast<const char*>(std::memchr(at, '\n', static_cast<std::size_t>(end - at)));
    const char* tokenEnd = newline != nullptr ? newline : end;
    const std::size_t length = static_cast<std::size_t>(tokenEnd - at);
    if (length != 0) {
      if (key == nullptr) {
        key = at;
        keyLength = length;
      } else {
        visit(std::string_view(key, keyLength), std::string_view(at, length));
        key = nullptr;
      }
    }
    at = newline != nullptr ? newline + 1 : end;
  }
}

}  // namespace detail
}  // namespace zev
