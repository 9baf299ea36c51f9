// SPDX-License-Identifier: MIT
// vorta: ClipFinder (listing, clip names and takes, playlist files), FileUtils, clip record helpers.
#include "fileutils.h"
#include "internal/regular_file.h"

#include <cjson/cJSON.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "clip.h"

Clip NULL_CLIP;

Clip::Clip() { std::memset(static_cast<void*>(this), 0, sizeof(*this)); }

int32_t Clip::extractTake(std::string name) {
  if (name.empty()) return 0;

  std::string::size_type start;
  const std::string::size_type tk = name.rfind("TK");
  if (tk != std::string::npos) {
    start = tk + 2;
  } else {
    const std::string::size_type underscore = name.rfind('_');
    if (underscore == std::string::npos) return -1;
    start = underscore + 1;
  }

  // The digits end at the first dot of the whole name. When that dot is
  // missing or lies before the digits, the unsigned length wraps and the
  // substring runs to the end of the name; "A.B_03" therefore reads 3.
  const std::string::size_type dot = name.find('.');
  const std::string digits = name.substr(start, dot - start);

  // The device's strtol saturates at the 32-bit limits; clamp so that every
  // build gives the device's answer.
  errno = 0;
  const long value = std::strtol(digits.c_str(), nullptr, 10);
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(value);
}

namespace {
// A name field may fill all 4096 bytes without a terminator.
std::string nameOf(const Clip& c) { return std::string(c.name, strnlen(c.name, Clip::kNameSize)); }
}  // namespace

bool Clip::compare_clips_by_take(const Clip& a, const Clip& b) {
  return extractTake(nameOf(a)) > extractTake(nameOf(b));
}

bool Clip::compare_clips_by_time(const Clip& a, const Clip& b) { return a.modTime < b.modTime; }

bool unplayable(const Clip& c) {
  // Read the raw byte: a record that came through shared memory may hold a
  // value other than 0 or 1, and only 1 counts as playable.
  unsigned char byte;
  std::memcpy(&byte, &c.playable, 1);
  return (byte ^ 1u) != 0;
}

// ---------------------------------------------------------------------------
// ClipFinder: listing

namespace {

// Name of this source unit, used in the scan failure message.
const char kUnitName[] = "classes/fileutils";

// The clip-list filter reads at most this much of a playlist's first line.
constexpr std::size_t kPlaylistLineBuffer = 0x85000;

// Sets the media-busy parameter to 1 for its lifetime and back to 2 when it
// ends, also when an exception leaves the work.
class MediaBusy {
 public:
  explicit MediaBusy(ParamStore* params) : params_(params) { params_->setParam(eParamMediaBusy, 1); }
  ~MediaBusy() { params_->setParam(eParamMediaBusy, 2); }
  MediaBusy(const MediaBusy&) = delete;
  MediaBusy& operator=(const MediaBusy&) = delete;

 private:
  ParamStore* params_;
};

struct JsonDeleter {
  void operator()(cJSON* json) const { cJSON_Delete(json); }
};

// fopen(path, mode) for a mode that reads, except that the open never
// blocks and only a regular file is accepted (errno EINVAL for others, or
// EISDIR for a directory); the stream then reads in blocking mode.
FILE* openRegularForReading(const std::string& path, const char* mode) {
  zev::detail::UniqueFd fd = zev::detail::openRegularFile(path.c_str(), O_RDONLY);
  FILE* file = fd ? ::fdopen(fd.get(), mode) : nullptr;
  if (file != nullptr) fd.release();  // the stream owns it now
  return file;
}

}  // namespace

ClipFinder::ClipFinder(ParamStore* paramStore) : params(paramStore), mediaCache() {}

ClipFinder::ClipFinder(ParamStore* paramStore, const zev::media::MediaCacheOptions& cache)
    : params(paramStore), mediaCache(cache) {}

int ClipFinder::scanMedia(std::string path) { return scanMedia(std::move(path), nullptr); }

