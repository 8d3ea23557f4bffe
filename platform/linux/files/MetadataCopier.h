// Everything about an item but its data: attributes, access-control lists, owner, mode, times.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <memory>
#include <string_view>

#include "platform/linux/files/ModeChanger.h"

namespace quorvel::onlinux {

// Numbers as the kernel keeps them, in the user namespace of this process.
struct Owners {
  uid_t user = 0;
  gid_t group = 0;
};

// What of the source's status a copy gets.
struct ItemStatus {
  explicit ItemStatus(const struct stat& info);
  mode_t mode;
  Owners owner;
  timespec times[2];  // access, modification
};

// An item that is open with O_PATH, and where it is. The name serves kernels that cannot set times
// through a pin; it is used without following a link.
struct PinnedItem {
  int descriptor;
  int directory;
  const char* name;
};

// One per tree copy. Belongs to one thread. Operations are false with errno set.
class MetadataCopier {
 public:
  explicit MetadataCopier(const ModeChanger& modes) : modes_(modes) {}

  // From one open file or directory to another, which nobody else can use yet. `inherits`: the
  // output may have access-control lists that it got from its directory. `current` is the output's
  // owner as it was made, which saves a call where it is the wanted one already. Afterwards the
  // mode is the source's, or less of it where the owner or group could not be given
  // (FileSystemLinux.h). After a failure the output has some of it; at no moment is it more
  // accessible than the source.
  bool copy(int input, int output, const ItemStatus& status, const Owners& current, bool inherits);
  // For items that are not to be opened: links, pipes, devices. Their attributes are reached by
  // way of /proc, and are left out where it is not mounted.
  bool copyPinned(const PinnedItem& input, const PinnedItem& output, const ItemStatus& status,
                  const Owners& current);

  // Whether new items in the directory get an access-control list from it. Needs a descriptor that
  // is open to read; a file system without such lists hands none down.
  static bool HandsDownAccess(int directory);

 private:
  // The change of owner clears capabilities, and an access-control list set before it would open
  // the item to the group of the process: those two follow it, all others come first.
  enum class Stage { beforeOwner, afterOwner };

  // The names of the input's attributes into names_; none where the file system keeps none.
  bool listAttributes(int input, std::size_t* size);
  bool copyPinnedAttributes(int input, int output);
  bool copyAttributes(int input, int output, std::size_t listSize, Stage stage);
  // One attribute, unless it vanished or may be left out.
  bool copyAttribute(int input, int output, const char* name);
  // Takes off the lists that the output got from its directory and the source does not have.
  bool removeInherited(int output, std::size_t listSize);
  // Whether the list in names_ has the attribute.
  bool listed(std::string_view name, std::size_t listSize) const;

  const ModeChanger& modes_;
  // Both are made once and used for every item: attributes are bounded by the kernel.
  std::unique_ptr<char[]> names_;
  std::unique_ptr<char[]> value_;
};

}  // namespace quorvel::onlinux
