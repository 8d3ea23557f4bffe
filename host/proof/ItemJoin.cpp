// Compares two walks that come in the same order.
#include "host/proof/ItemJoin.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace quorvel::host {

namespace {

// Names of the entry at `depth`, below the root of a join.
void SetName(std::vector<std::string>& names, std::size_t depth, const std::string& name) {
  if (depth == 0) {
    names.clear();
    return;
  }
  // Entries come in walk order: what is deeper than this one is done with.
  names.resize(depth - 1);
  names.push_back(name);
}

// The item of these names below the root, reached one directory at a time and through no link.
// Used for the other places of an item, where no walk is under way.
std::optional<WalkedItem> Reach(const std::string& root, const std::vector<std::string>& names) {
  WalkedItem item;
  item.parent = std::make_shared<const UniqueDescriptor>();
  if (names.empty()) {
    if (::lstat(root.c_str(), &item.info) != 0) return std::nullopt;
    return item;
  }
  constexpr int flags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  UniqueDescriptor directory(::open(root.c_str(), flags));
  for (std::size_t i = 0; directory && i + 1 < names.size(); ++i) {
    directory.reset(::openat(directory.get(), names[i].c_str(), flags));
  }
  if (!directory ||
      ::fstatat(directory.get(), names.back().c_str(), &item.info, AT_SYMLINK_NOFOLLOW) != 0) {
    return std::nullopt;
  }
  item.name = names.back();
  item.parent = std::make_shared<const UniqueDescriptor>(std::move(directory));
  return item;
}

}  // namespace

ItemJoin::ItemJoin(JoinContext& context, JoinedItem item)
    : context_(context), item_(std::move(item)) {
  if (item_.places.empty()) return;
  stream_ = std::make_unique<TreeStream>(context_.reader, item_.places.front().path);
}

std::string ItemJoin::below(const std::string& root) const {
  std::string path = root;
  for (const std::string& name : names_) path.append("/").append(name);
  return path;
}

// After the end of the walk there is no head, and no stream to be asked again.
bool ItemJoin::advance(int& failure) {
  head_ = stream_->next(failure);
  if (!head_) stream_.reset();
  if (failure == ENOENT) failure = 0;  // it was removed between two looks
  return failure == 0;
}

// Both sides are sorted alike, so that the head is either this entry, or comes before it and is in
// no manifest, or comes after it: then this entry is not there.
bool ItemJoin::take(const ManifestEntry& entry, int& failure) {
  ++context_.totals.items;
  const std::size_t depth = entry.depth - item_.depth;
  SetName(names_, depth, entry.name);
  // The absent tree ends where an entry is no deeper than its top.
  if (absent_ && depth <= absentDepth_) flush();
  if (stream_ != nullptr && !head_ && !advance(failure)) return false;
  ManifestEntry wanted = entry;
  wanted.depth = depth;
  if (!passUnexplained(wanted, failure)) return false;
  // At its root the item is what lies at the place, whatever its name.
  const bool matches = head_ && head_->depth == depth && (depth == 0 || head_->name == entry.name);
  if (!matches) {
    judgeAbsent(wanted);
    return true;
  }
  const ManifestEntry now = *std::exchange(head_, std::nullopt);
  judge(wanted, now, item_.places.front());
  return stream_ == nullptr || advance(failure);
}

// What is on disk before the place where the manifest's entry would be.
bool ItemJoin::passUnexplained(const ManifestEntry& until, int& failure) {
  while (
      head_ && until.depth != 0 &&
      (head_->depth > until.depth || (head_->depth == until.depth && head_->name < until.name))) {
    noteUnexplained();
    if (!advance(failure)) return false;
  }
  return true;
}

void ItemJoin::noteUnexplained() {
  const std::size_t depth = head_->depth;
  SetName(current_, depth, head_->name);
  // One finding for a whole tree.
  if (unexplainedDepth_ != 0 && depth > unexplainedDepth_) return;
  unexplainedDepth_ = depth;
  // What is new in a legacy place is somebody else's business.
  if (!item_.places.front().isCurrent) return;
  std::string path = item_.places.front().path;
  for (const std::string& name : current_) path.append("/").append(name);
  ++context_.totals.unexplained;
  context_.sink({Verdict::unexplained, path, path});
}