int ClipFinder::scanMedia(std::string path, const std::function<void(Clip&)>& visit) {
  MediaBusy busy(params);
  const uint32_t encodeType = params->getParam(eParamEncodeType);
  if (!(visit ? mediaCache.ScanMedia(path, encodeType, visit) : mediaCache.ScanMedia(path, encodeType))) {
    std::fprintf(stderr, "%s: ScanMedia failed\n", kUnitName);
    return -1;
  }
  return 0;
}

std::list<Clip> ClipFinder::findClips(bool inCacheOrder, bool usePlaylist, bool includeUnplayable) {
  std::list<Clip> all = mediaCache.GetClips();
  std::list<Clip> result;
  if (usePlaylist) {
    std::string name;
    params->getParamString(eParamCurrentPlaylist, name);
    const uint32_t mode = params->getParam(eParamPlaybackMode);
    fillCliplistFromPlaylist(result, all, findPlaylists(), name, mode == 2);
  } else {
    result = all;
  }
  if (!inCacheOrder) result.reverse();
  if (!includeUnplayable) result.remove_if(unplayable);
  return result;
}

std::map<std::string, PlaylistCacheEntry> ClipFinder::findPlaylists() { return mediaCache.GetPlaylists(); }

bool ClipFinder::fillCliplistFromPlaylist(std::list<Clip>& out, std::list<Clip>& all,
                                          std::map<std::string, PlaylistCacheEntry> playlists,
                                          std::string name, bool apply) {
  if (name.empty() || !apply) {
    out = all;
    return false;
  }
  const auto found = playlists.find(name);
  if (found == playlists.end()) {
    out = all;
    return false;
  }

  // Only the first line of the text is the playlist (one-line JSON). The
  // stored text may fill its whole field without a terminator.
  const PlaylistCacheEntry& entry = found->second;
  const std::size_t textLength = strnlen(entry.text, sizeof(entry.text));
  std::unique_ptr<char[]> line(new char[kPlaylistLineBuffer]);
  std::size_t length = 0;
  while (length < textLength && length < kPlaylistLineBuffer - 1 && entry.text[length] != '\n') {
    line[length] = entry.text[length];
    ++length;
  }
  line[length] = '\0';

  std::unique_ptr<cJSON, JsonDeleter> json(cJSON_Parse(line.get()));
  line.reset();
  if (!json) return true;

  zev::media::Playlist playlist;
  const cJSON* playlistName = cJSON_GetObjectItem(json.get(), "name");
  if (cJSON_IsString(playlistName)) playlist.name = playlistName->valuestring;
  const cJSON* cliplist = cJSON_GetObjectItem(json.get(), "cliplist");
  if (cliplist == nullptr) return true;
  const int count = cJSON_GetArraySize(cliplist);
  for (int i = 0; i < count; ++i) {
    const cJSON* item = cJSON_GetArrayItem(cliplist, i);
    if (cJSON_IsString(item)) playlist.clips.emplace_back(item->valuestring);
  }

  for (const std::string& clipName : playlist.clips) {
    for (const Clip& clip : all) {
      if (clipName == std::string(clip.name, strnlen(clip.name, Clip::kNameSize))) {
        out.push_back(clip);
        break;
      }
    }
  }
  return true;
}

void ClipFinder::flushClips() { mediaCache.FlushClips(); }

void ClipFinder::flushList() { flushClips(); }

void ClipFinder::initializePlaylists() { mediaCache.InitializePlaylists(); }

void ClipFinder::flushPlaylists() {
  mediaCache.FlushPlaylists();
  initializePlaylists();
}

void ClipFinder::flushAll() {
  mediaCache.Flush();
  initializePlaylists();
}

void ClipFinder::cleanup() { mediaCache.Destroy(); }

// ---------------------------------------------------------------------------
// ClipFinder: clip names and takes

