// SPDX-License-Identifier: MIT
// vorta: mappings of shared objects that another process may shrink, turned from a fatal SIGBUS into
// a mapping that reads as zeros and is known to be lost.
#ifndef VORTA_INTERNAL_SHRINKABLE_MAPPING_H
#define VORTA_INTERNAL_SHRINKABLE_MAPPING_H

#include <cstddef>

namespace zev {
namespace detail {

/// Any process that may open a shared-memory object can also cut it short
/// with ftruncate. Pages of a mapping past the object's new end then raise
/// SIGBUS on the next access, which would kill a reader that only looked.
/// A watched mapping is handled instead: the process's SIGBUS handler
/// (installed by the first watchMapping, and passing every other SIGBUS on
/// to the handler that was there before, or to the default action) puts
/// private zero pages in place of the whole mapping, so that the access that
/// faulted and every later one complete, and marks the mapping lost.
///
/// The caller checks mappingLost() after each use and throws away whatever
/// it read or did meanwhile. The mapping stays the caller's to unmap. At
/// most kMaxWatched mappings are watched at once per process; past that
/// watchMapping returns false and the mapping is as unprotected as any.
/// A handler for SIGBUS that the program installs after a watch replaces
/// this one until the next watch, which puts it back in front of the
/// program's.
constexpr int kMaxWatched = 256;

/// Watches [start, start + length); start is page-aligned (as mmap returns it).
bool watchMapping(void* start, std::size_t length);
/// Stops watching the mapping that starts at start, before it is unmapped.
void unwatchMapping(const void* start);
/// True once a fault in the watched mapping that starts at start has
/// replaced pages of it with zero pages.
bool mappingLost(const void* start);
/// Bytes from start that are still mapped to the object: the whole length
/// until a fault; the largest size_t for a mapping not watched.
std::size_t mappingKept(const void* start);

}  // namespace detail
}  // namespace zev

#endif  // VORTA_INTERNAL_SHRINKABLE_MAPPING_H
