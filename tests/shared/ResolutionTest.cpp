// Confined resolution against hostile layouts, checked by a resolver that shares nothing with it
// (tests/support/LinkWalker.h).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "shared/filemanager/QVFileManager.h"
#include "tests/support/LinkWalker.h"
#include "tests/support/TestPlatform.h"
#include "tests/support/TreeTools.h"

namespace quorvel::tests {
namespace {

using namespace quorvel::testing;  // NOLINT: the tests' own tools
using ::testing::HasSubstr;

// --- Hostile layouts --------------------------------------------------------------------------

std::string Repeated(const std::string& text, int count) {
  std::string all;
  while (count-- > 0) all += text;
  return all;
}

class Resolution : public ::testing::Test {
 protected:
  Resolution() {
    for (const char* name : {"base", "base/sub", "base/sub/deep", "out", "baseX"}) {
      MakeDirectory(at(name));
    }
    for (const char* name : {"base/f", "base/sub/f", "out/secret", "out/f", "baseX/f"}) {
      WriteFile(at(name), name);
    }
  }
  std::string at(const std::string& name) const {
    return name.empty() ? tree_.path() : tree_ / name;
  }
  std::optional<std::string> resolve(const std::string& child, const std::string& base) {
    platform_.log.clear();
    const auto real = manager_.realPathForURL(Path(child), Path::directory(base));
    if (!real) return std::nullopt;
    return real->string();
  }
  // The last line about a path that is rejected.
  std::string line(const std::string& child, const std::string& base) {
    EXPECT_EQ(resolve(child, base), std::nullopt);
    const auto messages = platform_.log.messages(3);
    return messages.empty() ? std::string() : messages.back();
  }