namespace {

const char kInvalidRedName[] = "InvalidRED";
constexpr int32_t kHighestTake = 999;

std::string clipName(const Clip& clip) { return std::string(clip.name, strnlen(clip.name, Clip::kNameSize)); }

std::string formatInt(const char* format, uint32_t value) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, format, static_cast<int>(value));
  return buffer;
}

}  // namespace

bool ClipFinder::isSlaveUsingMasterClipName() {
  return params->getParam(eParamLinkMode) == 1 && params->getParam(eParamLinkRole) == 0 &&
         params->getParam(eParamLinkClipName) == 0;
}

bool ClipFinder::allowOverwriteOfExistingClips() {
  if (params->getParam(eParamCustomClipName) == 1 && params->getParam(eParamCustomTake) == 0) return true;
  return params->getParam(eParamLinkMode) == 1 && params->getParam(eParamLinkRole) == 0 &&
         params->getParam(eParamLinkClipName) == 0;
}

bool ClipFinder::useCustomClipTake(bool overwriteAllowed) {
  if (overwriteAllowed) return false;
  if (params->getParam(eParamCustomClipName) == 1 && params->getParam(eParamCustomTake) == 1) return true;
  return params->getParam(eParamLinkClipName) == 0 && params->getParam(eParamLinkMode) == 1 &&
         params->getParam(eParamLinkRole) == 0;
}

uint32_t ClipFinder::calculateNextTake(eParam_t /*id*/, uint32_t a, uint32_t b) {
  // The identifier is not consulted: the rule is the same for both takes.
  const uint32_t n = a > b ? a : b + 1;
  return n < static_cast<uint32_t>(kHighestTake) ? n : static_cast<uint32_t>(kHighestTake);
}

bool ClipFinder::clipMatchesCurrentSchema(std::string clipNameText, std::string currentName,
                                          bool underscore) {
  const std::string token = underscore ? "_" : "TK";
  const std::string::size_type current = currentName.find(token);
  const std::string::size_type clip = clipNameText.find(token);
  if (clip == std::string::npos || clip != current) return false;
  return clipNameText.compare(0, clip, currentName, 0, clip) == 0;
}

int ClipFinder::getLastMatchingTakeInList(std::list<Clip>& clips, bool underscore, std::string name) {
  if (clips.empty()) return 0;
  if (name.empty()) buildClipNameBase(name, false);
  std::list<Clip> matching;
  for (const Clip& clip : clips)
    if (clipMatchesCurrentSchema(clipName(clip), name, underscore)) matching.push_back(clip);
  if (matching.empty()) return 0;
  matching.sort(Clip::compare_clips_by_take);
  return Clip::extractTake(clipName(matching.front()));
}

void ClipFinder::ensureNextRecordedTakeIsGreaterThanAnyOnMedia(std::list<Clip>& clips) {
  const bool custom = useCustomClipTake(allowOverwriteOfExistingClips());
  const int last = getLastMatchingTakeInList(clips, custom, std::string());
  const eParam_t takeParam = custom ? eParamCustomTakeNumber : eParamTake;
  uint32_t current = 0;
  params->getParamValue(takeParam, current);
  if (static_cast<uint32_t>(last) < current || current > 998) return;
  // No bound at 999 here: the bound is applied when the name is built.
  params->setParam(takeParam, static_cast<uint32_t>(last) + 1);
}

int ClipFinder::incrementTakeIfAppropriate() {
  const bool overwrite = allowOverwriteOfExistingClips();
  const bool custom = useCustomClipTake(overwrite);
  if (overwrite) return custom;
  const eParam_t takeParam = custom ? eParamCustomTakeNumber : eParamTake;
  return params->setParam(takeParam, params->getParam(takeParam) + 1);
}

