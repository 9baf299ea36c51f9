// SPDX-License-Identifier: MIT
// vorta tool: what the media commands share: the parameter file, the caches and a ClipFinder over them.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cache_options.h"
#include "cli.h"
#include "fileutils.h"
#include "paramstore.h"

namespace vorta {
namespace cli {

/// The options of every command that works on the medium: its own, its
/// output options, the parameter file and the cache names.
inline std::vector<Option> mediaOptions(std::vector<Option> own, const std::vector<Option>& output) {
  std::vector<Option> options = join(std::move(own), output);
  options.push_back(
      {"params", "FILE", "the parameter file (default: $VORTA_PARAMS or ~/.local/state/vorta/params.json)"});
  for (Option& option : cacheNameOptions()) options.push_back(std::move(option));
  return options;
}

/// The media directory the parameters name; a failure when it is not set.
inline std::string mediaDirOf(ParamStore& params) {
  std::string dir;
  params.getParamString(eParamMediaDir, dir);
  if (dir.empty()) throw Failure("the media directory is not set (vorta param set media-dir DIR)");
  return dir;
}

/// realpath(3) as a string; "" when it fails.
inline std::string realPath(const std::string& path) {
  char* resolved = ::realpath(path.c_str(), nullptr);
  if (resolved == nullptr) return "";
  std::string out(resolved);
  std::free(resolved);
  return out;
}

/// path made absolute and resolved as the kernel would resolve it: the
/// deepest part of it that exists by realpath(3) (symbolic links, "." and
/// ".."); the rest does not exist yet, so it holds no link, and must hold no
/// "..". "" when that cannot be done; why in error.
inline std::string resolvedPath(std::string path, std::string& error) {
  std::vector<std::string> rest;  // the missing components, last first
  for (struct stat st; ::lstat(path.c_str(), &st) != 0;) {
    if (errno != ENOENT && errno != ENOTDIR && errno != ENAMETOOLONG) return error = std::strerror(errno), "";
    const std::string::size_type slash = path.find_last_of('/');
    rest.push_back(path.substr(slash == std::string::npos ? 0 : slash + 1));
    path = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  }
  std::string resolved = realPath(path);
  if (resolved.empty()) return error = std::strerror(errno), "";
  for (auto it = rest.rbegin(); it != rest.rend(); ++it) {
    if (*it == "..") return error = "'..' after a part that does not exist", "";
    if (!it->empty() && *it != ".") resolved += (resolved == "/" ? "" : "/") + *it;
  }
  return resolved;
}

/// path as an absolute path: relative ones are taken from the working directory.
inline std::string absolutePath(const std::string& path) {
  if (!path.empty() && path[0] == '/') return path;
  char* cwd = ::getcwd(nullptr, 0);
  if (cwd == nullptr)
    throw Failure(std::string("cannot read the working directory: ") + std::strerror(errno));
  const std::string out = std::string(cwd) + "/" + path;
  std::free(cwd);
  return out;
}

/// NAME (a name in the media directory DIR, a path relative to it or an
/// absolute path) as a name relative to the medium, when it lies inside
/// it: resolved (resolvedPath) it must lie below the resolved media
/// directory, and so must the directory that holds it. The name keeps its
/// last part as given, so that an operation on a link inside the medium
/// works on the link. Anything else is refused, before the library is
/// given the name.
inline std::string insideMedium(const std::string& dir, const std::string& name) {
  std::string error;
  const std::string root = resolvedPath(dir, error);
  if (root.empty()) throw Failure("cannot resolve the media directory " + dir + ": " + error);
  const auto refuse = [&](const std::string& why) {
    return Failure("refused: " + name + " is not inside the media directory " + dir +
                   (why.empty() ? "" : " (" + why + ")"));
  };
  // The part of path below the medium with a "/" after it; "" for the medium itself.
  const auto below = [&](const std::string& path, bool orRoot) {
    std::string why;
    const std::string resolved = resolvedPath(path, why);
    if (orRoot && !resolved.empty() && resolved == root) return std::string();
    if (resolved.size() > root.size() + 1 && resolved.compare(0, root.size() + 1, root + "/") == 0)
      return resolved.substr(root.size() + 1) + "/";
    throw refuse(why);
  };
  std::string path = !name.empty() && name[0] == '/' ? name : dir + "/" + name;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  below(path, false);
  const std::string::size_type slash = path.find_last_of('/');
  const std::string last = path.substr(slash + 1);
  if (last == "." || last == "..") throw refuse("");
  return below(slash == 0 ? "/" : path.substr(0, slash), true) + last;
}

/// What a command does to the shared caches: only read or change what is
/// there (a missing catalogue is a failure), or create them with the
/// default sizes when missing (existing ones are used as they are).
enum class CacheUse { Existing, Create };

/// The parameter file and a ClipFinder over the shared caches, as one
/// recorder process holds them. With CacheUse::Existing nothing is created:
/// no segment, no mutex.
class MediaSession {
 public:
  MediaSession(const Invocation& in, bool writesParams, CacheUse use)
      : params_(paramsFilePath(in, writesParams)) {
    zev::media::MediaCacheOptions options = cacheOptionsFrom(in);
    options.create = false;
    if (use == CacheUse::Create) {
      try {
        open(options);
        return;
      } catch (const boost::interprocess::interprocess_exception& e) {
        // Only a missing cache is created; any other error is reported below.
        options.create = e.get_native_error() == ENOENT;
      }
    }
    openExisting(in, options, [&] { return open(options), 0; });
  }

  FileParamStore& params() { return params_; }
  ClipFinder& finder() { return *finder_; }
  /// The same caches, for the operations ClipFinder does not offer.
  zev::media::MediaCache& cache() { return *cache_; }

 private:
  void open(const zev::media::MediaCacheOptions& options) {
    finder_ = std::make_unique<ClipFinder>(&params_, options);
    cache_ = std::make_unique<zev::media::MediaCache>(options);
  }

  FileParamStore params_;
  std::unique_ptr<ClipFinder> finder_;
  std::unique_ptr<zev::media::MediaCache> cache_;
};

}  // namespace cli
}  // namespace vorta
