// SPDX-License-Identifier: MIT
// fontgen: renders the burn-in font (CharMap) from a TrueType face with FreeType
// and writes it as a C++ source, classes/rp188_font_generated.cpp.
//
//   fontgen FONT.ttf OUT.cpp
//
// The burn-in draws every font row twice as tall as it is wide (the frame
// scales are 1x2, 2x4 and 3x6), so a glyph cell of 24 x 18 stored pixels
// shows as 24 x 36. The face is therefore rendered with half the vertical
// pixel size of the horizontal one. FreeType's anti-aliased coverage
// (0-255) is quantised to the four levels 0-3 that the burn-in knows, which
// gives every stroke an edge of levels 1 and 2.
#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_OUTLINE_H

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int kGlyphs = 15;
constexpr int kWidth = 24;
constexpr int kRows = 18;

// Code points in CharMap index order: the digits, colon, semicolon, dash
// (the minus sign, wider than a hyphen and centred on the digits), blank
// and asterisk (the second-field marker). 0 draws nothing.
constexpr unsigned long kCodePoints[kGlyphs] = {'0', '1', '2', '3', '4',    '5', '6', '7',
                                                '8', '9', ':', ';', 0x2212, 0,   '*'};
const char* const kNames[kGlyphs] = {"0", "1", "2",     "3",         "4",    "5",     "6",       "7",
                                     "8", "9", "colon", "semicolon", "dash", "blank", "asterisk"};

// Digit height in displayed pixels (stored rows x 2) and the horizontal
// pixel size relative to the vertical one (below 1 narrows the face).
constexpr double kDigitHeight = 28.0;
constexpr double kWidthFactor = 0.88;

using Glyph = std::vector<unsigned char>;  // kRows x kWidth levels

void fail(const char* what, int error) {
  std::fprintf(stderr, "fontgen: %s (FreeType error %d)\n", what, error);
  std::exit(1);
}

