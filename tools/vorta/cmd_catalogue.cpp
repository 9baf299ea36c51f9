// SPDX-License-Identifier: MIT
// vorta scan, clips, add, remove: the shared clip catalogue of the medium.
#include <sys/stat.h>
#include <unistd.h>

#include <dirent.h>
#include <algorithm>
#include <atomic>
#include <boost/interprocess/exceptions.hpp>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string_view>
#include <thread>

#include "cli.h"
#include "fileparams.h"
#include "media_attributes.h"
#include "media_options.h"
#include "productid.h"
#include "vocabulary.h"
#include "zevqtfileparams.h"

namespace {

using namespace vorta::cli;
using zev::media::MediaCache;

std::string clipName(const Clip& clip) { return std::string(clip.name, strnlen(clip.name, Clip::kNameSize)); }

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

// --encode-type within the table of encode types (0 to 9), or any 32-bit
// value with --unchecked; checked before anything is opened.
long long encodeTypeOption(const Invocation& in) {
  if (in.flag("unchecked")) return in.integer("encode-type", 0, 0, 0xFFFFFFFFll);
  return in.integer("encode-type", 0, 0, ENCODE_UNCOMPRESSED_V210);
}

unsigned encodeTypeOf(const Invocation& in, ParamStore& params) {
  if (in.value("encode-type")) return static_cast<unsigned>(encodeTypeOption(in));
  return params.getParam(eParamEncodeType);
}

const Option kUnchecked{"unchecked", "", "take an --encode-type outside the table (0 to 9) as it is"};

std::string fourCCOf(const Clip& clip) { return std::string(clip.fourCC, strnlen(clip.fourCC, 5)); }

// The catalogue: one row per clip. At 80 columns the table keeps the name,
// the picture and the verdict; times give way after the audio channels,
// frames and start time codes.
Rows catalogueTable() {
  return Rows(join(
      join({{"name", "NAME", Column::Left, 0, Column::Middle}, {"modified", "MODIFIED", Column::Left, 6}},
           pictureColumns()),
      {{"playable", "PLAYABLE"}, {"notPlayable", "WHY NOT", Column::Left, 0, Column::End}, {"attributes"}}));
}

// Adds the clip's row. Its attribute pairs are printed in JSON alone (the
// column has no header): only then is the attribute map built; otherwise the
// table's two attributes are looked up alone.
void addCatalogueRow(Rows& rows, MediaCache& cache, Clip& clip, unsigned encodeType, bool withAttributes) {
  const bool nameOnly = clip.fourCC[0] == '\0';  // taken by name only
  std::string why = whyNotPlayable(cache, clip, encodeType);
  if (why.empty() && unplayable(clip)) why = "marked unplayable at intake";
  std::map<std::string, std::string> map;  // every pair, for JSON alone
  if (withAttributes) map = clip.attributes.getAttributesMap();
  const auto attribute = [&](const std::string& key) {
    std::string value;
    if (!withAttributes) {
      clip.attributes.getAttribute(key, value);
    } else if (const auto it = map.find(key); it != map.end()) {
      value = it->second;
    }
    return value;
  };
  const Picture picture{fourCCOf(clip),
                        clip.width,
                        clip.height,
                        clip.frameRate,
                        clip.scanMode,
                        clip.videoLength,
                        text(attribute(zev::media::MediaAudioChannels)),
                        text(attribute(zev::media::MediaStartingTimecode))};
  std::vector<Value> row;
  row.reserve(15);
  row.push_back(text(clipName(clip)));
  row.push_back(nameOnly ? none("-") : text(isoTime(clip.modTime)));
  // Values made for the row are moved in, not copied.
  appendPictureValues(row, picture, [nameOnly](auto&& v) -> Value {
    if (nameOnly) return v.shows("-");
    return std::forward<decltype(v)>(v);
  });
  row.push_back(flag(!unplayable(clip)));
  row.push_back(why.empty() ? absent() : text(std::move(why)));
  row.push_back(withAttributes ? pairs({map.begin(), map.end()}) : absent());
  rows.add(std::move(row));
}

Rows catalogueRows(MediaCache& cache, std::list<Clip>& clips, unsigned encodeType, bool withAttributes) {
  Rows rows = catalogueTable();
  for (Clip& clip : clips) addCatalogueRow(rows, cache, clip, encodeType, withAttributes);
  return rows;
}

// The catalogue as the invocation asks, with its count under a table.
void printCatalogue(const Invocation& in, const Rows& rows, unsigned encodeType, const JsonObject* json) {
  if (rows.empty() && formatOf(in) == Format::Text) return say("no clips");
  emit(in, rows, json);
  if (formatOf(in) == Format::Text)
    say(count(rows.size(), "clip") + ", codec mode " + std::to_string(encodeType));
}

// The medium's entries in the order the scan reads them (hidden ones, which
// the scan skips, left out).
std::vector<std::string> entriesOf(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) throw Failure("cannot read the directory " + dir + ": " + std::strerror(errno));
  // readdir64, as the scan itself reads: on a 32-bit system readdir fails
  // with EOVERFLOW for an entry whose inode number needs 64 bits.
  errno = 0;
  while (struct dirent64* e = ::readdir64(d)) {
    if (e->d_name[0] != '.') names.emplace_back(e->d_name);
    errno = 0;
  }
  const int error = errno;
  ::closedir(d);
  if (error != 0) throw Failure("cannot read the directory " + dir + ": " + std::strerror(error));
  return names;
}

