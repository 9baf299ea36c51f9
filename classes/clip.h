// SPDX-License-Identifier: MIT
// vorta: the fixed-size clip record shared between the recorder's processes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "media_attributes.h"

/// The catalogue entry for one media file. The record is copied byte for
/// byte into and out of the shared clip cache, so its layout is a wire
/// format: 6536 bytes, every offset fixed (checked below). Integers are in
/// the machine's native byte order. Text fields are NUL-terminated when
/// they are shorter than their field.
struct Clip {
  static constexpr std::size_t kNameSize = 4096;
  /// Bytes of a record that the clip cache stores (everything up to and
  /// including `attributes`); the 3 trailing padding bytes are not stored.
  static constexpr std::size_t kStoredSize = 6533;

  char name[kNameSize];  // base name of the file, e.g. "A001_C003.mov"
  int32_t modTime;       // modification time, seconds since the epoch
  char fourCC[5];        // codec code, first character first, then NUL
  int32_t width;         // pixels
  int32_t height;        // lines
  uint32_t videoLength;  // video sample count; non-zero for a scanned clip
  double frameRate;      // frames per second
  int32_t scanMode;      // 0 progressive; 1 and 2 interlaced
  bool playable;         // playable in the recorder's current codec mode
  zev::media::MediaAttributes attributes;

  /// A fresh record: every byte zero (name, fourCC, playable and the
  /// attribute block are what must be zero; the rest is zeroed too so that
  /// no record ever carries stale bytes).
  Clip();

  /// The take number a clip name carries: the digits after the last "TK",
  /// or else after the last "_", up to the first "." of the whole name
  /// (to the end when that dot is missing or lies before the digits), read
  /// as strtol reads them and clamped to the 32-bit range. 0 for an empty
  /// name, -1 for a name with neither marker.
  static int32_t extractTake(std::string name);

  /// Ordering for a stable sort by descending take.
  static bool compare_clips_by_take(const Clip& a, const Clip& b);

  /// Ordering for a stable sort by ascending modification time (the order
  /// in which the clip cache is stored).
  static bool compare_clips_by_time(const Clip& a, const Clip& b);
};

/// The empty clip, for programs that need one. Nothing in the library reads it.
extern Clip NULL_CLIP;

/// Remove-if predicate: true when the clip's playable byte is 0.
bool unplayable(const Clip& c);

// The record is shared between processes and between builds for different
// machines: pin its layout.
static_assert(std::is_standard_layout<Clip>::value, "Clip must be standard layout");
static_assert(std::is_trivially_copyable<Clip>::value, "Clip is copied byte for byte");
static_assert(std::is_trivially_destructible<Clip>::value, "Clip has a trivial destructor");
static_assert(sizeof(bool) == 1, "playable is one byte");
static_assert(sizeof(double) == 8, "frameRate is an IEEE-754 double");
static_assert(sizeof(Clip) == 6536, "Clip is 6536 bytes");
static_assert(offsetof(Clip, name) == 0, "Clip::name offset");
static_assert(offsetof(Clip, modTime) == 4096, "Clip::modTime offset");
static_assert(offsetof(Clip, fourCC) == 4100, "Clip::fourCC offset");
static_assert(offsetof(Clip, width) == 4108, "Clip::width offset");
static_assert(offsetof(Clip, height) == 4112, "Clip::height offset");
static_assert(offsetof(Clip, videoLength) == 4116, "Clip::videoLength offset");
static_assert(offsetof(Clip, frameRate) == 4120, "Clip::frameRate offset");
static_assert(offsetof(Clip, scanMode) == 4128, "Clip::scanMode offset");
static_assert(offsetof(Clip, playable) == 4132, "Clip::playable offset");
static_assert(offsetof(Clip, attributes) == 4133, "Clip::attributes offset");
static_assert(offsetof(Clip, attributes) + sizeof(zev::media::MediaAttributes) == Clip::kStoredSize,
              "the stored part of a record ends with the attribute block");