  TestPlatform platform_;
  ScratchTree tree_;
  QVFileManager& manager_ = QVFileManager::defaultManager();
};

struct Row {
  const char* child;     // below the sandbox
  std::string link;      // text of a link to make at the child, or none
  const char* accepted;  // where it leads; null: rejected
  const char* line;      // part of the last line of the log; null: none
};

// `inside` is the whole path of an item of the base.
std::vector<Row> HostileRows(const std::string& inside) {
  constexpr const char* absolute = "as absolute symlinks are not allowed";
  constexpr const char* climbs = "as it is points outside or to the base";
  constexpr const char* diverges = "because components diverge at";
  return {
      {"base", "", "base", nullptr},
      {"base/f", "", "base/f", nullptr},
      {"base/sub/deep", "", "base/sub/deep", nullptr},
      {"base/none/x", "", "base/none/x", nullptr},
      {"base/lin/f", "", "base/sub/f", nullptr},
      {"base/lin/none", "", "base/sub/none", nullptr},
      // Links by their texts.
      {"base/in", "sub/f", "base/sub/f", nullptr},
      {"base/self", ".", "base", nullptr},
      {"base/sub/up1", "../f", "base/f", nullptr},
      {"base/sub/up2", "../../out/secret", nullptr, climbs},
      {"base/up3", "../out/secret", nullptr, climbs},
      {"base/toBase", "../base", nullptr, climbs},
      {"base/sub/back", "../../base/f", nullptr, climbs},
      {"base/sub/deep/late", "../../sub/../../out/f", nullptr, climbs},
      {"base/abs", "/etc", nullptr, absolute},
      {"base/absIn", inside, nullptr, absolute},
      {"base/slashes", "//etc", nullptr, absolute},
      // A chain is judged by its first text alone.
      {"base/chain", "up", "out/secret", nullptr},
      {"base/through", "lin/f", "base/sub/f", nullptr},
      // Plain paths through links.
      {"base/lout/secret", "", nullptr, diverges},
      {"base/lout/none", "", nullptr, diverges},
      {"baseX/f", "", nullptr, diverges},
      {"base/sub/../f", "", nullptr, "contains '..' paths"},
      {"out/secret", "", nullptr, "does not contain base path"},
      // Texts up to the longest, that a smaller buffer would cut before they climb.
      {"base/long", Repeated("sub/../", 584) + "sub/f", "base/sub/f", nullptr},
      {"base/longest", Repeated("sub/../", 580) + "../out/" + Repeated("./", 10) + "f", nullptr,
       climbs},
      {"base/cut", Repeated("sub/../", 146) + "../out/secret", nullptr, climbs},
  };
}

TEST_F(Resolution, OfHostileLayouts) {
  // What the rows lead through. None of them is rejected for not existing.
  MakeLink("../out", at("base/lout"));
  MakeLink("sub", at("base/lin"));
  MakeLink("../out/secret", at("base/up"));
  MakeLink("base", at("blink"));
  for (const Row& row : HostileRows(at("base/f"))) {
    SCOPED_TRACE(row.child);
    if (!row.link.empty()) MakeLink(row.link, at(row.child));
    const auto real = resolve(at(row.child), at("base"));
    // Without confinement each of them leads somewhere.
    const Place place = Walker(at(row.child)).run();
    EXPECT_TRUE(place.found());
    EXPECT_TRUE(manager_._realPathForURL(Path(at(row.child)), true));
    if (row.accepted != nullptr) {
      EXPECT_EQ(real, at(row.accepted));
      EXPECT_EQ(place.whole(), at(row.accepted));
    } else {
      EXPECT_EQ(real, std::nullopt);
      const auto lines = platform_.log.lines();
      ASSERT_EQ(lines.size(), 1U);
      EXPECT_EQ(lines[0].function, "-[QVFileManager realPathForURL:ifChildOfURL:]");
      EXPECT_THAT(lines[0].message, HasSubstr(row.line));
    }
  }
}

TEST_F(Resolution, EveryRejectionHasItsLine) {
  MakeLink("/x", at("base/abs"));
  MakeLink("../../out", at("base/sub/up"));
  const std::string base = at("base");
  EXPECT_EQ(line("", base),
            "The base path file://" + base + "/ and/or suspicious path (null) were nil");
  EXPECT_EQ(line(base, ""),
            "The base path (null) and/or suspicious path file://" + base + " were nil");
  EXPECT_EQ(line(at("out"), base), "supiscious path " + at("out") + " does not contain base path " +
                                       base + " as a prefix");
  EXPECT_EQ(line(base + "/../x", base),
            "The suspicious path " + base + "/../x contains '..' paths, which are invalid");
  EXPECT_EQ(line(base + "/f/x", base), "Readlink failed: Not a directory");
  EXPECT_EQ(line(base + "/abs", base),
            "Rejecting " + base + "/abs -> /x, as absolute symlinks are not allowed");
  EXPECT_EQ(line(base + "/sub/up", base),
            "Rejecting " + base +
                "/sub/up -> /sub/../../out, as it is points outside or to the "
                "base " +
                base);
}

TEST_F(Resolution, EveryRejectionOfRealPathsHasItsLine) {
  MakeLink("../out", at("base/lout"));
  MakeLink("loop", at("base/loop"));
  const std::string base = at("base");
  EXPECT_EQ(line(at("none/x"), at("none")),
            "Failed to retrieve realpath for base path " + at("none") + " ");
  EXPECT_EQ(line(base + "/loop", base),
            "Failed to retrieve realpath for suspicious path " + base + "/loop");
  EXPECT_EQ(platform_.log.lines()[0].function,
            "-[QVFileManager _realPathForURL:allowNonExistentPathComponents:]");
  EXPECT_THAT(
      platform_.log.messages()[0],
      HasSubstr("Failed to realpath " + base + "/loop : Too many levels of symbolic links at "));
  EXPECT_EQ(line("/", "/"),
            "Rejecting / with base / because real component counts don't make sense (reals / ; /)");
  EXPECT_EQ(line(base + "/lout/f", base), "Rejecting " + base + "/lout/f with base " + base +
                                              " (reals " + at("out/f") + " ; " + base +
                                              ") because components diverge at base != out");
  EXPECT_EQ(line(base + "/sub/deep/x", base + "/lout"),
            "supiscious path " + base + "/sub/deep/x does not contain base path " + base +
                "/lout as a prefix");
  MakeLink("/", at("base/sub/root"));
  EXPECT_THAT(line(base + "/sub/root/tmp", base),
              HasSubstr("because base component count is greater than child component count"));
}

TEST_F(Resolution, DanglingLinksKeepTheirNames) {
  const LogHandleScope everything(7);
  MakeLink("sub/none", at("base/dangling"));
  EXPECT_EQ(resolve(at("base/dangling"), at("base")), at("base/dangling"));
  EXPECT_EQ(resolve(at("base/a/b"), at("base")), at("base/a/b"));
  EXPECT_EQ(platform_.log.messages(7),
            std::vector<std::string>{"Realpathed " + at("base") +
                                     " ; appending non-existing components a/b"});
  EXPECT_EQ(manager_._realPathWhatExistsInPath("/"), std::nullopt);
  EXPECT_EQ(manager_._realPathWhatExistsInPath("/quorvel-none/x"), std::nullopt);
}

TEST_F(Resolution, DepthIsNeverBelowTheStart) {
  struct Step {
    const char* path;
    std::uint32_t start;
    int end;  // -1: refused
  };
  const Step steps[] = {{"/a/b/..", 0, 1}, {"a/../..", 0, -1},   {"/a/./b//c", 0, 3},
                        {"..", 5, -1},     {"", 3, 3},           {"/", 7, 7},
                        {"a/..", 4, 4},    {"a/../../b", 1, -1}, {"...", 0, 1}};
  for (const Step& step : steps) {
    std::uint32_t end = 99;
    EXPECT_EQ(manager_._validateSymlink(step.path, step.start, &end), step.end >= 0) << step.path;
    EXPECT_EQ(end, step.end >= 0 ? static_cast<std::uint32_t>(step.end) : 99U) << step.path;
  }
  EXPECT_FALSE(manager_._validateSymlink(std::nullopt, 0, nullptr));
  EXPECT_TRUE(manager_._validateSymlink("a", UINT32_MAX, nullptr));
}

TEST_F(Resolution, NamesOfAnyBytes) {
  MakeDirectory(at("base/\xFF"));
  MakeLink("\xFE\xFD", at("base/\xFF/l"));
  WriteFile(at("base/\xFF/\xFE\xFD"), "x");
  const std::string text = StringFromFileSystemRepresentation(at("base/\xFF/l"));
  EXPECT_EQ(resolve(text, at("base")),
            StringFromFileSystemRepresentation(at("base/\xFF/\xFE\xFD")));
}

// One place with and without "/private" in front: in a root of its own, where /var is a link.
TEST_F(Resolution, PrivateIsTheSamePlace) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs a root of its own";
  std::filesystem::create_directories(at("private/var/mobile/Containers/A/Documents"));
  std::filesystem::create_directories(at("private/var/mobile/ContainersX"));
  WriteFile(at("private/var/mobile/Containers/A/Documents/f"), "");
  MakeLink("private/var", at("var"));
  EXPECT_TRUE(InChild([&] {
    ASSERT_EQ(::chroot(tree_.path().c_str()), 0);
    const std::string real = "/private/var/mobile/Containers/A/Documents/f";
    const std::string base = "/var/mobile/Containers/A";
    EXPECT_EQ(resolve(real, base), real);
    EXPECT_EQ(resolve(base + "/Documents/f", "/private" + base), real);
    EXPECT_EQ(resolve("/private" + base, "/private" + base), "/private" + base);
    EXPECT_EQ(resolve("/var/mobile/ContainersX/f", "/var/mobile/Containers"), std::nullopt);
    EXPECT_THAT(platform_.log.messages().back(),
                HasSubstr("because components diverge at Containers != ContainersX"));
  }));
}

// --- Generated trees --------------------------------------------------------------------------

class GeneratedTree {
 public:
  GeneratedTree(const std::string& root, unsigned seed) : root_(root), random_(seed) {
    MakeDirectory(root_);
    directories_ = {root_, root_ + "/base", root_ + "/out"};
    MakeDirectory(root_ + "/base");
    MakeDirectory(root_ + "/out");
    for (int i = 0; i < 40; ++i) add();
  }
  const std::vector<std::string>& items() const { return items_; }
  std::string pickName() { return kNames[random_() % std::size(kNames)]; }
  unsigned pick(std::size_t bound) { return static_cast<unsigned>(random_() % bound); }

