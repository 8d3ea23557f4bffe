// The platform's services on Linux, all of them, from one factory.
//
//   Error error;
//   const auto services = QVLinuxServices::create(Path::directory("/"), {}, &error);
//   if (services == nullptr) ...
//   QVInstallPlatformServices(&services->set());
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/Error.h"
#include "platform/Path.h"
#include "platform/Services.h"

namespace quorvel {

// Not installed: what others cannot link.
namespace onlinux {
class ApplicationRegistryLinux;
}
// Installed again.

struct QVLinuxServicesOptions {
  // Where lines go. Not owned; they must outlive the services. Null: nowhere.
  LogWriter* log = nullptr;
  HostLogWriter* hostLog = nullptr;
  // The registry answers and changes nothing, not even an unfinished install, and preferences are
  // not stored (synchronize is false). File operations do what they are asked to all the same.
  bool readOnly = false;
  // Whose preferences: those below "/private/var/<user>".
  std::string preferencesUser = "mobile";
  // Digests need libcrypto, which is loaded at once: a program that computes none saves the time.
  // Without it the set has no Sha256Provider.
  bool digests = true;
  // The process makes the root its own before it uses a service: paths below it then begin at "/".
  bool processWillEnterRoot = false;
  // Identifiers that the registry refuses to install (unless a request says otherwise). Asked
  // during an install, on its thread. Empty: none.
  std::function<bool(const std::string& identifier)> isBlacklisted = {};
};

// Owns every service of its set and must outlive their use. The services keep the thread rules of
// their own headers: all but the registry's two and the log sinks' own may be used by any thread.
class [[gnu::visibility("default")]] QVLinuxServices {
 public:
  // Made before a process confines itself: what the services need from outside the root (/proc,
  // /sys, libcrypto) is opened here, and nothing on the device is touched.
  //
  // `root` is the device's directory, or "/". Unless the process will enter it, the registry's, the
  // preferences' and the temporary files' own places lie below it, and the paths that they hand out
  // begin with it; paths that a caller gives are taken as they are. Null with the Error when the
  // root is no directory that can be reached.
  static std::unique_ptr<QVLinuxServices> create(
      const Path& root, const QVLinuxServicesOptions& options, Error* error);
  QVLinuxServices(const QVLinuxServices&) = delete;
  QVLinuxServices& operator=(const QVLinuxServices&) = delete;
  ~QVLinuxServices();

  // Filled, except for the account, which is the host's, and what the options left out. A copy may
  // have single services replaced.
  const PlatformServices& set() const;

  // Not installed: what others cannot link.
  // The registry beyond its interfaces, for the programs of this tree.
  onlinux::ApplicationRegistryLinux& registry();
  // Installed again.

 private:
  struct Parts;
  explicit QVLinuxServices(std::unique_ptr<Parts> parts);
  std::unique_ptr<Parts> parts_;
};

}  // namespace quorvel
