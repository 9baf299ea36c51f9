// SPDX-License-Identifier: MIT
// vorta: CRP188, one SMPTE RP188 time code with its text, register words and burn-in.
#pragma once

#include <cstdint>
#include <string>

/// Time code formats. 0 passed to any member that takes a format means
/// "the object's stored format".
enum TimecodeFormat : uint32_t {
  TCFormatUnknown = 0,
  TCFormat24fps = 1,
  TCFormat25fps = 2,
  TCFormat30fps = 3,
  TCFormat30fpsDF = 4,
  TCFormat50fps = 5,
  TCFormat60fps = 6,
  TCFormat60fpsDF = 7,
};

/// The device's video frame rates.
enum VexaFrameRate : uint32_t {
  RateUnknown = 0,
  Rate60 = 1,
  Rate5994 = 2,
  Rate30 = 3,
  Rate2997 = 4,
  Rate25 = 5,
  Rate24 = 6,
  Rate2398 = 7,
  Rate50 = 8,
  RateDevice9 = 9,  // 9 to 12: further device rates, without a Varicam code
  RateDevice10 = 10,
  RateDevice11 = 11,
  RateDevice12 = 12,
  Rate15 = 13,  // 13 and 14: the two 15-class rates (Varicam code 15)
  Rate1498 = 14,
};

/// Frame-buffer pixel formats that burn-in can draw into (3, 4, 5 and
/// anything above 7 are not supported).
enum VexaFrameBufferFormat : uint32_t {
  FBF10BitYCbCr = 0,  // 4:2:2 in V210 packing: 16 bytes per 6 pixels, little-endian words
  FBF8BitYCbCr = 1,   // two bytes per pixel: chroma, luma
  FBFARGB = 2,        // four bytes: 0, then the level three times
  FBFRGBA = 6,        // as FBFARGB
  FBF10BitRGB = 7,    // one big-endian 32-bit word per pixel, 10 bits per component
};

/// What BurnTC draws.
enum TimecodeBurnMode : uint32_t {
  BurnTimecode = 0,
  BurnUserBits = 1,
  BurnCounter = 2,
  BurnDashes = 3,
};

/// A frame size in pixels.
struct SIZE {
  int32_t cx;  // width
  int32_t cy;  // height
};

/// The three RP188 register words as the device carries them.
struct RP188_STRUCT {
  uint32_t dbb;   // source and status word: bit 17 input flag, bits 24-31 source
  uint32_t low;   // time code bits 0-31 (SMPTE 12M)
  uint32_t high;  // time code bits 32-63
};

/// The burn-in font: 15 glyphs of 18 rows of 24 pixels, one level 0-3 per
/// byte, glyph-major then row-major. Glyphs 0-9 are the digits, then colon,
/// semicolon, dash, blank and asterisk.
extern const unsigned char CharMap[15 * 18 * 24];

/// Geometry chosen by InitBurnIn, for callers that place other graphics
/// around the burnt-in time code.
struct BurnInGeometry {
  int32_t format;           // VexaFrameBufferFormat
  int32_t height;           // frame height in lines
  int32_t width;            // frame width in pixels
  int32_t rowBytes;         // bytes of one glyph row
  int32_t glyphHeight;      // lines of one glyph
  int32_t horizontalStart;  // byte offset of the first cell in its line
  int32_t verticalStart;    // line of the first glyph row
};

/// One SMPTE RP188 time code: hours, minutes, seconds, frames in a format,
/// kept in step with its text HH:MM:SS:FF (";" before the frames in drop
/// frame) and its three register words.
class CRP188 {
 public:
  CRP188();
  CRP188(unsigned int frameCount, TimecodeFormat format);
  CRP188(unsigned int frames, unsigned int seconds, unsigned int minutes, unsigned int hours,
         TimecodeFormat format);
  CRP188(std::string& text, TimecodeFormat format);
  CRP188(const RP188_STRUCT& regs, TimecodeFormat format);
  CRP188(const CRP188& other);
  CRP188& operator=(const CRP188& other);
  virtual ~CRP188();

