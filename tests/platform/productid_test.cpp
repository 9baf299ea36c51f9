// SPDX-License-Identifier: MIT
// Tests of the product capability check.
#include <gtest/gtest.h>

#include "productid.h"

namespace {

TEST(ProductHeights, PlaysTheBroadcastHeights) {
  CProductID product;
  for (int height : {486, 576, 720, 1080}) EXPECT_TRUE(product.canDoHeight(height)) << height;
}

TEST(ProductHeights, RefusesEveryOtherHeight) {
  CProductID product;
  for (int height : {0, -1, 36, 480, 485, 487, 1088, 1440, 2160, 4320, 2147483647})
    EXPECT_FALSE(product.canDoHeight(height)) << height;
}

TEST(ProductHeights, TableIsAscendingFrom486To1080) {
  EXPECT_EQ(CProductID::supportedHeights(), (std::vector<int>{486, 576, 720, 1080}));
}

}  // namespace
