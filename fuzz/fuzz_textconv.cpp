// SPDX-License-Identifier: MIT
// Fuzz target: the UTF-8 copies and the attribute block reader on arbitrary bytes.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "clip.h"
#include "fileparams.h"
#include "textconv.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // First byte picks the destination size; the rest is the text.
  const int destSize = data[0] % 40;
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);

  // Exact-size copies, so the sanitizer sees any read past the text.
  std::vector<char> terminated(text.begin(), text.end());
  terminated.push_back('\0');
  std::vector<char> dest(static_cast<size_t>(destSize) + 1);
  strncpyasutf8(dest.data(), terminated.data(), destSize);
  strncpyasutf8_map_cp437(dest.data(), text.data(), static_cast<int>(text.size()), destSize);

  unsigned char code;
  map_utf8_to_codepage437(text.data(), static_cast<int>(std::min<size_t>(text.size(), 3)), &code);

  CFileParams params("fuzz.mov");
  std::memcpy(params.attributes.block, text.data(), std::min(text.size(), sizeof(params.attributes.block)));
  params.attributes.getAttributesMap();
  params.AddAttribute(text.substr(0, text.size() / 2), text.substr(text.size() / 2));

  Clip::extractTake(text);
  return 0;
}