// Renders one code point into a cell: horizontally centred on its advance,
// its baseline at baseline (stored rows from the top, fractional).
Glyph render(FT_Face face, unsigned long codePoint, double baseline) {
  Glyph cell(kRows * kWidth, 0);
  if (codePoint == 0) return cell;
  const FT_UInt index = FT_Get_Char_Index(face, codePoint);
  if (index == 0) {
    std::fprintf(stderr, "fontgen: the face has no glyph for U+%04lX\n", codePoint);
    std::exit(1);
  }
  int error = FT_Load_Glyph(face, index, FT_LOAD_NO_HINTING | FT_LOAD_NO_BITMAP);
  if (error) fail("cannot load a glyph", error);
  const double advance = face->glyph->advance.x / 64.0;
  // Place the pen so that the advance box is centred and the baseline lands
  // where asked; the fractional parts are rendered exactly by translating
  // the outline before rasterising.
  const double penX = (kWidth - advance) / 2.0;
  FT_Outline_Translate(&face->glyph->outline, static_cast<FT_Pos>(std::lround(penX * 64.0)),
                       static_cast<FT_Pos>(std::lround(-std::fmod(baseline, 1.0) * 64.0)));
  const int baselineRow = static_cast<int>(std::floor(baseline));
  error = FT_Render_Glyph(face->glyph, FT_RENDER_MODE_NORMAL);
  if (error) fail("cannot render a glyph", error);
  const FT_Bitmap& bitmap = face->glyph->bitmap;
  const int left = face->glyph->bitmap_left;
  const int top = baselineRow - face->glyph->bitmap_top;
  for (unsigned int y = 0; y < bitmap.rows; ++y) {
    for (unsigned int x = 0; x < bitmap.width; ++x) {
      const int coverage = bitmap.buffer[y * static_cast<unsigned int>(bitmap.pitch) + x];
      if (coverage == 0) continue;
      const int row = top + static_cast<int>(y);
      const int column = left + static_cast<int>(x);
      if (row < 0 || row >= kRows || column < 0 || column >= kWidth) {
        std::fprintf(stderr, "fontgen: U+%04lX does not fit in the %dx%d cell\n", codePoint, kWidth, kRows);
        std::exit(1);
      }
      // Round to the nearest of the four levels.
      cell[static_cast<std::size_t>(row * kWidth + column)] =
          static_cast<unsigned char>((coverage * 3 + 127) / 255);
    }
  }
  return cell;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: fontgen FONT.ttf OUT.cpp\n");
    return 2;
  }
  FT_Library library;
  int error = FT_Init_FreeType(&library);
  if (error) fail("cannot start FreeType", error);
  FT_Face face;
  error = FT_New_Face(library, argv[1], 0, &face);
  if (error) fail("cannot open the font", error);

  // The height of the digit 8 in font units decides the size.
  error = FT_Load_Char(face, '8', FT_LOAD_NO_SCALE);
  if (error) fail("cannot load the digit 8", error);
  FT_BBox box;
  FT_Outline_Get_CBox(&face->glyph->outline, &box);
  const double digitUnits = static_cast<double>(box.yMax - box.yMin);
  const double yPixelsPerEm = kDigitHeight / 2.0 * face->units_per_EM / digitUnits;
  const double xPixelsPerEm = yPixelsPerEm * 2.0 * kWidthFactor;
  error = FT_Set_Char_Size(face, static_cast<FT_F26Dot6>(std::lround(xPixelsPerEm * 64.0)),
                           static_cast<FT_F26Dot6>(std::lround(yPixelsPerEm * 64.0)), 72, 72);
  if (error) fail("cannot size the face", error);
  // Digits centred vertically (their baseline half the free space above the
  // bottom of the cell), raised where needed so the semicolon's tail fits.
  const double digitRows = kDigitHeight / 2.0;
  error = FT_Load_Char(face, ';', FT_LOAD_NO_SCALE);
  if (error) fail("cannot load the semicolon", error);
  FT_Outline_Get_CBox(&face->glyph->outline, &box);
  const double tailRows = -static_cast<double>(box.yMin) * yPixelsPerEm / face->units_per_EM;
  const double baseline = std::min(kRows - (kRows - digitRows) / 2.0, kRows - tailRows - 0.05);

  std::vector<Glyph> glyphs;
  for (int g = 0; g < kGlyphs; ++g) glyphs.push_back(render(face, kCodePoints[g], baseline));

  FILE* out = std::fopen(argv[2], "w");
  if (out == nullptr) {
    std::perror(argv[2]);
    return 1;
  }
  std::fprintf(out,
               "// vorta: the burn-in font, 15 glyphs of 18 rows of 24 pixels, levels 0-3.\n"
               "// Written by tools/fontgen from %s %s (%s); do not edit by hand.\n"
               "// Each row shows its levels as \" .+#\" in the comment after it.\n"
               "#include \"rp188.h\"\n\n"
               "const unsigned char CharMap[15 * 18 * 24] = {\n",
               face->family_name, face->style_name,
               std::strrchr(argv[1], '/') ? std::strrchr(argv[1], '/') + 1 : argv[1]);
  for (int g = 0; g < kGlyphs; ++g) {
    std::fprintf(out, "    // %d: %s\n", g, kNames[g]);
    for (int row = 0; row < kRows; ++row) {
      std::string art;
      std::fprintf(out, "    ");
      for (int x = 0; x < kWidth; ++x) {
        const unsigned char level =
            glyphs[static_cast<std::size_t>(g)][static_cast<std::size_t>(row * kWidth + x)];
        std::fprintf(out, "%d,", level);
        art += " .+#"[level];
      }
      std::fprintf(out, "  // |%s|\n", art.c_str());
    }
  }
  std::fprintf(out, "};\n");
  if (std::fclose(out) != 0) {
    std::perror(argv[2]);
    return 1;
  }
  FT_Done_Face(face);
  FT_Done_FreeType(library);
  return 0;
}
