// SPDX-License-Identifier: MIT
// vorta scan, clips, add, remove: the shared clip catalogue of the medium.
#include <unistd.h>

#include <dirent.h>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <mutex>
#include <thread>

#include "cli.h"
#include "fileparams.h"
#include "media_attributes.h"
#include "media_options.h"
#include "productid.h"

namespace {

using namespace vorta::cli;
using zev::media::MediaCache;

std::string clipName(const Clip& clip) { return std::string(clip.name, strnlen(clip.name, Clip::kNameSize)); }

std::string attribute(Clip& clip, const std::string& key) {
  const auto map = clip.attributes.getAttributesMap();
  const auto it = map.find(key);
  return it == map.end() ? "" : it->second;
}

std::string modified(int32_t seconds) {
  const std::time_t t = seconds;
  std::tm local{};
  if (localtime_r(&t, &local) == nullptr) return std::to_string(seconds);
  char buffer[32];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M", &local);
  return buffer;
}

std::string rate(double fps) {
  char buffer[32];
  if (std::floor(fps) == fps)
    std::snprintf(buffer, sizeof buffer, "%.0f", fps);
  else
    std::snprintf(buffer, sizeof buffer, "%.2f", fps);
  return buffer;
}

const char* scan(int32_t mode) {
  switch (mode) {
    case 0:
      return "progressive";
    case 1:
      return "top first";
    case 2:
      return "bottom first";
    default:
      return "interlaced";
  }
}

// Why a clip is not playable in the given codec mode, or "" when it is.
std::string whyNotPlayable(MediaCache& cache, Clip& clip, unsigned encodeType) {
  unsigned clipType = 0;
  if (!cache.GetEncodeType(clip, clipType)) return "no encode type";
  CIsEncodeType types;
  if (types.areEncodeTypesDifferentCodecs(clipType, encodeType)) {
    std::string clipFamily, deviceFamily;
    types.getEncodeTypeFlag(clipType, clipFamily);
    types.getEncodeTypeFlag(encodeType, deviceFamily);
    return "other codec family (" + clipFamily + ", device " + deviceFamily + ")";
  }
  CProductID product;
  if (!product.canDoHeight(clip.height)) return "height " + std::to_string(clip.height) + " not supported";
  return "";
}

unsigned encodeTypeOf(const Invocation& in, ParamStore& params) {
  if (in.value("encode-type")) return static_cast<unsigned>(in.integer("encode-type", 0, 0, 0xFFFFFFFFll));
  return params.getParam(eParamEncodeType);
}

void printCatalogue(const Invocation& in, MediaCache& cache, std::list<Clip> clips, unsigned encodeType) {
  if (in.flag("json")) {
    Json list(cJSON_CreateArray());
    for (Clip& clip : clips) {
      cJSON* item = cJSON_CreateObject();
      cJSON_AddStringToObject(item, "name", clipName(clip).c_str());
      cJSON_AddNumberToObject(item, "modTime", clip.modTime);
      cJSON_AddStringToObject(item, "fourCC", std::string(clip.fourCC, strnlen(clip.fourCC, 5)).c_str());
      cJSON_AddNumberToObject(item, "width", clip.width);
      cJSON_AddNumberToObject(item, "height", clip.height);
      cJSON_AddNumberToObject(item, "frameRate", clip.frameRate);
      cJSON_AddNumberToObject(item, "scanMode", clip.scanMode);
      cJSON_AddNumberToObject(item, "videoLength", clip.videoLength);
      cJSON_AddBoolToObject(item, "playable", !unplayable(clip));
      const std::string why = whyNotPlayable(cache, clip, encodeType);
      if (!why.empty()) cJSON_AddStringToObject(item, "notPlayable", why.c_str());
      cJSON* attrs = cJSON_AddObjectToObject(item, "attributes");
      for (const auto& pair : clip.attributes.getAttributesMap())
        cJSON_AddStringToObject(attrs, pair.first.c_str(), pair.second.c_str());
      cJSON_AddItemToArray(list.get(), item);
    }
    printJson(std::cout, list.get());
    return;
  }
  if (clips.empty()) {
    std::cout << "no clips\n";
    return;
  }
  Table table(
      {"NAME", "MODIFIED", "CODEC", "SIZE", "RATE", "SCAN", "FRAMES", "AUDIO", "START TC", "PLAYABLE"},
      {Table::Left, Table::Left, Table::Left, Table::Right, Table::Right, Table::Left, Table::Right,
       Table::Right, Table::Left, Table::Left});
  for (Clip& clip : clips) {
    std::string playable = "yes";
    if (unplayable(clip)) {
      const std::string why = whyNotPlayable(cache, clip, encodeType);
      playable = "no: " + (why.empty() ? std::string("marked unplayable at intake") : why);
    }
    const bool nameOnly = clip.fourCC[0] == '\0';
    table.addRow({clipName(clip), nameOnly ? "-" : modified(clip.modTime),
                  nameOnly ? "-" : std::string(clip.fourCC, strnlen(clip.fourCC, 5)),
                  nameOnly ? "-" : std::to_string(clip.width) + "x" + std::to_string(clip.height),
                  nameOnly ? "-" : rate(clip.frameRate), nameOnly ? "-" : scan(clip.scanMode),
                  nameOnly ? "-" : std::to_string(clip.videoLength),
                  attribute(clip, zev::media::MediaAudioChannels),
                  attribute(clip, zev::media::MediaStartingTimecode), playable});
  }
  table.print(std::cout);
  std::cout << clips.size() << (clips.size() == 1 ? " clip" : " clips") << ", codec mode " << encodeType
            << "\n";
}

void printPlaylists(MediaCache& cache) {
  const auto playlists = cache.GetPlaylists();
  std::cout << "\n";
  Table table({"PLAYLIST", "FILE"});
  for (const auto& pair : playlists) {
    const std::string path(pair.second.path, strnlen(pair.second.path, sizeof(pair.second.path)));
    table.addRow({pair.first, path.empty() ? "(every clip)" : path});
  }
  table.print(std::cout);
}

// Counts the directory's entries, for the progress line.
long countEntries(const std::string& dir) {
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) return -1;
  long n = 0;
  while (struct dirent* e = ::readdir(d))
    if (e->d_name[0] != '.') ++n;
  ::closedir(d);
  return n;
}

