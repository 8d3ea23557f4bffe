// The registry on disk as one process has it.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/files/FileSystemLinux.h"
#include "platform/linux/plist/BundleReaderLinux.h"
#include "platform/linux/registry/ApplicationRegistryLinux.h"
#include "tests/support/RegistryTesting.h"

namespace quorvel::tests {

inline constexpr const char* Memory = "/dev/shm";  // where flushes cost nothing

// One process's registry.
struct Registry {
  // With the file system of a test, or the real one.
  explicit Registry(onlinux::RegistryOptions options, FileSystem* fileSystem = nullptr)
      : registry(fileSystem != nullptr ? *fileSystem : files, bundles, std::move(options)) {}
  explicit Registry(const RegistryDevice& device)
      : Registry(onlinux::RegistryOptions{.deviceRoot = device.root()}) {}

  bool install(const Path& staging, const PlistDictionary& options) {
    reports = 0;
    error = {};
    return registry.workspace().installApplication(staging, options, &error,
                                                   [&](const PlistDictionary&) { ++reports; });
  }
  std::optional<BundleProxy> proxy(const std::string& identifier) {
    return registry.workspace().bundleProxyForIdentifier(identifier);
  }
  bool isInstalled(const std::string& identifier) {
    return registry.workspace().applicationIsInstalled(identifier);
  }
  std::vector<BundleProxy> all() {
    onlinux::RegistrySnapshot result;
    Error failure;
    EXPECT_TRUE(registry.snapshot(&result, &failure)) << failure.description();
    return result.bundles;
  }

  onlinux::FileSystemLinux files;
  onlinux::BundleReaderLinux bundles;
  onlinux::ApplicationRegistryLinux registry;
  Error error;
  int reports = 0;
};

}  // namespace quorvel::tests
