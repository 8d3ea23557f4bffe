// Digests of files: published vectors, chunk borders, files that change meanwhile, and failures.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <thread>

#include "platform/linux/system/Sha256Linux.h"
#include "shared/support/Digest.h"
#include "tests/support/FaultWrappers.h"
#include "tests/support/TestPlatform.h"
#include "tests/support/TreeTools.h"

namespace quorvel::tests {
namespace {

using namespace quorvel::testing;  // NOLINT: the tests' own tools
using ::testing::ElementsAre;

class Digests : public ::testing::Test {
 protected:
  Digests() { platform_.set.sha256 = &sha256_; }
  std::string at(const std::string& name) const { return tree_ / name; }
  std::optional<std::string> digest(const std::string& bytes) {
    WriteFile(at("f"), bytes);
    return QVCreateSHA256Digest(at("f"));
  }
  // The system's own tool.
  std::string reference(const std::string& path) {
    FILE* pipe = ::popen(("sha256sum '" + path + "'").c_str(), "r");
    char line[65] = "";
    EXPECT_EQ(std::fread(line, 1, 64, pipe), 64U);
    ::pclose(pipe);
    return line;
  }
  void expectFailure(const std::string& path, const std::string& first, int number) {
    platform_.log.clear();
    EXPECT_EQ(QVCreateSHA256Digest(path), std::nullopt);
    EXPECT_THAT(platform_.log.lines(),
                ElementsAre(LogLine{3, "_ReadFile", first},
                            LogLine{3, "QVCreateSHA256Digest",
                                    "Failed to read " + path + " : " + ErrnoDescription(number)}));
  }

  onlinux::Sha256ProviderLinux sha256_;
  TestPlatform platform_;
  ScratchTree tree_;
};

// Whole, and as the provider takes the same bytes in pieces; by several threads at once.
TEST_F(Digests, OfPublishedInputs) {
  const std::pair<std::string, const char*> vectors[] = {
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      {std::string(1000000, 'a'),
       "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"}};
  for (const auto& [text, expected] : vectors) EXPECT_EQ(digest(text), expected);
  const auto inPieces = [&](std::size_t step) {
    for (const auto& [text, expected] : vectors) {
      const auto computation = sha256_.start();
      for (std::size_t at = 0; at < text.size(); at += step) {
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data()) + at;
        computation->update({bytes, std::min(step, text.size() - at)});
      }
      Sha256Digest result = {};
      EXPECT_TRUE(computation->finish(result));
      EXPECT_FALSE(computation->finish(result)) << "called twice";
      std::ostringstream hex;
      for (const unsigned byte : result) hex << std::hex << byte / 16 << byte % 16;
      EXPECT_EQ(hex.str(), expected) << text.size() << " by " << step;
    }
  };
  std::vector<std::thread> threads;
  for (const std::size_t step : {1U, 63U, 64U, 65536U}) threads.emplace_back(inPieces, step);
  for (std::thread& thread : threads) thread.join();
}

TEST_F(Digests, AroundTheChunkInAsManyReads) {
  for (const std::size_t size : {1U, 65535U, 65536U, 65537U, 131072U, 131073U}) {
    std::string bytes(size, 'x');
    bytes.back() = 'y';
    const auto mine = digest(bytes);
    EXPECT_EQ(mine, reference(at("f"))) << size;
    std::vector<std::size_t> chunks;
    EXPECT_TRUE(_ReadFile(at("f").c_str(), [&](const std::uint8_t*, std::size_t count) {
      chunks.push_back(count);
      return 1;
    }));
    EXPECT_EQ(chunks.size(), (size + 65535) / 65536) << size;
    EXPECT_EQ(chunks.front(), std::min<std::size_t>(size, 65536)) << size;
  }
}

TEST_F(Digests, TheCallbackEndsTheReadWithoutAWord) {
  WriteFile(at("f"), std::string(200000, 'x'));
  for (const int answer : {0, 2, -1}) {
    int calls = 0;
    EXPECT_FALSE(_ReadFile(at("f").c_str(),
                           [&](const std::uint8_t*, std::size_t) { return ++calls, answer; }));
    EXPECT_EQ(calls, 1);
  }
  EXPECT_TRUE(platform_.log.lines().empty());
}

// What is appended while the file is read does not count; what is cut off fails the read.
TEST_F(Digests, OfFilesThatChangeMeanwhile) {
  WriteFile(at("f"), std::string(200000, 'x'));
  const std::string before = reference(at("f"));
  std::size_t total = 0;
  EXPECT_TRUE(_ReadFile(at("f").c_str(), [&](const std::uint8_t*, std::size_t count) {
    std::ofstream(at("f"), std::ios::app) << std::string(70000, 'z');
    total += count;
    return 1;
  }));
  EXPECT_EQ(total, 200000U);
  EXPECT_FALSE(_ReadFile(at("f").c_str(), [&](const std::uint8_t*, std::size_t) {
    EXPECT_EQ(::truncate(at("f").c_str(), 70000), 0);
    return 1;
  }));
  EXPECT_EQ(platform_.log.messages(3),
            std::vector<std::string>{"read failed for " + at("f") + ", got 0 bytes"});
}

TEST_F(Digests, OfWhatCannotBeRead) {
  expectFailure(at("no"), "failed to open " + at("no") + " : No such file or directory", ENOENT);
  for (const std::string& path : {tree_.path(), std::string("/proc")}) {
    expectFailure(path, "read failed for " + path + " : Is a directory", EISDIR);
  }
  WriteFile(at("large"), "");
  ASSERT_EQ(::truncate(at("large").c_str(), off_t{1} << 31U), 0);
  expectFailure(at("large"), "failed to stat " + at("large") + " : File too large", EFBIG);
  const int lowest = ::dup(0);
  ::close(lowest);
  expectFailure(at("large"), "failed to stat " + at("large") + " : File too large", EFBIG);
  EXPECT_EQ(::dup(0), lowest);
  ::close(lowest);
  // What reports no size is read no further than that.
  ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0644), 0);
  for (const std::string& path : {at("pipe"), std::string("/dev/zero")}) {
    EXPECT_EQ(QVCreateSHA256Digest(path),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  }
}

TEST_F(Digests, OfNamesThatAreNoText) {
  WriteFile(at("\xFF\n"), "abc");
  EXPECT_EQ(QVCreateSHA256Digest(StringFromFileSystemRepresentation(at("\xFF\n"))),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

// The largest size there is, through holes and in one chunk of memory.
TEST_F(Digests, OfTheLargestFileInBoundedMemory) {
  WriteFile(at("f"), "");
  ASSERT_EQ(::truncate(at("f").c_str(), (off_t{1} << 31U) - 1), 0);
  struct rusage before {};
  ::getrusage(RUSAGE_SELF, &before);
  std::uint64_t total = 0;
  EXPECT_TRUE(_ReadFile(at("f").c_str(), [&](const std::uint8_t*, std::size_t count) {
    total += count;
    return 1;
  }));
  EXPECT_EQ(total, (std::uint64_t{1} << 31U) - 1);
  struct rusage after {};
  ::getrusage(RUSAGE_SELF, &after);
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 4096) << "kilobytes";
}

}  // namespace
}  // namespace quorvel::tests
