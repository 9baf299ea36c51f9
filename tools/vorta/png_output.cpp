// SPDX-License-Identifier: MIT
// vorta tool: writing 8-bit RGB pictures as PNG files (libpng).
#include "png_output.h"

#include <png.h>

#include <csetjmp>
#include <cstdio>
#include <vector>

#include "cli.h"

namespace vorta {
namespace cli {

void writeRgbPng(const std::string& path, int width, int height,
                 const std::function<void(int y, unsigned char* out)>& row) {
  FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) throw Failure("cannot write " + path);
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
  std::vector<unsigned char> line(static_cast<std::size_t>(width) * 3);
  bool ok = png != nullptr && info != nullptr;
  // libpng reports errors by longjmp; only plain data lives in this frame.
  if (ok && setjmp(png_jmpbuf(png)) == 0) {
    png_init_io(png, file);
    png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8,
                 PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (int y = 0; y < height; ++y) {
      row(y, line.data());
      png_write_row(png, line.data());
    }
    png_write_end(png, nullptr);
  } else {
    ok = false;
  }
  png_destroy_write_struct(&png, &info);
  if (std::fclose(file) != 0) ok = false;
  if (!ok) {
    std::remove(path.c_str());
    throw Failure("cannot write " + path);
  }
}

}  // namespace cli
}  // namespace vorta
