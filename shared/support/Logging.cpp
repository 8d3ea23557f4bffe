// Hands finished lines to the platform's writers.
#include "shared/support/Logging.h"

#include "shared/support/Platform.h"

namespace quorvel {

LogHandle* gLogHandle = nullptr;

void QVLogWriteV(const LogHandle* handle, int level, const char* function, std::string_view format,
                 FormatArguments arguments) {
  // Errors may be built before the host has installed anything.
  const PlatformServices* services = QVInstalledPlatformServices();
  if (services == nullptr || services->log == nullptr) return;
  services->log->write(handle, level, function, QVFormatMessageV(format, arguments));
}

// Without a level test: what the host keeps is the host's business.
void QVHostLogV(const char* sourceFile, const char* function, int line, const char* category,
                int level, std::string_view message) {
  const PlatformServices* services = QVInstalledPlatformServices();
  if (services == nullptr || services->hostLog == nullptr) return;
  services->hostLog->write(sourceFile, function, line, category, level, message);
}

}  // namespace quorvel
