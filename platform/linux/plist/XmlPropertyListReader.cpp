// Builds values from the parser's events with an explicit stack.
#include <expat.h>
#include <sys/random.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "platform/linux/plist/PropertyListBudget.h"
#include "platform/linux/plist/PropertyListBuilder.h"
#include "platform/linux/plist/PropertyListEncodings.h"
#include "platform/linux/plist/PropertyListText.h"

namespace quorvel::onlinux {

namespace {

enum class Element { none, plist, dict, array, key, string, integer, real, date, data, yes, no };

Element ElementNamed(const char* name) {
  static constexpr std::pair<std::string_view, Element> elements[] = {
      {"key", Element::key},         {"string", Element::string}, {"dict", Element::dict},
      {"array", Element::array},     {"true", Element::yes},      {"false", Element::no},
      {"integer", Element::integer}, {"real", Element::real},     {"date", Element::date},
      {"data", Element::data},       {"plist", Element::plist}};
  const std::string_view wanted = name;
  for (const auto& [text, element] : elements) {
    if (text == wanted) return element;
  }
  return Element::none;
}

struct FreeParser {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};
using OwnedParser = std::unique_ptr<std::remove_pointer_t<XML_Parser>, FreeParser>;

// The secret of expat's hash tables, drawn once: expat itself would ask the kernel for every
// document. 0, which lets expat do so, when the kernel has none to give.
unsigned long HashSalt() {
  static const unsigned long salt = [] {
    unsigned long random = 0;
    const bool drawn = ::getrandom(&random, sizeof random, GRND_NONBLOCK) == sizeof random;
    return drawn ? random : 0;
  }();
  return salt;
}

// Makes a parser ready for a document. To make one costs as much as to parse a small document, so
// each thread keeps one for those; what a large document leaves in a parser is not kept.
XML_Parser ReadyParser(std::size_t size, OwnedParser& owner) {
  constexpr std::size_t smallDocument = 65'536;
  thread_local OwnedParser kept;
  OwnedParser& parser = size <= smallDocument ? kept : owner;
  if (parser == nullptr || XML_ParserReset(parser.get(), nullptr) != XML_TRUE) {
    parser.reset(XML_ParserCreate(nullptr));
  }
  if (parser != nullptr) XML_SetHashSalt(parser.get(), HashSalt());
  return parser.get();
}

// One document. Every handler returns at once after the first failure: expat still delivers
// what it had begun.
class XmlReader {
 public:
  explicit XmlReader(std::size_t size) : budget_(size), parser_(ReadyParser(size, owner_)) {
    if (parser_ == nullptr) return;
    XML_SetUserData(parser_, this);
    XML_SetElementHandler(
        parser_,
        [](void* self, const XML_Char* name, const XML_Char** attributes) {
          static_cast<XmlReader*>(self)->startElement(name, attributes);
        },
        [](void* self, const XML_Char*) { static_cast<XmlReader*>(self)->endElement(); });
    XML_SetCharacterDataHandler(parser_, [](void* self, const XML_Char* text, int length) {
      static_cast<XmlReader*>(self)->characters({text, static_cast<std::size_t>(length)});
    });
    XML_SetEntityDeclHandler(parser_, [](void* self, auto...) {
      static_cast<XmlReader*>(self)->refuse(ENOTSUP, "an entity is declared");
    });
    // With an external subset that is not read an unknown entity is no error to expat.
    XML_SetSkippedEntityHandler(parser_, [](void* self, const XML_Char*, int) {
      static_cast<XmlReader*>(self)->refuse(ENOTSUP, "an unknown entity");
    });
  }

  // One call: expat then works on the caller's bytes in place. The size limit is far below what
  // an int holds.
  Error read(std::span<const std::uint8_t> bytes, PlistValue& out) {
    if (parser_ == nullptr) return Refusal(ENOMEM, "out of memory");
    const auto* text = reinterpret_cast<const char*>(bytes.data());
    if (XML_Parse(parser_, text, static_cast<int>(bytes.size()), XML_TRUE) != XML_STATUS_OK) {
      const XML_Error code = XML_GetErrorCode(parser_);
      if (code == XML_ERROR_NO_MEMORY) refuse(ENOMEM, "out of memory");
      fail(XML_ErrorString(code));
      return failure_;
    }
    out = builder_.takeRoot();
    return {};
  }

 private:
  bool failed() const { return static_cast<bool>(failure_); }

  void fail(const char* what) {
    if (!failed()) stop(Damage(line() + what));
  }

