// vorta lut: reads a colour look-up table file, shows its entries and draws its curves as a PNG.

#include <libgen.h>
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

  if (const auto out = in.value("plot")) plot(*out, red, green, blue, count);

  if (in.flag("json")) {
    Json doc(cJSON_CreateObject());
    cJSON_AddStringToObject(doc.get(), "file", file.c_str());
    cJSON_AddBoolToObject(doc.get(), "ok", ok);
    cJSON_AddNumberToObject(doc.get(), "count", count);
    cJSON_AddNumberToObject(doc.get(), "size", size);
    if (ok) {
      cJSON_AddNullToObject(doc.get(), "error");
    } else {
      const ErrorPlace place = placeOf(file, error);
      cJSON* e = cJSON_AddObjectToObject(doc.get(), "error");
      cJSON_AddNumberToObject(e, "line", static_cast<double>(place.line));
      cJSON_AddNumberToObject(e, "column", static_cast<double>(place.column));
      cJSON_AddStringToObject(e, "message", place.message.c_str());
      cJSON_AddStringToObject(e, "parserText", error.c_str());
    }
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
    return 0;
  }
  std::cout.flush();
  std::cerr << summaryOf(file, placeOf(file, error)) << "\n" << error;
  if (error.empty() || error.back() != '\n') std::cerr << "\n";
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
     {"json", "", "print the result as JSON (the entries too with --dump)"}},
    run,
    1,
    1,
};
VORTA_REGISTER_COMMAND(kLut);

}  // namespace
