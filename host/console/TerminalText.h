// Text for people: names of unknown origin made harmless, and measured in terminal columns.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace quorvel::host {

// One line that shows any bytes and can do nothing to a terminal: control characters, characters
// that reorder or hide their neighbours, and bytes that are no UTF-8 (also those that the
// file-system encoding carries as private characters) appear as \n, \t or \xNN, and a backslash
// as two. Two different names never look the same for lack of an escape.
std::string Printable(std::string_view text);

// Columns that a printable text takes. The process's LC_CTYPE must be a UTF-8 one.
std::size_t DisplayWidth(std::string_view printable);

// The beginning of the text, at most `columns` of it, with "…" for what is missing.
std::string CutEnd(std::string_view printable, std::size_t columns);

// The text and blanks up to `columns`; never cut.
std::string Padded(std::string_view printable, std::size_t columns);

}  // namespace quorvel::host