int ClipFinder::slaveClipName(std::string& name) {
  std::string master;
  params->getParamString(eParamMasterClipName, master);
  const int32_t take = Clip::extractTake(master);
  if (take > kHighestTake) {
    name.clear();
    return -1;
  }

  std::list<Clip> clips = findClips(true, false, true);
  bool onMedia = false;
  for (const Clip& clip : clips) {
    const std::string clipText = clipName(clip);
    if (clipText.empty()) continue;
    if (clipText.substr(0, clipText.find('.')) == master) {
      onMedia = true;
      break;
    }
  }
  if (!onMedia) {
    name = master;
    return 0;
  }
  if (take == kHighestTake) {
    name.clear();
    return -1;
  }

  const bool hasTK = master.find("TK") != std::string::npos;
  if (!hasTK && take <= 0 && master.find('_') == std::string::npos) master += "_";

  const int last = getLastMatchingTakeInList(clips, !hasTK, master);
  uint32_t next = static_cast<uint32_t>(last) + 1;
  int result = 0;
  if (next > static_cast<uint32_t>(kHighestTake)) {
    next = kHighestTake;
    result = -1;
  }

  const std::string token = hasTK ? "TK" : "_";
  const std::string::size_type at = master.rfind(token);
  if (at == std::string::npos)
    name = master;
  else
    name = master.substr(0, at + token.size()) + std::to_string(next);
  return result;
}

namespace {

// Drops NUL and the other control characters (below 0x20, and 0x7F) from a
// name taken from a parameter's text: a NUL would end the file name's C
// string before its take and extension, and a control character has no
// place in a file name. Says so on standard error when it drops any.
void dropControlCharacters(std::string& name) {
  const auto control = [](char c) {
    const auto u = static_cast<unsigned char>(c);
    return u < 0x20u || u == 0x7Fu;
  };
  const std::string::size_type before = name.size();
  name.erase(std::remove_if(name.begin(), name.end(), control), name.end());
  if (name.size() != before)
    std::fprintf(stderr, "buildClipNameBase(). control characters removed from the clip name\n");
}

// Whether a clip-name letter (its low byte, as "%c" writes it) can stand in
// a file name: printable ASCII other than "/".
bool printableLetter(uint32_t letter) {
  const unsigned c = letter & 0xFFu;
  return c >= 0x20u && c < 0x7Fu && c != '/';
}

// Naming calls under way on this thread (a name's construction may build
// the schema's name again on the way).
thread_local int t_namingCalls = 0;

// Runs build (a name's construction); when memory runs out on the way
// (reading a parameter's text, the listing a slave name consults, the
// name itself) the outermost naming call clears the name and returns -1
// with a line on standard error, so that std::bad_alloc never leaves the
// naming calls. An inner call hands the failure on: swallowed there, it
// would leave the take search without the schema's name, finding no take
// and so giving out the name of a clip already on the medium.
template <typename Build>
int outOfMemoryGivesMinusOne(const char* who, std::string& name, Build build) {
  struct Depth {
    Depth() { ++t_namingCalls; }
    ~Depth() { --t_namingCalls; }
  } depth;
  try {
    return build();
  } catch (const std::bad_alloc&) {
    if (t_namingCalls > 1) throw;
    name.clear();
    std::fprintf(stderr, "%s. out of memory building the clip name\n", who);
    return -1;
  }
}

}  // namespace

