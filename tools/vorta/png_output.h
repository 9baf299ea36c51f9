// SPDX-License-Identifier: MIT
// vorta tool: writing 8-bit RGB pictures as PNG files (libpng).
#pragma once

#include <functional>
#include <string>

namespace vorta {
namespace cli {

/// Writes a width x height 8-bit RGB PNG to path; row(y, out) fills the
/// 3 * width bytes of line y. Throws Failure (and removes the partial file)
/// when the file cannot be written.
void writeRgbPng(const std::string& path, int width, int height,
                 const std::function<void(int y, unsigned char* out)>& row);

}  // namespace cli
}  // namespace vorta
