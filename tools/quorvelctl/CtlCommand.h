// What a subcommand is: options that it declares, and what it does with them.
//
// Adding one: a class in the file of its family, and a line in that family's table. Everything
// that all of them share (--json, --log, --root, paths, errors, output) is Session's.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <span>
#include <string>

namespace quorvel::ctl {

class Session;

// What a command may do to the tree that it works in.
enum class Access {
  look,          // nothing: with --root the tree is seen through a read-only view
  change,        // what the user named
  changeDevice,  // places of the device's own, which nobody named: only with --root
};

// One object for each run of the program, made while the parser is set up and destroyed with it.
// Everything is on the main thread.
class Command {
 public:
  virtual ~Command() = default;
  // Asked after parsing, before anything is opened: what is wrong with the combination of
  // arguments (printable, the end of a sentence), or "".
  virtual std::string complaint() const { return {}; }
  virtual Access access() const { return Access::look; }
  // Whether libcrypto has to be loaded before the process is confined.
  virtual bool computesDigests() const { return false; }
  // The process's exit code, after everything has been said.
  // Called once, with the services installed and the tree entered. A failure is reported through
  // the session, which also gives the code for it.
  virtual int run(Session& session) = 0;
};

// Texts are literals, which live as long as the program.
struct CommandEntry {
  const char* name;
  const char* summary;
  // A line for a shell, which works in any directory that may be written.
  const char* example;
  // Makes the command and binds its options, which the parser fills, to it.
  std::unique_ptr<Command> (*declare)(CLI::App& parser);
};

// The usual `declare`, of a class that takes the parser.
template <class T>
std::unique_ptr<Command> Make(CLI::App& parser) {
  return std::make_unique<T>(parser);
}

// One table for each family, in the order in which its commands are shown; each lives as long as
// the program.
std::span<const CommandEntry> ConfigurationCommands();
std::span<const CommandEntry> TreeCommands();
std::span<const CommandEntry> ItemCommands();
std::span<const CommandEntry> FileCommands();

}  // namespace quorvel::ctl
