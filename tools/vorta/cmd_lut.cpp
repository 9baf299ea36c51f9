// SPDX-License-Identifier: MIT
// vorta lut: reads a colour look-up table file, shows its entries and draws its curves as a PNG.

#include <libgen.h>
#include <algorithm>
#include <cctype>
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
    trace(
        x0, y0, x1, y1, [&](int x, int y) { set(x, y, c); }, false);
  }

  // Calls pen for each pixel of the line from x0, y0 to x1, y1 (without the
  // first one when skipFirst, so that joined lines count each pixel once).
  template <typename Pen>
  void trace(int x0, int y0, int x1, int y1, Pen pen, bool skipFirst) {
    const int dx = std::abs(x1 - x0), sx = x0 < x1 ? 1 : -1;
    const int dy = -std::abs(y1 - y0), sy = y0 < y1 ? 1 : -1;
    int err = dx + dy;
    for (bool first = true;; first = false) {
      if (!(first && skipFirst)) pen(x0, y0);
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

// A 5x7 font for the plot's labels: each glyph is seven rows of five bits.
struct Glyph {
  char c;
  unsigned char rows[7];
};
const Glyph kFont[] = {
    {'0', {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}}, {'1', {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'2', {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}}, {'3', {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E}},
    {'4', {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}}, {'5', {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E}},
    {'6', {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}}, {'7', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}}, {'9', {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}},
    {'A', {0x0E, 0x11, 0x11, 0x11, 0x1F, 0x11, 0x11}}, {'B', {0x1E, 0x11, 0x11, 0x1E, 0x11, 0x11, 0x1E}},
    {'C', {0x0E, 0x11, 0x10, 0x10, 0x10, 0x11, 0x0E}}, {'D', {0x1C, 0x12, 0x11, 0x11, 0x11, 0x12, 0x1C}},
    {'E', {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x1F}}, {'F', {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x10}},
    {'G', {0x0E, 0x11, 0x10, 0x17, 0x11, 0x11, 0x0F}}, {'H', {0x11, 0x11, 0x11, 0x1F, 0x11, 0x11, 0x11}},
    {'I', {0x0E, 0x04, 0x04, 0x04, 0x04, 0x04, 0x0E}}, {'J', {0x07, 0x02, 0x02, 0x02, 0x02, 0x12, 0x0C}},
    {'K', {0x11, 0x12, 0x14, 0x18, 0x14, 0x12, 0x11}}, {'L', {0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x1F}},
    {'M', {0x11, 0x1B, 0x15, 0x15, 0x11, 0x11, 0x11}}, {'N', {0x11, 0x11, 0x19, 0x15, 0x13, 0x11, 0x11}},
    {'O', {0x0E, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E}}, {'P', {0x1E, 0x11, 0x11, 0x1E, 0x10, 0x10, 0x10}},
    {'Q', {0x0E, 0x11, 0x11, 0x11, 0x15, 0x12, 0x0D}}, {'R', {0x1E, 0x11, 0x11, 0x1E, 0x14, 0x12, 0x11}},
    {'S', {0x0F, 0x10, 0x10, 0x0E, 0x01, 0x01, 0x1E}}, {'T', {0x1F, 0x04, 0x04, 0x04, 0x04, 0x04, 0x04}},
    {'U', {0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E}}, {'V', {0x11, 0x11, 0x11, 0x11, 0x11, 0x0A, 0x04}},
    {'W', {0x11, 0x11, 0x11, 0x15, 0x15, 0x15, 0x0A}}, {'X', {0x11, 0x11, 0x0A, 0x04, 0x0A, 0x11, 0x11}},
    {'Y', {0x11, 0x11, 0x11, 0x0A, 0x04, 0x04, 0x04}}, {'Z', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x10, 0x1F}},
    {'-', {0x00, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00}}, {'(', {0x02, 0x04, 0x08, 0x08, 0x08, 0x04, 0x02}},
    {')', {0x08, 0x04, 0x02, 0x02, 0x02, 0x04, 0x08}}, {'=', {0x00, 0x00, 0x1F, 0x00, 0x1F, 0x00, 0x00}},
    {',', {0x00, 0x00, 0x00, 0x00, 0x0C, 0x04, 0x08}}, {'.', {0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x0C}},
    {':', {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x0C, 0x00}}, {'/', {0x00, 0x01, 0x02, 0x04, 0x08, 0x10, 0x00}},
};
constexpr int kScale = 2;               // each font pixel is 2x2
constexpr int kCharWidth = 6 * kScale;  // five columns and a gap
constexpr int kCharHeight = 7 * kScale;

int textWidth(const std::string& text) { return static_cast<int>(text.size()) * kCharWidth - kScale; }

// Writes text (upper case, digits and a few signs) with its top left at x, y.
void drawText(Canvas& canvas, int x, int y, const std::string& text, Rgb colour) {
  for (char c : text) {
    const char upper = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    for (const Glyph& glyph : kFont) {
      if (glyph.c != upper) continue;
      for (int row = 0; row < 7; ++row)
        for (int column = 0; column < 5; ++column)
          if ((glyph.rows[row] >> (4 - column) & 1) != 0)
            for (int dy = 0; dy < kScale; ++dy)
              for (int dx = 0; dx < kScale; ++dx)
                canvas.set(x + column * kScale + dx, y + row * kScale + dy, colour);
    }
    x += kCharWidth;
  }
}

// The bit depth a table's values need: 8, 10, 12, 14 or 16.
int bitDepthOf(const std::vector<int16_t>& red, const std::vector<int16_t>& green,
               const std::vector<int16_t>& blue, int count) {
  int high = 0;
  for (int i = 0; i < count; ++i)
    high = std::max({high, std::abs(red[i]), std::abs(green[i]), std::abs(blue[i])});
  for (int bits : {8, 10, 12, 14})
    if (high < (1 << bits)) return bits;
  return 16;
}

// Red, green and blue against the entry index, on axes that span the
// table's bit depth (so a 10-bit and a 12-bit table look different), with
// tick values, axis titles and a legend. A curve equal to one drawn before
// it is drawn dashed, each in its own part of the dash, so all of them show.
void plot(const std::string& path, const std::vector<int16_t>& red, const std::vector<int16_t>& green,
          const std::vector<int16_t>& blue, int count, int bits) {
  const int width = 1024, height = 640;
  const int left = 90, right = 24, top = 44, bottom = 64;
  Canvas canvas(width, height, {24, 24, 28});
  const int full = (1 << bits) - 1;
  int lo = 0;
  for (int i = 0; i < count; ++i)
    lo = std::min({lo, static_cast<int>(red[i]), static_cast<int>(green[i]), static_cast<int>(blue[i])});
  const int hi = full;
  const int plotW = width - left - right, plotH = height - top - bottom;
  const int lastIndex = std::max(count - 1, 1);
  const auto px = [&](int i) {
    return left + static_cast<int>(static_cast<long long>(i) * plotW / lastIndex);
  };
  const auto py = [&](int v) {
    return top + plotH - static_cast<int>(static_cast<long long>(v - lo) * plotH / (hi - lo));
  };
  const Rgb grid{60, 60, 66}, axis{150, 150, 160}, text{220, 220, 225};
  // Grid and ticks: quarters of the value range and of the entries.
  for (int k = 0; k <= 4; ++k) {
    const int value = lo + static_cast<int>(static_cast<long long>(hi - lo) * k / 4);
    const int y = py(value);
    canvas.line(left, y, left + plotW, y, grid);
    canvas.line(left - 6, y, left, y, axis);
    const std::string label = std::to_string(value);
    drawText(canvas, left - 10 - textWidth(label), y - kCharHeight / 2, label, text);
    const int index = static_cast<int>(static_cast<long long>(lastIndex) * k / 4);
    const int x = px(index);
    canvas.line(x, top, x, top + plotH, grid);
    canvas.line(x, top + plotH, x, top + plotH + 6, axis);
    const std::string entry = std::to_string(index);
    drawText(canvas, std::min(x - textWidth(entry) / 2, width - 4 - textWidth(entry)), top + plotH + 10,
             entry, text);
  }
  canvas.line(left, py(0), left + plotW, py(0), axis);
  canvas.line(left, top, left, top + plotH, axis);
  const std::string xTitle = "ENTRY INDEX (" + std::to_string(count) + " ENTRIES)";
  drawText(canvas, left + (plotW - textWidth(xTitle)) / 2, height - kCharHeight - 8, xTitle, text);
  const std::string yTitle = "VALUE, " + std::to_string(bits) + "-BIT (0-" + std::to_string(full) + ")";
  drawText(canvas, 8, 10, yTitle, text);

  struct Curve {
    const char* name;
    const std::vector<int16_t>* values;
    Rgb colour;
  };
  const Curve curves[] = {
      {"RED", &red, {235, 64, 52}}, {"GREEN", &green, {70, 200, 80}}, {"BLUE", &blue, {70, 120, 240}}};
  int legendX = width - right;
  for (int c = 2; c >= 0; --c) {
    std::string label = curves[c].name;
    for (int earlier = 0; earlier < c; ++earlier)
      if (std::equal(curves[c].values->begin(), curves[c].values->begin() + count,
                     curves[earlier].values->begin())) {
        label += " = " + std::string(curves[earlier].name) + ", DASHED";
        break;
      }
    legendX -= textWidth(label) + 36;
    canvas.line(legendX, 16, legendX + 20, 16, curves[c].colour);
    canvas.line(legendX, 17, legendX + 20, 17, curves[c].colour);
    drawText(canvas, legendX + 26, 10, label, text);
  }
  for (int c = 0; c < 3; ++c) {
    const std::vector<int16_t>& v = *curves[c].values;
    bool dashed = false;
    for (int earlier = 0; earlier < c; ++earlier)
      dashed = dashed || std::equal(v.begin(), v.begin() + count, curves[earlier].values->begin());
    // Of every 12 pixels along the line, green takes 0-3 and blue 4-7 when
    // dashed; the curve drawn first shows in 8-11.
    long step = 0;
    auto pen = [&](int x, int y) {
      const long phase = step++ % 12;
      if (!dashed || (phase >= 4 * (c - 1) && phase < 4 * c)) {
        canvas.set(x, y, curves[c].colour);
        canvas.set(x, y + 1, curves[c].colour);
      }
    };
    for (int i = 0; i < count; ++i) {
      if (i == 0)
        pen(px(0), py(v[0]));
      else
        canvas.trace(px(i - 1), py(v[i - 1]), px(i), py(v[i]), pen, i > 1);
    }
  }
  canvas.writePng(path);
}

// Where the parser's text says the error is, and what it is in one line.
struct ErrorPlace {
  long line = 0;    // 0 when the text names no line
  long column = 0;  // 1-based; 0 when the text names no column
  std::string message;
};

std::string collapsed(std::string text) {
  std::string out;
  for (char c : text) {
    if (c == ' ' && (out.empty() || out.back() == ' ')) continue;
    out += c;
  }
  while (!out.empty() && (out.back() == ' ' || out.back() == ':' || out.back() == '.')) out.pop_back();
  return out;
}

// The parser's text starts with the file's name followed by either
// "(line:L, col:C) : MESSAGE" or "L)  : error N : MESSAGE, at offset O" and a
// "near TOKEN" line; anything else is taken as a message without a place.
ErrorPlace placeOf(const std::string& file, const std::string& error) {
  ErrorPlace place;
  std::string text = error.substr(0, error.find('\n'));
  for (const std::string& name : {file, std::string(::basename(std::string(file).data()))})
    if (!name.empty() && text.compare(0, name.size(), name) == 0) {
      text.erase(0, name.size());
      break;
    }
  long line = 0, column = 0, offset = 0;
  int used = 0;
  if (std::sscanf(text.c_str(), "(line:%ld, col:%ld) :%n", &line, &column, &used) == 2 && used > 0) {
    place.line = line;
    place.column = column;
    place.message = collapsed(text.substr(static_cast<std::size_t>(used)));
    return place;
  }
  if (std::sscanf(text.c_str(), "%ld) : error %*d :%n", &line, &used) == 1 && used > 0) {
    std::string message = text.substr(static_cast<std::size_t>(used));
    const std::string::size_type at = message.rfind(", at offset ");
    if (at != std::string::npos && std::sscanf(message.c_str() + at, ", at offset %ld", &offset) == 1) {
      column = offset + 1;
      message.erase(at);
    }
    const std::string::size_type near = error.find("\n    near ");
    if (near != std::string::npos) {
      const std::string::size_type start = near + 10;
      message += " near '" + error.substr(start, error.find('\n', start) - start) + "'";
    }
    place.line = line;
    place.column = column;
    place.message = collapsed(message);
    return place;
  }
  place.message = collapsed(text);
  return place;
}

// FILE:LINE:COLUMN: message, as compilers write it.
std::string summaryOf(const std::string& file, const ErrorPlace& place) {
  std::string out = file + ":";
  if (place.line > 0) out += std::to_string(place.line) + ":";
  if (place.column > 0) out += std::to_string(place.column) + ":";
  return out + " " + place.message;
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

  const int bits = in.value("bits") ? static_cast<int>(in.integer("bits", 10, 8, 16))
                                    : bitDepthOf(red, green, blue, std::max(count, 0));
  if (const auto out = in.value("plot")) plot(*out, red, green, blue, count, bits);

  const Format format = formatOf(in);
  const bool entries = in.flag("dump") || format == Format::Csv || format == Format::Tsv;
  Rows rows({{"", "INDEX", Column::Right},
             {"red", "RED", Column::Right},
             {"green", "GREEN", Column::Right},
             {"blue", "BLUE", Column::Right}});
  for (int i = 0; entries && i < count; ++i)
    rows.add({integer(i), integer(red[i]), integer(green[i]), integer(blue[i])});
  if (format == Format::Json) {
    JsonObject doc;
    doc.set("file", text(file)).set("ok", flag(ok)).set("count", integer(count)).set("size", integer(size));
    doc.set("bitDepth", integer(bits));
    if (ok) {
      doc.set("error", none(""));
    } else {
      const ErrorPlace place = placeOf(file, error);
      doc.set("error", std::move(JsonObject()
                                     .set("line", integer(place.line))
                                     .set("column", integer(place.column))
                                     .set("message", text(place.message))
                                     .set("parserText", text(error))));
    }
    if (entries) doc.set("entries", rows, true);
    printJson(std::cout, doc.get());
    return ok ? 0 : 1;
  }
  if (entries && !rows.empty()) emit(in, rows);
  if (format == Format::Text) {
    say("entries: " + std::to_string(count));
    if (ok) say("ok");
  }
  if (ok) return 0;
  std::cout.flush();
  sayError(summaryOf(file, placeOf(file, error)));
  // The parser's own text, line by line.
  for (std::string::size_type start = 0; start < error.size();) {
    const std::string::size_type end = std::min(error.find('\n', start), error.size());
    sayError(error.substr(start, end - start));
    start = end + 1;
  }
  return 1;
}

const Command kLut{
    "lut",
    "read a colour look-up table file and show or plot its entries",
    "FILE",
    "Reads FILE as the recorder does: one entry per line, three decimal values\n"
    "(red, green, blue) separated by blanks; blank lines and comments (# or //\n"
    "to the end of the line) are allowed. Values are kept as 16-bit signed\n"
    "numbers, cut to their low 16 bits. Prints the number of entries stored,\n"
    "then \"ok\", or on standard error the last error found as FILE:LINE:COLUMN:\n"
    "message followed by the parser's own text; the exit status is 1 when the file has\n"
    "an error or cannot be read at all; 2 for a usage error.",
    {{"size", "N", "read at most N entries (default 4096); later lines are checked only"},
     {"dump", "", "list the entries"},
     {"plot", "PNG", "draw red, green and blue against the entry index into a PNG file"},
     {"bits", "N",
      "the table's bit depth for the plot's value axis (default: the least that holds its values)"},
     jsonOption(),
     {"csv", "", "print the entries as CSV (RFC 4180) with a header row"},
     {"tsv", "", "print the entries as tab-separated values with a header row"}},
    run,
    1,
    1,
};
VORTA_REGISTER_COMMAND(kLut);

}  // namespace
