// SPDX-License-Identifier: MIT
// Tests of the clip record's bytes: fields land in native byte order at fixed offsets.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "clip.h"

namespace {

bool hostIsBigEndian() {
  const uint16_t probe = 0x0102;
  unsigned char first = 0;
  std::memcpy(&first, &probe, 1);
  return first == 0x01;
}

std::vector<unsigned char> bytesOf(const Clip& c, std::size_t offset, std::size_t count) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(&c);
  return std::vector<unsigned char>(p + offset, p + offset + count);
}

// Bytes 4096 to 4132 of the record filled by filled(), as each machine stores them.
const std::vector<unsigned char> kBigEndian = {
    0x65, 0x53, 0xF1, 0x00,                          // 4096 modTime 1700000000
    0x61, 0x70, 0x63, 0x6E, 0x00,                    // 4100 fourCC "apcn"
    0x00, 0x00, 0x00,                                // 4105 padding
    0x00, 0x00, 0x07, 0x80,                          // 4108 width 1920
    0x00, 0x00, 0x04, 0x38,                          // 4112 height 1080
    0xA1, 0xB2, 0xC3, 0xD4,                          // 4116 videoLength 0xA1B2C3D4
    0x40, 0x39, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // 4120 frameRate 25.0
    0xFF, 0xFF, 0xFF, 0xFE,                          // 4128 scanMode -2
    0x01,                                            // 4132 playable
};
const std::vector<unsigned char> kLittleEndian = {
    0x00, 0xF1, 0x53, 0x65,                          // 4096 modTime 1700000000
    0x61, 0x70, 0x63, 0x6E, 0x00,                    // 4100 fourCC "apcn"
    0x00, 0x00, 0x00,                                // 4105 padding
    0x80, 0x07, 0x00, 0x00,                          // 4108 width 1920
    0x38, 0x04, 0x00, 0x00,                          // 4112 height 1080
    0xD4, 0xC3, 0xB2, 0xA1,                          // 4116 videoLength 0xA1B2C3D4
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x39, 0x40,  // 4120 frameRate 25.0
    0xFE, 0xFF, 0xFF, 0xFF,                          // 4128 scanMode -2
    0x01,                                            // 4132 playable
};

Clip filled() {
  Clip c;
  c.modTime = 1700000000;
  std::memcpy(c.fourCC, "apcn", 5);
  c.width = 1920;
  c.height = 1080;
  c.videoLength = 0xA1B2C3D4u;
  c.frameRate = 25.0;
  c.scanMode = -2;
  c.playable = true;
  return c;
}

}  // namespace

TEST(ClipBytes, NumericFieldsAreInTheMachinesByteOrderAtTheirOffsets) {
  const Clip c = filled();
  EXPECT_EQ(bytesOf(c, 4096, 37), hostIsBigEndian() ? kBigEndian : kLittleEndian)
      << (hostIsBigEndian() ? "big-endian" : "little-endian") << " machine";
}

TEST(ClipBytes, NameAndAttributesAreTextInFieldOrder) {
  Clip c = filled();
  std::memcpy(c.name, "A001_C003.mov", 14);
  std::memcpy(c.attributes.block, "Format\nProRes\n", 14);
  EXPECT_EQ(bytesOf(c, 0, 5), (std::vector<unsigned char>{0x41, 0x30, 0x30, 0x31, 0x5F}));
  EXPECT_EQ(bytesOf(c, 13, 1), (std::vector<unsigned char>{0x00}));
  EXPECT_EQ(bytesOf(c, 4133, 7), (std::vector<unsigned char>{0x46, 0x6F, 0x72, 0x6D, 0x61, 0x74, 0x0A}));
  EXPECT_EQ(bytesOf(c, 6532, 1), (std::vector<unsigned char>{0x00}));
}

// The same bytes read back into a record give the same values: the copy
// through a shared image is a plain byte copy.
TEST(ClipBytes, ARecordReadFromTheMachinesBytesHasTheSameValues) {
  std::vector<unsigned char> image(sizeof(Clip), 0);
  const std::vector<unsigned char>& native = hostIsBigEndian() ? kBigEndian : kLittleEndian;
  std::memcpy(image.data() + 4096, native.data(), native.size());
  Clip c;
  std::memcpy(static_cast<void*>(&c), image.data(), sizeof(Clip));
  EXPECT_EQ(c.modTime, 1700000000);
  EXPECT_STREQ(c.fourCC, "apcn");
  EXPECT_EQ(c.width, 1920);
  EXPECT_EQ(c.height, 1080);
  EXPECT_EQ(c.videoLength, 0xA1B2C3D4u);
  EXPECT_EQ(c.frameRate, 25.0);
  EXPECT_EQ(c.scanMode, -2);
  EXPECT_TRUE(c.playable);
}
