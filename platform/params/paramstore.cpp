// SPDX-License-Identifier: MIT
// vorta platform: the recorder's parameter service interface and two implementations.
#include "paramstore.h"

#include <cjson/cJSON.h>
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "internal/unique_fd.h"

using zev::detail::UniqueFd;

namespace {

// clang-format off
const std::vector<ParamInfo> kParams = {
  {eParamLinkMode,           "link-mode",             false, 0, "", "1: the unit runs linked to other units"},
  {eParamLinkRole,           "link-role",             false, 1, "", "0: this unit is the slave"},
  {eParamClipNameSource,     "clip-name-source",      false, 0, "", "1, 2 or 3: the clip name comes from the camera (RED)"},
  {eParamEncodeType,         "encode-type",           false, 1, "", "current encode type (0-3 ProRes 422, 4-6 DNxHD, 7 4444, 8 2vuy, 9 v210)"},
  {eParamPlaybackMode,       "playback-mode",         false, 0, "", "2: play the current playlist; else all clips"},
  {eParamCurrentPlaylist,    "current-playlist",      true,  0, "", "name of the current playlist"},
  {eParamClipNameScene,      "clip-name-scene",       false, 0, "", "non-zero: names start \"SC\", else \"Clip\""},
  {eParamClipNameNumber,     "clip-name-number",      false, 0, "", "number after the prefix; 0: none"},
  {eParamClipNameLetterOn,   "clip-name-letter-on",   false, 0, "", "non-zero: a letter follows the number"},
  {eParamClipNameLetter,     "clip-name-letter",      false, 'A', "", "that letter, as a character code"},
  {eParamTake,               "take",                  false, 1, "", "take of the standard name"},
  {eParamCustomClipName,     "custom-clip-name",      false, 0, "", "1: use the typed clip name"},
  {eParamCustomClipNameText, "custom-clip-name-text", true,  0, "", "the typed clip name"},
  {eParamCustomTake,         "custom-take",           false, 0, "", "1: append a take to the typed name"},
  {eParamCustomTakeNumber,   "custom-take-number",    false, 1, "", "take of the typed name"},
  {eParamLinkClipName,       "link-clip-name",        false, 1, "", "0: a slave names its clips after the master"},
  {eParamMediaDir,           "media-dir",             true,  0, "", "the media directory"},
  {eParamMediaBusy,          "media-busy",            false, 2, "", "1 while a media operation runs, 2 after"},
  {eParamMasterClipName,     "master-clip-name",      true,  0, "", "the master unit's clip name"},
  {eParamREDClipName,        "red-clip-name",         true,  0, "InvalidRED", "the camera-supplied clip name"},
};
// clang-format on

std::string keyOf(eParam_t id) {
  if (const ParamInfo* info = findParam(id)) return info->name;
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "0x%08X", static_cast<unsigned>(id));
  return buffer;
}

uint32_t defaultValue(eParam_t id) {
  const ParamInfo* info = findParam(id);
  return info != nullptr && !info->isText ? info->defaultValue : 0;
}

std::string defaultText(eParam_t id) {
  const ParamInfo* info = findParam(id);
  return info != nullptr && info->isText ? info->defaultText : "";
}

