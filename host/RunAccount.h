// What became of each container, gathered from the plug-in's log while it runs.
//
// The plug-in hands nothing back but success or failure; its log lines, whose texts are fixed, are
// the only account of what it did to which container.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/MigrationHost.h"

namespace quorvel::host {

struct ContainerOutcome {
  enum class Kind { migrated, failed, notTaken };
  Kind kind = Kind::notTaken;
  std::string identifier{};            // empty when introspection did not take it
  std::string container{};             // path inside the device
  std::string dataContainer{};         // where its data went; empty when that was not reached
  std::vector<std::string> reasons{};  // error messages, without the common beginning
};

class RunAccount : public HostLogWriter {
 public:
  // With `keepAll` false containers that migrated without a word are only counted.
  explicit RunAccount(bool keepAll) : keepAll_(keepAll) {}

  void write(const char* sourceFile, const char* function, int line, const char* category,
             int level, std::string_view message) override;

  // The identifier of the app being migrated; empty before the first. Any thread.
  std::string current() const;
  // Entries found by the plug-in's initialisation. Any thread.
  std::int64_t items() const;

  // After the run, on one thread. finish() first.
  void finish();
  const std::vector<ContainerOutcome>& outcomes() const { return outcomes_; }
  // Error messages that belong to no container.
  const std::vector<std::string>& generalReasons() const { return general_; }
  std::uint64_t migrated() const { return migrated_; }
  std::uint64_t failed() const { return failed_; }

 private:
  void driverLine(int level, std::string_view message);
  void begin(ContainerOutcome outcome);
  void close();
  void addReason(std::string_view message);
  void noteDataContainer(std::string_view message);

  mutable std::mutex mutex_;
  const bool keepAll_;
  std::int64_t items_ = 0;
  std::uint64_t migrated_ = 0;
  std::uint64_t failed_ = 0;
  bool open_ = false;
  ContainerOutcome pending_;  // meaningful while open_
  std::vector<ContainerOutcome> outcomes_;
  // Containers that introspection complained about: index into outcomes_. One that is migrated
  // all the same gets one outcome, not two.
  std::unordered_map<std::string, std::size_t> complaints_;
  std::vector<std::string> general_;
};

}  // namespace quorvel::host
