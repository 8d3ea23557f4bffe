// Names the switch that exists on this machine and no other.
#include "host/console/NamespaceRefusal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "platform/UniqueDescriptor.h"

namespace quorvel::host {

namespace {

constexpr const char* kAsRoot = "Nothing was changed. Run the host as root, or ";

// The beginning of a kernel's file; empty when there is none.
std::string BeginningOf(const char* file) {
  const UniqueDescriptor descriptor(::open(file, O_RDONLY | O_CLOEXEC));
  char text[4096];
  const ssize_t count = descriptor ? ::read(descriptor.get(), text, sizeof text) : -1;
  return count > 0 ? std::string(text, static_cast<std::size_t>(count)) : std::string();
}

bool IsFiltered() {
  return BeginningOf("/proc/self/status").find("\nSeccomp:\t2") != std::string::npos;
}

}  // namespace

std::string RemedyForRefusedNamespace(int error) {
  if (error == ENOSPC || error == EUSERS) {
    return std::string(kAsRoot) + "raise the limit of user namespaces\n" +
           "(sysctl user.max_user_namespaces)";
  }
  if (error == ENOSYS || error == EINVAL) {
    return std::string(kAsRoot) + "use a kernel that has user namespaces";
  }
  // These switches exist on some systems only, and what they forbid is refused in the same way.
  if (BeginningOf("/proc/sys/kernel/unprivileged_userns_clone").starts_with('0')) {
    return std::string(kAsRoot) + "allow user namespaces\n" +
           "(sysctl kernel.unprivileged_userns_clone=1)";
  }
  if (BeginningOf("/proc/sys/kernel/apparmor_restrict_unprivileged_userns").starts_with('1')) {
    return std::string(kAsRoot) + "allow user namespaces\n" +
           "(sysctl kernel.apparmor_restrict_unprivileged_userns=0)";
  }
  if (IsFiltered()) {
    return std::string(kAsRoot) + "outside this container:\n" +
           "its system-call filter (seccomp) forbids user namespaces";
  }
  return std::string(kAsRoot) + "outside this container or changed root:\n" +
         "user namespaces are not allowed in it";
}

}  // namespace quorvel::host