struct JsonDeleter {
  void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

// A parameter file is small; anything larger is not one.
constexpr long kMaxFileSize = 1 << 20;

enum class FileState { Missing, Ok, Bad };

// Reads and parses the file. Missing: no file. Bad: unreadable, too large,
// or not a JSON object.
FileState readFile(const std::string& path, Json& doc, std::string* raw = nullptr) {
  // The open never blocks (a FIFO under the name would wait for a writer)
  // and anything but a regular file is Bad; the file is then read blocking.
  UniqueFd fd = UniqueFd::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY);
  if (!fd) return errno == ENOENT ? FileState::Missing : FileState::Bad;
  struct stat info;
  const int flags = ::fcntl(fd.get(), F_GETFL);
  if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode) || flags == -1 ||
      ::fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) == -1)
    return FileState::Bad;
  FILE* f = ::fdopen(fd.get(), "rb");
  if (f == nullptr) return FileState::Bad;
  fd.release();  // the stream owns it now
  std::string text;
  char chunk[4096];
  std::size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) {
    text.append(chunk, n);
    if (text.size() > static_cast<std::size_t>(kMaxFileSize)) break;
  }
  const bool readError = std::ferror(f) != 0;
  std::fclose(f);
  if (readError || text.size() > static_cast<std::size_t>(kMaxFileSize)) return FileState::Bad;
  doc.reset(cJSON_ParseWithLength(text.data(), text.size()));
  if (!doc || !cJSON_IsObject(doc.get())) return FileState::Bad;
  if (raw != nullptr) *raw = std::move(text);
  return FileState::Ok;
}

bool asValue(const cJSON* item, uint32_t& value) {
  if (!cJSON_IsNumber(item)) return false;
  const double d = item->valuedouble;
  if (!(d >= 0.0 && d <= 4294967295.0) || std::floor(d) != d) return false;
  value = static_cast<uint32_t>(d);
  return true;
}

// The file a parameter path stands for: its symbolic links followed to the
// end (also to a file that does not exist yet) and its directory resolved,
// so that every spelling of one file (a link to it, "dir/../dir/p.json")
// comes out the same. A write replaces that file, not a link to it, and
// takes that file's lock. When the directory cannot be resolved the path
// stays as it is (and the write fails there).
std::string resolvedPath(const std::string& path) {
  std::string current = path;
  for (int links = 0; links < 40; ++links) {
    struct stat info;
    if (::lstat(current.c_str(), &info) != 0 || !S_ISLNK(info.st_mode)) break;
    char target[PATH_MAX];
    const ssize_t n = ::readlink(current.c_str(), target, sizeof target - 1);
    if (n <= 0) break;
    const std::string link(target, static_cast<std::size_t>(n));
    const std::string::size_type slash = current.rfind('/');
    if (link[0] == '/' || slash == std::string::npos)
      current = link;
    else
      current = current.substr(0, slash + 1) + link;
  }
  const std::string::size_type slash = current.rfind('/');
  const std::string directory = slash == std::string::npos ? "."
                                : slash == 0               ? "/"
                                                           : current.substr(0, slash);
  const std::string name = slash == std::string::npos ? current : current.substr(slash + 1);
  char resolved[PATH_MAX];
  if (name.empty() || name == "." || name == ".." || ::realpath(directory.c_str(), resolved) == nullptr)
    return current;
  const std::string base(resolved);
  return (base == "/" ? base : base + "/") + name;
}

// Holds an exclusive lock on path + ".lock" for the duration of a write
// (path already resolved: one lock per file, whatever the spelling).
class WriteLock {
 public:
  explicit WriteLock(const std::string& path) {
    fd_ = UniqueFd::open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_NONBLOCK | O_NOCTTY, 0644);
    if (!fd_) return;
    // Only a regular file is locked: a FIFO or device under the name is refused.
    struct stat info;
    if (::fstat(fd_.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
      fd_.reset();
      errno = EINVAL;
      return;
    }
    struct flock lock;
    std::memset(&lock, 0, sizeof lock);
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    while (fcntl(fd_.get(), F_SETLKW, &lock) < 0) {
      if (errno != EINTR) {
        fd_.reset();
        return;
      }
    }
  }
  bool held() const { return fd_.valid(); }

 private:
  UniqueFd fd_;  // closing it releases the lock
};

// The temporary file a writer replaces path through: path + ".tmp." + its pid.
std::string temporaryPath(const std::string& path, long pid) { return path + ".tmp." + std::to_string(pid); }

