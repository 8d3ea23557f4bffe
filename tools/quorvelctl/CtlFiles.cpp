// What is in files: digests, info dictionaries and property lists.
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "host/console/TerminalText.h"
#include "host/console/UsageComplaint.h"
#include "platform/linux/files/AtomicFile.h"
#include "platform/linux/files/PosixFailure.h"
#include "platform/linux/plist/PropertyList.h"
#include "shared/configuration/InfoPlist.h"
#include "shared/support/Digest.h"
#include "tools/quorvelctl/CtlCommand.h"
#include "tools/quorvelctl/CtlOptions.h"
#include "tools/quorvelctl/CtlSession.h"

namespace quorvel::ctl {

namespace {

// As people read it. On a terminal everything beyond ASCII is escaped: it may reorder or hide.
std::string Indented(const Session& session, const Json& json) {
  return json.dump(2, ' ', session.toTerminal(), Json::error_handler_t::replace) + "\n";
}

// Every file is tried; one that cannot be read makes the exit code 1 and has an entry of its own.
class Digest final : public Command {
 public:
  explicit Digest(CLI::App& parser) {
    AddTexts(parser, "FILE", files_, "The files, each of up to 2^31-1 bytes")->required();
  }

  bool computesDigests() const override { return true; }

  int run(Session& session) override {
    Json list = Json::array();
    std::string plain;
    bool succeeded = true;
    for (const std::string& file : files_) {
      const Path path = session.path(file);
      const auto digest = QVCreateSHA256Digest(path.string());
      std::optional<std::string> error;
      if (digest) {
        plain += line(session, *digest, file);
      } else {
        error = session.loggedReason("it cannot be read");
        session.note(*error);
        succeeded = false;
      }
      list.push_back({{"path", path.string()},
                      {"sha256", host::JsonOrNull(digest)},
                      {"error", host::JsonOrNull(error)},
                      {"reason", digest ? Json(nullptr) : Json(reason(path))}});
    }
    return session.finish({{"files", std::move(list)}}, plain,
                          succeeded ? host::ExitSucceeded : host::ExitFailed);
  }

 private:
  // Why the file could not be read, as the kernel tells it when it is asked again.
  static std::string reason(const Path& path) {
    std::vector<std::uint8_t> bytes;
    const FileSystemRepresentation name = path.fileSystemRepresentation();
    // With a limit of 0 nothing is read: EFBIG means that it could be.
    const int number = onlinux::ReadRegularFile(AT_FDCWD, name.c_str(), 0, false, bytes);
    const char* text = number != 0 && number != EFBIG ? ::strerrorname_np(number) : nullptr;
    return text != nullptr ? text : host::ReasonOf(host::ExitFailed);
  }

  // The line that sha256sum prints and checks: in a name that has a backslash, a newline or a
  // carriage return these are escaped, which a backslash before the digest says. On a terminal
  // whatever could harm it is escaped in the same way.
  static std::string line(const Session& session, const std::string& digest,
                          const std::string& file) {
    std::string name;
    if (session.toTerminal()) {
      name = host::Printable(StringFromFileSystemRepresentation(file));
    } else {
      for (const char byte : file) {
        if (byte == '\\')
          name += "\\\\";
        else if (byte == '\n')
          name += "\\n";
        else if (byte == '\r')
          name += "\\r";
        else
          name += byte;
      }
    }
    // The backslash in front says that the name is escaped.
    return (name == file ? "" : "\\") + digest + "  " + name + "\n";
  }

  std::vector<std::string> files_;
};

// With keys the exit code answers as well whether all of them are there, which scripts test for.
class Info final : public Command {
 public:
  explicit Info(CLI::App& parser) {
    AddText(parser, "BUNDLE", bundle_, "The bundle's directory")->required();
    AddTexts(parser, "KEY", keys_, "Show the values of these keys only, one a line");
  }

  int run(Session& session) override {
    std::set<std::string> wanted;
    for (const std::string& key : keys_) wanted.insert(key);
    const Path bundle = session.path(bundle_);
    const auto info = QVLoadInfoPlist(
        bundle, keys_.empty() ? std::nullopt : std::optional<std::set<std::string>>(wanted));
    if (!info) return session.failAsLogged(bundle.string() + ": there is no Info.plist");
    if (keys_.empty()) {
      const Json object = PlistAsJson(*info);
      return session.finish(object, session.json() ? "" : Indented(session, object));
    }
    return showKeys(session, *info);
  }