// Shows on standard error that a long scan is still running: nothing for
// the first second, then the elapsed time every half second.
class Progress {
 public:
  Progress(std::string dir, long entries) : dir_(std::move(dir)), entries_(entries) {
    thread_ = std::thread([this] { run(); });
  }
  ~Progress() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      done_ = true;
    }
    wake_.notify_all();
    thread_.join();
    if (shown_) std::cerr << (tty_ ? "\r\033[K" : "") << "vorta scan: " << dir_ << " scanned\n";
  }

 private:
  void run() {
    const auto start = std::chrono::steady_clock::now();
    std::unique_lock<std::mutex> lock(mutex_);
    if (wake_.wait_for(lock, std::chrono::seconds(1), [this] { return done_; })) return;
    do {
      const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      if (tty_ || !shown_) {
        std::cerr << (tty_ ? "\r\033[K" : "") << "vorta scan: scanning " << dir_ << " (" << entries_
                  << " entries), " << static_cast<int>(seconds) << " s" << (tty_ ? "" : "...\n")
                  << std::flush;
      }
      shown_ = true;
    } while (!wake_.wait_for(lock, std::chrono::milliseconds(500), [this] { return done_; }));
  }

  std::string dir_;
  long entries_;
  bool tty_ = ::isatty(2) != 0;
  bool shown_ = false;
  bool done_ = false;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::thread thread_;
};

int runScan(Invocation& in) {
  in.integer("encode-type", 0, 0, 0xFFFFFFFFll);
  MediaSession session(in, true);
  std::string dir = in.args()[0];
  const long entries = countEntries(dir);
  if (entries < 0) throw Failure("cannot read the directory " + dir + ": " + std::strerror(errno));
  const unsigned encodeType = encodeTypeOf(in, session.params());
  {
    Progress progress(dir, entries);
    if (in.value("encode-type")) {
      if (session.cache().ScanMedia(dir, encodeType) != 1) throw Failure("the scan of " + dir + " failed");
    } else if (session.finder().scanMedia(dir) != 0) {
      throw Failure("the scan of " + dir + " failed");
    }
  }
  printCatalogue(in, session.cache(), session.finder().findClips(true, false, true), encodeType);
  if (!in.flag("json")) printPlaylists(session.cache());
  return 0;
}

