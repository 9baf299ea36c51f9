// SPDX-License-Identifier: MIT
// vorta tool: what the media commands share: the parameter file, the caches and a ClipFinder over them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "cache_options.h"
#include "cli.h"
#include "fileutils.h"
#include "paramstore.h"

namespace vorta {
namespace cli {

/// The options of every command that works on the medium: the parameter
/// file, the cache names, and the command's own options.
inline std::vector<Option> mediaOptions(std::vector<Option> own) {
  std::vector<Option> options = std::move(own);
  options.push_back(
      {"params", "FILE", "the parameter file (default: $VORTA_PARAMS or ~/.local/state/vorta/params.json)"});
  for (Option& option : cacheNameOptions()) options.push_back(std::move(option));
  return options;
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
