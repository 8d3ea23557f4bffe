// An independent resolver of paths: it walks component by component with descriptors, follows each
// link itself and never hands the kernel a path of more than one component.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <string>
#include <vector>

#include "platform/UniqueDescriptor.h"

namespace quorvel::testing {

struct Place {
  std::string path;       // where the walk came to
  std::string rest;       // components of the given path that do not exist there
  bool dangling = false;  // a link on the way leads to nothing
  int error = 0;          // anything else than a missing item
  bool found() const { return error == 0 && !dangling; }
  std::string whole() const { return rest.empty() ? path : path + "/" + rest; }
};

class Walker {
 public:
  explicit Walker(const std::string& text) {
    push("/", ::open("/", O_PATH | O_CLOEXEC));
    split(text, false, todo_.end());
  }

  Place run() {
    while (!todo_.empty() && place_.error == 0 && !place_.dangling) {
      const Step step = todo_.front();
      todo_.pop_front();
      if (step.name != ".." && step.name != ".") {
        if (!enter(step)) break;
        continue;
      }
      struct stat info {};
      ::fstat(stack_.back().item.get(), &info);
      if (!S_ISDIR(info.st_mode)) place_.error = ENOTDIR;
      if (step.name == ".." && stack_.size() > 1) stack_.pop_back();
    }
    place_.path = where();
    return place_;
  }

 private:
  struct Step {
    std::string name;
    bool fromLink = false;
  };
  struct Level {
    std::string name;
    UniqueDescriptor item;
  };

  void push(const std::string& name, int descriptor) {
    stack_.push_back({name, UniqueDescriptor(descriptor)});
  }
  void split(const std::string& text, bool fromLink, std::deque<Step>::iterator before) {
    std::vector<Step> steps;
    for (std::size_t at = 0; at < text.size();) {
      const std::size_t end = std::min(text.find('/', at), text.size());
      if (end > at) steps.push_back({text.substr(at, end - at), fromLink});
      at = end + 1;
    }
    todo_.insert(before, steps.begin(), steps.end());
  }
  bool enter(const Step& step) {
    struct stat info {};
    const int parent = stack_.back().item.get();
    if (::fstatat(parent, step.name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
      return stop(step, errno);
    }
    if (!S_ISLNK(info.st_mode)) {
      push(step.name, ::openat(parent, step.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
      return true;
    }
    if (++links_ > 40) return stop(step, ELOOP);
    char text[5000];
    const ssize_t length = ::readlinkat(parent, step.name.c_str(), text, sizeof text);
    if (length > 0 && text[0] == '/') stack_.erase(stack_.begin() + 1, stack_.end());
    split(std::string(text, static_cast<std::size_t>(length)), true, todo_.begin());
    return true;
  }
  bool stop(const Step& step, int number) {
    if (number != ENOENT) return place_.error = number, false;
    if (step.fromLink) return place_.dangling = true, false;
    place_.rest = step.name;
    for (const Step& left : todo_) place_.rest += "/" + left.name;
    return false;
  }
  std::string where() const {
    std::string path;
    for (std::size_t i = 1; i < stack_.size(); ++i) path += "/" + stack_[i].name;
    return path.empty() ? "/" : path;
  }

  std::vector<Level> stack_;
  std::deque<Step> todo_;
  Place place_;
  int links_ = 0;
};

inline bool LiesIn(const std::string& path, const std::string& base) {
  return path == base || path.starts_with(base + "/");
}

// Whether the link's text, walked from the directory below the base where it lies, climbs out.
inline bool TextClimbs(const std::string& directoryInBase, const std::string& text) {
  int depth = 0;
  const std::string joined = directoryInBase + "/" + text;
  for (std::size_t at = 0; at < joined.size();) {
    const std::size_t end = std::min(joined.find('/', at), joined.size());
    const std::string name = joined.substr(at, end - at);
    depth += name == ".." ? -1 : name.empty() || name == "." ? 0 : 1;
    if (depth < 0) return true;
    at = end + 1;
  }
  return false;
}

}  // namespace quorvel::testing
