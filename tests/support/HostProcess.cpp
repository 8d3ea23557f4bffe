// Starts a program and collects what it wrote, with a terminal where asked.
#include "tests/support/HostProcess.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/support/TemporaryTree.h"

namespace quorvel::testing {

namespace {

// The programs find their library beside themselves, which the loader learns from /proc; without it
// none of them starts, and nothing of what their tests try can be tried.
class ProgramsNeedProc : public ::testing::Environment {
  void SetUp() override {
    if (!NoProc().empty()) GTEST_SKIP() << NoProc();
  }
};
[[maybe_unused]] ::testing::Environment* const needsProc =
    ::testing::AddGlobalTestEnvironment(new ProgramsNeedProc);

struct Pipe {
  int read = -1;
  int write = -1;
  Pipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) == 0) read = ends[0], write = ends[1];
  }
};

[[noreturn]] void Become(const std::vector<std::string>& arguments, const HostSetup& setup) {
  if (setup.asNobody &&
      (::setgroups(0, nullptr) != 0 || ::setgid(NobodyUser) != 0 || ::setuid(NobodyUser) != 0)) {
    ::_exit(125);
  }
  std::vector<std::string> environment = {"PATH=/usr/bin:/bin"};
  // Looking for leaks at exit needs /proc, which a confined process does not have.
  environment.emplace_back("ASAN_OPTIONS=detect_leaks=0");
  for (const char* name : {"UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
    const char* value = std::getenv(name);
    if (value != nullptr) environment.push_back(std::string(name) + "=" + value);
  }
  if (!setup.environment.contains("TERM")) environment.emplace_back("TERM=xterm");
  for (const auto& [name, value] : setup.environment) environment.push_back(name + "=" + value);
  std::vector<char*> variables;
  for (std::string& variable : environment) variables.push_back(variable.data());
  variables.push_back(nullptr);
  std::vector<std::string> words = arguments;
  std::vector<char*> argv = {const_cast<char*>("migration-host")};
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  ::execve(setup.program.c_str(), argv.data(), variables.data());
  ::_exit(126);
}

void RedirectTo(const std::string& file, int descriptor) {
  if (file == "-") {
    ::close(descriptor);
  } else {
    ::dup2(::open(file.c_str(), O_WRONLY | O_CLOEXEC), descriptor);
  }
}

// Reads both until both are at their end.
void Collect(int first, std::string& firstText, int second, std::string& secondText) {
  std::array<pollfd, 2> polled = {pollfd{first, POLLIN, 0}, pollfd{second, POLLIN, 0}};
  const std::array<std::string*, 2> texts = {&firstText, &secondText};
  while (polled[0].fd >= 0 || polled[1].fd >= 0) {
    if (::poll(polled.data(), polled.size(), -1) < 0 && errno != EINTR) return;
    for (std::size_t i = 0; i < polled.size(); ++i) {
      if (polled[i].fd < 0 || polled[i].revents == 0) continue;
      char buffer[4096];
      const ssize_t count = ::read(polled[i].fd, buffer, sizeof buffer);
      // A terminal whose other side is closed answers EIO.
      if (count > 0) {
        texts[i]->append(buffer, static_cast<std::size_t>(count));
      } else if (count == 0 || errno != EINTR) {
        ::close(polled[i].fd);
        polled[i].fd = -1;
      }
    }
  }
}

HostRun RunOnTerminal(const std::vector<std::string>& arguments, const HostSetup& setup) {
  winsize size = {24, setup.columns, 0, 0};
  int controller = -1;
  const pid_t child = ::forkpty(&controller, nullptr, nullptr, &size);
  if (child == 0) Become(arguments, setup);
  HostRun run;
  std::string nothing;
  Collect(controller, run.out, -1, nothing);
  run.exitCode = FinishHost(child);
  return run;
}

std::string Nanoseconds(const timespec& time) {
  return std::to_string(time.tv_sec) + "." + std::to_string(time.tv_nsec);
}

}  // namespace

HostRun RunHost(const std::vector<std::string>& arguments, const HostSetup& setup) {
  if (setup.onTerminal) return RunOnTerminal(arguments, setup);
  const Pipe out;
  const Pipe err;
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    ::dup2(out.write, STDOUT_FILENO);
    ::dup2(err.write, STDERR_FILENO);
    if (!setup.standardOutput.empty()) RedirectTo(setup.standardOutput, STDOUT_FILENO);
    Become(arguments, setup);
  }
  ::close(out.write);
  ::close(err.write);
  HostRun run;
  Collect(out.read, run.out, err.read, run.err);
  run.exitCode = FinishHost(child);
  return run;
}

