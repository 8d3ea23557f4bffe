// Operations inside one process, each beside what it is measured against.
//
// Every pair is named X/ours and X/peer and works on the same input, so that the ratio of their
// times is the figure; X/floor does only what ours cannot do without. scripts/bench runs them
// interleaved and prints the ratios.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <expat.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <string>

#include "platform/linux/log/DeviceLog.h"
#include "platform/linux/plist/BinaryPropertyListFormat.h"
#include "platform/linux/plist/PropertyList.h"
#include "platform/linux/services/QVLinuxServices.h"
#include "shared/configuration/QVGlobalConfiguration.h"
#include "shared/filemanager/QVFileManager.h"
#include "shared/support/Platform.h"

namespace {

using namespace quorvel;
namespace fs = std::filesystem;

constexpr int kListedEntries = 200'000;
constexpr int kBundles = 5'000;
constexpr std::size_t kPropertyListBytes = std::size_t{20} << 20U;

// The inputs, in a directory of their own below TMPDIR, made on first use.
class Inputs {
 public:
  Inputs() {
    std::string text = (fs::temp_directory_path() / "quorvel-bench.XXXXXX").string();
    root_ = ::mkdtemp(text.data());
  }
  ~Inputs() { fs::remove_all(root_); }

  const fs::path& root() const { return root_; }

  const fs::path& listed() {
    static const fs::path made = [this] {
      fs::create_directory(root_ / "listed");
      for (int i = 0; i < kListedEntries; ++i) {
        std::ofstream(root_ / "listed" / ("entry-" + std::to_string(i)));
      }
      return root_ / "listed";
    }();
    return made;
  }

  // A device root with built-in apps.
  const fs::path& device() {
    static const fs::path made = [this] {
      for (int i = 0; i < kBundles; ++i) {
        const std::string name = "App" + std::to_string(i);
        const fs::path bundle = root_ / "device/Applications" / (name + ".app");
        fs::create_directories(bundle);
        std::ofstream(bundle / "Info.plist")
            << "<plist version=\"1.0\"><dict><key>PKBundleIdentifier</key><string>com.example."
            << name << "</string><key>PKBundleVersion</key><string>1.0</string>"
            << "<key>PKBundleExecutable</key><string>" << name << "</string></dict></plist>";
      }
      return root_ / "device";
    }();
    return made;
  }

 private:
  fs::path root_;
};

Inputs& TheInputs() {
  static Inputs inputs;
  return inputs;
}

// --- Listing ----------------------------------------------------------------------------------

void ListOurs(benchmark::State& state) {
  const Path directory = Path::directory(TheInputs().listed().string());
  for (auto _ : state) {
    auto items =
        QVFileManager::defaultManager().urlsForItemsInDirectoryAtURL(directory, false, nullptr);
    if (!items || items->size() != kListedEntries) state.SkipWithError("listing");
    benchmark::DoNotOptimize(items);
  }
}

void ListPeer(benchmark::State& state) {
  static char buffer[65536];
  for (auto _ : state) {
    const int fd = ::open(TheInputs().listed().c_str(), O_RDONLY | O_DIRECTORY);
    while (::syscall(SYS_getdents64, fd, buffer, sizeof buffer) > 0) {
    }
    ::close(fd);
  }
}

// --- Property lists ---------------------------------------------------------------------------

const PlistValue& LargeValue() {
  static const PlistValue value = [] {
    PlistArray list;
    for (std::size_t bytes = 0, i = 0; bytes < kPropertyListBytes; ++i, bytes += 220) {
      PlistDictionary entry;
      entry.set("Identifier", "com.example.item" + std::to_string(i));
      entry.set("Number", static_cast<std::int64_t>(i));
      entry.set("Enabled", i % 2 == 0);
      entry.set("Path", "/private/var/mobile/Containers/Data/" + std::to_string(i));
      list.emplace_back(std::move(entry));
    }
    PlistDictionary root;
    root.set("Items", std::move(list));
    return PlistValue(std::move(root));
  }();
  return value;
}

const std::vector<std::uint8_t>& LargeBytes(PropertyListFormat format) {
  static std::vector<std::uint8_t> bytes[2];
  std::vector<std::uint8_t>& wanted = bytes[format == PropertyListFormat::xml ? 0 : 1];
  if (wanted.empty()) onlinux::SerializePropertyList(LargeValue(), format, wanted, nullptr);
  return wanted;
}

template <PropertyListFormat format>
void ReadPropertyList(benchmark::State& state) {
  const auto& bytes = LargeBytes(format);
  for (auto _ : state) {
    const auto value = onlinux::ParsePropertyList(bytes, nullptr);
    if (!value) state.SkipWithError("reading");
    benchmark::DoNotOptimize(value.get());
  }
}

bool ParseWithEmptyHandlers(const char* text, std::size_t length) {
  const XML_Parser parser = ::XML_ParserCreate(nullptr);
  ::XML_SetElementHandler(
      parser, [](void*, const char*, const char**) {}, [](void*, const char*) {});
  ::XML_SetCharacterDataHandler(parser, [](void*, const char*, int) {});
  const bool parsed = ::XML_Parse(parser, text, static_cast<int>(length), 1) == XML_STATUS_OK;
  ::XML_ParserFree(parser);
  return parsed;
}

// What any reader built on this parser spends before it makes a single value.
void XmlPeer(benchmark::State& state) {
  const auto& bytes = LargeBytes(PropertyListFormat::xml);
  for (auto _ : state) {
    const auto* text = reinterpret_cast<const char*>(bytes.data());
    if (!ParseWithEmptyHandlers(text, bytes.size())) state.SkipWithError("parsing");
  }
}

// Reads the bytes once and touches each object: its marker and the bytes of its content.
void BinaryPeer(benchmark::State& state) {
  using namespace onlinux::binary;
  const auto& bytes = LargeBytes(PropertyListFormat::binary);
  const std::uint8_t* trailer = bytes.data() + bytes.size() - TrailerSize;
  const std::size_t width = trailer[6];
  const std::uint64_t count = ReadNumber(trailer + 8, 8);
  const std::uint8_t* table = bytes.data() + ReadNumber(trailer + 24, 8);
  for (auto _ : state) {
    std::uint64_t sum = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
      const std::uint64_t offset = ReadNumber(table + i * width, width);
      const std::uint64_t end =
          i + 1 < count ? ReadNumber(table + (i + 1) * width, width) : offset + 1;
      for (std::uint64_t at = offset; at < end; ++at) sum += bytes[at];
    }
    benchmark::DoNotOptimize(sum);
  }
}

