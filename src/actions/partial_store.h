// PartialStore: the copies of archives whose fetch stopped early, kept so
// that the next fetch resumes where they end instead of starting again.
//
// A kept copy lives outside the destination and the session directory
// (either may hold an archive of any relative name), in a directory of its
// own for each destination under the store's root, under the MD5 of the archive's name:
// KEY.part holds the bytes, KEY.list the listing they belong to (the
// listed size, the listed sum and the name, one per line). So a kept copy
// can neither pass for an archive nor meet a listed name. The listing is
// written before the bytes are moved in; a copy without its listing is
// never used.
//
// The store moves copies with rename(2): a copy on another file system
// than the store is not kept. No operation throws.
#ifndef FERROW_ACTIONS_PARTIAL_STORE_H_
#define FERROW_ACTIONS_PARTIAL_STORE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "xml/agent_file_list.h"

namespace tovel {

class PartialStore {
 public:
  // Archives listed smaller than this are fetched again whole: a few
  // seconds at worst on a slow link, and no state to keep.
  static constexpr uint64_t kMinBytes = 4u << 20;

  // The store, under `root`, of the archives fetched to `destination`, an
  // existing directory. root is made (0700) when a copy is first kept.
  PartialStore(const std::string& root, const std::string& destination);

  // Removes every kept copy that belongs to no archive of `files` (same
  // name, size and sum), is empty or longer than listed, or lacks its
  // listing.
  void prune(const std::vector<DumpFile>& files);

  // Moves f's kept copy to `local`, replacing what is there; returns its
  // length, 0 when there is none or it cannot be moved (then it is gone).
  uint64_t restore(const DumpFile& f, const std::string& local);

  // The fetch of f to `local` stopped early: keeps the copy when f is
  // listed at kMinBytes or more and the copy holds 1 to f's listed size
  // bytes; otherwise, or when the copy cannot be moved, removes it.
  void keep(const DumpFile& f, const std::string& local);

  // Removes f's kept copy, if any.
  void discard(const DumpFile& f);

  const std::string& dir() const { return dir_; }

 private:
  std::string key(const std::string& name) const;
  bool resumable(const DumpFile& f) const;

  std::string dir_;
};

}  // namespace tovel

#endif  // FERROW_ACTIONS_PARTIAL_STORE_H_