  // Format queries; a format of 0 means the stored format.
  bool FormatIsDropFrame(TimecodeFormat format = TCFormatUnknown) const;
  bool FormatIs60_50fps(TimecodeFormat format = TCFormatUnknown) const;
  bool FormatIsPAL(TimecodeFormat format = TCFormatUnknown) const;
  unsigned int FramesPerSecond(TimecodeFormat format = TCFormatUnknown) const;
  /// Frames in a day. The drop count is taken from the stored format even
  /// when another format is passed (kept as the device does it).
  unsigned int MaxFramesPerDay(TimecodeFormat format = TCFormatUnknown) const;
  VexaFrameRate DefaultFrameRateForTimecodeFormat(TimecodeFormat format = TCFormatUnknown) const;

  // Frame arithmetic.
  /// Frame count since midnight to components (the count wraps at a day).
  void ConvertFrameCount(unsigned int frameCount, TimecodeFormat format, unsigned int& hours,
                         unsigned int& minutes, unsigned int& seconds, unsigned int& frames) const;
  /// Components to a frame count since midnight.
  void ConvertTimecode(unsigned int& frameCount, TimecodeFormat format, unsigned int hours,
                       unsigned int minutes, unsigned int seconds, unsigned int frames) const;
  /// The stored value as a frame count; returns whether the value is valid.
  bool GetFrameCount(unsigned int& frameCount) const;
  unsigned int AddFrames(unsigned int n);
  unsigned int SubtractFrames(unsigned int n);
  /// False unless other is valid; then true when the four components are
  /// equal. Neither format nor this object's own validity is compared.
  bool operator==(const CRP188& other) const;

  // Setters of the whole value; each sets the value valid and returns true.
  bool SetRP188(unsigned int frameCount, TimecodeFormat format);
  bool SetRP188(unsigned int frames, unsigned int seconds, unsigned int minutes, unsigned int hours,
                TimecodeFormat format);
  bool SetRP188(unsigned int frames, unsigned int seconds, unsigned int minutes, unsigned int hours,
                VexaFrameRate rate, bool dropFrame, bool doubleRate);
  bool SetRP188(const RP188_STRUCT& regs, TimecodeFormat format);
  bool SetRP188(std::string& text, TimecodeFormat format);

  // Flag setters: each stores its flag and sets or clears its register bit.
  void SetDropFrame(bool dropFrame);
  void SetColorFrame(bool colorFrame);
  void SetVaricamFrameActive(bool active, unsigned int frame);
  void SetVaricamRate(VexaFrameRate rate);
  void SetFieldID(unsigned int id);
  void SetBFGBits(bool bfg0, bool bfg1, bool bfg2);
  void SetSource(unsigned char source);

  // Readers.
  unsigned char GetSource() const;
  unsigned int GetFieldID() const;
  bool GetRP188Reg(RP188_STRUCT& regs) const;
  /// Nibble n (1-8 of the low word, 9-16 of the high word, from bit 0); 0 otherwise.
  unsigned int UDW(unsigned int n) const;
  /// User-bit binary group n (1-8), refreshed from the registers; 0 otherwise.
  unsigned int BinaryGroup(unsigned int n);
  /// Binary groups 4 and 3 read as a two-digit rate.
  unsigned int VaricamFrameRate();
  TimecodeFormat GetFormat() const;
  bool IsValid() const;
  bool IsDropFrame() const;
  bool IsColorFrame() const;
  bool GetInputFlag() const;
  bool GetVaricamFrameActive(unsigned int frame) const;
  unsigned int GetVaricamRate() const;
  /// The binary-group flags as last decoded from register words.
  void GetBFGBits(bool& bfg0, bool& bfg1, bool& bfg2) const;

