// SPDX-License-Identifier: MIT
// vorta platform: what this recorder model can play (the product capability check).
#include "productid.h"

#include <algorithm>

CProductID::CProductID() = default;
CProductID::~CProductID() = default;

bool CProductID::canDoHeight(int height) {
  const std::vector<int>& heights = supportedHeights();
  return std::binary_search(heights.begin(), heights.end(), height);
}

const std::vector<int>& CProductID::supportedHeights() {
  // The one table of picture heights this model plays, ascending. Every
  // other height (480, 1088, the 2K and 4K heights...) is refused.
  static const std::vector<int> heights = {486, 576, 720, 1080};
  return heights;
}