// Shows on a terminal how far the scan is: the file it has open, of the
// directory's files, and the rate. Nothing when standard error is not a
// terminal, so that scripts and logs get only the result.
class Progress {
 public:
  Progress(const std::string& dir, const std::vector<std::string>& names, bool quiet)
      : dir_(dir), total_(names.size()), tty_(!quiet && ::isatty(stderrFd()) != 0) {
    if (!tty_) return;
    if (char* real = ::realpath(dir.c_str(), nullptr)) {
      dir_ = real;
      std::free(real);
    }
    for (std::size_t i = 0; i < names.size(); ++i) index_.emplace(names[i], i);
    start_ = std::chrono::steady_clock::now();
    show(0);
    thread_ = std::thread([this] { run(); });
  }
  ~Progress() {
    if (!tty_) return;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      done_ = true;
    }
    wake_.notify_all();
    thread_.join();
    show(total_);
    write("\n");
  }

 private:
  // The number of files done: the index of the medium's file this process
  // has open now (the scan reads one file at a time).
  std::size_t current() const {
    std::size_t found = done_files_;
    DIR* fds = ::opendir("/proc/self/fd");
    if (fds == nullptr) return found;
    const std::string prefix = dir_ + "/";
    while (struct dirent64* e = ::readdir64(fds)) {
      char target[4096];
      const std::string link = std::string("/proc/self/fd/") + e->d_name;
      const ssize_t n = ::readlink(link.c_str(), target, sizeof target - 1);
      if (n <= 0) continue;
      const std::string path(target, static_cast<std::size_t>(n));
      if (path.compare(0, prefix.size(), prefix) != 0) continue;
      const auto it = index_.find(path.substr(prefix.size()));
      if (it != index_.end()) found = std::max(found, it->second);
    }
    ::closedir(fds);
    return found;
  }

  void show(std::size_t done) {
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    char rate[32];
    std::snprintf(rate, sizeof rate, "%.0f", static_cast<double>(done) / std::max(seconds, 1e-3));
    write("\r\033[Kvorta scan: " + std::to_string(done) + " of " + std::to_string(total_) + " files, " +
          rate + " files/s");
  }

  // Straight to the terminal: the line's own control sequence is meant.
  static void write(const std::string& text) {
    if (::write(stderrFd(), text.data(), text.size()) < 0) return;
  }

  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!wake_.wait_for(lock, std::chrono::milliseconds(250), [this] { return done_; })) {
      done_files_ = current();
      show(done_files_);
    }
  }

  std::string dir_;  // as the kernel names it in /proc/self/fd
  std::size_t total_;
  bool tty_;
  std::map<std::string, std::size_t> index_;
  std::size_t done_files_ = 0;
  std::chrono::steady_clock::time_point start_;
  bool done_ = false;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::thread thread_;
};

