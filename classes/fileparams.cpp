// SPDX-License-Identifier: MIT
// vorta: the file-parameter record, the attribute block reader and writer, encode types.
#include "fileparams.h"

#include <cstring>
#include <string_view>

#include "internal/attribute_text.h"

CFileParams::CFileParams(const char* path)
    : fileName(path ? path : ""),
      fourCC{0, 0, 0, 0},
      width(0),
      height(0),
      videoLength(0),
      frameRate(0.0),
      scanMode(0) {
  std::memset(attributes.block, 0, sizeof(attributes.block));
}

CFileParams::~CFileParams() = default;

bool CFileParams::FileIsValid() { return false; }

bool CFileParams::IsWithinEpsilon(double a, double b) {
  const double epsilon = 0.005;
  if (a >= b) return (a - b) <= epsilon;
  return (b - a) <= epsilon;  // also reached, and false, when either is NaN
}

bool CFileParams::AddAttribute(const std::string& key, const std::string& value) {
  const std::size_t used = strnlen(attributes.block, zev::media::MediaAttributes::kSize);
  const std::string current(attributes.block, used);
  if (current.find(key) != std::string::npos) return false;

  const std::string piece = key + '\n' + value + '\n';
  if (used + piece.size() > zev::media::MediaAttributes::kMaxText) return false;

  std::memcpy(attributes.block + used, piece.data(), piece.size());
  attributes.block[used + piece.size()] = '\0';
  return true;
}

namespace zev {
namespace media {

std::map<std::string, std::string> MediaAttributes::getAttributesMap() {
  std::map<std::string, std::string> result;
  detail::forEachAttribute(block, kSize, [&result](std::string_view key, std::string_view value) {
    result[std::string(key)] = std::string(value);  // a repeated key keeps its last value
  });
  return result;
}

bool MediaAttributes::getAttribute(const std::string& key, std::string& value) const {
  bool found = false;
  std::string_view last;
  detail::forEachAttribute(block, kSize, [&](std::string_view k, std::string_view v) {
    if (k != key) return;
    found = true;
    last = v;  // a repeated key keeps its last value
  });
  if (found) value.assign(last.data(), last.size());
  return found;
}

}  // namespace media
}  // namespace zev

bool CIsEncodeType::isEncodeTypeProRes422(uint32_t type) { return type <= ENCODE_PRORES_422_PROXY; }

bool CIsEncodeType::isEncodeTypeDNxHD(uint32_t type) {
  return type - ENCODE_DNXHD_FIRST <= ENCODE_DNXHD_LAST - ENCODE_DNXHD_FIRST;
}

bool CIsEncodeType::areEncodeTypesDifferentCodecs(uint32_t a, uint32_t b) {
  const bool proresA = isEncodeTypeProRes422(a);
  const bool proresB = isEncodeTypeProRes422(b);
  const bool dnxA = isEncodeTypeDNxHD(a);
  const bool dnxB = isEncodeTypeDNxHD(b);
  return (proresA && dnxB) || (proresB && dnxA);
}

bool CIsEncodeType::getEncodeTypeFlag(uint32_t type, std::string& flag) {
  if (isEncodeTypeProRes422(type)) {
    flag = "PRORES_422";
    return true;
  }
  if (isEncodeTypeDNxHD(type)) {
    flag = "DNX_HD";
    return true;
  }
  return false;
}
