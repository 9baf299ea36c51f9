// SPDX-License-Identifier: MIT
// vorta: the QuickTime file scanner, CZEVQTFileParams, and the factory that picks it.
#pragma once

#include "fileparams.h"

/// The parameters of one QuickTime movie file, read at construction with
/// the platform's movie reader.
class CZEVQTFileParams : public CFileParams {
 public:
  /// Stores the path and scans the file; FileIsValid() tells the outcome.
  explicit CZEVQTFileParams(const char* path);
  ~CZEVQTFileParams() override;

  /// Whether the scan succeeded.
  bool FileIsValid() override;

  /// Reads the movie's video, audio and timecode parameters into the
  /// record's fields and the four attributes. False when the file cannot be
  /// read or its codec is not one the recorder plays.
  bool scanFile(const char* path);

  bool valid;
  /// When the scan failed because of the system rather than the file: the
  /// reader's error (EMFILE, ENFILE, ENOMEM, EIO...); 0 otherwise.
  int readError;
};
