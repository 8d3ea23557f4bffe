// Cuts the power before each of the host's calls that change something: what the disk holds then is
// all that the next run finds. Two ends of what a journalling file system may have kept are tried
// on each file system, in every combination: nothing that was not flushed; and every name, but of
// contents only what was flushed.
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

#include "tests/sweep/Judge.h"
#include "tests/sweep/LoopImage.h"
#include "tests/sweep/MemoryDevice.h"

namespace quorvel::sweep {

namespace {

// Logs are not flushed.
constexpr Leniency kAfterPowerCut = {false, true, false, true};

// What a file system kept, one letter each in a point's name.
constexpr char kNothingMore = 'n';  // than what was flushed
constexpr char kJournalToo = 'j';   // a commit of the journal that another file's flush forced

class PowerSweep : public Sweep {
 public:
  PowerSweep(const Options& options, const Variant& variant, const std::string& fileSystem,
             bool flushes);
  ~PowerSweep() override;

  std::string name() const override { return isControl() ? "power, no flushes" : "power"; }
  std::string fileSystem() const override { return fileSystem_; }
  std::string whyNot() const override { return WhyNoLoopImages(kind_); }
  bool measure(std::string* problem) override;
  std::vector<std::string> points() const override;
  std::vector<Finding> tryPoint(const std::string& point, const std::string& keep) override;
  bool isControl() const override { return !host_.preload.empty(); }

 private:
  std::string pristineImage(std::size_t disk) const;
  std::string ownImage(std::size_t disk, const std::string& kind) const;
  std::string mountPoint(std::size_t disk) const;
  // Each process has its devices in a place of its own.
  testing::Device device() const { return testing::Device(ownImage(0, "device")); }
  bool makeImages();
  // Takes copies of one image of each disk and mounts them in their places.
  MountedImages mount(const std::vector<std::string>& files);
  MountedImages mountPristine();
  bool photograph() const;
  bool cutBefore(long call, Finding* finding);
  Finding recover(const std::string& point, const std::string& kept, const std::string& keep);