 private:
  // A key that is not there is null, and makes the answer "no".
  int showKeys(Session& session, const PlistDictionary& info) const {
    Json object = Json::object();
    std::string plain;
    bool complete = true;
    // In the order of the arguments, so that a script can read lines.
    for (const std::string& key : keys_) {
      const PlistValue* value = info.find(key);
      object[key] = value == nullptr ? Json(nullptr) : PlistAsJson(*value);
      if (value == nullptr) {
        session.note("there is no " + key);
        complete = false;
      } else if (const std::string* text = value->string()) {
        plain += session.shown(*text) + "\n";
      } else {
        plain += object[key].dump(-1, ' ', session.toTerminal()) + "\n";
      }
    }
    return session.finish(object, plain, complete ? host::ExitSucceeded : host::ExitFailed);
  }

  std::string bundle_;
  std::vector<std::string> keys_;
};

// A property list with the encoding that it was found in.
struct PropertyListFile {
  std::unique_ptr<PlistValue> value;
  PropertyListFormat format = PropertyListFormat::xml;
};

// The parser does not know where its bytes came from.
Error WithPath(const Path& path, const Error& error) {
  return Error(error.domain(), error.code(),
               {{LocalizedDescriptionKey, path.string() + ": " + error.description()}});
}

// Of regular files alone and up to the parser's limit: a pipe would be waited for, and a file that
// is too large would be read before it is refused.
bool Read(const Path& path, PropertyListFile& file, Error* error) {
  std::vector<std::uint8_t> bytes;
  const FileSystemRepresentation name = path.fileSystemRepresentation();
  const int number = onlinux::ReadRegularFile(AT_FDCWD, name.c_str(),
                                              onlinux::PropertyListSizeLimit, false, bytes);
  if (number != 0) return SetError(error, onlinux::PosixFailure(number, path.string()));
  // What every binary list of this version begins with; all else is tried as XML.
  constexpr std::string_view magic = "bplist00";
  if (bytes.size() >= magic.size() && std::equal(magic.begin(), magic.end(), bytes.begin())) {
    file.format = PropertyListFormat::binary;
  }
  Error failure;
  file.value = onlinux::ParsePropertyList(bytes, &failure);
  return file.value != nullptr || SetError(error, WithPath(path, failure));
}

class PropertyList final : public Command {
 public:
  explicit PropertyList(CLI::App& parser) {
    AddText(parser, "ACTION", action_, "show or convert")
        ->required()
        ->check(host::OneOf({"show", "convert"}));
    AddText(parser, "FILE", file_, "A property list in either encoding")->required();
    AddText(parser, "--to", format_, "For \"convert\": xml, binary or json")
        ->check(host::OneOf({"xml", "binary", "json"}));
  }

  std::string complaint() const override {
    if (converts() && format_.empty()) return "--to is missing";
    return !converts() && !format_.empty() ? "--to belongs to \"convert\"" : "";
  }

  int run(Session& session) override {
    const Path path = session.path(file_);
    PropertyListFile file;
    Error error;
    if (!Read(path, file, &error)) return session.fail(error);
    if (converts() && format_ != "json") return write(session, path, *file.value);
    const Json value = PlistAsJson(*file.value);
    if (converts()) return session.finishBytes(host::JsonLine(value));
    const char* found = file.format == PropertyListFormat::xml ? "xml" : "binary";
    return session.finish({{"format", found}, {"value", value}},
                          session.json() ? "" : Indented(session, value));
  }

 private:
  bool converts() const { return action_ == "convert"; }

  // Standard output only: the file itself is never replaced, so that a conversion that loses
  // something loses nothing.
  int write(Session& session, const Path& path, const PlistValue& value) const {
    const auto format = format_ == "xml" ? PropertyListFormat::xml : PropertyListFormat::binary;
    std::vector<std::uint8_t> bytes;
    Error error;
    if (!onlinux::SerializePropertyList(value, format, bytes, &error)) {
      return session.fail(WithPath(path, error));
    }
    return session.finishBytes({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  }

  std::string action_;
  std::string file_;
  std::string format_;
};

constexpr CommandEntry kFileCommands[] = {
    {"digest", "Print SHA-256 digests in the form of sha256sum",
     "printf abc > f && quorvelctl digest f", Make<Digest>},
    {"info", "Show a bundle's info dictionary",
     "mkdir -p B.app && printf '%s' '<plist><dict><key>PKBundleIdentifier</key>' \\\n"
     "    '<string>com.example.b</string></dict></plist>' > B.app/Info.plist\n"
     "  quorvelctl info B.app PKBundleIdentifier",
     Make<Info>},
    {"plist", "Show a property list, or write it to standard output in another encoding",
     "printf '<plist><array><true/></array></plist>' > a.plist\n"
     "  quorvelctl plist convert --to json a.plist",
     Make<PropertyList>},
};

}  // namespace

std::span<const CommandEntry> FileCommands() { return kFileCommands; }

}  // namespace quorvel::ctl
