// Keeps a few pieces of a walk in the hands of the reader.
#include "host/proof/TreeStream.h"

#include <utility>

namespace quorvel::host {

namespace {

constexpr std::size_t kPiecesAhead = 8;
constexpr std::size_t kItemsPerPiece = 256;
// Each keeps a descriptor: with all pieces, well below what a process may have open.
constexpr std::size_t kDirectoriesPerPiece = 32;

}  // namespace

std::optional<ManifestEntry> TreeStream::next(int& failure) {
  while (at_ == piece_.size()) {
    // Before waiting for the front piece, so that the threads always have something to do.
    readAhead();
    if (ahead_.empty()) {
      failure = failure_;
      return std::nullopt;
    }
    piece_ = ahead_.front().get();
    ahead_.pop_front();
    at_ = 0;
  }
  failure = 0;
  return std::move(piece_[at_++]);
}

// A piece ends with its items or its directories, whichever bound comes first: each directory among
// them keeps a descriptor open until the piece is read.
void TreeStream::readAhead() {
  while (!walked_ && ahead_.size() < kPiecesAhead) {
    std::vector<WalkedItem> items;
    std::size_t directories = 0;
    WalkedItem item;
    while (items.size() < kItemsPerPiece && directories < kDirectoriesPerPiece) {
      walked_ = !walk_.next(item, failure_);
      if (walked_) break;
      if (items.empty() || items.back().parent != item.parent) ++directories;
      items.push_back(std::move(item));
    }
    if (!items.empty()) ahead_.push_back(reader_.read(std::move(items), root_));
  }
}

}  // namespace quorvel::host