// Removes the temporary files that writers killed part-way through a write
// left beside path (resolved), under the write lock: a writer's temporary
// file lives only while that writer holds the lock, so one whose writer no
// longer runs is left over. Those of running processes are left alone.
void removeStaleTemporaries(const std::string& path) {
  const std::string::size_type slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  const std::string prefix = (slash == std::string::npos ? path : path.substr(slash + 1)) + ".tmp.";
  DIR* dir = ::opendir(directory.c_str());
  if (dir == nullptr) return;
  // readdir64: a 32-bit program's readdir gives up (EOVERFLOW) and lists
  // nothing when the file system's directory offsets do not fit 32 bits.
  while (const struct dirent64* entry = ::readdir64(dir)) {
    const char* name = entry->d_name;
    if (std::strncmp(name, prefix.c_str(), prefix.size()) != 0) continue;
    const char* digits = name + prefix.size();
    char* end = nullptr;
    errno = 0;
    const long pid = std::strtol(digits, &end, 10);
    if (*digits < '1' || *digits > '9' || errno != 0 || *end != '\0' || pid <= 0 || pid > INT_MAX) continue;
    if (::kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) continue;
    const std::string stale = (directory == "/" ? "" : directory) + "/" + name;
    struct stat info;
    if (::lstat(stale.c_str(), &info) == 0 && S_ISREG(info.st_mode)) ::unlink(stale.c_str());
  }
  ::closedir(dir);
}

// Puts content in place of current, the file's text as read under the
// write lock, when the two differ in at most one byte: that byte is written
// over the old one, which no reader, crash or power cut can see
// half-written, and a file that holds content already is left alone. False,
// with the file unchanged, when they differ otherwise or the file cannot be
// written in place (a file that is no longer regular or no longer of that
// size, no permission to write it).
bool writeInPlace(const std::string& path, const std::string& current, const std::string& content) {
  if (content.size() != current.size()) return false;
  std::size_t at = content.size();
  for (std::size_t i = 0; i < content.size(); ++i) {
    if (content[i] == current[i]) continue;
    if (at != content.size()) return false;  // a second difference
    at = i;
  }
  if (at == content.size()) return true;  // the file holds it already
  UniqueFd fd = UniqueFd::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY);
  if (!fd) return false;
  struct stat info;
  if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode) ||
      static_cast<std::size_t>(info.st_size) != current.size())
    return false;
  ssize_t written;
  do {
    written = ::pwrite(fd.get(), content.data() + at, 1, static_cast<off_t>(at));
  } while (written < 0 && errno == EINTR);
  return written == 1 && fd.close();
}

// The file is replaced whole through a temporary file and rename. When
// durable, the new content is forced to storage before the rename. A write
// that need not be durable and changes at most one byte of current (the
// file's text as read under the lock, when there is one) writes that byte in
// place: a media-busy of 1 becoming 2 costs no new file and no rename.
bool writeAtomically(const std::string& path, const cJSON* doc, bool durable, const std::string* current) {
  std::string content;
  {
    char* text = cJSON_Print(doc);
    if (text == nullptr) return false;
    const std::unique_ptr<char, void (*)(void*)> printed(text, cJSON_free);
    content = text;
  }
  content += '\n';
  if (!durable && current != nullptr && writeInPlace(path, *current, content)) return true;
  const std::string tmp = temporaryPath(path, static_cast<long>(getpid()));
  // A FIFO or device left under the temporary name is neither blocked on
  // nor written: the open does not block, and only a regular file is
  // truncated and written.
  UniqueFd fd = UniqueFd::open(tmp.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY, 0644);
  if (fd) {
    struct stat info;
    const int flags = ::fcntl(fd.get(), F_GETFL);
    if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode) || flags == -1 ||
        ::fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) == -1 || ::ftruncate(fd.get(), 0) != 0) {
      fd.reset();
      errno = EINVAL;
    }
  }
  if (!fd) {
    std::perror(tmp.c_str());
    return false;
  }
  std::size_t done = 0;
  bool ok = true;
  while (done < content.size()) {
    const ssize_t w = ::write(fd.get(), content.data() + done, content.size() - done);
    if (w < 0) {
      if (errno == EINTR) continue;
      ok = false;
      break;
    }
    done += static_cast<std::size_t>(w);
  }
  if (ok && durable && ::fsync(fd.get()) != 0) ok = false;
  if (!fd.close()) ok = false;
  if (ok && std::rename(tmp.c_str(), path.c_str()) != 0) ok = false;
  if (!ok) {
    std::perror(path.c_str());
    ::unlink(tmp.c_str());
  }
  return ok;
}