// One file of the medium the scan did not take, and why.
struct LeftOut {
  std::string file;
  std::string reason;  // one of the words of the scan's JSON schema
  std::string detail;
};

// Why the scan would not take the file at path, which it left out.
LeftOut whyLeftOut(MediaCache& cache, const std::string& dir, const std::string& name, bool playlist) {
  const std::string path = dir + "/" + name;
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return {name, "unreadable", std::strerror(errno)};
  if (!S_ISREG(st.st_mode))
    return {name, "not a regular file", S_ISDIR(st.st_mode) ? "a directory" : "special file"};
  if (::access(path.c_str(), R_OK) != 0) return {name, "unreadable", std::strerror(errno)};
  if (playlist) {
    // The cache keys playlists by their text: of two files with the same
    // text, one is kept.
    auto entry = std::make_unique<PlaylistCacheEntry>();
    if (cache.GrokPlaylist(*entry, path) == 1)
      return {name, "same text as another playlist", "the cache keeps one playlist per text"};
    return {name, "not a playlist file", "not one-line JSON with a name and a cliplist of names"};
  }
  std::unique_ptr<CFileParams> params(CFileParams::create(path.c_str()));
  if (!params) return {name, "not a clip name", "needs .mov or .MOV"};
  if (!params->FileIsValid() && params->videoLength != 0) {
    std::string code;
    for (char c : params->fourCC) code += (c >= 0x20 && c < 0x7F) ? c : '?';
    return {name, "codec outside the table", "codec '" + code + "' is not one the recorder plays"};
  }
  return {name, "damaged", "not a readable QuickTime movie with a video track"};
}

// The count the library's size error names ("... 5100 clips need ..."), or fallback.
unsigned long long countInSizeError(const std::string& text, const char* what, unsigned long long fallback) {
  const std::string::size_type colon = text.find(": ");
  unsigned long long count = 0;
  char kind[16] = {0};
  if (colon != std::string::npos &&
      std::sscanf(text.c_str() + colon + 2, "%llu %15s need", &count, kind) == 2 && std::string(kind) == what)
    return count;
  return fallback;
}

