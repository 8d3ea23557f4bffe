// What --help prints, within the width of a terminal.
#pragma once

#include <memory>

namespace CLI {
class FormatterBase;
}

namespace quorvel::host {

// For a parser, before its commands are declared: they take it over. Breaks descriptions between
// words, so that no line that is made of them is longer than 80 columns.
std::shared_ptr<CLI::FormatterBase> HelpFormatter();

}  // namespace quorvel::host
