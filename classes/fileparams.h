// SPDX-License-Identifier: MIT
// vorta: the parameter record of one movie file, and encode-type classification.
#pragma once

#include <cstdint>
#include <string>

#include "media_attributes.h"

/// Encode types: the unsigned 32-bit code naming the codec variant of a clip.
enum EncodeType : uint32_t {
  ENCODE_PRORES_422 = 0,        // 'apcn'
  ENCODE_PRORES_422_HQ = 1,     // 'apch'
  ENCODE_PRORES_422_LT = 2,     // 'apcs'
  ENCODE_PRORES_422_PROXY = 3,  // 'apco'
  ENCODE_DNXHD_FIRST = 4,       // 4, 5 and 6 are the three DNxHD variants
  ENCODE_DNXHD_LAST = 6,
  ENCODE_PRORES_4444 = 7,        // 'ap4h'; belongs to neither family
  ENCODE_UNCOMPRESSED_2VUY = 8,  // '2vuy'
  ENCODE_UNCOMPRESSED_V210 = 9,  // 'v210'
};

/// One movie file's technical parameters and its attribute text. Scanners
/// derive from it; the base record itself is never valid.
class CFileParams {
 public:
  explicit CFileParams(const char* path);
  virtual ~CFileParams();

  /// The scanner for a media file, chosen by its name: a scanned
  /// CZEVQTFileParams when the path contains ".mov" or ".MOV" anywhere,
  /// otherwise null. The caller deletes the result.
  static CFileParams* create(const char* path);

  /// Whether a scanner read the file successfully. Always false here.
  virtual bool FileIsValid();

  /// True when the two frame rates differ by at most 0.005 (inclusive);
  /// false when either is NaN.
  bool IsWithinEpsilon(double a, double b);

  /// Appends the pair key, newline, value, newline to the attribute block,
  /// unless the key text already occurs anywhere in the block (also inside
  /// an earlier value) or the text would grow past 2399 characters.
  /// Returns whether the pair was appended.
  bool AddAttribute(const std::string& key, const std::string& value);

  std::string fileName;
  char fourCC[4];  // codec code, first character first, not terminated
  int32_t width;
  int32_t height;
  uint32_t videoLength;
  double frameRate;
  int32_t scanMode;  // 0 progressive; 1 and 2 the two interlaced kinds
  zev::media::MediaAttributes attributes;
};

/// Codec-family tests on encode types. ProRes 422 is 0-3, DNxHD 4-6; ProRes
/// 4444 (7) and the uncompressed types (8, 9) belong to neither family.
class CIsEncodeType {
 public:
  bool isEncodeTypeProRes422(uint32_t type);
  bool isEncodeTypeDNxHD(uint32_t type);
  /// True exactly when one type is ProRes 422 and the other DNxHD.
  bool areEncodeTypesDifferentCodecs(uint32_t a, uint32_t b);
  /// Sets flag to "PRORES_422" or "DNX_HD" and returns true for a type of
  /// either family; otherwise leaves flag alone and returns false.
  bool getEncodeTypeFlag(uint32_t type, std::string& flag);
};