// Replaces one member of the file under the write lock: read, change, write
// atomically. A file that is not a parameter file is never overwritten.
int updateFile(const std::string& given, eParam_t id, cJSON* value) {
  Json owned(value);
  if (!owned) return 0;  // no memory for the value: the file keeps the old one
  const std::string path = resolvedPath(given);
  WriteLock lock(path);
  if (!lock.held()) {
    std::perror((path + ".lock").c_str());
    return 0;
  }
  removeStaleTemporaries(path);
  Json doc;
  std::string current;
  const FileState state = readFile(path, doc, &current);
  if (state == FileState::Bad) {
    std::fprintf(stderr, "%s: not a parameter file (a JSON object); left as it is\n", path.c_str());
    return 0;
  }
  if (state == FileState::Missing) doc.reset(cJSON_CreateObject());
  if (!doc) return 0;
  const std::string key = keyOf(id);
  cJSON_DeleteItemFromObjectCaseSensitive(doc.get(), key.c_str());
  cJSON_AddItemToObject(doc.get(), key.c_str(), owned.release());
  // media-busy says what a process is doing now, and is written around
  // every scan: after a power cut it is stale whatever it says, so its
  // writes are not forced to storage (each costs a journal commit).
  return writeAtomically(path, doc.get(), id != eParamMediaBusy, state == FileState::Ok ? &current : nullptr)
             ? 1
             : 0;
}

}  // namespace

const std::vector<ParamInfo>& knownParams() { return kParams; }

const ParamInfo* findParam(eParam_t id) {
  for (const ParamInfo& info : kParams)
    if (info.id == id) return &info;
  return nullptr;
}

const ParamInfo* findParam(const std::string& nameOrNumber) {
  for (const ParamInfo& info : kParams)
    if (nameOrNumber == info.name) return &info;
  if (nameOrNumber.empty()) return nullptr;
  errno = 0;
  char* end = nullptr;
  const unsigned long long number = std::strtoull(nameOrNumber.c_str(), &end, 0);
  if (errno != 0 || end == nullptr || *end != '\0' || number > 0xFFFFFFFFull || nameOrNumber[0] == '-')
    return nullptr;
  return findParam(static_cast<eParam_t>(number));
}

ParamStore::~ParamStore() = default;

// ---- MemoryParamStore ------------------------------------------------------

MemoryParamStore::MemoryParamStore() = default;
MemoryParamStore::~MemoryParamStore() = default;

bool MemoryParamStore::hasParam(eParam_t id) {
  return values_.count(id) != 0 || texts_.count(id) != 0 || findParam(id) != nullptr;
}

int MemoryParamStore::setParam(eParam_t id, uint32_t value) {
  texts_.erase(id);
  values_[id] = value;
  return 1;
}

uint32_t MemoryParamStore::getParam(eParam_t id) {
  uint32_t value = 0;
  getParamValue(id, value);
  return value;
}

bool MemoryParamStore::isTextParam(eParam_t id) {
  if (texts_.count(id) != 0) return true;
  if (values_.count(id) != 0) return false;
  const ParamInfo* info = findParam(id);
  return info != nullptr && info->isText;
}

