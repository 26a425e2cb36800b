#include "actions/partial_store.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <fstream>
#include <log4cpp/Category.hh>
#include <map>
#include <memory>

#include "commons/checksum.h"
#include "commons/make_dir.h"

namespace tovel {

namespace {

log4cpp::Category& logger() {
  return log4cpp::Category::getInstance("p.RetrieveContentAction");
}

// The destination as the file system knows it, so that two spellings of
// one directory share a store.
std::string canonical(const std::string& path) {
  std::unique_ptr<char, decltype(&free)> real(realpath(path.c_str(), nullptr),
                                              &free);
  return real ? std::string(real.get()) : path;
}

std::string listingOf(const DumpFile& f) {
  return std::to_string(*f.size) + "\n" + f.md5sum + "\n" + f.name + "\n";
}

// -1 when path is not a regular file.
int64_t lengthOf(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return -1;
  return info.st_size;
}

bool readsAs(const std::string& path, const std::string& expected) {
  std::ifstream in(path.c_str(), std::ios::binary);
  std::string text(expected.size() + 1, '\0');
  in.read(&text[0], static_cast<std::streamsize>(text.size()));
  return static_cast<std::size_t>(in.gcount()) == expected.size() &&
         text.compare(0, expected.size(), expected) == 0;
}

bool writeWhole(const std::string& path, const std::string& text) {
  std::ofstream out(path.c_str(), std::ios::binary | std::ios::trunc);
  out << text;
  out.close();
  return !out.fail();
}

void removeFile(const std::string& path, const char* what) {
  if (unlink(path.c_str()) == 0) logger().debug(std::string(what) + path);
}

}  // namespace

PartialStore::PartialStore(const std::string& root,
                           const std::string& destination)
    : dir_(root + "/" + countMd5Sum(canonical(destination))) {}

std::string PartialStore::key(const std::string& name) const {
  return dir_ + "/" + countMd5Sum(name);
}

bool PartialStore::resumable(const DumpFile& f) const {
  return f.size && *f.size >= kMinBytes;
}

void PartialStore::prune(const std::vector<DumpFile>& files) {
  boost::system::error_code error;
  if (!boost::filesystem::is_directory(dir_, error)) return;
  std::map<std::string, const DumpFile*> listed;
  for (const DumpFile& f : files) {
    if (resumable(f)) listed[countMd5Sum(f.name)] = &f;
  }
  std::vector<std::string> stale;
  for (boost::filesystem::directory_iterator it(dir_, error), end;
       !error && it != end; it.increment(error)) {
    std::string entry = it->path().filename().string();
    std::string base = entry.substr(0, entry.find('.'));
    auto f = listed.find(base);
    bool sound = false;
    const std::string pair = dir_ + "/" + base;  // the entry's key
    if (f != listed.end() &&
        (entry == base + ".part" || entry == base + ".list")) {
      int64_t length = lengthOf(pair + ".part");
      sound = length > 0 && static_cast<uint64_t>(length) <= *f->second->size &&
              readsAs(pair + ".list", listingOf(*f->second));
    }
    if (!sound) stale.push_back(dir_ + "/" + entry);
  }
  for (const std::string& path : stale) {
    removeFile(path, "Removed a kept copy of another listing: ");
  }
  rmdir(dir_.c_str());  // only when empty
}

uint64_t PartialStore::restore(const DumpFile& f, const std::string& local) {
  if (!resumable(f)) return 0;
  const std::string part = key(f.name) + ".part";
  int64_t length = lengthOf(part);
  if (length <= 0) return 0;
  if (rename(part.c_str(), local.c_str()) != 0) {
    discard(f);
    return 0;
  }
  unlink((key(f.name) + ".list").c_str());
  logger().debug("Resuming " + local + " after its first " +
                 std::to_string(length) + " bytes");
  return static_cast<uint64_t>(length);
}

void PartialStore::keep(const DumpFile& f, const std::string& local) {
  int64_t length = lengthOf(local);
  if (length <= 0 || !resumable(f) ||
      static_cast<uint64_t>(length) > *f.size) {
    removeFile(local, "Removed the incomplete local copy ");
    return;
  }
  const std::string base = key(f.name);
  try {
    make_dir(dir_, 0, 0, 0700);
  } catch (...) {
    // Shows as a failed write below.
  }
  bool kept = writeWhole(base + ".list.new", listingOf(f)) &&
              rename((base + ".list.new").c_str(), (base + ".list").c_str()) == 0 &&
              rename(local.c_str(), (base + ".part").c_str()) == 0;
  if (!kept) {
    unlink((base + ".list.new").c_str());
    unlink((base + ".list").c_str());
    removeFile(local, "Removed the incomplete local copy ");
    return;
  }
  logger().debug("Kept the first " + std::to_string(length) + " bytes of " +
                 local + " as " + base + ".part");
}

void PartialStore::discard(const DumpFile& f) {
  const std::string base = key(f.name);
  removeFile(base + ".part", "Removed the kept copy ");
  unlink((base + ".list").c_str());
}

}  // namespace tovel
