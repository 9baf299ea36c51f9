// SPDX-License-Identifier: MIT
// vorta: the media attribute keys and the attribute block carried in every clip record.
#pragma once

#include <cstddef>
#include <map>
#include <string>

namespace zev {
namespace media {

// Attribute keys. Each source file that includes this header gets its own
// copy of these strings; they are plain constants, not shared state.
// "Height", "Width" and "Frame Rate" are declared for completeness but no
// writer emits them: the clip record's numeric fields carry those values.
const std::string MediaFormat("Format");
const std::string MediaHeight("Height");
const std::string MediaWidth("Width");
const std::string MediaFrameRate("Frame Rate");
const std::string MediaVideoEncodeType("Encode Type");
const std::string MediaAudioChannels("Audio Chan");
const std::string MediaStartingTimecode("Starting TC");

/// The 2400-byte media attribute block: NUL-terminated 8-bit text made of
/// "key\nvalue\n" pairs, unused bytes zero. It is copied byte for byte into
/// the clip record and so into shared memory, which is why the class holds
/// nothing but the block and is byte-aligned.
class MediaAttributes {
 public:
  static constexpr std::size_t kSize = 2400;
  /// Longest text the block holds; the last byte is always the terminator.
  static constexpr std::size_t kMaxText = kSize - 1;

  /// Parses the block into a map ordered by key. Tokens are split at
  /// newlines only, nothing is trimmed, empty tokens are dropped, tokens
  /// pair up as key then value, a repeated key keeps its last value and a
  /// final key without a value is ignored. A block without a terminator is
  /// read up to its 2400th byte.
  std::map<std::string, std::string> getAttributesMap();

  /// The value getAttributesMap would hold for key (the last one written),
  /// found without building the map: true and value set, or false and value
  /// left as it was. The block is read by the same rules.
  bool getAttribute(const std::string& key, std::string& value) const;

  char block[kSize];
};

}  // namespace media
}  // namespace zev

static_assert(sizeof(zev::media::MediaAttributes) == 2400, "attribute block is 2400 bytes");
static_assert(alignof(zev::media::MediaAttributes) == 1,
              "the attribute block sits at an odd offset of the clip record");
