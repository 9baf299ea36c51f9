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
///
/// fieldMode comes from the 'fiel' extension of the sample description:
///   0  progressive: no 'fiel', or one field;
///   1  interlaced, top field first in time: field details 1 and 9;
///   2  interlaced, bottom field first in time: field details 6 and 14;
///   3  interlaced, order not stated: two fields with any other detail.
/// Details 9 and 14 are what writers put on pictures stored as whole
/// interleaved frames (GStreamer, libquicktime, ffmpeg's -field_order tb|bt):
/// 9 says the field holding the first line (top) is the earlier one, 14 the
/// other. A two-field picture is never reported as progressive.
///
/// frameRate is frameRateNumerator / frameRateDenominator, from the video
/// track's sample durations (the moov's time-to-sample table and, for a
/// fragmented movie, every fragment's run):
///   - all durations equal: media timescale / duration (12800/512 is 25/1);
///   - durations that differ only by the rounding of the track's clock (by at
///     most one unit, or one millisecond when the clock is finer, as when a
///     writer stores 29.97 at timescale 1000 as 33 and 34): the standard rate
///     24000/1001, 24, 25, 30000/1001, 30, 48, 50, 60000/1001 or 60 whose
///     frame period puts every sample's start time within half a unit of
///     where the track has it, the one nearest to timescale x samples /
///     total duration when a short clip fits several (16 and 17 at 1000
///     give 60000/1001, not 58.82); when none fits, timescale x samples /
///     total duration itself;
///   - any other mix: media timescale / the duration of the longest run of
///     equal durations.
class CQTVideoConfiguration : public CQTAtomConfiguration {
 public:
  CQTVideoConfiguration();

  int32_t width;                  // picture width in pixels
  int32_t height;                 // picture height in lines
  uint32_t fieldMode;             // 0 progressive; 1 top first, 2 bottom first, 3 interlaced of unknown order
  uint32_t dropFrame;             // non-zero when the timecode track counts drop frame
  uint32_t codecType;             // four-character code, first character in the most significant byte
  double frameRate;               // frames per second, frameRateNumerator / frameRateDenominator
  uint32_t videoLength;           // number of video samples (frames), the moov's and the fragments'
  uint32_t frameRateNumerator;    // the rate as a reduced fraction: 30000 and 1001 for 29.97
  uint32_t frameRateDenominator;  //
};

/// The audio tracks' parameters.
class CQTAudioConfiguration : public CQTAtomConfiguration {
 public:
  CQTAudioConfiguration();

  uint16_t audioChannelsPerTrack;  // channels of the first audio track; 0 when there is none
};

/// The reads CQTStreaming::OpenForReading makes of a movie file, handed to
/// a caller that makes them itself: to read ahead for many files at once,
/// for example, so that OpenForReading later finds every byte it needs in
/// the page cache. The reads come one at a time, in OpenForReading's order,
/// each chosen from what the ones before it gave; for a file of fileSize
/// bytes they are exactly the reads OpenForReading would make of it, and
/// they end where OpenForReading would have the movie or refuse it.
///
/// Memory: the sequence holds the 'moov' atom (kMaxMovieAtomSize at most),
/// one 'moof' atom and a few hundred bytes; a read's buffer is allocated
/// only when ReadBuffer is called, so a caller may look at a read's length
/// first and give up on the file.
class CQTReadSequence {
 public:
  explicit CQTReadSequence(uint64_t fileSize);
  ~CQTReadSequence();
  CQTReadSequence(const CQTReadSequence&) = delete;
  CQTReadSequence& operator=(const CQTReadSequence&) = delete;

  /// The next read: length bytes (at least one) at offset. False when no
  /// read is wanted any more (Finished) or there was no memory to start.
  bool NextRead(uint64_t& offset, std::size_t& length) const;
  /// Where the next read's bytes go: length bytes owned by the sequence,
  /// valid until ReadDone. Null when there is no memory for them; the
  /// sequence is then finished.
  unsigned char* ReadBuffer();
  /// The next read is done: whole when all its bytes arrived; else error is
  /// the errno of the read that failed, 0 when the file ended first.
  void ReadDone(bool whole, int error);
  /// True when no read is wanted any more: the movie has been read or refused.
  bool Finished() const;

 private:
  friend class CQTStreaming;
  struct Impl;
  Impl* impl_;
};

/// Reads the parameters of one QuickTime movie file, then closes it again;
/// the queries answer from what was read. OpenForReading reads, in this
/// order, only these byte ranges, never the media data ('mdat'):
///   1. the header of each top-level atom from the start of the file up to
///      the 'moov' (each header read takes up to 512 bytes from where the
///      header starts, so neighbouring small atoms come in with it);
///   2. the whole 'moov' atom;
///   3. for a fragmented movie (a 'moov' holding 'mvex'): the header of each
///      top-level atom after the 'moov', and each 'moof' atom whole, up to
///      kMaxFragments of them;
///   4. the 4 bytes of the timecode track's first sample, wherever its
///      table or its first fragment puts it.
/// No byte of the file is read twice except where two such ranges meet.
///
/// A fragmented movie's samples are those of its 'moov' plus every run
/// ('trun') of its fragments, with 'tfhd' and 'trex' defaults. The fragment
/// walk ends at the end of the file, at the first top-level atom that is cut
/// or malformed, or after kMaxFragments 'moof' atoms; a fragment that is
/// malformed, or whose samples run past the end of the file (a recording cut
/// by a power loss), is not counted and ends the walk.
class CQTStreaming {
 public:
  /// Largest 'moov' atom the reader accepts (memory per file is bounded by it).
  static constexpr uint64_t kMaxMovieAtomSize = 64u * 1024u * 1024u;
  /// Largest 'moof' atom read (about 65,000 samples with every field given);
  /// a larger one ends the fragment walk.
  static constexpr uint64_t kMaxFragmentAtomSize = 1024u * 1024u;
  /// Most 'moof' atoms read from one movie: over 40 minutes of one-frame
  /// fragments at 25 fps. The samples of fragments past it are not counted.
  static constexpr unsigned kMaxFragments = 65536;

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
