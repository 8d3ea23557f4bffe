// What one sweep is made of: points that are tried one by one, each with a finding.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace quorvel::sweep {

// Where a device's file systems lie: everything on one, or a second one mounted inside.
struct Variant {
  std::string name;
  std::string mountPoint;  // on the device; empty for one file system
};

struct Options {
  std::string sweep;
  std::vector<Variant> variants;
  std::vector<std::string> only;         // points, or whole calls, to try; all when empty
  std::vector<std::string> fileSystems;  // that lose what was not flushed: "ext4", "xfs"
  std::string host;                      // the program that is swept
  std::string preload;                   // the library without flushes
  std::string directory;                 // in memory; scratch trees are made in it
  long every = 1;
  long jobs = 1;
  bool isSmall = false;  // the device with one container of two kinds
};

// What came of one point. Everything that was found wrong is named in words.
struct Finding {
  std::string point;
  bool fired = false;
  bool neededThirdRun = false;
  std::vector<std::string> gaveUp;   // what the documented sequence gives up, by kind
  std::vector<std::string> lost;     // a user's item that is not whole, a run that did not complete
  std::vector<std::string> left;     // what no run of its own leaves
  std::vector<std::string> allowed;  // left behind as documented
};

// One kind of fault on one variant. Made and measured once; then each worker process tries some of
// the points in a directory of its own.
class Sweep {
 public:
  virtual ~Sweep() = default;

  virtual std::string name() const = 0;
  // That it needs one of; empty when any will do.
  virtual std::string fileSystem() const { return {}; }
  // Why it cannot be had here, or empty.
  virtual std::string whyNot() const = 0;
  // Runs an undisturbed migration. False with words when that alone goes wrong.
  virtual bool measure(std::string* problem) = 0;
  // Names of the points. A name is its call's number, a slash, and what happens there.
  virtual std::vector<std::string> points() const = 0;
  // With `keep` not empty, the trees behind the fault and behind the recovery stay there.
  virtual std::vector<Finding> tryPoint(const std::string& point, const std::string& keep) = 0;
  // Whether finding nothing lost is the failure.
  virtual bool isControl() const { return false; }
};

std::unique_ptr<Sweep> MakeKillSweep(const Options& options, const Variant& variant);
std::unique_ptr<Sweep> MakeFailSweep(const Options& options, const Variant& variant);
// With `flushes` false the host's flushes do nothing: the sweep must find a loss.
std::unique_ptr<Sweep> MakePowerSweep(const Options& options, const Variant& variant,
                                      const std::string& fileSystem, bool flushes);

// The call in a point's name.
long CallOf(const std::string& point);
// What is behind the slash.
std::string DetailOf(const std::string& point);

}  // namespace quorvel::sweep