int ClipFinder::buildClipNameBase(std::string& name, bool nextTake) {
  return outOfMemoryGivesMinusOne("buildClipNameBase()", name, [&]() -> int {
    if (isSlaveUsingMasterClipName()) {
      const int result = slaveClipName(name);
      dropControlCharacters(name);
      return result;
    }

    if (params->getParam(eParamClipNameSource) - 1u <= 2u) {
      params->getParamString(eParamREDClipName, name);
      if (name != kInvalidRedName) {
        dropControlCharacters(name);
        return 0;
      }
      std::fprintf(stderr, "\nbuildClipNameBase(). clipName == INVALID_RED_DATA_NAME\n");
    }

    if (params->getParam(eParamCustomClipName) == 1) {
      params->getParamString(eParamCustomClipNameText, name);
      if (params->getParam(eParamCustomTake) == 1)
        name += formatInt("_%d", params->getParam(eParamCustomTakeNumber));
      dropControlCharacters(name);
      return 0;
    }

    uint32_t scene = 0, number = 0, letterOn = 0, letter = 0, take = 0;
    params->getParamValue(eParamClipNameScene, scene);
    params->getParamValue(eParamClipNameNumber, number);
    params->getParamValue(eParamClipNameLetterOn, letterOn);
    params->getParamValue(eParamClipNameLetter, letter);
    params->getParamValue(eParamTake, take);
    if (nextTake) ++take;

    name = scene != 0 ? "SC" : "Clip";
    if (number != 0) name += formatInt("%d", number);
    // A letter code that is no printable character (0 among them, which
    // would end the name's C string) is left out, as if the letter were off.
    if (letterOn != 0) {
      if (printableLetter(letter))
        name += static_cast<char>(letter & 0xFFu);
      else
        std::fprintf(stderr,
                     "buildClipNameBase(). clip name letter %u is not a printable character; left out\n",
                     static_cast<unsigned>(letter));
    }
    name += "TK";
    name += formatInt("%d", take);
    return 0;
  });
}

int ClipFinder::buildClipName(std::string& name, std::list<Clip>* clips) {
  return outOfMemoryGivesMinusOne("buildClipName()", name, [&]() -> int {
    const bool overwrite = allowOverwriteOfExistingClips();
    const bool custom = useCustomClipTake(overwrite);
    int result = 0;
    if (!overwrite) {
      const uint32_t current = params->getParam(custom ? eParamCustomTakeNumber : eParamTake);
      const int last = clips != nullptr ? getLastMatchingTakeInList(*clips, custom, std::string()) : 0;
      if (last == static_cast<int>(current)) result = last == kHighestTake ? -1 : 0;
    }
    const int base = buildClipNameBase(name, false);
    if (base != 0) return base;
    if (result != 0) return result;
    name += ".mov";
    return 0;
  });
}

std::string ClipFinder::SetREDMetaData(uint8_t camera, uint32_t reel, uint8_t clipLetter, uint32_t clipNumber,
                                       uint32_t monthDay, uint8_t id1, uint8_t id2) {
  // The "0" before the month and day is a fixed literal, not a zero pad
  // (1225 gives _01225); the buffer holds at most 18 characters.
  char buffer[19] = {0};
  std::snprintf(buffer, sizeof buffer, "%c%03u_%c%03u_0%u%c%c", camera, static_cast<unsigned>(reel),
                clipLetter, static_cast<unsigned>(clipNumber), static_cast<unsigned>(monthDay), id1, id2);
  const std::string text(buffer);
  params->setParamString(eParamREDClipName, text);
  return text;
}

int ClipFinder::getClipNameWithIncrementedRolloverIndex(std::string& name, std::string& next) {
  std::string::size_type plus = name.find('+');
  std::string::size_type dot = name.find('.');
  if (plus == std::string::npos) {
    // A name with neither "+" nor "." makes substr throw std::out_of_range
    // ("basic_string::substr"); callers rely on that.
    name = name.substr(0, dot) + "+0" + name.substr(dot);
    plus = dot;
    dot = plus + 2;
  }
  if (dot == std::string::npos || plus > dot) return -1;

  // The index is read as the device's strtoul reads it: saturated at 32 bits.
  const std::string digits = name.substr(plus + 1, dot - plus - 1);
  errno = 0;
  const unsigned long long value = std::strtoull(digits.c_str(), nullptr, 10);
  const uint32_t index = value > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<uint32_t>(value);
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "+%u", static_cast<unsigned>(index + 1u));
  next = name.substr(0, plus) + buffer + name.substr(dot);
  return 0;
}

// ---------------------------------------------------------------------------
// ClipFinder: playlist files

