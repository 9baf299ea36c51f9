// SPDX-License-Identifier: MIT
// Tests of the records shared between processes and machines: identical layouts on every build.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "clip.h"
#include "media_attributes.h"
#include "rp188.h"

// The same checks hold for the device's 32-bit big-endian build and the
// 64-bit little-endian development build: a record never depends on the
// width of long, size_t or a pointer.
static_assert(sizeof(Clip) == 6536 && alignof(Clip) == 8, "Clip: 6536 bytes, 8-aligned");
static_assert(offsetof(Clip, frameRate) % 8 == 0, "Clip::frameRate is naturally aligned");
static_assert(sizeof(zev::media::MediaAttributes) == 2400 && alignof(zev::media::MediaAttributes) == 1,
              "attribute block");
static_assert(std::is_trivially_copyable<RP188_STRUCT>::value, "RP188_STRUCT is copied byte for byte");
static_assert(sizeof(RP188_STRUCT) == 12, "RP188_STRUCT: three 32-bit words");
static_assert(offsetof(RP188_STRUCT, dbb) == 0 && offsetof(RP188_STRUCT, low) == 4 &&
                  offsetof(RP188_STRUCT, high) == 8,
              "RP188_STRUCT word order");
static_assert(sizeof(SIZE) == 8 && offsetof(SIZE, cy) == 4, "SIZE: two 32-bit values");

namespace {

bool hostIsBigEndian() {
  const uint16_t probe = 0x0102;
  unsigned char first = 0;
  std::memcpy(&first, &probe, 1);
  return first == 0x01;
}

}  // namespace

TEST(SharedLayouts, ClipHasTheSameSizeAndAlignmentOnEveryMachine) {
  EXPECT_EQ(sizeof(Clip), 6536u);
  EXPECT_EQ(alignof(Clip), 8u);
  EXPECT_EQ(Clip::kStoredSize, 6533u);
}

// The register words are plain native integers in a fixed order.
TEST(SharedLayouts, RegisterWordsAreNativeIntegersInFieldOrder) {
  RP188_STRUCT words{};
  words.dbb = 0x00020000u;  // bit 17
  words.low = 0x12345678u;
  words.high = 0x9ABCDEF0u;
  unsigned char bytes[12];
  std::memcpy(bytes, &words, sizeof bytes);
  const std::vector<unsigned char> big = {0x00, 0x02, 0x00, 0x00, 0x12, 0x34,
                                          0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0};
  const std::vector<unsigned char> little = {0x00, 0x00, 0x02, 0x00, 0x78, 0x56,
                                             0x34, 0x12, 0xF0, 0xDE, 0xBC, 0x9A};
  EXPECT_EQ(std::vector<unsigned char>(bytes, bytes + 12), hostIsBigEndian() ? big : little);
}
