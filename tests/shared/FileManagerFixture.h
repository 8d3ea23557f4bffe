// What the tests of the file manager share: a tree, a platform with one breakable call, and what an
// Error must be.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "shared/filemanager/QVFileManager.h"
#include "shared/support/Errors.h"
#include "shared/support/PathStrings.h"
#include "tests/support/FaultWrappers.h"
#include "tests/support/TestPlatform.h"
#include "tests/support/TreeTools.h"

namespace quorvel::tests {

inline constexpr const char* kMove =
    "-[QVFileManager _moveItemAtURL:toURL:failIfSrcMissing:error:]";

using namespace quorvel::testing;  // NOLINT: the tests' own tools

class FileManager : public ::testing::Test {
 protected:
  // Breaks one operation of the file system for the rest of the test.
  Fault& breakCall(const char* operation, int nth, int number) {
    fault_ = std::make_unique<Fault>(operation, nth, number);
    broken_ = std::make_unique<FaultyFileSystem>(platform_.fileSystem, *fault_);
    platform_.set.fileSystem = broken_.get();
    return *fault_;
  }
  void repair() { platform_.set.fileSystem = &platform_.fileSystem; }
  std::string at(const std::string& name) const { return tree_ / name; }
  Path file(const std::string& name) const { return Path(at(name)); }
  Path directory(const std::string& name) const { return Path::directory(at(name)); }
  std::string url(const std::string& name) const { return "file://" + at(name); }

  // `error` as it must be, and nothing in the log.
  void expectPosix(const Error& error, int code, const std::string& text, const char* function) {
    EXPECT_TRUE(error.is(PosixErrorDomain, code)) << FormatMessage("%@", error);
    EXPECT_EQ(error.description(), text);
    ASSERT_NE(error.infoString(QVFunctionNameErrorKey), nullptr);
    EXPECT_EQ(*error.infoString(QVFunctionNameErrorKey), function);
    EXPECT_EQ(error.userInfo().size(), 3U);
    EXPECT_THAT(platform_.log.messages(), ::testing::IsEmpty());
  }

  TestPlatform platform_;
  ScratchTree tree_;
  std::unique_ptr<Fault> fault_;
  std::unique_ptr<FaultyFileSystem> broken_;
  QVFileManager& manager_ = QVFileManager::defaultManager();
  Error error_;
};

}  // namespace quorvel::tests