  // For what another reader might read.
  void refuse(int number, const char* what) {
    if (!failed()) stop(Refusal(number, line() + what));
  }

  std::string line() const {
    return "line " + std::to_string(XML_GetCurrentLineNumber(parser_)) + ": ";
  }

  void stop(Error failure) {
    failure_ = std::move(failure);
    XML_StopParser(parser_, XML_FALSE);
  }

  void startElement(const char* name, const char** attributes) {
    if (failed()) return;
    const Element element = ElementNamed(name);
    if (element == Element::none) return fail("an unknown element");
    if (scalar_ != Element::none) return fail("an element inside a text");
    if (element == Element::plist) {
      if (inPlist_) return fail("a plist element inside the document");
      inPlist_ = true;
    } else if (mayStart(element)) {
      begin(element, attributes);
    }
  }

  // Whether the element may stand here; fails otherwise.
  bool mayStart(Element element) {
    const char* problem = nullptr;
    if (!inPlist_) {
      problem = "the document element is not plist";
    } else if (builder_.inDictionary()) {
      const bool wantsValue = builder_.awaitsValue();
      if (element == Element::key && wantsValue) problem = "a key without a value";
      if (element != Element::key && !wantsValue) problem = "a value without a key";
    } else if (element == Element::key) {
      problem = "a key outside a dictionary";
    } else if (builder_.depth() == 0 && builder_.hasRoot()) {
      problem = "a second value";
    }
    if (problem != nullptr) fail(problem);
    return problem == nullptr;
  }

  void begin(Element element, const char** attributes) {
    if (element != Element::key && !budget_.take(1, 0)) return refuse(E2BIG, "too many values");
    if (element == Element::dict || element == Element::array) {
      if (builder_.depth() == PropertyListDepthLimit) {
        return refuse(E2BIG, "nested too deeply");
      }
      builder_.open(element == Element::dict);
      return;
    }
    scalar_ = element;
    text_.clear();
    exactDate_.reset();
    if (element == Element::date) takeExactDate(attributes);
  }

  // The attribute with which our own writer completes a date that its text cannot hold.
  void takeExactDate(const char** attributes) {
    for (; *attributes != nullptr; attributes += 2) {
      if (std::strcmp(attributes[0], "seconds") != 0) continue;
      exactDate_ = RealFromText(attributes[1]);
      if (!exactDate_) fail("not a number of seconds");
    }
  }

  void characters(std::string_view text) {
    if (failed()) return;
    if (scalar_ != Element::none && scalar_ != Element::yes && scalar_ != Element::no) {
      text_.append(text);
      return;
    }
    for (const char character : text) {
      if (!IsXmlSpace(character)) return fail("a text where none may be");
    }
  }

  void endElement() {
    if (failed()) return;
    if (scalar_ != Element::none) {
      endScalar();
      scalar_ = Element::none;
    } else if (builder_.depth() > 0) {
      if (builder_.inDictionary() && builder_.awaitsValue()) return fail("a key without a value");
      builder_.close();
    } else if (!builder_.hasRoot()) {
      fail("no value");
    }
  }

  void endScalar() {
    switch (scalar_) {
      case Element::key:
        return builder_.addKey(text_);
      case Element::string:
        return builder_.add(text_);
      case Element::yes:
        return builder_.add(true);
      case Element::no:
        return builder_.add(false);
      case Element::integer:
        return addIfRead(IntegerFromText(text_), "not an integer");
      case Element::real:
        return addIfRead(RealFromText(text_), "not a real number");
      case Element::data:
        return addIfRead(DataFromText(text_), "not data in base 64");
      default:
        return endDate();
    }
  }

  void endDate() {
    std::optional<PlistDate> date = DateFromText(text_);
    if (date && exactDate_) date->seconds = *exactDate_;
    addIfRead(date, "not a date");
  }

  template <class T>
  void addIfRead(std::optional<T> value, const char* problem) {
    if (!value) return fail(problem);
    builder_.add(std::move(*value));
  }

  PropertyListBudget budget_;
  OwnedParser owner_;  // of a parser for this document alone
  XML_Parser parser_;
  PropertyListBuilder builder_;
  bool inPlist_ = false;
  Element scalar_ = Element::none;   // the element being read, when it is no container
  std::string text_;                 // its text so far
  std::optional<double> exactDate_;  // for a date: what its attribute says
  Error failure_;                    // the first
};

}  // namespace

Error ReadXmlPropertyList(std::span<const std::uint8_t> bytes, PlistValue& out) {
  return XmlReader(bytes.size()).read(bytes, out);
}

}  // namespace quorvel::onlinux
