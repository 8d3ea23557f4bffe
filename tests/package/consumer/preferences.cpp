// preferences ROOT QUORVELCTL ROUNDS: stores values through the library while quorvelctl stores
// the persisted flag, in the same file; says how many updates were made. 1 when one was lost.
#include <quorvel/linux/QVLinuxServices.h>
#include <quorvel/platform/DeviceNames.h>
#include <quorvel/support/Platform.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

using namespace quorvel;

namespace {

constexpr const char* kOurs = "ConsumerUpdates";
constexpr PreferencesScope kScope = PreferencesScope::currentUserCurrentHost;

pid_t SetFlag(const char* program, const char* root, const char* value) {
  const pid_t child = ::fork();
  if (child != 0) return child;
  ::execl(program, program, "flags", "set", "haveUpdatedPluginContainersWithParentID", value,
          "--root", root, nullptr);
  ::_exit(127);
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 4) return 2;
  Error error;
  const auto root = Path::directory(StringFromFileSystemRepresentation(arguments[1]));
  const auto services = QVLinuxServices::create(root, {.digests = false}, &error);
  if (services == nullptr) return 2;
  QVInstallPlatformServices(&services->set());
  PreferencesStore& preferences = *services->set().preferences;

  long updates = 0;
  const long rounds = std::atol(arguments[3]);
  for (long round = 0; round < rounds; ++round) {
    const bool flag = round % 2 == 0;
    const pid_t child = SetFlag(arguments[2], arguments[1], flag ? "true" : "false");
    int status = -1;
    // Without a pause, from the child's start to its end.
    while (::waitpid(child, &status, WNOHANG) == 0) {
      preferences.setValue(kOurs, PlistValue(++updates), QVPreferencesDomain, kScope);
      if (preferences.synchronize(QVPreferencesDomain, kScope)) continue;
      std::fprintf(stderr, "update %ld was not stored\n", updates);
      return 1;
    }
    const auto ours = preferences.copyValue(kOurs, QVPreferencesDomain, kScope);
    const auto theirs =
        preferences.copyValue(UpdatedPluginContainersKey, QVPreferencesDomain, kScope);
    if (status != 0 || !theirs || *theirs != PlistValue(flag) || (updates > 0 && !ours) ||
        (ours && *ours != PlistValue(updates))) {
      std::fprintf(stderr, "round %ld of %ld lost an update (status %d)\n", round, rounds, status);
      return 1;
    }
  }
  std::printf("%ld updates beside %ld of quorvelctl\n", updates, rounds);
  return updates > 0 ? 0 : 1;
}
