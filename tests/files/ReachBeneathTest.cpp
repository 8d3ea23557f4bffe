// Confined reaching of items: the kernel's way and our own must agree, and never leave the base.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "platform/linux/files/ReachBeneath.h"
#include "tests/support/TreeTools.h"

namespace quorvel {
namespace {

using namespace quorvel::testing;  // NOLINT: the tests' own tools

// Paths from the base, and what reaching them says.
const std::pair<std::string, int> kCases[] = {{"", 0},
                                              {"file", 0},
                                              {"sub", 0},
                                              {"./sub//../file", 0},
                                              {"up", 0},
                                              {"chain", 0},
                                              {"self/self/up", 0},
                                              {"sub/rise", 0},
                                              {"..", EXDEV},
                                              {"sub/../..", EXDEV},
                                              {"../base/file", EXDEV},
                                              {"out", EXDEV},
                                              {"back", EXDEV},
                                              {"abs", EXDEV},
                                              {"viaout", EXDEV},
                                              {"toparent", EXDEV},
                                              {"/file", EXDEV},
                                              {"loop", ELOOP},
                                              {"none", ENOENT},
                                              {"dangling", ENOENT},
                                              {"file/x", ENOTDIR},
                                              {"slash", ENOTDIR},
                                              {"file/..", ENOTDIR},
                                              {"file/", ENOTDIR},
                                              {"c39", 0},
                                              {"c40", ELOOP},
                                              {std::string(256, 'n'), ENAMETOOLONG}};

TEST(ReachBeneathTest, BothWaysReachWhatLiesInsideAndNothingElse) {
  ScratchTree tree;
  MakeDirectory(tree / "base");
  MakeDirectory(tree / "base/sub");
  MakeDirectory(tree / "baseX");
  WriteFile(tree / "base/file", "x");
  WriteFile(tree / "outside", "x");
  const std::pair<const char*, std::string> links[] = {{"up", "sub/../file"},
                                                       {"out", "../outside"},
                                                       {"back", "../base/file"},
                                                       {"abs", tree / "base/file"},
                                                       {"loop", "loop"},
                                                       {"chain", "up"},
                                                       {"self", "."},
                                                       {"viaout", "toparent/outside"},
                                                       {"toparent", ".."},
                                                       {"slash", "file/"},
                                                       {"sub/rise", "../sub/../file"},
                                                       {"dangling", "none"}};
  for (const auto& [name, text] : links) MakeLink(text, tree / "base/" + name);
  std::string forty = "file";
  for (int i = 0; i < 41; ++i) {
    MakeLink(forty, tree / "base/c" + std::to_string(i));
    forty = "c" + std::to_string(i);
  }
  const UniqueDescriptor base(::open((tree / "base").c_str(), O_PATH | O_DIRECTORY));
  for (const auto& [path, number] : kCases) {
    UniqueDescriptor asked;
    UniqueDescriptor walked;
    EXPECT_EQ(onlinux::ReachBeneath(base.get(), path, &asked), number) << path;
    EXPECT_EQ(onlinux::WalkBeneath(base.get(), path, &walked), number) << path;
    struct stat one {};
    struct stat other {};
    if (number != 0) continue;
    ASSERT_EQ(::fstat(asked.get(), &one) + ::fstat(walked.get(), &other), 0);
    EXPECT_EQ(one.st_ino, other.st_ino) << path;
  }
}

}  // namespace
}  // namespace quorvel
