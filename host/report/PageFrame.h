// What every page of a report has around its content.
#pragma once

#include <string>
#include <vector>

namespace quorvel::host {

// The whole page: nothing in it comes from elsewhere, and without scripts only sorting and
// searching are missing. `title` and `body` are HTML.
std::string PageAround(const std::string& title, const std::string& body);

// <section> with a heading; nothing for an empty body.
std::string Section(const std::string& heading, const std::string& body);

// One number of the totals. The key is the result's own word, for whoever reads the page by
// program.
std::string Total(const char* key, const std::string& label, const std::string& value,
                  const char* tone = "");

// A table that the page's script sorts and, with `searchable`, filters. The rows are HTML; a
// heading that begins with "#" (not shown) is of numbers.
std::string Table(const char* id, const std::vector<std::string>& headings, const std::string& rows,
                  bool searchable = false);

// <p class="note">.
std::string Note(const std::string& html);

}  // namespace quorvel::host