// The values alone, made from values: what any reader that hands out a tree of them spends.
void BinaryFloor(benchmark::State& state) {
  const PlistValue& original = LargeValue();
  for (auto _ : state) {
    const PlistValue copy = original;
    benchmark::DoNotOptimize(&copy);
  }
}

// --- Catalogs ---------------------------------------------------------------------------------

void CatalogOurs(benchmark::State& state) {
  QVGlobalConfiguration& configuration = QVGlobalConfiguration::sharedInstance();
  const Path apps = Path::directory(TheInputs().device().string()).childDirectory("Applications");
  for (auto _ : state) {
    const auto map = configuration._bundleIDMapForAppsInDirectory(apps);
    if (!map || map->size() != kBundles) state.SkipWithError("catalog");
  }
}

// Opens and reads every bundle's dictionary, and hands its bytes on.
template <class Consumer>
void ReadBundles(benchmark::State& state, Consumer consume) {
  static char buffer[65536];
  const fs::path apps = TheInputs().device() / "Applications";
  for (auto _ : state) {
    DIR* directory = ::opendir(apps.c_str());
    while (const dirent* entry = ::readdir(directory)) {
      if (entry->d_name[0] == '.') continue;
      const std::string file = std::string(entry->d_name) + "/Info.plist";
      const int fd = ::openat(::dirfd(directory), file.c_str(), O_RDONLY);
      const ssize_t length = ::read(fd, buffer, sizeof buffer);
      ::close(fd);
      consume(buffer, length > 0 ? static_cast<std::size_t>(length) : 0);
    }
    ::closedir(directory);
  }
}

void CatalogPeer(benchmark::State& state) {
  ReadBundles(state, [](const char* bytes, std::size_t) { benchmark::DoNotOptimize(bytes); });
}

// The same, and the parser over each without making any value: an identifier is known only then.
void CatalogFloor(benchmark::State& state) {
  ReadBundles(state, [&state](const char* bytes, std::size_t length) {
    if (!ParseWithEmptyHandlers(bytes, length)) state.SkipWithError("parsing");
  });
}

// --- Log lines --------------------------------------------------------------------------------

void LogLineOurs(benchmark::State& state) {
  onlinux::DeviceHostLog log((TheInputs().root() / "log").string(), "bench.log",
                             std::size_t{1} << 40U);
  for (auto _ : state) {
    log.write("Driver.cpp", "-[QVRavelle performMigration]", 1, "Corvennad", 5,
              "QVRavelle: Migrating com.example.app at /private/var/mobile/Applications/x/App.app");
  }
}

void LogLinePeer(benchmark::State& state) {
  const fs::path file = TheInputs().root() / "peer.log";
  const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  for (auto _ : state) {
    char line[512];
    const int length = std::snprintf(
        line, sizeof line, "%s %d %s: %s\n", "2026-11-22T20:38:06.123456Z", 5,
        "-[QVRavelle performMigration]",
        "QVRavelle: Migrating com.example.app at /private/var/mobile/Applications/x/App.app");
    benchmark::DoNotOptimize(::write(fd, line, static_cast<std::size_t>(length)));
  }
  ::close(fd);
}

BENCHMARK(ListOurs)->Name("list/ours");
BENCHMARK(ListPeer)->Name("list/peer");
BENCHMARK(ReadPropertyList<PropertyListFormat::xml>)->Name("xml/ours");
BENCHMARK(XmlPeer)->Name("xml/peer");
BENCHMARK(ReadPropertyList<PropertyListFormat::binary>)->Name("binary/ours");
BENCHMARK(BinaryPeer)->Name("binary/peer");
BENCHMARK(BinaryFloor)->Name("binary/floor");
BENCHMARK(CatalogOurs)->Name("catalog/ours");
BENCHMARK(CatalogPeer)->Name("catalog/peer");
BENCHMARK(CatalogFloor)->Name("catalog/floor");
BENCHMARK(LogLineOurs)->Name("log/ours");
BENCHMARK(LogLinePeer)->Name("log/peer");

}  // namespace

int main(int argc, char** argv) {
  const auto services = QVLinuxServices::create(Path::directory("/"), {}, nullptr);
  QVInstallPlatformServices(&services->set());
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
