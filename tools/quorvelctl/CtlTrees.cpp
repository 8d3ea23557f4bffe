// Trees and directories: listing, removal, copies, moves, creation, capture, ownership.
#include <array>

#include "shared/filemanager/QVFileManager.h"
#include "tools/quorvelctl/CtlCommand.h"
#include "tools/quorvelctl/CtlOptions.h"
#include "tools/quorvelctl/CtlSession.h"

namespace quorvel::ctl {

namespace {

QVFileManager& Files() { return QVFileManager::defaultManager(); }

// Items come in the directory's own order, which the service's other components see as well:
// sorting would hide what they meet.
class List final : public Command {
 public:
  explicit List(CLI::App& parser) {
    AddText(parser, "DIR", directory_, "The directory")->required();
    AddFlag(parser, "--ignore-symlinks", ignoreSymlinks_, "Leave symbolic links out");
  }

  int run(Session& session) override {
    Error error;
    const auto items =
        Files().urlsForItemsInDirectoryAtURL(session.path(directory_), ignoreSymlinks_, &error);
    if (!items) return session.fail(error);
    if (!session.json()) return show(session, *items);
    Json list = Json::array();
    for (const Path& item : *items) {
      list.push_back({{"path", item.string()}, {"directory", item.isDirectory()}});
    }
    return session.finish({{"items", std::move(list)}}, "");
  }

 private:
  // In pieces, not as one text that is as large as the list.
  static int show(Session& session, const std::vector<Path>& items) {
    constexpr std::size_t kPieceSize = std::size_t{64} << 10U;
    std::string piece;
    for (const Path& item : items) {
      session.appendShown(piece, item);
      piece += '\n';
      if (piece.size() < kPieceSize) continue;
      if (const int code = session.finishBytes(piece); code != host::ExitSucceeded) return code;
      piece.clear();
    }
    return session.finishBytes(piece);
  }

  std::string directory_;
  bool ignoreSymlinks_ = false;
};

// Whether the words name a directory by "." or "..": what is then removed is seldom meant.
bool NamesItself(std::string_view argument) {
  while (argument.size() > 1 && argument.ends_with('/')) argument.remove_suffix(1);
  return argument == "." || argument == ".." || argument.ends_with("/.") ||
         argument.ends_with("/..");
}

// Asks nothing back, as scripts run it: what would seldom be meant is refused instead.
class Remove final : public Command {
 public:
  explicit Remove(CLI::App& parser) {
    AddTexts(parser, "PATH", paths_, "The items, with everything below them")->required();
  }

  std::string complaint() const override {
    for (const std::string& path : paths_) {
      if (NamesItself(path)) return "PATH may not end in \".\" or \"..\"";
    }
    return {};
  }
  Access access() const override { return Access::change; }

  // Goes on with the rest when one cannot be removed.
  // Each failure is told as it happens, on standard error, and again in the object: a long removal
  // that is killed has then said what it met.
  int run(Session& session) override {
    Json removed = Json::array();
    Json failed = Json::array();
    for (const std::string& argument : paths_) {
      const Path path = session.path(argument);
      Error error;
      if (Files().removeItemAtURL(path, &error)) {
        removed.push_back(path.string());
        continue;
      }
      session.note(error);
      failed.push_back(
          {{"path", path.string()}, {"reason", ReasonOf(error)}, {"error", ErrorAsJson(error)}});
    }
    const int code = failed.empty() ? host::ExitSucceeded : host::ExitFailed;
    return session.finish({{"removed", std::move(removed)}, {"failed", std::move(failed)}}, "",
                          code);
  }

 private:
  std::vector<std::string> paths_;
};

// Copy and move, which differ in the operation alone. A copy may succeed with items left out, each
// with a line in the log: the number of such lines is the only sign of it here.
class Carry final : public Command {
 public:
  using Operation = bool (QVFileManager::*)(const Path&, const Path&, Error*);

  // `whole`: what was left out, which the operation only logs, makes the exit code 1.
  Carry(CLI::App& parser, Operation plain, Operation ifExists, bool whole)
      : operations_{plain, ifExists}, whole_(whole) {
    AddText(parser, "SRC", source_, "The item")->required();
    AddText(parser, "DST", destination_, "Its new path, not a directory to put it in")->required();
    AddFlag(parser, "--if-exists", ifExists_, "A missing item is done, too");
  }

  Access access() const override { return Access::change; }

  int run(Session& session) override {
    Error error;
    const Operation carry = operations_[ifExists_ ? 1 : 0];
    const bool done = (Files().*carry)(session.path(source_), session.path(destination_), &error);
    if (!done) return session.fail(error);
    if (!whole_ || session.errorLines() == 0) return session.succeed();
    return session.finish({{"succeeded", false}, {"errorLines", session.errorLines()}}, "",
                          host::ExitFailed);
  }