int MemoryParamStore::getParamValue(eParam_t id, uint32_t& value) {
  const auto it = values_.find(id);
  if (it != values_.end()) {
    value = it->second;
    return 1;
  }
  if (isTextParam(id)) return 0;
  value = defaultValue(id);
  return 1;
}

int MemoryParamStore::setParamString(eParam_t id, const std::string& text) {
  values_.erase(id);
  texts_[id] = text;
  return 1;
}

int MemoryParamStore::getParamString(eParam_t id, std::string& value) {
  const auto it = texts_.find(id);
  if (it != texts_.end()) {
    value = it->second;
    return 1;
  }
  if (!isTextParam(id) && findParam(id) != nullptr) return 0;
  value = defaultText(id);
  return 1;
}

// ---- FileParamStore --------------------------------------------------------

namespace {

// Runs an operation of the file store; when memory runs out part-way it
// reports failure instead of throwing (the file is only ever replaced whole,
// so it keeps its old content).
template <typename Result, typename Body>
Result unlessOutOfMemory(Result failure, Body&& body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return failure;
  }
}

}  // namespace

FileParamStore::FileParamStore(std::string path) : path_(std::move(path)) {}
FileParamStore::~FileParamStore() = default;

bool FileParamStore::hasParam(eParam_t id) {
  if (findParam(id) != nullptr) return true;
  return unlessOutOfMemory(false, [&] {
    Json doc;
    return readFile(path_, doc) == FileState::Ok &&
           cJSON_GetObjectItemCaseSensitive(doc.get(), keyOf(id).c_str()) != nullptr;
  });
}

int FileParamStore::setParam(eParam_t id, uint32_t value) {
  return unlessOutOfMemory(
      0, [&] { return updateFile(path_, id, cJSON_CreateNumber(static_cast<double>(value))); });
}

uint32_t FileParamStore::getParam(eParam_t id) {
  uint32_t value = 0;
  getParamValue(id, value);
  return value;
}

bool FileParamStore::isTextParam(eParam_t id) {
  if (const ParamInfo* info = findParam(id)) return info->isText;
  return unlessOutOfMemory(false, [&] {
    Json doc;
    if (readFile(path_, doc) != FileState::Ok) return false;
    return static_cast<bool>(cJSON_IsString(cJSON_GetObjectItemCaseSensitive(doc.get(), keyOf(id).c_str())));
  });
}

int FileParamStore::getParamValue(eParam_t id, uint32_t& value) {
  const ParamInfo* info = findParam(id);
  if (info != nullptr && info->isText) return 0;
  return unlessOutOfMemory(0, [&] {
    Json doc;
    const FileState state = readFile(path_, doc);
    if (state == FileState::Bad) return 0;
    if (state == FileState::Ok) {
      const cJSON* item = cJSON_GetObjectItemCaseSensitive(doc.get(), keyOf(id).c_str());
      if (item != nullptr) {
        if (cJSON_IsString(item)) return 0;
        if (asValue(item, value)) return 1;
      }
    }
    value = defaultValue(id);
    return 1;
  });
}

int FileParamStore::setParamString(eParam_t id, const std::string& text) {
  return unlessOutOfMemory(0, [&] { return updateFile(path_, id, cJSON_CreateString(text.c_str())); });
}

int FileParamStore::getParamString(eParam_t id, std::string& value) {
  const ParamInfo* info = findParam(id);
  if (info != nullptr && !info->isText) return 0;
  return unlessOutOfMemory(0, [&] {
    Json doc;
    const FileState state = readFile(path_, doc);
    if (state == FileState::Bad) return 0;
    if (state == FileState::Ok) {
      const cJSON* item = cJSON_GetObjectItemCaseSensitive(doc.get(), keyOf(id).c_str());
      if (item != nullptr) {
        if (!cJSON_IsString(item)) return 0;
        value = item->valuestring;
        return 1;
      }
    }
    value = defaultText(id);
    return 1;
  });
}