int runScan(Invocation& in) {
  encodeTypeOption(in);
  std::string dir = in.args()[0];
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  const std::vector<std::string> names = entriesOf(dir);
  MediaSession session(in, true, CacheUse::Create);
  const unsigned encodeType = encodeTypeOf(in, session.params());
  // Every clip as stored, in catalogue order (what findClips(true, false,
  // true) gives), handed over by the scan itself as it stores the catalogue
  // rather than read back: its rows and the names taken.
  Rows catalogue = catalogueTable();
  std::vector<std::string> clipNames;
  const bool rowsPrinted = formatOf(in) != Format::Quiet;
  const bool withAttributes = formatOf(in) == Format::Json;
  const std::function<void(Clip&)> take = [&](Clip& clip) {
    clipNames.push_back(clipName(clip));
    if (rowsPrinted) addCatalogueRow(catalogue, session.cache(), clip, encodeType, withAttributes);
  };
  try {
    Progress progress(dir, names, formatOf(in) == Format::Quiet);
    if (in.value("encode-type")) {
      if (session.cache().ScanMedia(dir, encodeType, take) != 1)
        throw Failure("the scan of " + dir + " failed");
    } else if (session.finder().scanMedia(dir, take) != 0) {
      throw Failure("the scan of " + dir + " failed");
    }
  } catch (const boost::interprocess::interprocess_exception& e) {
    // A medium larger than a segment: say what it holds and what makes room.
    const std::string what = e.what();
    const bool clips = what.find("clips need") != std::string::npos;
    if (!clips && what.find("playlists need") == std::string::npos) throw;
    std::size_t candidates = 0;
    for (const std::string& name : names)
      if (name.find(".mov") != std::string::npos || name.find(".MOV") != std::string::npos) ++candidates;
    const std::string kind = clips ? "clips" : "playlists";
    const unsigned long long need = countInSizeError(what, kind.c_str(), clips ? candidates : 0);
    const std::uint64_t size =
        clips ? session.cache().ClipSegmentSize() : session.cache().PlaylistSegmentSize();
    throw Failure("the medium has " + std::to_string(need) + " " + kind + " but the " +
                  (clips ? "catalogue" : "playlist") + " segment holds " +
                  std::to_string(roomIn(size, clips)) + "; make room with 'vorta cache create --prefix " +
                  catalogueName(in) + " --" + kind + " " + std::to_string(need) + "' and scan again");
  }

  // The stored playlists with "All Clips" built from those clips: what
  // GetPlaylists gives, without reading the catalogue a second time.
  std::map<std::string, PlaylistCacheEntry> playlists;
  session.cache().addAllClipsPlaylistToPlaylistCache(playlists, clipNames);
  session.cache().ReadPlaylistCacheFromSharedMemory(playlists);
  // What was taken, by name, and each file left out with its reason.
  // Sorted, each name once, for lookups by name.
  std::vector<std::string> taken(clipNames);
  std::sort(taken.begin(), taken.end());
  taken.erase(std::unique(taken.begin(), taken.end()), taken.end());
  const auto isTaken = [&taken](const std::string& name) {
    // A record holds a name of at most Clip::kNameSize - 1 bytes.
    const std::string_view key(name.data(), std::min(name.size(), Clip::kNameSize - 1));
    return std::binary_search(taken.begin(), taken.end(), key,
                              [](std::string_view a, std::string_view b) { return a < b; });
  };
  std::set<std::string> takenPlaylists;
  for (const auto& pair : playlists) {
    const std::string path(pair.second.path, strnlen(pair.second.path, sizeof pair.second.path));
    if (path.compare(0, dir.size() + 1, dir + "/") == 0) takenPlaylists.insert(path.substr(dir.size() + 1));
  }
  Rows leftOut({{"file", "LEFT OUT", Column::Left, 0, Column::Middle},
                {"reason", "REASON"},
                {"detail", "DETAIL", Column::Left, 0, Column::End}});
  // The scan tests the whole path, directory and name; none of the marks
  // holds a '/', so a mark is in the directory or in the name.
  const auto holds = [&dir](const std::string& name, const char* mark) {
    return dir.find(mark) != std::string::npos || name.find(mark) != std::string::npos;
  };
  for (const std::string& name : names) {
    LeftOut item;
    if (holds(name, ".mov") || holds(name, ".MOV")) {
      if (!isTaken(name)) item = whyLeftOut(session.cache(), dir, name, false);
    } else if (holds(name, ".playlist")) {
      if (takenPlaylists.count(name) == 0) item = whyLeftOut(session.cache(), dir, name, true);
    } else {
      item = {name, "not a clip name", "neither .mov nor .playlist"};
    }
    if (!item.reason.empty()) leftOut.add({text(item.file), text(item.reason), text(item.detail)});
  }
  const auto all = playlists.find(MediaCache::kAllClipsName);
  const std::string allClips = all == playlists.end() ? "" : allClipsProblem(all->second, clipNames.size());
  const std::size_t accepted = names.size() - leftOut.size();
  Rows playlistRows({{"name", "PLAYLIST"}, {"path", "FILE", Column::Left, 0, Column::Middle}});
  for (const auto& pair : playlists) {
    const std::string path(pair.second.path, strnlen(pair.second.path, sizeof(pair.second.path)));
    const bool synthetic = pair.first == MediaCache::kAllClipsName && path.empty();
    playlistRows.add(
        {text(pair.first),
         synthetic ? text(path).shows(allClips.empty() ? "(every clip)" : "(not built: " + allClips + ")")
                   : text(path)});
  }
  // The JSON document is built only when it is printed: for a full medium
  // it costs as much as the table.
  JsonObject json;
  if (formatOf(in) == Format::Json)
    json.set("directory", text(dir))
        .set("encodeType", integer(encodeType))
        .set("files", integer(static_cast<long long>(names.size())))
        .set("accepted", integer(static_cast<long long>(accepted)))
        .set("leftOut", leftOut)
        .set("clips", catalogue)
        .set("playlists", playlistRows)
        .set("allClips", std::move(JsonObject()
                                       .set("built", flag(allClips.empty()))
                                       .set("reason", allClips.empty() ? absent() : text(allClips))));
  printCatalogue(in, catalogue, encodeType, &json);
  if (formatOf(in) != Format::Text) return 0;
  const std::size_t width = terminalWidth();
  std::cout << "\n";
  playlistRows.table(std::cout, width, in.flag("wide"));
  if (!leftOut.empty()) {
    std::cout << "\n";
    leftOut.table(std::cout, width, in.flag("wide"));
  }
  std::cout << "\n";
  say(count(names.size(), "file") + " in " + dir + ": " + std::to_string(accepted) + " taken (" +
      count(taken.size(), "clip") + ", " + count(takenPlaylists.size(), "playlist") + "), " +
      std::to_string(leftOut.size()) + " left out");
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
    "created with the default sizes when missing; existing ones are used as\n"
    "they are, and a medium larger than a segment is refused with the command\n"
    "that makes room. Prints the catalogue, the playlists, every file left out\n"
    "with its reason (codec outside the table, damaged, not a regular file,\n"
    "unreadable, not a clip name, not a playlist file, same text as another\n"
    "playlist) and the counts; --csv and --tsv print the catalogue alone. On a\n"
    "terminal, standard error shows the files done of the total and the rate.",
    mediaOptions(
        {{"encode-type", "N", "the device's current encode type (default: the encode-type parameter)"},
         kUnchecked},
        outputOptions(true, true)),
    runScan,
    1,
    1,
};
VORTA_REGISTER_COMMAND(kScan);