bool ClipFinder::writePlaylist(std::string& name, std::string& text) {
  std::string dir;
  params->getParamString(eParamMediaDir, dir);
  if (dir.empty()) {
    std::fprintf(stderr, "ClipFinder::writePlaylist - mediaDir is empty\n");
    return false;
  }
  MediaBusy busy(params);
  const std::string path = dir + "/" + name;
  // The mode is "rw" as the device has always used it: the C library reads
  // only its "r", so the file is opened for reading, a missing file is not
  // created and the put below leaves an existing file unchanged. The open
  // does not block (a FIFO under the name would wait for a writer), and
  // anything but a regular file is refused.
  FILE* file = openRegularForReading(path, "rw");
  if (file == nullptr) {
    std::perror("ClipFinder::writePlaylist - call to zev::utils::file::File::write_file failed");
    return false;
  }
  std::fputs(text.c_str(), file);
  std::fclose(file);
  return true;
}

bool ClipFinder::renamePlaylist(std::string oldName, std::string newName) {
  std::string dir;
  params->getParamString(eParamMediaDir, dir);
  if (dir.empty()) {
    std::fprintf(stderr, "ClipFinder::renamePlaylist - mediaDir is empty\n");
    return false;
  }
  MediaBusy busy(params);
  auto canonical = [](const std::string& path, std::string& out) {
    char* resolved = ::realpath(path.c_str(), nullptr);
    if (resolved == nullptr) return false;  // e.g. a new name that does not exist yet
    out = resolved;
    std::free(resolved);
    return true;
  };
  std::string oldPath;
  std::string newPath;
  if (!canonical(dir + "/" + oldName, oldPath) || oldPath.find("ZEV") == std::string::npos) return false;
  if (!canonical(dir + "/" + newName, newPath) || newPath.find("ZEV") == std::string::npos) return false;
  if (oldPath.find(".playlist") == std::string::npos) oldPath += ".playlist";
  if (newPath.find(".playlist") == std::string::npos) newPath += ".playlist";
  if (std::rename(oldPath.c_str(), newPath.c_str()) != 0) {
    std::perror("renamePlaylist");
    std::fprintf(stderr, "Unable to rename %s to %s", oldPath.c_str(), newPath.c_str());
    return false;
  }
  return true;
}

bool ClipFinder::deletePlaylist(std::string name) {
  std::string dir;
  params->getParamString(eParamMediaDir, dir);
  if (dir.empty()) {
    std::fprintf(stderr, "ClipFinder::deletePlaylist - mediaDir is empty\n");
    return false;
  }
  MediaBusy busy(params);
  const std::string path = dir + "/" + name;
  if (::unlink(path.c_str()) != 0) {
    const int error = errno;
    std::perror("delete_file - unlink failed");
    errno = error;
    std::perror("ClipFinder::deletePlaylist - call to zev::utils::file::File::delete_file failed");
    return false;
  }
  return true;
}

std::string ClipFinder::NextClipNameAfterDelete(std::list<Clip> clips, std::string current,
                                                std::set<std::string> deleted) {
  if (deleted.count(current) == 0) return current;
  if (clips.empty()) return "N/A";
  bool passed = false;
  std::list<Clip> holding;
  for (const Clip& clip : clips) {
    const std::string name = clipName(clip);
    if (name == current) passed = true;
    if (deleted.count(name) != 0) continue;
    if (passed) return name;
    holding.push_back(clip);
  }
  if (holding.empty()) return "N/A";
  return clipName(holding.front());
}

// ---------------------------------------------------------------------------
// FileUtils

FileUtils::~FileUtils() = default;

int FileUtils::shell(const char* command, char* firstLine) {
  FILE* pipe = ::popen(command, "r");
  if (pipe == nullptr) {
    std::perror(command);
    return -1;
  }
  if (firstLine != nullptr) {
    firstLine[0] = '\0';
    if (std::fgets(firstLine, 255, pipe) == nullptr) firstLine[0] = '\0';
  } else {
    ::usleep(250000);
  }
  return ::pclose(pipe);
}
