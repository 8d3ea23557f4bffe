// Writes a tree whose every byte and time is given: what legacy-image stands on.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "platform/UniqueDescriptor.h"

namespace quorvel::tools {

// Paths are bytes relative to the tree's root, without a slash at either end; missing parents are
// made (0755). Modes are exact, whatever the umask. The n-th item made has the n-th time of a fixed
// sequence. After the first failure nothing more is done, and problem() says what failed.
class LegacyImageWriter {
 public:
  // Makes the directory, or takes one that is empty: nothing that exists is ever mixed with what
  // is written. False with problem() set.
  // The root keeps a descriptor, below which everything is made: a rename of the root afterwards
  // changes nothing.
  bool open(const std::string& directory);

  // One that was made already keeps its first mode, also when it was made as somebody's parent.
  void directory(const std::string& path, mode_t mode = 0755);
  // Nothing may have the name yet: an existing file is a failure, not an item to be replaced.
  void file(const std::string& path, std::string_view bytes, mode_t mode = 0644);
  // A file of `size` bytes of which all but the last ones are a hole.
  void sparseFile(const std::string& path, std::uint64_t size, std::string_view tail);
  // The target is written as it is and need not exist.
  void symbolicLink(const std::string& path, const std::string& target);
  // Takes no time of its own from the sequence: it is the same item under a second name.
  void hardLink(const std::string& path, const std::string& existing);
  void fifo(const std::string& path);
  // False when the file system keeps no attributes, which is no failure here.
  // True after a failure, which problem() tells: the answer is about the file system alone.
  bool attribute(const std::string& path, const char* name, std::string_view value);

  // Sets what writing below a directory changes: the directories' modes and times. Called last.
  bool finish();
  const std::string& problem() const { return problem_; }

 private:
  // What finish() sets when nothing is written below any more.
  struct Directory {
    std::string path;
    mode_t mode;
    timespec time;
  };

  // Those that are missing, each with the next time.
  void makeParents(const std::string& path);
  void setTime(const std::string& path);
  bool fail(const std::string& path);
  timespec nextTime();

  std::string root_;
  UniqueDescriptor directory_;
  std::string problem_;
  std::vector<Directory> directories_;
  std::unordered_set<std::string> made_;
  std::int64_t items_ = 0;
};

}  // namespace quorvel::tools
