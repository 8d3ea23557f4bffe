// Messages: printf-style formats with "%@" for an object's printable description.
//
// A format is checked against its arguments while the program is compiled: the number of
// directives, the size and sign of integers, text for "%s", an object for "%@". Formatting never
// fails and never interprets an argument as a format.
//
//   FormatMessage("rename of %@ to %@ failed: %s", source, destination, ErrnoDescription(errno))
//
// What "%@" prints: a Path in URL form (pass path.string() for the plain form), a string as it
// is, a number in decimal, an Error as domain, code and userInfo, lists and dictionaries with
// their members, an absent value "(null)".
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/Error.h"
#include "platform/Path.h"
#include "platform/PlistValue.h"
#include "shared/support/Export.h"

namespace quorvel {

// One packaged argument. Refers to what it was made from, which must outlive it.
// Small enough to be passed by value; made and used within one call.
// Everything that a directive can print, in a form that the formatter knows without templates.
class FormatArgument {
 public:
  // Decided by the argument's C++ type alone; see the constructor below.
  enum class Kind {
    null,
    signedInteger,
    unsignedInteger,
    text,   // a string object: UTF-8
    bytes,  // a C string: any bytes
    path,
    paths,
    value,
    dictionary,
    error,
  };

  template <class T>
  FormatArgument(const T& argument);  // NOLINT: converts on purpose

  // Says which of the following counts.
  Kind kind = Kind::null;
  union {
    std::int64_t signedInteger;
    std::uint64_t unsignedInteger;
    const void* object;
  };
  std::string_view text{};
};

using FormatArguments = std::span<const FormatArgument>;

namespace format_detail {

// What a C++ type may stand for in a format.
// Integers by size and sign, since printf's own letters are checked against them.
// A boolean stands for nothing: printed as a number it is more often a mistake than meant.
enum class Class { object, text, int32, uint32, int64, uint64, unusable };

template <class T>
consteval Class Classify() {
  if constexpr (std::is_same_v<T, bool>) {
    return Class::unusable;
  } else if constexpr (std::is_integral_v<T>) {
    if (sizeof(T) <= 4) return std::is_signed_v<T> ? Class::int32 : Class::uint32;
    return std::is_signed_v<T> ? Class::int64 : Class::uint64;
  } else if constexpr (std::is_convertible_v<const T&, std::string_view> ||
                       std::is_same_v<T, FileSystemRepresentation>) {
    return Class::text;
  } else {
    return Class::object;
  }
}

// Not constexpr: reaching one of these ends the compilation and names the fault.
// They are declared only: no program calls them, as a format that would reach one is not compiled.
void FormatHasMoreDirectivesThanArguments();
void FormatHasFewerDirectivesThanArguments();
void FormatDirectiveDoesNotFitItsArgument();
void FormatDirectiveIsUnknown();

// One directive: where it ends, its conversion and its length letters ("l", "ll", "z" or none).
// Flags other than "0", precisions and argument numbers are not known: no message of this system
// uses them, and one that did would be refused as unknown.
struct Directive {
  std::size_t end = 0;
  char conversion = 0;
  char length = 0;  // 'l' for l, 'q' for ll, 'z' for z
  bool zeroPad = false;
  unsigned width = 0;
};

// Parses the directive whose "%" is at `at`.
// Also at run time, by the formatter itself: what was checked is what is printed.
// A "%" at the end of the text has the conversion '\0', and its end lies beyond the text: a caller
// that goes on from there has to look.
constexpr Directive ParseDirective(std::string_view format, std::size_t at) {
  Directive directive;
  ++at;
  const auto peek = [&] { return at < format.size() ? format[at] : '\0'; };
  if (peek() == '0') directive.zeroPad = true, ++at;
  while (peek() >= '0' && peek() <= '9') {
    directive.width = directive.width * 10 + static_cast<unsigned>(format[at++] - '0');
  }
  if (peek() == 'z') directive.length = 'z', ++at;
  if (peek() == 'l') directive.length = 'l', ++at;
  if (peek() == 'l') directive.length = 'q', ++at;
  directive.conversion = peek();
  directive.end = at + 1;
  return directive;
}

// Whether the argument can stand where the directive is; length letters count.
// A conversion that is none ends the compilation here rather than being told as a misfit.
consteval bool Fits(Directive directive, Class argument) {
  switch (directive.conversion) {
    case '@':
      return argument != Class::unusable;
    case 's':
      return argument == Class::text;
    // Without a length 32 bits, with any 64: on this platform "l", "ll" and "z" are the same.
    case 'd':
      return argument == (directive.length == 0 ? Class::int32 : Class::int64);
    case 'u':
    case 'x':
      return argument == (directive.length == 0 ? Class::uint32 : Class::uint64);
    case 'X':
      // Result codes are signed and print as their bits.
      return argument == Class::uint32 || argument == Class::int32;
    default:
      FormatDirectiveIsUnknown();
      return false;
  }
}

template <class... Arguments>
// Ends the compilation unless each directive has its argument and each argument its directive.
// The list of classes has one more element than there are arguments, since an array may not be
// empty.
consteval void Check(std::string_view format) {
  constexpr std::size_t count = sizeof...(Arguments);
  const std::array<Class, count + 1> classes = {Classify<Arguments>()..., Class::unusable};
  std::size_t used = 0;
  for (std::size_t at = 0; at < format.size(); ++at) {
    if (format[at] != '%') continue;
    const Directive directive = ParseDirective(format, at);
    at = directive.end - 1;
    if (directive.conversion == '%') continue;
    if (used == count) FormatHasMoreDirectivesThanArguments();
    if (!Fits(directive, classes[used])) FormatDirectiveDoesNotFitItsArgument();
    ++used;
  }
  if (used != count) FormatHasFewerDirectivesThanArguments();
}

template <class T>
// An absent optional prints as "(null)", a present one as its value.
// Optionals of optionals are followed to the value.
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};

}  // namespace format_detail

