// Confined resolution in generated layouts of links, against a walk that shares nothing with it.
#include "fuzz/Fuzzing.h"
#include "platform/linux/services/QVLinuxServices.h"
#include "shared/filemanager/QVFileManager.h"
#include "shared/support/Platform.h"
#include "tests/support/LinkWalker.h"

namespace quorvel::fuzzing {
namespace {

namespace fs = std::filesystem;

const char* const kNames[] = {"a", "b", "c", "base", "out"};
const char* const kLinkNames[] = {"a", "b", "c", "base", "out", "..", "..", "."};

std::string Components(Input& input, std::size_t most, bool ofLink) {
  std::string text;
  for (std::size_t left = 1 + input.number(most); left > 0; --left) {
    text += (text.empty() ? "" : "/") + (ofLink ? input.oneOf(kLinkNames) : input.oneOf(kNames));
  }
  return text;
}

void AddItem(const std::string& root, Input& input) {
  const std::string path =
      root + (input.number(3) == 0 ? "/" : "/base/") + Components(input, 3, false);
  std::error_code ignored;  // what is not possible in this layout is left out
  switch (input.number(5)) {
    case 0:
      fs::create_directory(path, ignored);
      return;
    case 1:
      std::ofstream(path) << "x";
      return;
    case 2:
      fs::create_symlink(root + "/" + Components(input, 3, true), path, ignored);
      return;
    default:
      fs::create_symlink(Components(input, 5, true), path, ignored);
  }
}

void RequireResolution(const std::string& child, const std::string& base) {
  using namespace quorvel::testing;  // NOLINT
  const auto found =
      QVFileManager::defaultManager().realPathForURL(Path(child), Path::directory(base));
  const std::string real = found ? found->string() : std::string();
  const Place place = Walker(child).run();
  std::error_code notALink;
  const fs::path text = fs::read_symlink(child, notALink);
  if (!notALink) {
    const std::string below = fs::path(child).parent_path().string().substr(base.size());
    if (text.is_absolute() || TextClimbs(below, text.string())) {
      Require(real.empty());
    } else if (place.found()) {
      Require(real == place.whole());
    }
  } else if (place.found()) {
    Require(real == (LiesIn(place.whole(), base) ? place.whole() : std::string()));
  } else if (found) {
    Require(place.dangling && LiesIn(real, base));
  }
}

}  // namespace
}  // namespace quorvel::fuzzing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvel;           // NOLINT
  using namespace quorvel::fuzzing;  // NOLINT
  const std::string& root = Scratch::fresh();
  const auto services = QVLinuxServices::create(Path::directory(root), {.digests = false}, nullptr);
  PlatformServices set = services->set();
  QVInstallPlatformServices(&set);
  fs::create_directories(root + "/base");
  fs::create_directories(root + "/out");
  Input input(data, size);
  for (std::size_t left = 1 + input.number(16); left > 0; --left) AddItem(root, input);
  do {
    RequireResolution(root + "/base/" + Components(input, 5, false), root + "/base");
  } while (!input.isEmpty());
  QVInstallPlatformServices(nullptr);
  return 0;
}
