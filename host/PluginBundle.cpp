// Finds, loads and checks the shared object; it is never unloaded.
#include "host/PluginBundle.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "host/console/TerminalText.h"
#include "platform/Error.h"

namespace quorvel::host {

namespace {

constexpr const char* kPluginFileName = "Ravelle.so";
constexpr const char* kRemedy = "Name the plug-in's shared object with --plugin";

// Beside the executable, as in a build tree; else where it is installed, seen from there.
std::string BesideExecutable() {
  std::error_code failure;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", failure);
  // Without /proc there is the current directory to try.
  if (failure) return kPluginFileName;
  const std::filesystem::path beside = self.parent_path() / kPluginFileName;
  const std::filesystem::path installed = self.parent_path() / QUORVEL_INSTALLED_PLUGIN;
  const bool useInstalled =
      !std::filesystem::exists(beside, failure) && std::filesystem::exists(installed, failure);
  return (useInstalled ? installed : beside).lexically_normal().string();
}

// The loader searches its own directories for a name without a slash; users mean a file.
std::string AsFile(const std::string& name) {
  return name.find('/') == std::string::npos ? "./" + name : name;
}

std::string LoaderMessage() {
  const char* message = ::dlerror();  // NOLINT(concurrency-mt-unsafe): still one thread
  return Printable(message != nullptr ? message : "unknown error");
}

}  // namespace

bool PluginBundle::load(const std::string& file, FatalError& error) {
  const std::string name = AsFile(file.empty() ? BesideExecutable() : file);
  printable_ = Printable(name);
  struct stat info {};
  if (::stat(name.c_str(), &info) != 0) {
    return Fail(error, ExitPluginUnusable, printable_ + ": " + ErrnoDescription(errno), kRemedy);
  }
  if (!S_ISREG(info.st_mode)) {  // a pipe would block the loader for ever
    return Fail(error, ExitPluginUnusable, printable_ + ": this is no file", kRemedy);
  }
  // RTLD_NOW: what is missing shows here rather than in the middle of a migration, when the library
  // directories are out of reach.
  void* bundle = ::dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (bundle == nullptr) {
    return Fail(error, ExitPluginUnusable, printable_ + ": cannot be loaded: " + LoaderMessage(),
                kRemedy);
  }
  entry_ = reinterpret_cast<MigratorPluginEntry>(::dlsym(bundle, MigratorPluginEntryName));
  if (entry_ == nullptr) {
    return Fail(error, ExitPluginUnusable,
                printable_ + ": this is no plug-in: it does not export " + MigratorPluginEntryName,
                kRemedy);
  }
  // These came later: a plug-in without them can still migrate.
  previewEntry_ =
      reinterpret_cast<MigrationPreviewEntry>(::dlsym(bundle, MigrationPreviewEntryName));
  versionEntry_ =
      reinterpret_cast<MigratorPluginVersionEntry>(::dlsym(bundle, MigratorPluginVersionName));
  selectionEntry_ = reinterpret_cast<MigrationSelectionVersionEntry>(
      ::dlsym(bundle, MigrationSelectionVersionName));
  return true;
}

bool PluginBundle::selects() const {
  return selectionEntry_ != nullptr && selectionEntry_() == MigrationSelectionVersion;
}

std::string PluginBundle::version() const {
  return versionEntry_ != nullptr ? versionEntry_() : std::string();
}

std::unique_ptr<MigrationPreview> PluginBundle::createPreview(FatalError& error) const {
  std::unique_ptr<MigrationPreview> preview(
      previewEntry_ != nullptr ? previewEntry_(MigrationPreviewInterfaceVersion) : nullptr);
  if (preview == nullptr) {
    Fail(error, ExitPluginUnusable, printable_ + ": the plug-in cannot look ahead for this host",
         "Use the plug-in that was built with this host");
  }
  return preview;
}

std::unique_ptr<MigratorPlugin> PluginBundle::create(FatalError& error) const {
  std::unique_ptr<MigratorPlugin> plugin(entry_(MigratorPluginInterfaceVersion));
  if (plugin == nullptr) {
    Fail(error, ExitPluginUnusable,
         printable_ + ": the plug-in does not support interface version " +
             std::to_string(MigratorPluginInterfaceVersion) + " of this host",
         "Use the plug-in that was built with this host");
    return nullptr;
  }
  // The plug-in has said why in the log.
  if (plugin->init() == nullptr) {
    Fail(error, ExitPluginUnusable,
         printable_ + ": the plug-in cannot be initialised for this device tree",
         "Run again with --log FILE to see what it reports");
    return nullptr;
  }
  return plugin;
}

}  // namespace quorvel::host
