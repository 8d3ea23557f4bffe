// Devices in memory: a pristine one, and the copy that is migrated, afresh for every point.
#include "tests/sweep/MemoryDevice.h"

#include <sched.h>
#include <sys/mount.h>

#include <cstdlib>

namespace quorvel::sweep {

namespace fs = std::filesystem;

bool HaveOwnMounts() {
  static const bool result = ::geteuid() == 0 && ::unshare(CLONE_NEWNS) == 0 &&
                             ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
  return result;
}

bool CopyTreeWithSystem(const std::string& from, const std::string& to) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::execlp("cp", "cp", "-a", "--sparse=always", (from + "/.").c_str(), to.c_str(), nullptr);
    ::_exit(127);
  }
  int status = -1;
  return ::waitpid(child, &status, 0) == child && status == 0;
}

MemoryDevice::MemoryDevice(const Options& options, Variant variant, const std::string& sweep)
    : variant_(std::move(variant)),
      host_{options.host, {}},
      directory_(options.directory + "/" + sweep + "-" + variant_.name) {
  setup_.program = options.host;
}

MemoryDevice::~MemoryDevice() {
  if (owner_ == ::getpid()) remove();
}

std::string MemoryDevice::whyNot() const {
  if (variant_.mountPoint.empty() || HaveOwnMounts()) return {};
  return "mounting a second file system needs to be root";
}

std::string MemoryDevice::mountPoint() const {
  return variant_.mountPoint.empty() ? std::string() : device_->inside(variant_.mountPoint);
}

void MemoryDevice::remove() const {
  if (!variant_.mountPoint.empty()) ::umount2(mountPoint().c_str(), MNT_DETACH);
  testing::RemoveWithSystem(device_->root());
}

bool MemoryDevice::prepare(const Options& options, std::string* problem) {
  const std::string pristine = directory_ + "/pristine";
  fs::create_directories(pristine);
  if (!MakeReferenceDevice(pristine, options.host, options.isSmall)) {
    *problem = "the reference device could not be made";
    return false;
  }
  judge_.learn(pristine);
  const testing::Device& device = fresh();
  const testing::HostRun run = device.run({"migrate", "--quiet"}, setup_);
  if (run.exitCode != 0) {
    *problem =
        "an undisturbed migration ended with " + std::to_string(run.exitCode) + ": " + run.err;
    return false;
  }
  judge_.expect(testing::Outcome(device, setup_));
  const std::vector<std::string> missing = judge_.missingAnywhere(device.root());
  if (!missing.empty()) *problem = "an undisturbed migration loses " + missing.front();
  return missing.empty();
}

const testing::Device& MemoryDevice::fresh() {
  if (owner_ == ::getpid()) {
    remove();
  } else {
    owner_ = ::getpid();  // a worker with a place of its own
    device_.emplace(directory_ + "/device-" + std::to_string(owner_));
  }
  fs::create_directories(device_->root());
  if (!variant_.mountPoint.empty()) {
    fs::create_directories(mountPoint());
    ::mount("tmpfs", mountPoint().c_str(), "tmpfs", 0, nullptr);
  }
  if (!CopyTreeWithSystem(directory_ + "/pristine", device_->root())) std::abort();
  return *device_;
}

}  // namespace quorvel::sweep
