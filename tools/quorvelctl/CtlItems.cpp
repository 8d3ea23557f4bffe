// Single items: where paths and links lead, and the attributes that the service keeps.
#include <fcntl.h>
#include <linux/limits.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "host/console/UsageComplaint.h"
#include "platform/linux/files/PosixFailure.h"
#include "platform/linux/files/ReachBeneath.h"
#include "shared/filemanager/QVFileManager.h"
#include "tools/quorvelctl/CtlCommand.h"
#include "tools/quorvelctl/CtlOptions.h"
#include "tools/quorvelctl/CtlSession.h"

namespace quorvel::ctl {

namespace {

QVFileManager& Files() { return QVFileManager::defaultManager(); }

// Without --strict the service's own answer, which is about paths; with it the kernel's, which has
// reached the item.
class Resolve final : public Command {
 public:
  explicit Resolve(CLI::App& parser) {
    AddText(parser, "PATH", child_, "The path in question; it need not exist")->required();
    AddText(parser, "--base", base_, "The directory that it must stay inside")->required();
    AddFlag(parser, "--strict", strict_,
            "Reach the item, and never leave the directory on the way");
  }

  int run(Session& session) override {
    if (strict_) return reach(session);
    const auto real = Files().realPathForURL(session.path(child_), session.path(base_));
    if (real)
      return session.finish({{"path", real->string()}}, session.shown(real->string()) + "\n");
    return session.failAsLogged("the path leads out of the base directory");
  }

 private:
  // For a caller that will open what it is told: the way there was walked without leaving the base.
  int reach(Session& session) const {
    const Path child = session.path(child_);
    const Path base = session.path(base_);
    UniqueDescriptor item;
    const int number = openBelow(base, child, &item);
    if (number != 0) {
      return session.fail(onlinux::PosixFailure(
          number, child.string() + " cannot be reached inside " + base.string()));
    }
    const std::string real = whereIs(item, child).string();
    return session.finish({{"path", real}}, session.shown(real) + "\n");
  }

  static int openBelow(const Path& base, const Path& child, UniqueDescriptor* item) {
    // By text first: what does not even claim to be inside is refused without a look.
    const std::string inside = base.string() == "/" ? "/" : base.string() + "/";
    if (child != base && !child.string().starts_with(inside)) return EXDEV;
    const FileSystemRepresentation name = base.fileSystemRepresentation();
    const UniqueDescriptor directory(::open(name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory) return errno;
    const std::string rest =
        child == base ? "" : BytesOfFileSystemRepresentation(child.string().substr(inside.size()));
    return onlinux::ReachBeneath(directory.get(), rest, item);
  }

  // As the kernel names it; as it was given where nothing tells that.
  static Path whereIs(const UniqueDescriptor& item, const Path& given) {
    char text[PATH_MAX + 1];
    const std::string link = "/proc/self/fd/" + std::to_string(item.get());
    const ssize_t length = ::readlink(link.c_str(), text, sizeof text);
    // Without /proc.
    if (length <= 0) return given;
    return Path(StringFromFileSystemRepresentation({text, static_cast<std::size_t>(length)}));
  }

  std::string child_;
  std::string base_;
  bool strict_ = false;
};

// The text is not resolved and need not lead anywhere: a link inside a tree is often made before
// its target.
class Link final : public Command {
 public:
  explicit Link(CLI::App& parser) {
    AddText(parser, "TARGET", target_, "The link's text, taken as it is")->required();
    AddText(parser, "LINK", link_, "The link's path; nothing may be there")->required();
  }

  Access access() const override { return Access::change; }

  int run(Session& session) override {
    Error error;
    const Path target = Path::linkText(StringFromFileSystemRepresentation(target_));
    const bool done = Files().createSymbolicLinkAtURL(session.path(link_), target, &error);
    return done ? session.succeed() : session.fail(error);
  }

 private:
  std::string target_;
  std::string link_;
};

// The text as it stands in the link, whether it leads anywhere or not.
class ReadLink final : public Command {
 public:
  explicit ReadLink(CLI::App& parser) {
    AddText(parser, "LINK", link_, "The link's path")->required();
  }

  int run(Session& session) override {
    Error error;
    const auto target = Files().destinationOfSymbolicLinkAtURL(session.path(link_), &error);
    if (!target) return session.fail(error);
    return session.finish({{"target", target->string()}}, session.shown(target->string()) + "\n");
  }

