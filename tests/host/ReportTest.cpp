// report as a process: its pages against the results that they were made of.
#include <gtest/gtest.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "tests/support/HostProcess.h"
#include "tests/support/MigrationDevice.h"
#include "tests/support/TreeTools.h"

namespace quorvel::testing {
namespace {

std::size_t CountOf(const std::string& page, const std::string& part) {
  std::size_t count = 0;
  for (auto at = page.find(part); at != std::string::npos; at = page.find(part, at + 1)) ++count;
  return count;
}

// What stands behind `before`, up to `end`.
std::string Behind(const std::string& page, const std::string& before, const std::string& end) {
  const auto at = page.find(before);
  if (at == std::string::npos) return "no " + before;
  const auto from = at + before.size();
  return page.substr(from, page.find(end, from) - from);
}

std::string TotalOf(const std::string& page, const std::string& key) {
  return Behind(page, "data-k=\"" + key + "\">", "</dd>");
}

std::string RowOf(const std::string& page, std::size_t index) {
  return Behind(page, "<tr id=\"c" + std::to_string(index) + "\"", "</tr>");
}

// Nothing from elsewhere, and no markup but the page's own.
void ExpectSelfContained(const std::string& page) {
  EXPECT_EQ(CountOf(page, "<script"), 1u);
  for (const char* foreign : {"src=", "http:", "https:", "@import", "url(", "<img", "<link"}) {
    EXPECT_EQ(CountOf(page, foreign), 0u) << foreign;
  }
  for (const char byte : page) EXPECT_TRUE(byte == '\n' || byte < 0 || byte >= 0x20);
}

// The steps follow one another within the container's time.
void ExpectTimed(const json& container) {
  double sum = 0;
  double end = 0;
  for (const json& step : container["steps"]) {
    EXPECT_GE(step["start"].get<double>(), end - 2e-6) << container;
    end = step["start"].get<double>() + step["seconds"].get<double>();
    sum += step["seconds"].get<double>();
  }
  EXPECT_LE(sum, container["seconds"].get<double>() + 2e-5) << container;
}

// Row `index` has what the container's result has; how many of the log's migrations it shows. Each
// line of the log belongs to the container that it speaks of, and to no other.
int ExpectRow(const std::string& page, std::size_t index, const json& container) {
  ExpectTimed(container);
  const std::string row = RowOf(page, index);
  const json& app = container["identifier"];
  EXPECT_TRUE(!app.is_string() || row.find(app) != row.npos) << row;
  for (const std::string kept : container["kept"]) EXPECT_NE(row.find(kept), row.npos) << row;
  const std::string log = Behind(row, "<pre>", "</pre>");
  int logs = 0;
  for (const char* other : {"com.example.one", "com.example.two", "com.example.over"}) {
    const bool isHere = log.find("QVRavelle: Migrating " + std::string(other) + " at") != log.npos;
    EXPECT_EQ(isHere, app == other) << log;
    logs += isHere ? 1 : 0;
  }
  if (app == "com.example.over") {
    EXPECT_NE(row.find("it holds items that no step "
                       "moves<small>&quot;&gt;&lt;script&gt;alert(1)&lt;\\x01\\xff"),
              std::string::npos)
        << row;
    EXPECT_EQ(container["steps"].size(), 8u);
  }
  return logs;
}

void ExpectTotals(const std::string& page, const json& result) {
  EXPECT_EQ(TotalOf(page, "items"), std::to_string(result["items"].get<int>()));
  for (const auto& [outcome, count] : result["counts"].items()) {
    EXPECT_EQ(TotalOf(page, outcome), std::to_string(count.get<int>())) << outcome;
    EXPECT_EQ(CountOf(page, "data-o=\"" + outcome + "\""), count.get<std::size_t>()) << outcome;
  }
}

TEST(ReportTest, ThePageOfARunSaysWhatItsResultSays) {
  const ScratchTree tree;
  const Device device(tree / "device");
  device.make();
  PutBundle(device.container("G7/Over.app"), "com.example.over");
  Put(device.container("G7/\"><script>alert(1)<\x01\xff"), "nothing moves this");
  const HostRun run =
      device.run({"migrate", "--json", "--device", "<b>\"'&", "--log", tree / "log"});
  tree.write("run.json", run.out);
  const json result = json::parse(run.out);
  const HostRun report =
      RunHost({"report", tree / "run.json", "--log", tree / "log", "--output", tree / "page"});
  ASSERT_EQ(report.exitCode, 0) << report.err;
  const std::string page = tree.read("page");
  ExpectSelfContained(page);
  EXPECT_EQ(CountOf(page, "&lt;b&gt;&quot;&#39;&amp;"), 2u);  // title and head
  ExpectTotals(page, result);
  int logs = 0;
  for (std::size_t i = 0; i < result["containers"].size(); ++i) {
    logs += ExpectRow(page, i, result["containers"][i]);
  }
  EXPECT_EQ(logs, 3);
  EXPECT_EQ(CountOf(page, "<div class=\"run\" data-c="), result["containers"].size());
  EXPECT_EQ(CountOf(Behind(page, "id=\"harbors\"", "</table>"), "com.example.gone"), 1u);
}

// Device `index` of a fleet: every tenth one fails, every 25th was interrupted.
json ResultOf(int index, const json& like) {
  json result = like;
  result["device"] = "device " + std::to_string(index);
  result["seconds"] = 0.1 * (1 + index % 50);
  const bool fails = index % 10 == 0;
  json& container = result["containers"][0];
  container["seconds"] = 0.001 * index;
  if (fails || index % 25 == 1) {
    result["succeeded"] = false;
    container["outcome"] = "failed";
    container["step"] = "install";
    container["reason"] = fails ? "install-refused" : "interrupted";
    container["errno"] = fails ? json("ENOSPC") : json();
    container["kept"] = {container["path"]};
    result["counts"]["failed"] = 1;
    result["counts"]["migrated"] = result["counts"]["migrated"].get<int>() - 1;
  }
  if (!fails && index % 25 == 1) result["interruptedBy"] = "SIGTERM";
  if (index % 100 == 7) {
    container["lost"] = {
        {"files", 2}, {"bytes", 1500}, {"userDataItems", {"Documents"}}, {"complete", true}};
  }
  return result;
}

// 300 results, as files of their own, indented or not, and as lines of one; and what is none.
std::string WriteFleet(const ScratchTree& tree) {
  const Device device(tree / "device");
  PutBundle(device.container("A/One.app"), "com.example.one");
  PutBundle(device.container("B/Two.app"), "com.example.two");
  const json like = json::parse(device.run({"migrate", "--json"}).out);
  std::string lines;
  for (int i = 0; i < 300; ++i) {
    const json result = ResultOf(i, like);
    if (i < 100) {
      tree.write("results/" + std::to_string(i) + ".json", result.dump(i % 2 == 0 ? 2 : -1));
    } else {
      lines += result.dump() + "\n";
    }
  }
  lines += R"({"error":"no space","reason":"preflight","exitCode":5})"
           "\n{\"cut\": \n";
  tree.write("lines", lines);
  tree.write("results/inspected.json", device.run({"inspect", "--json"}).out);
  tree.write("results/empty.json", "");
  tree.write("results/deep.json", std::string(1'000'000, '['));
  tree.write("results/not a result.txt", "passed over");
  return lines;
}

void ExpectFleetPage(const std::string& page, const std::map<std::string, int>& expected) {
  ExpectSelfContained(page);
  for (const char* key : {"devices", "failed", "interrupted", "notBegun", "devicesThatLost"}) {
    EXPECT_EQ(TotalOf(page, key), std::to_string(expected.at(key))) << key;
  }
  EXPECT_EQ(TotalOf(page, "rate"), "85.7&nbsp;%");
  const std::string refused =
      Behind(page, "the registry refused its bundle (ENOSPC)</td>", "</tr>");
  EXPECT_EQ(CountOf(refused, ">30</td>"), 2u) << refused;
  EXPECT_EQ(CountOf(refused, "<small>device "), 4u) << refused;
  EXPECT_EQ(Behind(page, "id=\"slowest\"", "device 298").find("device 297"), std::string::npos);
  int runs = 0;
  std::string rest = page;
  for (auto at = rest.find("data-bin>"); at != rest.npos; at = rest.find("data-bin>")) {
    rest = rest.substr(at + 9);
    runs += std::stoi(Behind(rest, "<span class=\"n\">", "<"));
  }
  EXPECT_EQ(runs, 300);
  for (const char* why : {"deep.json", "absent", "empty.json", "inspected.json", "lines:202"}) {
    EXPECT_NE(Behind(page, "id=\"unusable\"", "</table>").find(why), std::string::npos) << why;
  }
}

TEST(ReportTest, ThePageOfAFleetCountsEveryResultOnce) {
  const ScratchTree tree;
  const std::string lines = WriteFleet(tree);
  std::vector<std::string> command = {"report",        tree / "results", tree / "lines",
                                      tree / "absent", "--output",       tree / "page"};
  const HostRun told = RunHost(command);
  EXPECT_EQ(told.exitCode, 1);
  EXPECT_NE(told.err.find("deep.json: no JSON\n"), std::string::npos) << told.err;
  command.emplace_back("--json");
  const HostRun run = RunHost(command);
  EXPECT_EQ(run.exitCode, 1);
  ExpectDocumented({run.out});
  const json summary = json::parse(run.out);
  const std::map<std::string, int> expected = {
      {"devices", 301},    {"succeeded", 258},     {"failed", 30},
      {"interrupted", 12}, {"notBegun", 1},        {"containers", 600},
      {"unusable", 5},     {"devicesThatLost", 3}, {"devicesThatKept", 42}};
  for (const auto& [key, number] : expected) EXPECT_EQ(summary[key], number) << key;
  ExpectFleetPage(tree.read("page"), expected);
  // Neither a result nor a log is written over, and a log goes with one run.
  EXPECT_EQ(RunHost({"report", tree / "lines", "--output", tree / "lines"}).exitCode, 2);
  EXPECT_EQ(RunHost({"report", tree / "lines", "--log", tree / "lines"}).exitCode, 2);
  EXPECT_EQ(tree.read("lines"), lines);
}

}  // namespace
}  // namespace quorvel::testing