// A format known to fit arguments of these types. Made implicitly from a string literal.
template <class... Arguments>
// The text is a literal's and lives as long as the program.
// The constructor is evaluated by the compiler alone, so that a format read from a file or built at
// run time cannot become one of these: what an attacker can write is never interpreted.
class FormatString {
 public:
  template <std::size_t size>
  consteval FormatString(const char (&literal)[size])  // NOLINT: converts on purpose
      : text_(literal, size - 1) {
    format_detail::Check<Arguments...>(text_);
  }
  constexpr std::string_view get() const { return text_; }

 private:
  std::string_view text_;
};

// Keeps the format from taking part in the deduction of the argument types.
// Otherwise the literal would have to have the very type that the arguments are still to decide.
template <class... Arguments>
using Format = FormatString<std::type_identity_t<std::remove_cvref_t<Arguments>>...>;

template <class T>
// An absent optional and an absent Path keep the kind `null`.
// An Error without a record does so as well. Text is referred to and not copied, and may have null
// bytes in it; a C string ends at its first one.
FormatArgument::FormatArgument(const T& argument) : object(nullptr) {
  if constexpr (std::is_same_v<T, std::nullptr_t>) {
    kind = Kind::null;
  } else if constexpr (format_detail::IsOptional<T>::value) {
    if (argument) *this = FormatArgument(*argument);
  } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
    kind = Kind::signedInteger;
    signedInteger = argument;
  } else if constexpr (std::is_integral_v<T>) {
    kind = Kind::unsignedInteger;
    unsignedInteger = argument;
  } else if constexpr (std::is_same_v<T, FileSystemRepresentation>) {
    kind = Kind::bytes;
    text = argument.c_str();
  } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
    kind = Kind::text;
    text = argument;
  } else if constexpr (std::is_same_v<T, Path>) {
    kind = argument.isAbsent() ? Kind::null : Kind::path;
    object = &argument;
  } else if constexpr (std::is_same_v<T, std::vector<Path>>) {
    kind = Kind::paths;
    object = &argument;
  } else if constexpr (std::is_same_v<T, PlistDictionary>) {
    kind = Kind::dictionary;
    object = &argument;
  } else if constexpr (std::is_same_v<T, Error>) {
    kind = argument ? Kind::error : Kind::null;
    object = &argument;
  } else {
    static_assert(std::is_same_v<T, PlistValue>, "no printable description for this type");
    kind = Kind::value;
    object = &argument;
  }
}

// Formats with arguments already packaged. A directive without an argument prints as it stands.
// For callers that bring a format of their own, which nothing has checked: an argument prints by
// its own kind, whatever the directive asks for, and one too many is passed over. Any thread may
// call. Fails only for want of memory, by an exception of the standard library.
QV_EXPORT std::string QVFormatMessageV(std::string_view format, FormatArguments arguments);

template <class... Arguments>
// The message. Arguments are packaged by reference and used before this returns.
// Compiled anew for each list of argument types and therefore kept to two lines.
std::string FormatMessage(Format<Arguments...> format, const Arguments&... arguments) {
  const std::array<FormatArgument, sizeof...(Arguments)> packaged = {FormatArgument(arguments)...};
  return QVFormatMessageV(format.get(), packaged);
}

// The printable descriptions that "%@" inserts.
// Nested values are followed to a bounded depth, then cut with "...".
// Data is shown by its first bytes and its length, a dictionary in its own order. The text is for
// people and logs: it cannot be read back.
QV_EXPORT std::string QVDescribeValue(const PlistValue& value);
QV_EXPORT std::string QVDescribeError(const Error& error);
// The userInfo of an Error alone.
QV_EXPORT std::string QVDescribeUserInfo(const Error& error);

}  // namespace quorvel
