// SPDX-License-Identifier: MIT
// vorta lut: reads a colour look-up table file, shows its entries and draws its curves as a PNG.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "cli.h"
#include "lut_utils.h"
#include "png_output.h"

namespace {

using namespace vorta::cli;

struct Rgb {
  unsigned char r, g, b;
};

// A small RGB canvas with line drawing, written out as an 8-bit PNG.
class Canvas {
 public:
  Canvas(int width, int height, Rgb background)
      : width_(width), height_(height), pixels_(static_cast<std::size_t>(width) * height, background) {}

  void set(int x, int y, Rgb c) {
    if (x >= 0 && y >= 0 && x < width_ && y < height_) pixels_[static_cast<std::size_t>(y) * width_ + x] = c;
  }

  void line(int x0, int y0, int x1, int y1, Rgb c) {
    const int dx = std::abs(x1 - x0), sx = x0 < x1 ? 1 : -1;
    const int dy = -std::abs(y1 - y0), sy = y0 < y1 ? 1 : -1;
    int err = dx + dy;
    for (;;) {
      set(x0, y0, c);
      if (x0 == x1 && y0 == y1) break;
      const int e2 = 2 * err;
      if (e2 >= dy) {
        err += dy;
        x0 += sx;
      }
      if (e2 <= dx) {
        err += dx;
        y0 += sy;
      }
    }
  }

  // Throws Failure when the file cannot be written.
  void writePng(const std::string& path) const {
#ifdef VORTA_HAVE_PNG
    writeRgbPng(path, width_, height_, [this](int y, unsigned char* out) {
      std::memcpy(out, &pixels_[static_cast<std::size_t>(y) * static_cast<std::size_t>(width_)],
                  3 * static_cast<std::size_t>(width_));
    });
#else
    throw Failure("cannot write '" + path + "': this vorta was built without libpng");
#endif
  }

 private:
  int width_, height_;
  std::vector<Rgb> pixels_;
};
static_assert(sizeof(Rgb) == 3, "PNG rows are packed RGB");

// Red, green and blue against the entry index, over a grid of eighths.
void plot(const std::string& path, const std::vector<int16_t>& red, const std::vector<int16_t>& green,
          const std::vector<int16_t>& blue, int count) {
  const int width = 1024, height = 640, margin = 20;
  Canvas canvas(width, height, {24, 24, 28});
  int lo = 0, hi = 1;
  for (int i = 0; i < count; ++i)
    for (int v : {red[i], green[i], blue[i]}) {
      lo = std::min(lo, v);
      hi = std::max(hi, v);
    }
  const int plotW = width - 2 * margin, plotH = height - 2 * margin;
  const auto px = [&](int i) {
    return margin + (count > 1 ? static_cast<int>(static_cast<long long>(i) * plotW / (count - 1)) : 0);
  };
  const auto py = [&](int v) {
    return margin + plotH - static_cast<int>(static_cast<long long>(v - lo) * plotH / (hi - lo));
  };
  const Rgb grid{60, 60, 66}, axis{140, 140, 150};
  for (int k = 0; k <= 8; ++k) {
    canvas.line(margin + k * plotW / 8, margin, margin + k * plotW / 8, margin + plotH, grid);
    canvas.line(margin, margin + k * plotH / 8, margin + plotW, margin + k * plotH / 8, grid);
  }
  canvas.line(margin, py(0), margin + plotW, py(0), axis);
  canvas.line(margin, margin, margin, margin + plotH, axis);
  const struct {
    const std::vector<int16_t>* values;
    Rgb colour;
  } curves[] = {{&red, {235, 64, 52}}, {&green, {70, 200, 80}}, {&blue, {70, 120, 240}}};
  for (const auto& curve : curves) {
    const std::vector<int16_t>& v = *curve.values;
    for (int i = 0; i < count; ++i) {
      if (i == 0)
        canvas.set(px(0), py(v[0]), curve.colour);
      else
        canvas.line(px(i - 1), py(v[i - 1]), px(i), py(v[i]), curve.colour);
    }
  }
  canvas.writePng(path);
}

int run(Invocation& in) {
  const std::string file = in.args().front();
  const int size = static_cast<int>(in.integer("size", 4096, 1, 1 << 20));
  std::vector<int16_t> red(static_cast<std::size_t>(size)), green(red.size()), blue(red.size());
  int32_t count = -1;
  std::string error;
  const bool ok =
      zev::utils::LUT_Utils::parse(file, red.data(), green.data(), blue.data(), size, count, error);
  if (!ok && count < 0) throw Failure(file + ": " + error);  // not read at all

  if (const auto out = in.value("plot")) plot(*out, red, green, blue, count);

  if (in.flag("json")) {
    Json doc(cJSON_CreateObject());
    cJSON_AddStringToObject(doc.get(), "file", file.c_str());
    cJSON_AddBoolToObject(doc.get(), "ok", ok);
    cJSON_AddNumberToObject(doc.get(), "count", count);
    cJSON_AddNumberToObject(doc.get(), "size", size);
    if (ok)
      cJSON_AddNullToObject(doc.get(), "error");
    else
      cJSON_AddStringToObject(doc.get(), "error", error.c_str());
    if (in.flag("dump")) {
      cJSON* entries = cJSON_AddArrayToObject(doc.get(), "entries");
      for (int i = 0; i < count; ++i) {
        const int rgb[3] = {red[i], green[i], blue[i]};
        cJSON_AddItemToArray(entries, cJSON_CreateIntArray(rgb, 3));
      }
    }
    printJson(std::cout, doc.get());
    return ok ? 0 : 1;
  }

  if (in.flag("dump")) {
    Table table({"INDEX", "RED", "GREEN", "BLUE"}, {Table::Right, Table::Right, Table::Right, Table::Right});
    for (int i = 0; i < count; ++i)
      table.addRow(
          {std::to_string(i), std::to_string(red[i]), std::to_string(green[i]), std::to_string(blue[i])});
    if (!table.empty()) table.print(std::cout);
  }
  std::cout << "entries: " << count << "\n";
  if (ok) {
    std::cout << "ok\n";
  } else {
    std::cout << error;
    if (error.empty() || error.back() != '\n') std::cout << "\n";
  }
  return ok ? 0 : 1;
}

const Command kLut{
    "lut",
    "read a colour look-up table file and show or plot its entries",
    "FILE",
    "Reads FILE as the recorder does: one entry per line, three decimal values\n"
    "(red, green, blue) separated by blanks; blank lines and comments (# or //\n"
    "to the end of the line) are allowed. Values are kept as 16-bit signed\n"
    "numbers, cut to their low 16 bits. Prints the number of entries stored,\n"
    "then \"ok\" or the last error found; the exit status is 1 when the file has\n"
    "an error, 2 when it cannot be read at all.",
    {{"size", "N", "read at most N entries (default 4096); later lines are checked only"},
     {"dump", "", "list the entries"},
     {"plot", "PNG", "draw red, green and blue against the entry index into a PNG file"},
     {"json", "", "print the result as JSON (the entries too with --dump)"}},
    run,
    1,
    1,
};
VORTA_REGISTER_COMMAND(kLut);

}  // namespace
