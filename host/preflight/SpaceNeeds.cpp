// Adds up by file system; a file counts with the blocks it has, since holes stay holes.
#include "host/preflight/SpaceNeeds.h"

#include <fcntl.h>
#include <sys/quota.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <optional>

#include "platform/UniqueDescriptor.h"
#include "platform/linux/files/TreeWalkerLinux.h"

namespace quorvel::host {

namespace {

constexpr std::uint64_t kQuotaBlock = 1024;  // the unit of a quota's limits of blocks
constexpr std::uint64_t kStatBlock = 512;    // the unit of st_blocks, whatever the file system's
// The registry's log, one placeholder with its icon and the logs' first pages.
constexpr std::uint64_t kMarginBytes = 1024 * 1024;
// A record in the registry and a few lines in each log.
constexpr std::uint64_t kMarginBytesPerContainer = 4096;
constexpr std::uint64_t kMarginInodes = 32;
// A bundle and a data container in the place of a legacy one.
constexpr std::uint64_t kMarginInodesPerContainer = 1;

// What is left of a file system to this process.
// As statvfs and the quotas tell it at the moment; nobody reserves it for the migration.
struct Room {
  std::uint64_t bytes = 0;
  std::uint64_t inodes = 0;
  const char* limit = "its file system has";  // what the numbers are of
};

// Compared only, never added to.
constexpr std::uint64_t kUnlimited = std::numeric_limits<std::uint64_t>::max();

// A hard limit of the user's or the group's; the privileged have none. A soft one lasts for days.
void Narrow(int directory, int kind, unsigned id, Room& room) {
  if_dqblk quota = {};
  const unsigned command = QCMD(static_cast<unsigned>(Q_GETQUOTA), static_cast<unsigned>(kind));
  // Since 5.14; where it is missing or quotas are off there is nothing to narrow.
  if (::syscall(SYS_quotactl_fd, directory, command, id, &quota) != 0) return;
  const std::uint64_t most = quota.dqb_bhardlimit * kQuotaBlock;
  const std::uint64_t left = most - std::min<std::uint64_t>(most, quota.dqb_curspace);
  const std::uint64_t inodes =
      quota.dqb_ihardlimit - std::min<std::uint64_t>(quota.dqb_ihardlimit, quota.dqb_curinodes);
  const bool narrows =
      (most != 0 && left < room.bytes) || (quota.dqb_ihardlimit != 0 && inodes < room.inodes);
  if (narrows) room.limit = kind == USRQUOTA ? "this user's quota has" : "this group's quota has";
  if (most != 0) room.bytes = std::min(room.bytes, left);
  if (quota.dqb_ihardlimit != 0) room.inodes = std::min(room.inodes, inodes);
}

// Absent when it cannot be told. A file system without a number of blocks or inodes has no limit of
// its own.
std::optional<Room> RoomAt(const std::string& directory) {
  const UniqueDescriptor opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct statvfs info {};
  if (::statvfs(directory.c_str(), &info) != 0) return std::nullopt;
  const bool isRoot = ::geteuid() == 0;
  Room room;
  room.bytes =
      info.f_blocks == 0 ? kUnlimited : (isRoot ? info.f_bfree : info.f_bavail) * info.f_frsize;
  room.inodes = info.f_files == 0 ? kUnlimited : (isRoot ? info.f_ffree : info.f_favail);
  // Root may use the reserved blocks and has no quota.
  if (isRoot || !opened) return room;
  Narrow(opened.get(), USRQUOTA, ::geteuid(), room);
  Narrow(opened.get(), GRPQUOTA, ::getegid(), room);
  return room;
}

// A file system that does not tell its block size has none to round to.
std::uint64_t RoundedUp(std::uint64_t bytes, std::uint64_t unit) {
  return unit == 0 ? bytes : (bytes + unit - 1) / unit * unit;
}

// Rounded up: whoever frees exactly what is shown has freed enough.
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

// A directory is visited before and after its contents and counts once. Its own size depends on the
// names it has had; a copy begins with one block.
SpaceNeeds::Size SpaceNeeds::sizeOf(const std::string& tree, std::uint64_t blockSize) {
  Size size;
  onlinux::TreeWalkerLinux walker;
  const auto walk = walker.open(tree.c_str(), FTS_PHYSICAL_OPTION);
  if (walk == nullptr) return {0, 0, errno};
  std::set<std::pair<std::uint64_t, std::uint64_t>> linked;
  while (const TreeWalkEntry* entry = walk->read()) {
    if (entry->kind == TreeWalkKind::directoryAfter) continue;
    if (entry->errorNumber != 0 && size.failure == 0) size.failure = entry->errorNumber;
    if (entry->kind == TreeWalkKind::noStat || entry->kind == TreeWalkKind::error) continue;
    const TreeWalkInfo& info = entry->info;
    const bool again =
        !S_ISDIR(info.mode) && info.links > 1 && !linked.insert({info.device, info.inode}).second;
    if (again) continue;
    ++size.inodes;
    size.bytes += S_ISDIR(info.mode) ? blockSize : RoundedUp(info.blocks * kStatBlock, blockSize);
  }
  if (errno != 0 && size.failure == 0) size.failure = errno;
  return size;
}

int SpaceNeeds::addCopy(const std::string& source, const ItemFacts& sourceFacts,
                        const std::string& destination, const ItemFacts& destinationFacts) {
  Need& need = needOf(destination, destinationFacts);
  const Size size = sizeOf(source, need.blockSize);
  // Two mounts of one file system: the original goes before the next copy is made, so that only the
  // largest needs room twice.
  if (sourceFacts.device == destinationFacts.device) {
    need.largestBytes = std::max(need.largestBytes, size.bytes);
    need.largestInodes = std::max(need.largestInodes, size.inodes);
  } else {
    need.bytes += size.bytes;
    need.inodes += size.inodes;
  }
  return size.failure;
}

// Asked for once for each file system that a migration writes to.
void SpaceNeeds::addMargin(const std::string& directory, const ItemFacts& facts,
                           std::size_t containers) {
  Need& need = needOf(directory, facts);
  need.bytes += kMarginBytes + kMarginBytesPerContainer * containers;
  need.inodes += kMarginInodes + kMarginInodesPerContainer * containers;
}

void SpaceNeeds::check(Findings& findings) const {
  for (const auto& [device, need] : needs_) {
    const auto room = RoomAt(need.directory);
    if (!room) continue;
    // The worst moment: everything that stays is there, and one copy beside its original.
    const std::uint64_t bytes = need.bytes + need.largestBytes;
    if (room->bytes < bytes) {
      findings.push_back({kNoSpace, Severity::refuse, need.directory,
                          room->limit + (" " + std::to_string(room->bytes / 1024)) +
                              " KiB free and the migration needs about " + InMebibytes(bytes),
                          "Free " + InMebibytes(bytes - room->bytes) + " on it"});
    }
    const std::uint64_t inodes = need.inodes + need.largestInodes;
    if (room->inodes < inodes) {
      findings.push_back({kNoInodes, Severity::refuse, need.directory,
                          room->limit + (" room for " + std::to_string(room->inodes)) +
                              " more files and the migration makes about " + std::to_string(inodes),
                          "Remove " + std::to_string(inodes - room->inodes) + " files from it"});
    }
  }
}

}  // namespace quorvel::host