 private:
  void add() {
    const std::string parent = directories_[pick(directories_.size())];
    const std::string path = parent + "/" + pickName();
    if (Exists(path)) return;
    items_.push_back(path);
    switch (pick(5)) {
      case 0:
      case 1:
        directories_.push_back(path);
        return MakeDirectory(path);
      case 2:
        return WriteFile(path, "x");
      default:
        return MakeLink(linkText(), path);
    }
  }
  std::string linkText() {
    if (pick(8) == 0) return items_[pick(items_.size())];  // absolute
    std::string text;
    for (unsigned n = 1 + pick(4); n > 0; --n) {
      if (!text.empty()) text += '/';
      text += pick(3) == 0 ? ".." : pick(8) == 0 ? "." : pickName();
    }
    return text;
  }

  static constexpr const char* kNames[] = {"a", "b", "c", "base", "out"};
  const std::string root_;
  std::mt19937 random_;
  std::vector<std::string> directories_, items_;
};

class GeneratedResolution : public Resolution {
 protected:
  // Asks the operation and the independent walk about one path.
  void ask(const std::string& child, const std::string& base) {
    const auto real = resolve(child, base);
    const Place place = Walker(child).run();
    char text[4096];
    const ssize_t length = ::readlink(child.c_str(), text, sizeof text);
    if (length > 0) {
      ++links_;
      const std::string target(text, static_cast<std::size_t>(length));
      const std::string below =
          std::filesystem::path(child).parent_path().string().substr(base.size());
      if (target[0] == '/' || TextClimbs(below, target)) {
        ASSERT_EQ(real, std::nullopt);
      } else if (place.found()) {
        ASSERT_EQ(real, place.whole()) << ::testing::PrintToString(platform_.log.messages());
      }
    } else if (place.found()) {
      // A plain path: accepted exactly when it leads into the base, and told where it leads.
      const bool inside = LiesIn(place.whole(), base);
      ASSERT_EQ(real, inside ? std::optional(place.whole()) : std::nullopt);
      ++(inside ? accepted_ : escapes_);
    } else if (real) {
      // Through a dangling link: what is named is at least named inside.
      ASSERT_TRUE(place.dangling);
      ASSERT_TRUE(LiesIn(*real, base));
    }
  }
  int accepted_ = 0, escapes_ = 0, links_ = 0;
};

TEST_F(GeneratedResolution, AgreesWithTheIndependentWalk) {
  for (unsigned seed = 0; seed < 60; ++seed) {
    const std::string root = at("g" + std::to_string(seed));
    GeneratedTree tree(root, seed);
    const std::string base = root + "/base";
    for (int question = 0; question < 60; ++question) {
      std::string child = base;
      for (unsigned n = 1 + tree.pick(5); n > 0; --n) child += "/" + tree.pickName();
      SCOPED_TRACE(::testing::Message() << "seed " << seed << ": " << child);
      ask(child, base);
      if (HasFailure()) return;
    }
  }
  // The trees were hostile enough, and not only that.
  EXPECT_GT(accepted_, 200);
  EXPECT_GT(escapes_, 50);
  EXPECT_GT(links_, 100);
}

}  // namespace
}  // namespace quorvel::tests
