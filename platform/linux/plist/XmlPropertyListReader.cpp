// Builds values from the parser's events with an explicit stack.
#include <expat.h>
#include <sys/random.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "platform/linux/plist/PropertyListBudget.h"
#include "platform/linux/plist/PropertyListBuilder.h"
#include "platform/linux/plist/PropertyListEncodings.h"
#include "platform/linux/plist/PropertyListText.h"
#include "platform/linux/plist/XmlText.h"

namespace quorvel::onlinux {

namespace {

enum class Element { none, plist, dict, array, key, string, integer, real, date, data, yes, no };

// Asked for every element of a document: the first character, which no more than three share,
// spares nearly all comparisons.
Element ElementNamed(const char* name) {
  static constexpr std::pair<const char*, Element> elements[] = {
      {"key", Element::key},         {"string", Element::string}, {"dict", Element::dict},
      {"array", Element::array},     {"true", Element::yes},      {"false", Element::no},
      {"integer", Element::integer}, {"real", Element::real},     {"date", Element::date},
      {"data", Element::data},       {"plist", Element::plist}};
  for (const auto& [text, element] : elements) {
    if (text[0] == name[0] && std::strcmp(text, name) == 0) return element;
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
XML_Parser ReadyParser(std::size_t size, const char* encoding, OwnedParser& owner) {
  constexpr std::size_t smallDocument = 65'536;
  thread_local OwnedParser kept;
  OwnedParser& parser = size <= smallDocument ? kept : owner;
  if (parser == nullptr || XML_ParserReset(parser.get(), encoding) != XML_TRUE) {
    parser.reset(XML_ParserCreate(encoding));
  }
  if (parser != nullptr) XML_SetHashSalt(parser.get(), HashSalt());
  return parser.get();
}

// One document. Every handler returns at once after the first failure: expat still delivers
// what it had begun.
class XmlReader {
 public:
  // `encoding` overrides what the document says of itself; null to believe it.
  XmlReader(std::size_t size, const char* encoding)
      : budget_(size), parser_(ReadyParser(size, encoding, owner_)) {
    if (parser_ == nullptr) return;
    // A parser that is used again has lost its handlers and this pointer.
    XML_SetUserData(parser_, this);
    XML_SetElementHandler(
        parser_,
        [](void* self, const XML_Char* name, const XML_Char**) {
          static_cast<XmlReader*>(self)->guarded(&XmlReader::startElement, name);
        },
        [](void* self, const XML_Char*) {
          static_cast<XmlReader*>(self)->guarded(&XmlReader::endElement);
        });
    XML_SetCharacterDataHandler(parser_, [](void* self, const XML_Char* text, int length) {
      static_cast<XmlReader*>(self)->guarded(
          &XmlReader::characters, std::string_view(text, static_cast<std::size_t>(length)));
    });
    XML_SetXmlDeclHandler(
        parser_, [](void* self, const XML_Char*, const XML_Char* encodingName, int) {
          if (encodingName == nullptr) return;
          static_cast<XmlReader*>(self)->guarded(&XmlReader::declare, encodingName);
        });
    XML_SetEntityDeclHandler(parser_, [](void* self, auto...) {
      static_cast<XmlReader*>(self)->guarded(&XmlReader::refuse, ENOTSUP, "an entity is declared");
    });
    // With an external subset that is not read an unknown entity is no error to expat.
    XML_SetSkippedEntityHandler(parser_, [](void* self, const XML_Char*, int) {
      static_cast<XmlReader*>(self)->guarded(&XmlReader::refuse, ENOTSUP, "an unknown entity");
    });
  }

  // One call: expat then works on the caller's bytes in place. The size limit is far below what
  // an int holds.
  Error read(std::span<const std::uint8_t> bytes, PlistReading& out) {
    if (parser_ == nullptr) throw std::bad_alloc();
    const auto* text = reinterpret_cast<const char*>(bytes.data());
    const bool whole =
        XML_Parse(parser_, text, static_cast<int>(bytes.size()), XML_TRUE) == XML_STATUS_OK;
    if (outOfMemory_) throw std::bad_alloc();
    // Whatever follows the document is no part of it: others stop reading here.
    if (!whole && !ended_ && !failed()) failWith(XML_GetErrorCode(parser_));
    if (failed()) return failure_;
    out.value = builder_.takeRoot();
    out.isExact = isExact_;
    return {};
  }

  // Whether reading failed at a character or an encoding rather than at the markup.
  bool failedAtCharacters() const { return failedAtCharacters_; }
  const std::string& declaredEncoding() const { return declaredEncoding_; }

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

  // Nothing is thrown through expat, which is written in C.
  template <class Handler, class... Arguments>
  void guarded(Handler handler, Arguments... arguments) {
    if (failed() || outOfMemory_) return;
    try {
      (this->*handler)(arguments...);
    } catch (const std::bad_alloc&) {
      // Told once the parser has returned.
      outOfMemory_ = true;
      XML_StopParser(parser_, XML_FALSE);
    }
  }

  void failWith(XML_Error code) {
    switch (code) {
      case XML_ERROR_NO_MEMORY:
        throw std::bad_alloc();
      case XML_ERROR_UNDEFINED_ENTITY:
      case XML_ERROR_AMPLIFICATION_LIMIT_BREACH:
        return refuse(ENOTSUP, XML_ErrorString(code));
      case XML_ERROR_INVALID_TOKEN:
      case XML_ERROR_PARTIAL_CHAR:
      case XML_ERROR_BAD_CHAR_REF:
      case XML_ERROR_UNKNOWN_ENCODING:
      case XML_ERROR_INCORRECT_ENCODING:
        failedAtCharacters_ = true;
        [[fallthrough]];
      default:
        return fail(XML_ErrorString(code));
    }
  }

  void declare(const char* encoding) { declaredEncoding_ = encoding; }

  // An element out of place is refused, not called damage: among the readers of property lists
  // there are some that pass over such things.
  void startElement(const char* name) {
    ++openElements_;
    const Element element = ElementNamed(name);
    if (element == Element::none && !begun_) return fail("the document is of another kind");
    if (element == Element::none) return refuse(ENOTSUP, "an unknown element");
    if (scalar_ != Element::none) return refuse(ENOTSUP, "an element inside a text");
    const bool isFirst = !begun_;
    begun_ = true;
    if (element == Element::plist) {
      if (!isFirst) refuse(ENOTSUP, "a plist element inside the document");
    } else if (mayStart(element)) {
      begin(element);
    }
  }

  // Whether the element may stand here; refuses the document otherwise.
  bool mayStart(Element element) {
    const char* problem = nullptr;
    if (builder_.inDictionary()) {
      const bool wantsValue = builder_.awaitsValue();
      if (element == Element::key && wantsValue) problem = "a key without a value";
      if (element != Element::key && !wantsValue) problem = "a value without a key";
    } else if (element == Element::key) {
      problem = "a key outside a dictionary";
    } else if (builder_.depth() == 0 && builder_.hasRoot()) {
      problem = "a second value";
    }
    if (problem != nullptr) refuse(ENOTSUP, problem);
    return problem == nullptr;
  }

  void begin(Element element) {
    if (element != Element::key && !budget_.take(1, 0)) return refuse(E2BIG, "too many values");
    if (element == Element::dict || element == Element::array) {
      if (builder_.depth() == PropertyListDepthLimit) return refuse(E2BIG, "nested too deeply");
      return builder_.open(element == Element::dict);
    }
    scalar_ = element;
    text_.clear();
  }

  // Text between the elements means nothing. The parser delivers one text in any number of pieces.
  // What it may come to is bounded by the document: no entity multiplies it.
  void characters(std::string_view text) {
    if (scalar_ != Element::none) text_.append(text);
  }

  void endElement() {
    if (scalar_ != Element::none) {
      endScalar();
      scalar_ = Element::none;
    } else if (builder_.depth() > 0) {
      if (builder_.inDictionary() && builder_.awaitsValue()) {
        return refuse(ENOTSUP, "a key without a value");
      }
      builder_.close();
    } else if (!builder_.hasRoot()) {
      return fail("no value");
    }
    ended_ = --openElements_ == 0;
  }

  // Texts are copied out of the buffer, which keeps its memory for the next one.
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
        return addInteger();
      case Element::real:
        return addOrText(RealFromText(text_));
      case Element::data:
        return addOrText(DataFromText(text_));
      default:
        return addOrText(DateFromText(text_));
    }
  }

  void addInteger() {
    std::optional<PlistValue> value = IntegerFromText(text_);
    if (value && value->real() != nullptr) isExact_ = false;  // it has more than 64 bits
    addOrText(std::move(value));
  }

  // One value that is malformed is not worth the document: it is kept as its text.
  template <class T>
  void addOrText(std::optional<T> value) {
    if (value) return builder_.add(std::move(*value));
    isExact_ = false;
    builder_.add(text_);
  }

  PropertyListBudget budget_;
  OwnedParser owner_;  // of a parser for this document alone
  XML_Parser parser_;
  PropertyListBuilder builder_;
  bool begun_ = false;
  std::size_t openElements_ = 0;
  bool ended_ = false;  // the outermost element, which is not always a plist element
  bool isExact_ = true;
  bool outOfMemory_ = false;
  bool failedAtCharacters_ = false;
  Element scalar_ = Element::none;  // the element being read, when it is no container
  std::string text_;                // its text so far
  std::string declaredEncoding_;
  Error failure_;  // the first
};

}  // namespace

Error ReadXmlPropertyList(std::span<const std::uint8_t> bytes, PlistReading& out) {
  // Others read what has a line break before its declaration.
  while (!bytes.empty() && IsXmlSpace(static_cast<char>(bytes.front()))) bytes = bytes.subspan(1);
  std::string declared;
  if (!IsWideXml(bytes)) {
    XmlReader reader(bytes.size(), nullptr);
    Error failure = reader.read(bytes, out);
    if (!reader.failedAtCharacters()) return failure;
    declared = reader.declaredEncoding();
  }
  // Only now: hardly any document needs it, and it costs a copy of the whole text.
  const std::optional<MendedXml> mended = MendXml(bytes, declared);
  if (!mended) return Refusal(ENOTSUP, "its encoding is unknown: " + declared);
  const std::string& text = mended->text;
  if (text.size() > PropertyListSizeLimit) return Refusal(EFBIG, "it is too large");
  Error failure = XmlReader(text.size(), "UTF-8")
                      .read({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, out);
  out.isExact = out.isExact && mended->isExact;
  return failure;
}

}  // namespace quorvel::onlinux
