// Takes a manifest apart into items and judges each.
#include "host/proof/Verification.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <memory>
#include <optional>
#include <set>
#include <utility>

#include "host/proof/ItemJoin.h"
#include "host/proof/ProofProgress.h"
#include "platform/DeviceNames.h"
#include "platform/FileSystemRepresentation.h"
#include "platform/linux/files/DirectoryReader.h"
#include "platform/linux/files/DirectoryStack.h"

namespace quorvel::host {

namespace {

constexpr std::array<const char*, 7> kVerdictNames = {
    "arrived", "kept", "changed", "missing", "lost", "unproven", "unexplained"};

// The last component is not followed: a link that leads nowhere is an item all the same.
bool Exists(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0;
}

Error Failure(int number, const std::string& what) {
  return {PosixErrorDomain, number, {{LocalizedDescriptionKey, PlistValue(what)}}};
}

// One pass over the manifest. An item's join is made at its root entry, takes every entry below
// that and ends with the next root, so that only one item is held at a time.
class Verifier {
 public:
  Verifier(ManifestReader& manifest, const Places& places, EntryReader& reader,
           const FindingSink& sink, VerificationTotals& totals)
      : manifest_(manifest),
        places_(places),
        sink_(sink),
        totals_(totals),
        context_{reader, sink, totals, links_, manifest.header().contents} {}

  bool run(Error* error) {
    ProofProgress progress("Verifying", manifest_.header().sections.size());
    // First, so that nobody takes a short list of findings for a whole one.
    unreadableSections();
    while (auto entry = manifest_.next()) {
      if (!take(*entry)) return SetError(error, std::move(failure_));
      progress.at(manifest_.section(), totals_.items);
    }
    if (!endItem()) return SetError(error, std::move(failure_));
    if (!manifest_.problem().empty()) {
      return SetError(error, Failure(EINVAL, "the manifest is damaged: " + manifest_.problem()));
    }
    unexplainedInContainers();
    return true;
  }

 private:
  const ManifestSection& section() const {
    return manifest_.header().sections[manifest_.section()];
  }

  void unreadableSections() {
    for (const ManifestSection& each : manifest_.header().sections) {
      if (each.unreadable.empty()) continue;
      ++totals_.unproven;
      const std::string path = BytesOfFileSystemRepresentation(each.path);
      sink_(
          {Verdict::unproven, path, {}, {}, "the snapshot could not read it: " + each.unreadable});
    }
  }

  bool take(const ManifestEntry& entry) {
    // An item ends where the next one begins, or with its section.
    const bool newSection = std::exchange(sectionNow_, manifest_.section()) != manifest_.section();
    if (newSection || entry.depth <= itemDepth_) {
      if (!endItem()) return false;
    }
    if (join_ == nullptr) {
      note(entry);
      // Neither moves: a migration makes and removes them itself.
      if (isStructure(entry) || isMarker(entry)) return true;
      beginItem(entry);
    }
    int number = 0;
    return join_->take(entry, number) || fail(number);
  }

  // The names from the section's directory down to an item's root.
  void note(const ManifestEntry& entry) {
    names_.resize(entry.depth == 0 ? 0 : entry.depth - 1);
    if (entry.depth != 0) names_.push_back(entry.name);
  }

  // The directories of a staged package hold items and are none.
  bool isStructure(const ManifestEntry& entry) const {
    if (section().kind != SectionKind::container || entry.type != EntryType::directory) {
      return false;
    }
    if (names_.size() == 1) return names_[0] == StagingName;
    return names_.size() == 2 && names_[0] == StagingName && names_[1] == PayloadName;
  }

  // Written by migrations for themselves.
  bool isMarker(const ManifestEntry& entry) const {
    return section().kind == SectionKind::container && entry.depth == 1 &&
           entry.name == MigrationMarkerName && entry.type != EntryType::directory;
  }