int runClips(Invocation& in) {
  encodeTypeOption(in);  // bad values are refused before anything is opened
  MediaSession session(in, false, CacheUse::Existing);
  const unsigned encodeType = encodeTypeOf(in, session.params());
  std::list<Clip> clips =
      session.finder().findClips(!in.flag("reverse"), in.flag("playlist"), in.flag("all"));
  printCatalogue(in, catalogueRows(session.cache(), clips, encodeType, formatOf(in) == Format::Json),
                 encodeType, nullptr);
  return 0;
}

const Command kClips{
    "clips",
    "print the stored clip catalogue without rescanning",
    "",
    "Lists the clips of the shared catalogue as the recorder's processes see\n"
    "them: oldest first, playable clips only unless --all. With --playlist the\n"
    "current playlist (parameters current-playlist and playback-mode 2)\n"
    "chooses and orders the clips. A table narrower than its terminal leaves\n"
    "out the audio channels, frames, start time code, time, scan mode, codec,\n"
    "rate and size, in that order, as far as it must (--wide: none).",
    mediaOptions({{"reverse", "", "newest first"},
                  {"playlist", "", "through the current playlist"},
                  {"all", "", "include unplayable clips"},
                  {"encode-type", "N", "codec mode to explain playability against (default: the parameter)"},
                  kUnchecked},
                 outputOptions(true)),
    runClips,
    0,
    0,
};
VORTA_REGISTER_COMMAND(kClips);

int runAdd(Invocation& in) {
  encodeTypeOption(in);
  const std::string path = in.args()[0];
  {
    FileParamStore params(paramsFilePath(in, false));
    insideMedium(mediaDirOf(params), absolutePath(path));
  }
  MediaSession session(in, false, CacheUse::Create);
  int index = -1;
  if (!session.cache().AddClip(path, encodeTypeOf(in, session.params()), index, in.flag("name-only")))
    throw Failure(path + " was not taken: not a QuickTime clip the scanner accepts");
  std::vector<char> copy(path.begin(), path.end());
  copy.push_back('\0');
  const std::string name = ::basename(copy.data());
  const std::list<Clip> clips = session.cache().GetClips();
  long long position = 0;
  for (const Clip& clip : clips) {
    if (clipName(clip) == name.substr(0, Clip::kNameSize - 1)) break;
    ++position;
  }
  emit(in,
       JsonObject()
           .set("added", text(name))
           .set("index", integer(index))
           .set("catalogueIndex", integer(position))
           .set("count", integer(static_cast<long long>(clips.size()))),
       "added " + name + ": clip " + std::to_string(position + 1) + " of " + std::to_string(clips.size()) +
           " in the catalogue (oldest first)");
  return 0;
}

