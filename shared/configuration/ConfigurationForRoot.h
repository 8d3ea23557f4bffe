// Configurations of their own for tests. Neither installed nor exported by the shared library: a
// process has one.
#pragma once

#include <memory>

#include "shared/configuration/QVGlobalConfiguration.h"

namespace quorvel {

struct ConfigurationForRoot {
  // `root` stands for the system's "/". Reads the preferences, as the shared instance does.
  // The services must be installed. The caller owns it; the shared instance is neither made nor
  // touched.
  static std::unique_ptr<QVGlobalConfiguration> make(const Path& root) {
    return std::unique_ptr<QVGlobalConfiguration>(new QVGlobalConfiguration(root));
  }
};

}  // namespace quorvel
