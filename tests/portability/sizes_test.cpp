// SPDX-License-Identifier: MIT
// Tests of the type sizes and limits the device has and the code relies on.
#include <gtest/gtest.h>
#include <sys/types.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <limits>

#include "clip.h"

namespace {

struct IntThenDouble {
  int32_t i;
  double d;
};

}  // namespace

// The device is a 32-bit machine: long, size_t, time_t and off_t are 4 bytes
// there and 8 on the 64-bit development machine. Each is one machine word.
TEST(TypeSizes, LongSizeTimeAndOffsetAreOneMachineWord) {
  const std::size_t word = sizeof(void*);
  EXPECT_EQ(sizeof(long), word);
  EXPECT_EQ(sizeof(std::size_t), word);
  EXPECT_EQ(sizeof(time_t), word);
  EXPECT_EQ(sizeof(off_t), word);
#if defined(__powerpc__) && !defined(__powerpc64__)
  EXPECT_EQ(sizeof(long), 4u);
  EXPECT_EQ(sizeof(time_t), 4u);
  EXPECT_EQ(sizeof(off_t), 4u);
  EXPECT_EQ(static_cast<long long>(std::numeric_limits<time_t>::max()), 2147483647LL);
#endif
}

// Records use fixed-width integers only; a double inside a record is
// 8-aligned on both machines, so the clip record's frame rate sits at the
// same offset everywhere.
TEST(TypeSizes, DoubleIsEightAlignedInsideARecord) {
  EXPECT_EQ(offsetof(IntThenDouble, d), 8u);
  EXPECT_EQ(sizeof(IntThenDouble), 16u);
}

// strtol saturates at LONG_MAX, which is 2147483647 on the device.
TEST(Strtol, SaturatesAtTheWidthOfLong) {
  errno = 0;
  const long value = std::strtol("2147483648", nullptr, 10);
  if (sizeof(long) == 4) {
    EXPECT_EQ(value, 2147483647L);
    EXPECT_EQ(errno, ERANGE);
  } else {
    EXPECT_EQ(static_cast<long long>(value), 2147483648LL);
    EXPECT_EQ(errno, 0);
  }
  errno = 0;
  const long big = std::strtol("99999999999", nullptr, 10);
  if (sizeof(long) == 4) {
    EXPECT_EQ(big, 2147483647L);
    EXPECT_EQ(errno, ERANGE);
  } else {
    EXPECT_EQ(static_cast<long long>(big), 99999999999LL);
  }
}

// The take number clamps to the device's strtol limit on both machines.
TEST(Strtol, TakeNumbersClampToTheDevicesLimitEverywhere) {
  EXPECT_EQ(Clip::extractTake("A_2147483647.mov"), 2147483647);
  EXPECT_EQ(Clip::extractTake("A_2147483648.mov"), 2147483647);
  EXPECT_EQ(Clip::extractTake("A_99999999999.mov"), 2147483647);
  EXPECT_EQ(Clip::extractTake("A_-2147483649.mov"), -2147483647 - 1);
}

// Plain char is unsigned on PowerPC and signed on x86: code that compares
// text bytes with 0x80 or below 0 casts to unsigned char first.
TEST(TypeSizes, PlainCharSignednessFollowsTheMachine) {
  const char high = static_cast<char>(0xE9);
#if defined(__powerpc__)
  EXPECT_FALSE(std::numeric_limits<char>::is_signed);
  EXPECT_EQ(static_cast<int>(high), 233);
#elif defined(__x86_64__) || defined(__i386__)
  EXPECT_TRUE(std::numeric_limits<char>::is_signed);
  EXPECT_EQ(static_cast<int>(high), -23);
#endif
  EXPECT_EQ(static_cast<int>(static_cast<unsigned char>(high)), 233);
}
