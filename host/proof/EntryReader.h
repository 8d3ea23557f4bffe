// Reads what a walk does not: attributes, link texts and contents, on threads of its own.
#pragma once

#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host/proof/ManifestEntry.h"
#include "host/proof/SortedWalk.h"
#include "platform/Sha256.h"

namespace quorvel::host {

// Reading contents is most of a manifest's cost and waits for the disk: it is done while the walk
// goes on. One thread calls read().
// Reading by name needs the item's directory as the current one, which is a thread's own here where
// the kernel lets a thread have one; otherwise the threads take turns.
class EntryReader {
 public:
  // The digests' provider must outlive this; null leaves digests out. Made before the process is
  // confined, it starts its threads at the first read().
  explicit EntryReader(Sha256Provider* digests) : digests_(digests) {}
  ~EntryReader();
  EntryReader(const EntryReader&) = delete;
  EntryReader& operator=(const EntryReader&) = delete;

  bool readsContents() const { return digests_ != nullptr; }
  // Entries in the items' order. `root` is the path of the walk that found them.
  std::future<std::vector<ManifestEntry>> read(std::vector<WalkedItem> items,
                                               const std::string& root);

 private:
  using Task = std::packaged_task<std::vector<ManifestEntry>()>;
  // The threads, once: not before the process is confined, since each would keep its old root.
  void start();
  // A thread's work: tasks in the order of their coming, until stopped.
  void run();

  Sha256Provider* const digests_;
  std::mutex mutex_;
  std::condition_variable wake_;
  // Pieces of a walk, each with its own result.
  std::deque<Task> tasks_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace quorvel::host