  // Register and text conversions.
  /// Rebuilds the three register words from the time code text.
  void ConvertTcStrToReg();
  /// Parses the time code text into the four components.
  void ConvertTcStrToVal();
  /// Refreshes the binary groups and the user-bits text from the registers.
  void RP188ToUserBits();

  // Text.
  bool GetRP188Str(std::string& out) const;
  const char* GetRP188CString() const;
  bool GetRP188Frms(unsigned int& frames) const;
  bool GetRP188Secs(unsigned int& seconds) const;
  bool GetRP188Mins(unsigned int& minutes) const;
  bool GetRP188Hrs(unsigned int& hours) const;
  const char* GetRP188UserBitsCString();
  bool GetRP188UserBitsStr(std::string& out);
  /// Glyph codes for burn-in: one character per glyph, index = char - '0'.
  std::string GetTimeCodeString(bool withFieldMarker);

  // Burn-in.
  /// Renders the font for frames of this format and size and places the
  /// eleven cells of time code: centred across, their top row at
  /// verticalPercent of the height (80 % when 0). Refused (false) are
  /// formats not listed in VexaFrameBufferFormat, sizes of 0 or less or
  /// above 8192 on a side, and any size where one of the eleven cells would
  /// lie outside the frame: a line narrower than eleven cells, or a top row
  /// (negative, or too low) that leaves less than a glyph's height below it.
  /// A refusal also drops the previous set-up: BurnTC then returns false and
  /// draws nothing until a set-up succeeds. A size where the eleven cells
  /// fit but the field marker's twelfth would not is accepted; see BurnTC.
  /// When the glyph buffer cannot be allocated the call still returns true
  /// and builds nothing; BurnTC then draws nothing and returns false.
  bool InitBurnIn(VexaFrameBufferFormat format, SIZE size, int verticalPercent);
  /// Draws eleven cells (time code, user bits, counter or dashes) into a
  /// frame of the size set up, pitch bytes per line (at least one line of
  /// that size). With fieldMarker in a 60/50 format a twelfth cell marks the
  /// field after the (halved) frame number; where the frame has no room for
  /// it to the right of the eleven cells the marker is left out and the
  /// rest is drawn as usual. Nothing is ever drawn outside the frame.
  /// Returns false, drawing nothing, when burn-in is not set up.
  bool BurnTC(char* frame, int pitch, TimecodeBurnMode mode, int value, bool fieldMarker);
  /// Not supported: always false, draws nothing.
  bool BurnTC(VexaFrameBufferFormat format, SIZE size, unsigned int* frame);
  /// The geometry InitBurnIn chose; false before InitBurnIn.
  bool GetBurnInGeometry(BurnInGeometry& geometry) const;
  static void CopyDigit(char* glyph, int rowBytes, int lines, char* dest, int pitch);
  static void writeV210Pixel(char** cursor, int index, int chroma, int luma);

 private:
  void Init();
  void FreeGlyphs();
  /// Frees the glyphs and forgets the geometry (burnInReady false).
  void ClearBurnIn();
  void CopyFrom(const CRP188& other);

  TimecodeFormat format_;
  bool valid_;
  bool inputFlag_;
  bool varicamActive0_;
  bool varicamActive1_;
  unsigned int fieldID_;
  bool dropFrame_;
  bool colorFrame_;
  unsigned int varicamRate_;
  bool bfg0_, bfg1_, bfg2_;
  std::string timecodeString_;
  std::string userBitsString_;
  unsigned int frames_, seconds_, minutes_, hours_;
  unsigned int binaryGroup_[8];
  unsigned int regDBB_, regLow_, regHigh_;
  bool burnInReady_;
  unsigned char* glyphs_;  // system allocator; 15 glyphs of rowBytes x glyphHeight
  int32_t burnFormat_;
  int32_t burnHeight_;
  int32_t burnWidth_;
  int32_t burnRowBytes_;
  int32_t burnGlyphHeight_;
  int32_t burnHorizontalStart_;
  int32_t burnVerticalStart_;
};