 private:
  const std::array<Operation, 2> operations_;
  const bool whole_;
  std::string source_;
  std::string destination_;
  bool ifExists_ = false;
};

class MakeDirectory final : public Command {
 public:
  explicit MakeDirectory(CLI::App& parser) {
    AddText(parser, "DIR", directory_, "The directory; one that exists is done, too")->required();
    AddNumber(parser, "--class", how_.protectionClass,
              "Its data-protection class, -1 for none (default)");
    AddFlag(parser, "--parents", how_.withIntermediateDirectories, "Make missing parents, too");
  }

  std::string complaint() const override {
    return how_.protectionClass < QVNoProtectionClass ? "--class is from -1 up" : "";
  }
  Access access() const override { return Access::change; }

  int run(Session& session) override {
    Error error;
    const bool done = Files().createDirectoryAtURL(session.path(directory_), how_, &error);
    return done ? session.succeed() : session.fail(error);
  }

 private:
  std::string directory_;
  DirectoryCreation how_;
};

class MakeTemporary final : public Command {
 public:
  explicit MakeTemporary(CLI::App& parser) {
    AddText(parser, "DIR", parent_, "Where it is made")->required();
  }

  Access access() const override { return Access::change; }

  int run(Session& session) override {
    Error error;
    const auto made = Files().createTemporaryDirectoryInDirectoryURL(session.path(parent_), &error);
    if (!made) return session.fail(error);
    return session.finish({{"path", made->string()}}, session.shown(made->string()) + "\n");
  }

 private:
  std::string parent_;
};

class Capture final : public Command {
 public:
  explicit Capture(CLI::App& parser) {
    AddText(parser, "SRC", source_, "The directory that has the items")->required();
    AddText(parser, "DST", destination_, "The directory that gets them; it must exist")->required();
    AddFlag(parser, "--copy", how_.doCopy, "Copy instead of moving");
    AddFlag(parser, "--fatal", how_.failureIsFatal, "End at the first item that fails");
  }

  Access access() const override { return Access::change; }

  int run(Session& session) override {
    Error error;
    const bool done = Files().captureStoreDataFromDirectory(
        session.path(source_), session.path(destination_), how_, &error);
    return done ? session.succeed() : session.fail(error);
  }

 private:
  std::string source_;
  std::string destination_;
  StoreDataCapture how_;
};

class Standardize final : public Command {
 public:
  explicit Standardize(CLI::App& parser) {
    AddText(parser, "DIR", directory_, "The tree")->required();
    AddNumber(parser, "--uid", standard_.uid, "The owner of every item")->required();
    AddNumber(parser, "--gid", standard_.gid, "The group of every item")->required();
    AddFlag(parser, "--validate-symlinks", standard_.validateSymlinks,
            "Stop at a link that leads out of the tree");
  }

  std::string complaint() const override {
    // To the system calls this number means "leave as it is".
    return standard_.uid == UINT32_MAX || standard_.gid == UINT32_MAX
               ? "4294967295 is no user or group"
               : "";
  }
  Access access() const override { return Access::change; }

  int run(Session& session) override {
    Error error;
    const bool done =
        Files().standardizeOwnershipAtURL(session.path(directory_), standard_, &error);
    return done ? session.succeed() : session.fail(error);
  }

 private:
  std::string directory_;
  OwnershipStandard standard_;
};

std::unique_ptr<Command> MakeCopy(CLI::App& parser) {
  return std::make_unique<Carry>(parser, &QVFileManager::copyItemAtURL,
                                 &QVFileManager::copyItemIfExistsAtURL, true);
}

std::unique_ptr<Command> MakeMove(CLI::App& parser) {
  return std::make_unique<Carry>(parser, &QVFileManager::moveItemAtURL,
                                 &QVFileManager::moveItemIfExistsAtURL, false);
}

constexpr CommandEntry kTreeCommands[] = {
    {"list", "List items in the directory's own order, links told from directories",
     "mkdir -p d/sub && quorvelctl list d", Make<List>},
    {"remove", "Remove items and everything below them; a missing one is done",
     "mkdir -p d/sub && quorvelctl remove d", Make<Remove>},
    {"copy", "Copy an item with all its metadata, merging directories",
     "mkdir -p d/sub && quorvelctl copy d e", MakeCopy},
    {"move", "Move an item, across file systems by a whole copy first",
     "mkdir -p old && quorvelctl move old new", MakeMove},
    {"mkdir", "Make a directory", "quorvelctl mkdir --parents d/sub", Make<MakeDirectory>},
    {"mktemp", "Make a directory as the service's temporary ones, and show its path",
     "mkdir -p d && quorvelctl mktemp d", Make<MakeTemporary>},
    {"capture", "Carry the four store-metadata items from one directory into another",
     "mkdir -p d e && quorvelctl capture --copy d e", Make<Capture>},
    {"standardize", "Give a tree one owner, modes 0755 for directories and 0644 for the rest",
     "mkdir -p d/sub && quorvelctl standardize --uid $(id -u) --gid $(id -g) d", Make<Standardize>},
};

}  // namespace

std::span<const CommandEntry> TreeCommands() { return kTreeCommands; }

}  // namespace quorvel::ctl
