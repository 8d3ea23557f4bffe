// The parser's own rows with their descriptions broken.
#include "host/console/Help.h"

#include <CLI/CLI.hpp>
#include <sstream>

namespace quorvel::host {

namespace {

constexpr std::size_t kColumns = 80;

class NarrowFormatter : public CLI::Formatter {
 public:
  std::string make_option(const CLI::Option* option, bool isPositional) const override {
    return row(make_option_name(option, isPositional) + make_option_opts(option),
               make_option_desc(option));
  }
  std::string make_subcommand(const CLI::App* command) const override {
    return row(command->get_name(), command->get_description());
  }

 private:
  std::string row(const std::string& name, const std::string& description) const {
    std::string broken;
    std::size_t column = column_width_;
    std::istringstream words(description);
    for (std::string word; words >> word;) {
      const bool isFirst = broken.empty();
      if (!isFirst && column + 1 + word.size() > kColumns) {
        broken += "\n";
        column = column_width_;
      } else if (!isFirst) {
        broken += " ";
        ++column;
      }
      broken += word;
      column += word.size();
    }
    std::ostringstream out;
    // It indents what follows a line feed.
    CLI::detail::format_help(out, name, broken, column_width_);
    return out.str();
  }
};

}  // namespace

std::shared_ptr<CLI::FormatterBase> HelpFormatter() { return std::make_shared<NarrowFormatter>(); }

}  // namespace quorvel::host