std::vector<std::string> ItemJoin::differences(const ManifestEntry& before,
                                               const ManifestEntry& now) {
  const Comparison comparison{context_.contents, item_.isBundle && before.depth == 0};
  std::vector<std::string> what = Differences(before, now, comparison);
  // Names that were one item must be one item still; what differs otherwise is not what the others
  // have to agree with.
  if (what.empty() && before.links > 1 && before.type != EntryType::directory) {
    const auto [at, isFirst] = context_.links.insert({before.identity, now.identity});
    if (!isFirst && at->second != now.identity) what.emplace_back("hard links");
  }
  return what;
}

// Changes weigh more than what could not be read: a difference that is known is one, whatever else
// is not.
void ItemJoin::judge(const ManifestEntry& before, const ManifestEntry& now, const Place& place) {
  SetName(current_, before.depth, before.name);
  unexplainedDepth_ = 0;
  // An entry of which the snapshot knew nothing cannot differ.
  const bool examined = before.mode != 0 || before.modified != 0 || before.unreadable.empty();
  std::vector<std::string> what;
  if (examined) what = differences(before, now);
  if (!what.empty()) {
    // A copy that was cut off: the whole item is where it came from.
    if (joinElsewhere(before)) return;
    ++context_.totals.changed;
    return tell({Verdict::changed, below(item_.origin), below(place.path), std::move(what)});
  }
  const std::string& unreadable = before.unreadable.empty() ? now.unreadable : before.unreadable;
  if (!unreadable.empty()) {
    ++context_.totals.unproven;
    const char* when =
        before.unreadable.empty() ? "it cannot be read: " : "the snapshot could not read it: ";
    return tell({Verdict::unproven, below(item_.origin), below(place.path), {}, when + unreadable});
  }
  ++(place.isCurrent ? context_.totals.arrived : context_.totals.kept);
}

// Whether the entry is unchanged in another of its places.
bool ItemJoin::joinElsewhere(const ManifestEntry& before) {
  for (std::size_t i = 1; i < item_.places.size(); ++i) {
    const auto other = elsewhere(before, i);
    if (!other || !differences(before, *other).empty() || !other->unreadable.empty()) continue;
    ++(item_.places[i].isCurrent ? context_.totals.arrived : context_.totals.kept);
    return true;
  }
  return false;
}

std::optional<ManifestEntry> ItemJoin::elsewhere(const ManifestEntry& before, std::size_t place) {
  auto item = Reach(item_.places[place].path, names_);
  if (!item) return std::nullopt;
  std::vector<WalkedItem> one;
  one.push_back(*std::move(item));
  // One item, and waited for: rare enough not to be read ahead.
  ManifestEntry found =
      context_.reader.read(std::move(one), item_.places[place].path).get().front();
  found.depth = before.depth;
  return found;
}

// An absent directory's entries are all absent as well, and are counted into its one finding.
void ItemJoin::judgeAbsent(const ManifestEntry& before) {
  if (joinElsewhere(before)) return;
  const bool lost = !item_.loss.empty();
  ++(lost ? context_.totals.lost : context_.totals.missing);
  if (absent_) {
    ++absent_->items;
    return;
  }
  absent_ = ProofFinding{lost ? Verdict::lost : Verdict::missing, below(item_.origin), {}};
  absent_->reason = item_.loss;
  absentDepth_ = before.depth;
}

void ItemJoin::tell(ProofFinding finding) {
  flush();
  context_.sink(finding);
}

void ItemJoin::flush() {
  if (absent_) context_.sink(*absent_);
  absent_.reset();
}

bool ItemJoin::finish(int& failure) {
  flush();
  if (stream_ != nullptr && !head_ && !advance(failure)) return false;
  while (head_) {
    noteUnexplained();
    if (!advance(failure)) return false;
  }
  return true;
}

}  // namespace quorvel::host
