// Adds up by file system; a file counts with the blocks it has, since holes stay holes.
#include "host/preflight/SpaceNeeds.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>

#include "platform/linux/files/TreeWalkerLinux.h"

namespace quorvel::host {

namespace {

constexpr std::uint64_t kStatBlock = 512;  // the unit of st_blocks, whatever the file system's
// The registry's log, one placeholder with its icon and the logs' first pages.
constexpr std::uint64_t kMarginBytes = 1024 * 1024;
// A record in the registry and a few lines in each log.
constexpr std::uint64_t kMarginBytesPerContainer = 4096;
constexpr std::uint64_t kMarginInodes = 32;
// A bundle and a data container in the place of a legacy one.
constexpr std::uint64_t kMarginInodesPerContainer = 1;

std::uint64_t RoundedUp(std::uint64_t bytes, std::uint64_t unit) {
  return unit == 0 ? bytes : (bytes + unit - 1) / unit * unit;
}

std::string InMebibytes(std::uint64_t bytes) {
  constexpr std::uint64_t kMebibyte = 1024 * 1024;
  return std::to_string((bytes + kMebibyte - 1) / kMebibyte) + " MiB";
}

}  // namespace

SpaceNeeds::Need& SpaceNeeds::needOf(const std::string& directory, const ItemFacts& facts) {
  Need& need = needs_[facts.device];
  if (!need.directory.empty()) return need;
  need.directory = directory;
  struct statvfs info {};
  if (::statvfs(directory.c_str(), &info) == 0) need.blockSize = info.f_frsize;
  return need;
}

SpaceNeeds::Size SpaceNeeds::sizeOf(const std::string& tree, std::uint64_t blockSize) {
  Size size;
  onlinux::TreeWalkerLinux walker;
  const auto walk = walker.open(tree.c_str(), FTS_PHYSICAL_OPTION);
  if (walk == nullptr) return {0, 0, errno};
  std::set<std::pair<dev_t, ino_t>> linked;
  while (const TreeWalkEntry* entry = walk->read()) {
    if (entry->kind == TreeWalkKind::directoryAfter) continue;
    if (entry->errorNumber != 0 && size.failure == 0) size.failure = entry->errorNumber;
    if (entry->kind == TreeWalkKind::noStat || entry->kind == TreeWalkKind::error) continue;
    const struct stat& info = entry->info;
    const bool again = !S_ISDIR(info.st_mode) && info.st_nlink > 1 &&
                       !linked.insert({info.st_dev, info.st_ino}).second;
    if (again) continue;
    ++size.inodes;
    const auto allocated = static_cast<std::uint64_t>(info.st_blocks) * kStatBlock;
    size.bytes += S_ISDIR(info.st_mode) ? blockSize : RoundedUp(allocated, blockSize);
  }
  if (errno != 0 && size.failure == 0) size.failure = errno;
  return size;
}

int SpaceNeeds::addCopy(const std::string& source, const ItemFacts& sourceFacts,
                        const std::string& destination, const ItemFacts& destinationFacts) {
  Need& need = needOf(destination, destinationFacts);
  const Size size = sizeOf(source, need.blockSize);
  if (sourceFacts.device == destinationFacts.device) {
    need.largestBytes = std::max(need.largestBytes, size.bytes);
    need.largestInodes = std::max(need.largestInodes, size.inodes);
  } else {
    need.bytes += size.bytes;
    need.inodes += size.inodes;
  }
  return size.failure;
}

void SpaceNeeds::addMargin(const std::string& directory, const ItemFacts& facts,
                           std::size_t containers) {
  Need& need = needOf(directory, facts);
  need.bytes += kMarginBytes + kMarginBytesPerContainer * containers;
  need.inodes += kMarginInodes + kMarginInodesPerContainer * containers;
}

void SpaceNeeds::check(Findings& findings) const {
  for (const auto& [device, need] : needs_) {
    struct statvfs info {};
    if (::statvfs(need.directory.c_str(), &info) != 0) continue;
    const bool mayUseReserve = ::geteuid() == 0;
    const std::uint64_t free = (mayUseReserve ? info.f_bfree : info.f_bavail) * info.f_frsize;
    const std::uint64_t bytes = need.bytes + need.largestBytes;
    // A file system without a number of blocks or inodes has no limit of its own.
    if (info.f_blocks > 0 && free < bytes) {
      findings.push_back({kNoSpace, Severity::refuse, need.directory,
                          "its file system has " + std::to_string(free / 1024) +
                              " KiB free and the migration needs about " + InMebibytes(bytes),
                          "Free " + InMebibytes(bytes - free) + " on it"});
    }
    const std::uint64_t inodes = need.inodes + need.largestInodes;
    const std::uint64_t freeInodes = mayUseReserve ? info.f_ffree : info.f_favail;
    if (info.f_files > 0 && freeInodes < inodes) {
      findings.push_back({kNoInodes, Severity::refuse, need.directory,
                          "its file system has room for " + std::to_string(freeInodes) +
                              " more files and the migration makes about " + std::to_string(inodes),
                          "Remove " + std::to_string(inodes - freeInodes) + " files from it"});
    }
  }
}

}  // namespace quorvel::host
