// A word that any POSIX shell takes for exactly these bytes.
#pragma once

#include <string>
#include <string_view>

namespace quorvel::host {

// As it stands where that is safe, else in single quotes. A word with bytes that a terminal must
// not be shown is written as a command substitution of printf, whose octal escapes any shell has;
// it may end in anything but a line feed.
std::string ShellWord(std::string_view word);

}  // namespace quorvel::host