const Command kAdd{
    "add",
    "add one clip file to the shared catalogue",
    "FILE",
    "Scans FILE, which must lie inside the media directory (a relative path is\n"
    "taken from the working directory), and puts its clip\n"
    "into the catalogue, replacing any clip of the same name, as the recorder\n"
    "does after it has recorded a clip. Says where the clip now stands in the\n"
    "catalogue, which is sorted oldest first (JSON: catalogueIndex, from 0; its\n"
    "index is the library's, the place it was appended at before sorting).",
    mediaOptions({{"name-only", "", "take the name only, without reading the file"},
                  {"encode-type", "N", "the device's current encode type (default: the parameter)"},
                  kUnchecked},
                 outputOptions(false, true)),
    runAdd,
    1,
    1,
};
VORTA_REGISTER_COMMAND(kAdd);

int runRemove(Invocation& in) {
  MediaSession session(in, false, CacheUse::Existing);
  const std::string& given = in.args()[0];
  const std::list<Clip> before = session.cache().GetClips();
  // The library removes the first clip (oldest first) whose name occurs in
  // the text given; --exact takes only a clip of exactly that name (or a
  // path ending in it) and refuses when the library would take another.
  std::vector<std::string> occurring;
  for (const Clip& clip : before)
    if (given.find(clipName(clip)) != std::string::npos) occurring.push_back(clipName(clip));
  if (in.flag("exact")) {
    std::vector<char> copy(given.begin(), given.end());
    copy.push_back('\0');
    const std::string base = ::basename(copy.data());
    if (occurring.empty() || std::find(occurring.begin(), occurring.end(), base) == occurring.end())
      throw Failure("no clip of the catalogue is named '" + base + "'");
    if (occurring.size() > 1 || occurring.front() != base) {
      std::string names;
      for (const std::string& name : occurring) names += (names.empty() ? "" : ", ") + name;
      throw Failure("'" + given + "' is ambiguous: the names " + names +
                    " all occur in it, and the first would go; nothing removed");
    }
  }
  if (!session.cache().RemoveClip(given))
    throw Failure("no clip of the catalogue is named in '" + given + "'");
  const std::list<Clip> after = session.cache().GetClips();
  // The clip that went: the first of the old list missing from the new one.
  std::string removed = occurring.empty() ? std::string("?") : occurring.front();
  auto left = after.begin();
  for (const Clip& clip : before) {
    if (left == after.end() || clipName(*left) != clipName(clip)) {
      removed = clipName(clip);
      break;
    }
    ++left;
  }
  emit(in,
       JsonObject().set("removed", text(removed)).set("count", integer(static_cast<long long>(after.size()))),
       "removed " + removed + "; the catalogue holds " + count(after.size(), "clip"));
  return 0;
}

const Command kRemove{
    "remove",
    "remove a clip from the shared catalogue",
    "NAME",
    "Removes the first clip (oldest first) whose name occurs in NAME, which\n"
    "may be the clip's name or a path that contains it, and says which clip\n"
    "went: XXClipTK1.mov.old removes ClipTK1.mov. With --exact only a clip\n"
    "named exactly NAME (or the last part of a path) goes, and a NAME in which\n"
    "other clip names occur too is refused. The file itself is not touched.",
    mediaOptions({{"exact", "", "remove only the clip of exactly this name; refuse ambiguous names"}},
                 {jsonOption()}),
    runRemove,
    1,
    1,
};
VORTA_REGISTER_COMMAND(kRemove);

}  // namespace
