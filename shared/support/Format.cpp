// Walks a format once and renders one argument at a time.
#include "shared/support/Format.h"

#include <charconv>

#include "shared/support/PathStrings.h"

namespace quorvel {

namespace {

// Descriptions go no deeper: a stored file may nest further than a log line is readable.
constexpr int kDeepestDescription = 16;

void AppendValue(std::string& out, const PlistValue& value, int depth);

// Thirty-two characters hold 64 bits in any base from ten up, and the shortest form of every real.
void AppendNumber(std::string& out, auto number, int base = 10) {
  char digits[32];
  const auto end = std::to_chars(digits, digits + sizeof digits, number, base).ptr;
  out.append(digits, end);
}

// Inside a collection strings are quoted, so that members can be told apart.
void AppendQuoted(std::string& out, std::string_view text) {
  out += '"';
  for (const char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  out += '"';
}

void AppendData(std::string& out, const PlistData& data) {
  static constexpr char kHex[] = "0123456789abcdef";
  // Enough to tell values apart; the rest is told by its length.
  static constexpr std::size_t kShown = 32;
  out += '<';
  for (std::size_t i = 0; i < data.size() && i < kShown; ++i) {
    out += kHex[data[i] >> 4U];
    out += kHex[data[i] & 0xFU];
  }
  if (data.size() > kShown) {
    out += "... ";
    AppendNumber(out, data.size());
    out += " bytes";
  }
  out += '>';
}

// Members are one level deeper than what holds them: at the bound each is cut, not the whole.
void AppendArray(std::string& out, const PlistArray& array, int depth) {
  out += '(';
  const char* separator = "";
  for (const PlistValue& member : array) {
    out += separator;
    separator = ", ";
    AppendValue(out, member, depth + 1);
  }
  out += ')';
}

void AppendDictionary(std::string& out, const PlistDictionary& dictionary, int depth) {
  out += '{';
  const char* separator = "";
  for (const PlistEntry& entry : dictionary) {
    out += separator;
    separator = "; ";
    out += entry.key;
    out += " = ";
    AppendValue(out, entry.value, depth + 1);
  }
  out += '}';
}

// Numbers by to_chars, which knows no locale: what a log says must not depend on who reads it.
void AppendValue(std::string& out, const PlistValue& value, int depth) {
  if (depth > kDeepestDescription) {
    out += "...";
  } else if (const std::string* text = value.string()) {
    // Alone a string prints as it is, without quotes.
    if (depth == 0) {
      out += *text;
    } else {
      AppendQuoted(out, *text);
    }
  } else if (const bool* flag = value.boolean()) {
    out += *flag ? '1' : '0';  // a boolean is a number
  } else if (const auto* integer = value.signedInteger()) {
    AppendNumber(out, *integer);
  } else if (const auto* large = value.largeInteger()) {
    AppendNumber(out, *large);
  } else if (const double* real = value.real()) {
    char digits[32];
    out.append(digits, std::to_chars(digits, digits + sizeof digits, *real).ptr);
  } else if (const PlistDate* date = value.date()) {
    out += "date ";
    char digits[32];
    out.append(digits, std::to_chars(digits, digits + sizeof digits, date->seconds).ptr);
  } else if (const PlistData* data = value.data()) {
    AppendData(out, *data);
  } else if (const PlistArray* array = value.array()) {
    AppendArray(out, *array, depth);
  } else if (const PlistDictionary* dictionary = value.dictionary()) {
    AppendDictionary(out, *dictionary, depth);
  } else if (const PlistSet* set = value.set()) {
    AppendArray(out, set->members, depth);
  }
}

void AppendInfo(std::string& out, const Error::UserInfo& info, int depth);

void AppendError(std::string& out, const Error& error, int depth) {
  out += error.domain();
  out += ' ';
  AppendNumber(out, error.code());
  out += ' ';
  AppendInfo(out, error.userInfo(), depth);
}

// Values begin one level down, so that texts among them are quoted and end where they end.
void AppendInfo(std::string& out, const Error::UserInfo& info, int depth) {
  out += '{';
  const char* separator = "";
  for (const auto& [key, value] : info) {
    out += separator;
    separator = "; ";
    out += key;
    out += " = ";
    if (const auto* cause = std::get_if<Error>(&value)) {
      // Causes may nest as deep as a caller likes.
      if (depth < kDeepestDescription) {
        AppendError(out, *cause, depth + 1);
      } else {
        out += "...";
      }
    } else {
      AppendValue(out, std::get<PlistValue>(value), 1);
    }
  }
  out += '}';
}

void AppendPaths(std::string& out, const std::vector<Path>& paths) {
  out += '(';
  const char* separator = "";
  for (const Path& path : paths) {
    out += separator;
    separator = ", ";
    AppendURL(out, path);
  }
  out += ')';
}

// Width and zeroes are all of printf's flags that any message of this system uses.
void AppendInteger(std::string& out, const FormatArgument& argument,
                   const format_detail::Directive& directive) {
  std::string digits;
  const bool hexadecimal = directive.conversion == 'X' || directive.conversion == 'x';
  if (hexadecimal) {
    // Signed codes print as the 32 bits that they are.
    AppendNumber(digits,
                 argument.kind == FormatArgument::Kind::signedInteger
                     ? static_cast<std::uint32_t>(argument.signedInteger)
                     : argument.unsignedInteger,
                 16);
    if (directive.conversion == 'X') {
      for (char& digit : digits) {
        if (digit >= 'a') digit = static_cast<char>(digit - 'a' + 'A');
      }
    }
  } else if (argument.kind == FormatArgument::Kind::signedInteger) {
    AppendNumber(digits, argument.signedInteger);
  } else {
    AppendNumber(digits, argument.unsignedInteger);
  }
  if (digits.size() < directive.width) {
    out.append(directive.width - digits.size(), directive.zeroPad ? '0' : ' ');
  }
  out += digits;
}

// The kind decides and not the directive: where the two were checked against each other they agree,
// and where nobody checked them nothing is read as what it is not.
void AppendArgument(std::string& out, const FormatArgument& argument,
                    const format_detail::Directive& directive) {
  using Kind = FormatArgument::Kind;
  switch (argument.kind) {
    case Kind::null:
      out += "(null)";
      break;
    case Kind::signedInteger:
    case Kind::unsignedInteger:
      AppendInteger(out, argument, directive);
      break;
    case Kind::text:
    case Kind::bytes:
      out += argument.text;
      break;
    case Kind::path:
      AppendURL(out, *static_cast<const Path*>(argument.object));
      break;
    case Kind::paths:
      AppendPaths(out, *static_cast<const std::vector<Path>*>(argument.object));
      break;
    case Kind::value:
      AppendValue(out, *static_cast<const PlistValue*>(argument.object), 0);
      break;
    case Kind::dictionary:
      AppendDictionary(out, *static_cast<const PlistDictionary*>(argument.object), 0);
      break;
    case Kind::error:
      AppendError(out, *static_cast<const Error*>(argument.object), 0);
      break;
  }
}

}  // namespace

// A directive without an argument stays as it is: a line that shows its fault is better than none.
// Formats are checked when they are compiled, so that this happens to callers from outside only.
std::string QVFormatMessageV(std::string_view format, FormatArguments arguments) {
  std::string out;
  // A guess at what an argument takes: most messages are made without growing.
  out.reserve(format.size() + 64 * arguments.size());
  std::size_t used = 0;
  while (true) {
    const std::size_t percent = format.find('%');
    out += format.substr(0, percent);
    if (percent == std::string_view::npos) return out;
    const auto directive = format_detail::ParseDirective(format, percent);
    if (directive.conversion == '%') {
      out += '%';
    } else if (used < arguments.size()) {
      AppendArgument(out, arguments[used++], directive);
    } else {
      out += format.substr(percent, directive.end - percent);
    }
    format.remove_prefix(std::min(directive.end, format.size()));
  }
}

std::string QVDescribeValue(const PlistValue& value) {
  std::string out;
  AppendValue(out, value, 0);
  return out;
}

std::string QVDescribeError(const Error& error) {
  std::string out;
  AppendError(out, error, 0);
  return out;
}

std::string QVDescribeUserInfo(const Error& error) {
  std::string out;
  AppendInfo(out, error.userInfo(), 0);
  return out;
}

}  // namespace quorvel
