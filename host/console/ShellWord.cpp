// Quotes without $'...', which not every shell knows.
#include "host/console/ShellWord.h"

#include "host/console/TerminalText.h"

namespace quorvel::host {

namespace {

constexpr std::string_view kPlain =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./:=+@%,";

std::string InQuotes(std::string_view word) {
  std::string quoted = "'";
  for (const char c : word) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

std::string Octal(unsigned char byte) {
  std::string text = "\\000";
  for (int digit = 3; digit >= 1; --digit, byte /= 8) {
    text[static_cast<std::size_t>(digit)] = static_cast<char>('0' + byte % 8);
  }
  return text;
}

// What may stand for itself both in single quotes and in a format of printf.
bool IsHarmless(char c) { return c >= ' ' && c <= '~' && c != '\'' && c != '\\' && c != '%'; }

}  // namespace

std::string ShellWord(std::string_view word) {
  if (!word.empty() && word.find_first_not_of(kPlain) == std::string_view::npos) {
    return std::string(word);
  }
  // A backslash is the one character that Printable doubles and quotes keep.
  std::string doubled;
  for (const char c : word) doubled += c == '\\' ? std::string("\\\\") : std::string(1, c);
  if (Printable(word) == doubled) return InQuotes(word);
  std::string format;
  for (const char c : word) {
    format += IsHarmless(c) ? std::string(1, c) : Octal(static_cast<unsigned char>(c));
  }
  return "\"$(printf '" + format + "')\"";
}

}  // namespace quorvel::host