  const Options options_;
  const std::string fileSystem_;
  const FileSystemKind& kind_;
  const HostProgram host_;
  testing::HostSetup setup_;
  const std::string directory_;
  std::vector<std::string> mountPoints_;  // on the device, the root's first
  Judge judge_;
  long calls_ = 0;
  long flushes_ = 0;
};

PowerSweep::PowerSweep(const Options& options, const Variant& variant,
                       const std::string& fileSystem, bool flushes)
    : options_(options),
      fileSystem_(fileSystem),
      kind_(FileSystemOfName(fileSystem)),
      host_{options.host, flushes ? std::string() : options.preload},
      directory_(options.directory + "/power-" + variant.name + "-" + fileSystem +
                 (flushes ? "" : "-control")),
      mountPoints_{""} {
  setup_.program = options.host;
  if (!variant.mountPoint.empty()) mountPoints_.push_back(variant.mountPoint);
}

PowerSweep::~PowerSweep() = default;

std::string PowerSweep::pristineImage(std::size_t disk) const {
  return directory_ + "/pristine-" + std::to_string(disk);
}

std::string PowerSweep::ownImage(std::size_t disk, const std::string& kind) const {
  return directory_ + "/" + std::to_string(::getpid()) + "-" + std::to_string(disk) + "-" + kind;
}

std::string PowerSweep::mountPoint(std::size_t disk) const {
  return device().inside(mountPoints_[disk]);
}

MountedImages PowerSweep::mount(const std::vector<std::string>& files) {
  MountedImages images(kind_);
  for (std::size_t disk = 0; disk < files.size() && images.works(); ++disk) {
    const std::string own = ownImage(disk, "mounted");
    if (!CopyImage(files[disk], own)) images.fail();
    std::filesystem::create_directories(mountPoint(disk));
    images.add(own, mountPoint(disk));
  }
  return images;
}

MountedImages PowerSweep::mountPristine() {
  std::vector<std::string> files;
  for (std::size_t disk = 0; disk < mountPoints_.size(); ++disk) {
    files.push_back(pristineImage(disk));
  }
  return mount(files);
}

bool PowerSweep::makeImages() {
  const std::string plain = directory_ + "/plain";
  std::filesystem::create_directories(plain);
  if (!MakeReferenceDevice(plain, options_.host, options_.isSmall)) return false;
  judge_.learn(plain);
  MountedImages images(kind_);
  for (std::size_t disk = 0; disk < mountPoints_.size(); ++disk) {
    if (!MakeLoopImage(kind_, pristineImage(disk))) return false;
    std::filesystem::create_directories(mountPoint(disk));
    if (!images.add(pristineImage(disk), mountPoint(disk))) return false;
    testing::Put(mountPoint(disk) + UnrelatedFile, "0");
  }
  return CopyTreeWithSystem(plain, device().root());
}

bool PowerSweep::measure(std::string* problem) {
  *problem = "the images could not be made";
  if (!makeImages()) return false;
  {
    const MountedImages images = mountPristine();
    if (!images.works()) return false;
    const TracedRun run =
        MigrateTracedByChange(host_, device().root(), [&](const TracedCall& call, long number) {
          calls_ = number;
          flushes_ +=
              call.number == SYS_fsync || call.number == SYS_fdatasync || call.number == SYS_syncfs
                  ? 1
                  : 0;
          return Treatment{};
        });
    *problem = "an undisturbed migration ended with " + std::to_string(run.exitStatus);
    if (run.exitStatus != 0) return false;
    judge_.expect(testing::Outcome(device(), setup_));
  }
  *problem =
      flushes_ == 0 ? "the host flushes nothing" : "the library without flushes does nothing";
  return isControl() == (flushes_ == 0);
}

std::vector<std::string> PowerSweep::points() const {
  std::vector<std::string> points;
  for (long call = 1; call <= calls_; ++call) points.push_back(std::to_string(call) + "/cut");
  return points;
}

// Copies what each disk holds, before and behind a commit of its journal.
bool PowerSweep::photograph() const {
  for (std::size_t disk = 0; disk < mountPoints_.size(); ++disk) {
    const std::string image = ownImage(disk, "mounted");
    if (!CopyImage(image, ownImage(disk, {kNothingMore}))) return false;
    const UniqueDescriptor unrelated(
        ::open((mountPoint(disk) + UnrelatedFile).c_str(), O_WRONLY | O_CLOEXEC));
    if (!unrelated || ::pwrite(unrelated.get(), "1", 1, 0) != 1 || ::fsync(unrelated.get()) != 0) {
      return false;
    }
    if (!CopyImage(image, ownImage(disk, {kJournalToo}))) return false;
  }
  return true;
}

bool PowerSweep::cutBefore(long atCall, Finding* finding) {
  const MountedImages images = mountPristine();
  if (!images.works()) return false;
  bool reached = false;
  bool photographed = false;
  MigrateTracedByChange(host_, device().root(), [&](const TracedCall&, long call) -> Treatment {
    if (call != atCall) return {};
    reached = true;
    photographed = photograph();
    return {Treatment::Kind::kill};
  });
  if (reached && !photographed) finding->lost.emplace_back("the disks could not be copied");
  return reached && photographed;
}

Finding PowerSweep::recover(const std::string& point, const std::string& kept,
                            const std::string& keep) {
  Finding finding;
  finding.point = std::to_string(CallOf(point)) + "/cut-" + kept;
  finding.fired = true;
  std::vector<std::string> files;
  for (std::size_t disk = 0; disk < kept.size(); ++disk) {
    files.push_back(ownImage(disk, {kept[disk]}));
  }
  const MountedImages images = mount(files);
  if (!images.works()) {
    finding.lost.emplace_back("a disk cannot be mounted any more");
    return finding;
  }
  const std::string place = keep + "/kept-" + kept;
  const auto save = [&](const char* when) {
    if (keep.empty()) return;
    std::filesystem::create_directories(place + when);
    CopyTreeWithSystem(device().root(), place + when);
  };
  save("/behind-the-cut");
  try {
    Recover(judge_, device(), setup_, kAfterPowerCut, &finding);
  } catch (const std::exception& failure) {
    finding.lost.push_back(std::string("the device cannot be judged: ") + failure.what());
  }
  save("/behind-the-recovery");
  return finding;
}

std::vector<Finding> PowerSweep::tryPoint(const std::string& point, const std::string& keep) {
  Finding cut;
  cut.point = point;
  if (!cutBefore(CallOf(point), &cut)) return {cut};
  std::vector<Finding> findings;
  const std::string only = DetailOf(point).substr(
      std::min<std::size_t>(DetailOf(point).size(), std::string("cut-").size()));
  for (const char root : {kNothingMore, kJournalToo}) {
    std::vector<std::string> combinations = {{root}};
    if (mountPoints_.size() > 1) {
      combinations = {std::string{root, kNothingMore}, std::string{root, kJournalToo}};
    }
    for (const std::string& kept : combinations) {
      if (only.empty() || only == kept) findings.push_back(recover(point, kept, keep));
    }
  }
  return findings;
}

}  // namespace

std::unique_ptr<Sweep> MakePowerSweep(const Options& options, const Variant& variant,
                                      const std::string& fileSystem, bool flushes) {
  return std::make_unique<PowerSweep>(options, variant, fileSystem, flushes);
}

}  // namespace quorvel::sweep