pid_t StartHost(const std::vector<std::string>& arguments, const HostSetup& setup) {
  const pid_t child = ::fork();
  if (child == 0) {
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) RedirectTo("/dev/null", stream);
    if (!setup.standardOutput.empty()) RedirectTo(setup.standardOutput, STDOUT_FILENO);
    Become(arguments, setup);
  }
  return child;
}

int FinishHost(pid_t host) {
  int status = 0;
  while (::waitpid(host, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::string CopyHostTo(const std::string& directory) {
  namespace fs = std::filesystem;
  const fs::path program(HOST_BINARY);
  fs::create_directories(directory);
  for (const fs::directory_entry& entry : fs::directory_iterator(program.parent_path())) {
    const std::string name = entry.path().filename();
    if (name == program.filename() || name.find(".so") != std::string::npos) {
      fs::copy_file(entry.path(), directory + "/" + name);
      ::chmod((directory + "/" + name).c_str(), 0755);
    }
  }
  ::chmod(directory.c_str(), 0755);
  return directory + "/" + program.filename().string();
}

HostRun RunShell(const std::string& lines, const std::string& directory) {
  HostSetup setup{.environment = {{"LC_ALL", "C.UTF-8"}, {"SAMPLES", QUORVEL_SAMPLES}},
                  .program = "/bin/sh"};
  const std::string programs = std::filesystem::path(HOST_BINARY).parent_path();
  return RunHost({"-c", "exec 2>&1; PATH=" + programs + ":$PATH; cd " + directory + "\n" + lines},
                 setup);
}

void ExpectTranscript(const std::string& file, const std::string& directory) {
  std::ifstream stream(file);
  std::string command;
  std::string expected;
  const auto check = [&] {
    if (command.empty()) return;
    const HostRun run = RunShell(command, directory);
    std::string told = run.out;
    for (auto at = told.find(directory); at != std::string::npos; at = told.find(directory)) {
      told.replace(at, directory.size(), "TREE");
    }
    if (!told.empty() && told.back() != '\n') told += '\n';
    if (run.exitCode != 0) told += "[" + std::to_string(run.exitCode) + "]\n";
    EXPECT_EQ(told, expected) << command;
  };
  for (std::string line; std::getline(stream, line);) {
    if (line.starts_with("> ")) {
      command += "\n" + line.substr(2);
    } else if (line.starts_with("$ ")) {
      check();
      command = line.substr(2);
      expected.clear();
    } else {
      expected += line + "\n";
    }
  }
  check();
  EXPECT_FALSE(command.empty()) << file;
}

void ExpectDocumented(const std::vector<std::string>& printed, const std::string& schema) {
  const TemporaryTree tree;
  const std::string documents = QUORVEL_SAMPLES "/../../docs/";
  // One schema may refer to another.
  std::string command = "python3 -W ignore -m jsonschema --base-uri file://" +
                        std::filesystem::canonical(documents).string() + "/";
  for (const std::string& object : printed) {
    command += " -i " + tree.write(std::to_string(command.size()), object);
  }
  command += " " + documents + schema + ".schema.json >" + tree.at("told") + " 2>&1";
  EXPECT_EQ(std::system(command.c_str()), 0) << tree.read("told").substr(0, 4000);
}

std::vector<std::string> PathsBelow(const std::string& root) {
  std::vector<std::string> paths = {root};
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    paths.push_back(entry.path());
  }
  return paths;
}

void ForgetAccesses(const std::vector<std::string>& paths) {
  for (const std::string& path : paths) {
    const timespec times[2] = {{1000000000, 0}, {0, UTIME_OMIT}};
    ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
  }
}

std::map<std::string, std::string> FactsOf(const std::vector<std::string>& paths) {
  std::map<std::string, std::string> facts;
  for (const std::string& path : paths) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) continue;
    facts[path] = std::to_string(info.st_mode) + " " + std::to_string(info.st_uid) + " " +
                  std::to_string(info.st_gid) + " " + std::to_string(info.st_size) + " " +
                  std::to_string(info.st_nlink) + " " + Nanoseconds(info.st_mtim) + " " +
                  Nanoseconds(info.st_ctim) + " " + Nanoseconds(info.st_atim);
  }
  return facts;
}

}  // namespace quorvel::testing
