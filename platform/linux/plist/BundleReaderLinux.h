// Bundles on Linux: directories whose info dictionary is the property-list file "Info.plist".
#pragma once

#include "platform/BundleReader.h"

namespace quorvel::onlinux {

// Stateless. A bundle keeps its directory open, so that what is read later is what was opened.
class BundleReaderLinux : public BundleReader {
 public:
  std::unique_ptr<PKBundle> open(const Path& directory, Error* error) override;
};

}  // namespace quorvel::onlinux
