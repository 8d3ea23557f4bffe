// Bundles on Linux: directories whose info dictionary is the property-list file "Info.plist".
#pragma once

#include <memory>

#include "platform/BundleReader.h"
#include "platform/linux/plist/ParsedDictionaries.h"

namespace quorvel::onlinux {

// A bundle keeps its directory open, so that what is read later is what was opened. Any number of
// threads may use one reader; a bundle may outlive it.
class BundleReaderLinux : public BundleReader {
 public:
  std::unique_ptr<PKBundle> open(const Path& directory, Error* error) override;

 private:
  const std::shared_ptr<ParsedDictionaries> parsed_ = std::make_shared<ParsedDictionaries>();
};

}  // namespace quorvel::onlinux