 private:
  std::string link_;
};

// The three attributes share one command, since each is read and set in the same way.
class Attribute final : public Command {
 public:
  explicit Attribute(CLI::App& parser) {
    AddText(parser, "ATTRIBUTE", attribute_, "placeholder, install-type or class")
        ->required()
        ->check(host::OneOf({"placeholder", "install-type", "class"}));
    AddText(parser, "ACTION", action_, "get or set")
        ->required()
        ->check(host::OneOf({"get", "set"}));
    AddText(parser, "PATH", path_, "The item")->required();
    AddText(parser, "VALUE", value_, "For \"set\": install-type 0 to 2^64-1, class 0 to 2^31-1");
  }

  std::string complaint() const override {
    // A placeholder mark has no value.
    const bool takesValue = sets() && attribute_ != "placeholder";
    if (takesValue && value_.empty()) return "VALUE is missing";
    if (!takesValue && !value_.empty()) return "there is no VALUE to give here";
    if (!takesValue) return {};
    // The number's bounds are those of the attribute on disk.
    const bool isGood = attribute_ == "class" ? Number<std::int32_t>(value_).value_or(-1) >= 0
                                              : Number<std::uint64_t>(value_).has_value();
    return isGood ? "" : "VALUE is not a number that the attribute can have";
  }
  Access access() const override { return sets() ? Access::change : Access::look; }

  int run(Session& session) override {
    const Path path = session.path(path_);
    if (attribute_ == "placeholder") return sets() ? mark(session, path) : isMarked(session, path);
    if (attribute_ == "class") return sets() ? setClass(session, path) : getClass(session, path);
    return sets() ? setType(session, path) : getType(session, path);
  }

 private:
  bool sets() const { return action_ == "set"; }

  static int end(Session& session, bool done, const Error& error) {
    return done ? session.succeed() : session.fail(error);
  }

  // Exit code 1 is "no" here.
  static int isMarked(Session& session, const Path& path) {
    const bool marked = Files().bundleAtURLIsPlaceholder(path);
    return session.finish({{"placeholder", marked}}, marked ? "yes\n" : "no\n",
                          marked ? host::ExitSucceeded : host::ExitFailed);
  }
  static int mark(Session& session, const Path& path) {
    Error error;
    const bool done = Files().markBundleAsPlaceholder(path, &error);
    return end(session, done, error);
  }
  static int getType(Session& session, const Path& path) {
    Error error;
    const auto type = Files().installTypeForBundle(path, &error);
    if (!type) return session.fail(error);
    return session.finish({{"installType", *type}}, std::to_string(*type) + "\n");
  }
  int setType(Session& session, const Path& path) const {
    Error error;
    const std::uint64_t type = Number<std::uint64_t>(value_).value_or(0);
    const bool done = Files().setInstallType(type, path, &error);
    return end(session, done, error);
  }
  static int getClass(Session& session, const Path& path) {
    Error error;
    std::int32_t current = 0;
    if (!Files().dataProtectionClassOfItemAtURL(path, &current, &error)) return session.fail(error);
    return session.finish({{"class", current}}, std::to_string(current) + "\n");
  }
  int setClass(Session& session, const Path& path) const {
    Error error;
    const std::int32_t wanted = Number<std::int32_t>(value_).value_or(0);
    const bool done = Files().setDataProtectionClassOfItemAtURL(path, wanted, nullptr, &error);
    return end(session, done, error);
  }

  std::string attribute_;
  std::string action_;
  std::string path_;
  std::string value_;
};

constexpr CommandEntry kItemCommands[] = {
    {"resolve", "Show where a path really leads, if it stays inside a base directory",
     "mkdir -p d && quorvelctl resolve --base d d/new/file", Make<Resolve>},
    {"link", "Make a symbolic link of a device, never in place of or inside what is there",
     "mkdir -p d && rm -f d/l && quorvelctl link ../target d/l", Make<Link>},
    {"readlink", "Show a symbolic link's text, byte for byte with --json",
     "mkdir -p d && ln -sfn ../target d/l && quorvelctl readlink d/l", Make<ReadLink>},
    {"attr", "Show or set an attribute that the service keeps on an item",
     "mkdir -p d && quorvelctl attr class get d", Make<Attribute>},
};

}  // namespace

std::span<const CommandEntry> ItemCommands() { return kItemCommands; }

}  // namespace quorvel::ctl
