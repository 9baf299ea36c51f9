// SPDX-License-Identifier: MIT
// vorta: ClipFinder, the front end through which the recorder's processes see the medium.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <set>
#include <string>

#include "clip.h"
#include "media_cache.h"
#include "paramstore.h"

/// Lists the clips and playlists of the recording medium, names the next
/// recording and changes playlist files. Every setting comes from the
/// recorder's parameters; the catalogue itself lives in the shared caches.
/// Each process holds its own ClipFinder; the caches are shared.
class ClipFinder {
 public:
  /// params is not owned and must outlive the ClipFinder. The caches are
  /// opened (or created) with the default names and sizes.
  explicit ClipFinder(ParamStore* params);
  /// As above, with the caches given by their names and sizes.
  ClipFinder(ParamStore* params, const zev::media::MediaCacheOptions& cache);

  // Listing.
  /// Scans the media directory into the caches with the current encode
  /// type; 0 on success, -1 when the scan failed. The media-busy parameter
  /// is 1 during the scan and 2 afterwards, also when an exception leaves it.
  int scanMedia(std::string path);
  /// scanMedia, handing each clip of the catalogue the scan stored to visit
  /// (MediaCache::ScanMedia with a visit).
  int scanMedia(std::string path, const std::function<void(Clip&)>& visit);
  /// The clips in cache order (oldest first) or reversed, optionally
  /// through the current playlist, optionally without unplayable clips.
  std::list<Clip> findClips(bool inCacheOrder, bool usePlaylist, bool includeUnplayable);
  /// The cached playlists plus "All Clips".
  std::map<std::string, PlaylistCacheEntry> findPlaylists();
  /// Fills out with the clips the named playlist lists (appending), or with
  /// all clips when there is no name, apply is false or the playlist is
  /// unknown (then returns false).
  bool fillCliplistFromPlaylist(std::list<Clip>& out, std::list<Clip>& all,
                                std::map<std::string, PlaylistCacheEntry> playlists, std::string name,
                                bool apply);
  void flushClips();
  void flushList();
  void initializePlaylists();
  void flushPlaylists();
  void flushAll();
  void cleanup();

  // Clip names and takes.
  /// The name of the next recording, with ".mov"; 0, or -1 when no further
  /// take is possible (the name then has no ".mov"). When memory runs out
  /// on the way (reading a parameter's text, for example) the name is left
  /// empty and -1 returned, with a line on standard error; no std::bad_alloc
  /// leaves this call or buildClipNameBase.
  int buildClipName(std::string& name, std::list<Clip>* clips);
  /// The name without extension under the schema in force; 0, or -1 (also
  /// when memory runs out, as above).
  /// A built name never holds NUL or another control character: with the
  /// letter on, a letter code that is not printable ASCII (or is "/"),
  /// judged by its low byte as "%c" writes it, is left out (SC12TK3 instead
  /// of SC12?TK3); control characters in the camera, custom or master name
  /// are removed. Either is said on standard error; the result is unchanged.
  int buildClipNameBase(std::string& name, bool nextTake);
  /// Formats a RED camera's clip name, stores it as the camera clip name and returns it.
  std::string SetREDMetaData(uint8_t camera, uint32_t reel, uint8_t clipLetter, uint32_t clipNumber,
                             uint32_t monthDay, uint8_t id1, uint8_t id2);
  uint32_t calculateNextTake(eParam_t id, uint32_t a, uint32_t b);
  int incrementTakeIfAppropriate();
  int getLastMatchingTakeInList(std::list<Clip>& clips, bool underscore, std::string name);
  void ensureNextRecordedTakeIsGreaterThanAnyOnMedia(std::list<Clip>& clips);
  bool clipMatchesCurrentSchema(std::string clipName, std::string currentName, bool underscore);
  bool isSlaveUsingMasterClipName();
  bool allowOverwriteOfExistingClips();
  bool useCustomClipTake(bool overwriteAllowed);
  /// A.mov becomes A+0.mov with next A+1.mov; A+1.mov gives A+2.mov.
  int getClipNameWithIncrementedRolloverIndex(std::string& name, std::string& next);

  // Playlist files in the media directory.
  /// Opens the playlist file name in the media directory (without creating
  /// it, and without changing it); true when it could be opened. A missing
  /// file, or one that is not a regular file (a FIFO, socket, device or
  /// directory: the open never blocks), gives false and a line on standard
  /// error.
  bool writePlaylist(std::string& name, std::string& text);
  bool renamePlaylist(std::string oldName, std::string newName);
  bool deletePlaylist(std::string name);
  /// The clip to make current after the clips in deleted were deleted, or "N/A".
  std::string NextClipNameAfterDelete(std::list<Clip> clips, std::string current,
                                      std::set<std::string> deleted);

 private:
  int slaveClipName(std::string& name);

  ParamStore* params;
  zev::media::MediaCache mediaCache;
};

/// Runs shell commands for the recorder's processes.
class FileUtils {
 public:
  virtual ~FileUtils();
  /// Runs command through the shell. With firstLine (at least 255 bytes)
  /// reads the first line of its output; without, waits a quarter of a
  /// second. Returns the command's status as pclose reports it, -1 when it
  /// could not be started.
  int shell(const char* command, char* firstLine);
};
