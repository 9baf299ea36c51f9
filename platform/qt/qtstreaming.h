// SPDX-License-Identifier: MIT
// vorta platform: the QuickTime movie reader (video, audio and timecode track parameters).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// Base of the configuration records that CQTStreaming::GetConfiguration fills.
class CQTAtomConfiguration {
 public:
  CQTAtomConfiguration() = default;
  virtual ~CQTAtomConfiguration();
};

/// The first video track's parameters.
class CQTVideoConfiguration : public CQTAtomConfiguration {
 public:
  CQTVideoConfiguration();

  int32_t width;       // picture width in pixels
  int32_t height;      // picture height in lines
  uint32_t fieldMode;  // 0 progressive; 1 top first, 2 bottom first; other two-field orders as stored (9, 14)
  uint32_t dropFrame;  // non-zero when the timecode track counts drop frame
  uint32_t codecType;  // four-character code, first character in the most significant byte
  double frameRate;    // media timescale / sample duration
  uint32_t videoLength;  // number of video samples (frames)
};

/// The audio tracks' parameters.
class CQTAudioConfiguration : public CQTAtomConfiguration {
 public:
  CQTAudioConfiguration();

  uint16_t audioChannelsPerTrack;  // channels of the first audio track; 0 when there is none
};

/// Reads the parameters of one QuickTime movie file. OpenForReading reads
/// the top-level atom headers and the whole 'moov' atom (plus the 4-byte
/// first timecode sample), never the media data, and closes the file again;
/// the queries then answer from what was read.
class CQTStreaming {
 public:
  /// Largest 'moov' atom the reader accepts (memory per file is bounded by it).
  static constexpr uint64_t kMaxMovieAtomSize = 64u * 1024u * 1024u;

  CQTStreaming();
  virtual ~CQTStreaming();
  CQTStreaming(const CQTStreaming&) = delete;
  CQTStreaming& operator=(const CQTStreaming&) = delete;

  /// Reads the movie at path. False when the file cannot be read, is not a
  /// regular file (a FIFO, socket, device or directory is refused without
  /// blocking on it), is not a movie, or has no usable video track; the
  /// queries then report nothing.
  bool OpenForReading(const std::string& path);

  /// Why the last OpenForReading failed, when the system was the cause: the
  /// errno of the open, fstat or read that failed (EMFILE when no
  /// descriptor was left, for example), or ENOMEM when memory for the movie
  /// atom ran out. 0 after a success and when the file itself was refused
  /// (not a regular file, not a movie).
  int OpenError() const { return openError_; }

  /// Fills a CQTVideoConfiguration or a CQTAudioConfiguration from the open
  /// movie. False (and the record untouched) when nothing is open or the
  /// record is of another kind.
  bool GetConfiguration(CQTAtomConfiguration& config);

  /// The first sample of the timecode track: the starting time code as a
  /// count of frames. False when the movie has no readable timecode track.
  bool GetStartingTimecode(uint32_t& frameCount);

  /// Bytes read from files by this reader since it was constructed.
  uint64_t BytesRead() const { return bytesRead_; }

  /// Number of audio tracks in the movie, enabled or not.
  uint16_t audioTrackCount;

 private:
  void Reset();

  bool open_;
  CQTVideoConfiguration video_;
  uint16_t audioChannels_;
  bool hasTimecode_;
  uint32_t startFrame_;
  uint64_t bytesRead_;
  int openError_;
};
