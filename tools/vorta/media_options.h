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

/// The parameter file and a ClipFinder over the shared caches (created with
/// the default sizes when missing), as one recorder process holds them.
class MediaSession {
 public:
  MediaSession(const Invocation& in, bool writesParams)
      : params_(paramsFilePath(in, writesParams)),
        finder_(&params_, cacheOptionsFrom(in)),
        cache_(cacheOptionsFrom(in)) {}

  FileParamStore& params() { return params_; }
  ClipFinder& finder() { return finder_; }
  /// The same caches, for the operations ClipFinder does not offer.
  zev::media::MediaCache& cache() { return cache_; }

 private:
  FileParamStore params_;
  ClipFinder finder_;
  zev::media::MediaCache cache_;
};

}  // namespace cli
}  // namespace vorta