const Command kScan{
    "scan",
    "scan a medium into the shared clip catalogue and playlist cache",
    "DIR",
    "Reads the media directory once, as the recorder does when a medium is\n"
    "mounted: every QuickTime clip the scanner accepts goes into the clip\n"
    "catalogue (oldest first) with its playability in the current codec mode,\n"
    "every valid .playlist file into the playlist cache. Both caches are\n"
    "replaced whole and are seen at once by every process. The caches are\n"
    "created with the default sizes when missing. Prints the catalogue and\n"
    "the playlists.",
    mediaOptions(
        {{"encode-type", "N", "the device's current encode type (default: the encode-type parameter)"},
         {"json", "", "print the catalogue as JSON"}}),
    runScan,
    1,
    1,
};
VORTA_REGISTER_COMMAND(kScan);

int runClips(Invocation& in) {
  in.integer("encode-type", 0, 0, 0xFFFFFFFFll);  // bad values are refused before anything is opened
  MediaSession session(in, false);
  const unsigned encodeType = encodeTypeOf(in, session.params());
  printCatalogue(in, session.cache(),
                 session.finder().findClips(!in.flag("reverse"), in.flag("playlist"), in.flag("all")),
                 encodeType);
  return 0;
}

const Command kClips{
    "clips",
    "print the stored clip catalogue without rescanning",
    "",
    "Lists the clips of the shared catalogue as the recorder's processes see\n"
    "them: oldest first, playable clips only unless --all. With --playlist the\n"
    "current playlist (parameters current-playlist and playback-mode 2)\n"
    "chooses and orders the clips.",
    mediaOptions({{"reverse", "", "newest first"},
                  {"playlist", "", "through the current playlist"},
                  {"all", "", "include unplayable clips"},
                  {"encode-type", "N", "codec mode to explain playability against (default: the parameter)"},
                  {"json", "", "print JSON"}}),
    runClips,
    0,
    0,
};
VORTA_REGISTER_COMMAND(kClips);

int runAdd(Invocation& in) {
  in.integer("encode-type", 0, 0, 0xFFFFFFFFll);
  MediaSession session(in, false);
  const std::string path = in.args()[0];
  int index = -1;
  if (!session.cache().AddClip(path, encodeTypeOf(in, session.params()), index, in.flag("name-only")))
    throw Failure(path + " was not taken: not a QuickTime clip the scanner accepts");
  std::vector<char> copy(path.begin(), path.end());
  copy.push_back('\0');
  std::cout << "added " << ::basename(copy.data()) << " (index " << index << "); the catalogue holds "
            << session.cache().GetClips().size() << " clips\n";
  return 0;
}

const Command kAdd{
    "add",
    "add one clip file to the shared catalogue",
    "FILE",
    "Scans FILE and puts its clip into the catalogue, replacing any clip of\n"
    "the same name, as the recorder does after it has recorded a clip.",
    mediaOptions({{"name-only", "", "take the name only, without reading the file"},
                  {"encode-type", "N", "the device's current encode type (default: the parameter)"}}),
    runAdd,
    1,
    1,
};
VORTA_REGISTER_COMMAND(kAdd);

int runRemove(Invocation& in) {
  MediaSession session(in, false);
  if (!session.cache().RemoveClip(in.args()[0]))
    throw Failure("no clip of the catalogue is named in '" + in.args()[0] + "'");
  std::cout << "removed; the catalogue holds " << session.cache().GetClips().size() << " clips\n";
  return 0;
}

const Command kRemove{
    "remove",
    "remove a clip from the shared catalogue",
    "NAME",
    "Removes the first clip (oldest first) whose name occurs in NAME, which\n"
    "may be the clip's name or a path that contains it. The file itself is\n"
    "not touched.",
    mediaOptions({}),
    runRemove,
    1,
    1,
};
VORTA_REGISTER_COMMAND(kRemove);

}  // namespace
