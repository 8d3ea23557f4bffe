// Bundles on Linux: directories whose info dictionary is the property-list file "Info.plist".
#pragma once

#include <memory>

#include "platform/BundleReader.h"
#include "platform/linux/plist/ParsedDictionaries.h"

namespace quorvel::onlinux {

// A bundle keeps its directory open, so that what is read later is what was opened. Any number of
// threads may use one reader; a bundle may outlive it. What was parsed is shared between all
// bundles of the process, so that the copies of one dictionary that a migration meets are parsed
// once (ParsedDictionaries.h). The directory is closed once the file was opened.
class BundleReaderLinux : public BundleReader {
 public:
  std::unique_ptr<PKBundle> open(const Path& directory, Error* error) override;

 private:
  const std::shared_ptr<ParsedDictionaries> parsed_ = ParsedDictionaries::ofProcess();
};

}  // namespace quorvel::onlinux