  std::string itemPath(const std::string& item) const {
    const std::string own = BytesOfFileSystemRepresentation(section().path);
    return section().kind == SectionKind::stray ? own : own + "/" + item;
  }

  // Each place is examined once here, rather than for every entry of the item, and those that are
  // not there or have been taken by another item are left out.
  void beginItem(const ManifestEntry& entry) {
    std::string item;
    for (const std::string& name : names_) item.append(item.empty() ? "" : "/").append(name);
    JoinedItem joined{itemPath(item), entry.depth, {}, {}, false};
    std::string replaced;
    for (Place& place : places_.of(manifest_.section(), item)) {
      // A place that is not there cannot have the item.
      if (!Exists(place.path)) continue;
      const SectionItem mine{entry.name, entry.identity, entry.modified};
      if (const auto by = places_.replacedBy(manifest_.section(), mine, place)) {
        replaced =
            "replaced by the item of that name from " + manifest_.header().sections[*by].path;
      } else {
        joined.places.push_back(std::move(place));
      }
    }
    if (joined.places.empty()) {
      // What another item replaced was there, and is explained by that.
      joined.loss = !replaced.empty() ? replaced : places_.lossOf(manifest_.section(), item);
    } else {
      claim(joined.places.front());
    }
    for (const SectionBundle& bundle : section().bundles) {
      joined.isBundle = joined.isBundle || bundle.item == item;
    }
    joined.isBundle = joined.isBundle || section().kind == SectionKind::bundle;
    join_ = std::make_unique<ItemJoin>(context_, std::move(joined));
    itemDepth_ = entry.depth;
  }

  // Only the likeliest place is the item's; what lies in a container's other places is unexplained.
  void claim(const Place& place) {
    if (!place.isCurrent) return;
    const std::size_t slash = place.path.rfind('/');
    claimed_[place.path.substr(0, slash)].insert(place.path.substr(slash + 1));
  }

  bool endItem() {
    int number = 0;
    const bool done = join_ == nullptr || join_->finish(number);
    join_.reset();
    itemDepth_ = 0;
    return done || fail(number);
  }

  bool fail(int number) {
    failure_ = Failure(number, "below " + section().path + ": " + ErrnoDescription(number));
    return false;
  }

  // Last, when every item has claimed its place. Names are sorted, since a directory's own order
  // differs from one file system to the next and findings should not.
  void unexplainedInContainers() {
    for (const auto& [container, isPlaceholder] : places_.containers()) {
      // Its contents were made up by the registry.
      if (isPlaceholder) continue;
      const auto claimed = claimed_.find(container);
      const UniqueDescriptor opened(
          ::open(container.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      onlinux::DirectoryReader reader;
      std::set<std::string> names;
      while (const auto* entry = opened ? reader.next(opened.get()) : nullptr) {
        if (claimed == claimed_.end() || !claimed->second.contains(entry->name)) {
          names.insert(entry->name);
        }
      }
      for (const std::string& name : names) {
        std::string path = container;
        path.append("/").append(name);
        ++totals_.unexplained;
        sink_({Verdict::unexplained, path, path});
      }
    }
  }

  ManifestReader& manifest_;
  const Places& places_;
  const FindingSink& sink_;
  VerificationTotals& totals_;
  FoundLinks links_;
  JoinContext context_;
  std::size_t sectionNow_ = 0;
  std::vector<std::string> names_;
  std::size_t itemDepth_ = 0;
  std::unique_ptr<ItemJoin> join_;
  std::map<std::string, std::set<std::string>> claimed_;  // names in containers
  Error failure_;
};

}  // namespace

const char* NameOf(Verdict verdict) { return kVerdictNames[static_cast<std::size_t>(verdict)]; }

bool Verify(ManifestReader& manifest, const Places& places, EntryReader& reader,
            const FindingSink& sink, VerificationTotals& totals, Error* error) {
  return Verifier(manifest, places, reader, sink, totals).run(error);
}

}  // namespace quorvel::host
