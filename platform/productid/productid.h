// SPDX-License-Identifier: MIT
// vorta platform: what this recorder model can play (the product capability check).
#pragma once

#include <vector>

/// The recorder model's capabilities. The one question the library asks is
/// whether a picture height can be played.
class CProductID {
 public:
  CProductID();
  virtual ~CProductID();

  /// True when this model plays pictures of the given height (lines).
  bool canDoHeight(int height);

  /// The heights this model plays, ascending: the standard-definition
  /// broadcast heights 486 (525-line) and 576 (625-line) and the
  /// high-definition heights 720 and 1080.
  static const std::vector<int>& supportedHeights();
};
