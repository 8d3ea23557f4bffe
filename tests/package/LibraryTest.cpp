// What the shared library exports, against the list that is checked in and the document.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <set>
#include <string>

namespace {

// Of both libraries.
std::set<std::string> ExportedSymbols() {
  std::set<std::string> symbols;
  FILE* pipe = ::popen("nm -D --defined-only -C '" QUORVEL_LIBRARY "' '" QUORVEL_LINUX_LIBRARY "'",
                       "r");
  char line[8192];
  while (pipe != nullptr && std::fgets(line, sizeof line, pipe) != nullptr) {
    std::smatch parts;
    const std::string text(line);
    // Address, kind, name, version.
    static const std::regex form("^[0-9a-f]+ ([A-Za-z]) (.*?)(@@\\w+)?\n$");
    if (!std::regex_match(text, parts, form)) continue;
    if (parts[1] != "A") symbols.insert(parts[2]);  // A: the version itself
  }
  EXPECT_EQ(pipe != nullptr ? ::pclose(pipe) : -1, 0);
  return symbols;
}

std::set<std::string> CheckedInSymbols() {
  std::set<std::string> symbols;
  std::ifstream file(QUORVEL_SOURCES "/tests/package/exported-symbols.txt");
  for (std::string line; std::getline(file, line);) symbols.insert(line);
  return symbols;
}

// To accept a wanted change: the new list is what
//   nm -D --defined-only -C libquorvel.so libquorvel-linux.so
// prints behind its first two columns, without versions, sorted.
TEST(Library, ExportsExactlyWhatIsListed) {
  const auto exported = ExportedSymbols();
  const auto listed = CheckedInSymbols();
  EXPECT_GT(listed.size(), 90U);
  for (const std::string& symbol : exported) {
    EXPECT_TRUE(listed.contains(symbol)) << "exported, but not listed: " << symbol;
  }
  for (const std::string& symbol : listed) {
    EXPECT_TRUE(exported.contains(symbol)) << "listed, but not exported: " << symbol;
  }
}

// Every operation has its contract in the document, under its own name; every service is named.
TEST(Library, EveryExportedOperationIsDescribed) {
  std::ifstream file(QUORVEL_SOURCES "/docs/library.md");
  const std::string document((std::istreambuf_iterator<char>(file)), {});
  ASSERT_FALSE(document.empty());
  std::ifstream services(QUORVEL_SOURCES "/platform/Services.h");
  const std::string set((std::istreambuf_iterator<char>(services)), {});
  static const std::regex member(R"(\n  (\w+)\* \w+ = nullptr;)");
  for (std::sregex_iterator it(set.begin(), set.end(), member), end; it != end; ++it) {
    const std::string name = (*it)[1];
    EXPECT_NE(document.find("`" + name + "`"), std::string::npos) << name;
  }
  for (const std::string& symbol : CheckedInSymbols()) {
    const std::string qualified = symbol.substr(0, symbol.find_first_of("[("));
    const std::size_t scope = qualified.rfind("::");
    const std::string name = scope == qualified.npos ? qualified : qualified.substr(scope + 2);
    const bool described = document.find("`" + name + "`") != std::string::npos ||
                           document.find("`" + name + "(") != std::string::npos;
    EXPECT_TRUE(described) << name;
  }
}

}  // namespace
