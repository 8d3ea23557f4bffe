// Writes values with an explicit stack, refusing what XML cannot hold.
#include <algorithm>
#include <charconv>
#include <string_view>

#include "platform/linux/plist/PropertyList.h"
#include "platform/linux/plist/PropertyListEncodings.h"
#include "platform/linux/plist/PropertyListText.h"

namespace quorvel::onlinux {

namespace {

// Deeper lines are not indented further: the text stays in proportion to the value.
constexpr std::size_t kMaximalIndentation = 32;
// 57 bytes are 76 digits, the line length of MIME.
constexpr std::size_t kDataBytesPerLine = 57;

class XmlWriter {
 public:
  explicit XmlWriter(std::vector<std::uint8_t>& out) : out_(out) {}

  std::string write(const PlistValue& root) {
    // No document type line: readers do not need it, and some would fetch it.
    append("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n");
    writeValue(root);
    while (!frames_.empty() && reason_.empty()) step();
    // After a failure the text is of no use, and whoever asked for it drops it.
    append("</plist>\n");
    return reason_;
  }

 private:
  // A container whose children before `next` are written. Exactly one of the two pointers is set;
  // they lead into the caller's value.
  struct Frame {
    const PlistArray* array;
    const PlistDictionary* dictionary;
    std::size_t next;
  };

  // Writes the next child of the innermost container, or its end.
  void step() {
    Frame& frame = frames_.back();
    const std::size_t at = frame.next++;
    if (frame.array != nullptr && at < frame.array->size()) {
      writeValue((*frame.array)[at]);
    } else if (frame.dictionary != nullptr && at < frame.dictionary->size()) {
      const PlistEntry& entry = frame.dictionary->entries()[at];
      writeText("<key>", entry.key, "</key>\n");
      writeValue(entry.value);
    } else {
      const bool array = frame.array != nullptr;
      frames_.pop_back();
      indent();
      append(array ? "</array>\n" : "</dict>\n");
    }
  }

  void writeValue(const PlistValue& value) {
    if (++nodes_ > PropertyListNodeLimit) return fail("too many values");
    // Asked once a value: the text is over the limit by one value at most.
    if (out_.size() > PropertyListSizeLimit) return fail("it is too large");
    switch (value.kind()) {
      case PlistKind::boolean:
        return writePlain(*value.boolean() ? "<true/>\n" : "<false/>\n");
      case PlistKind::integer:
        return writeInteger(value);
      case PlistKind::real:
        return writeText("<real>", TextFromReal(*value.real()), "</real>\n");
      case PlistKind::string:
        return writeText("<string>", *value.string(), "</string>\n");
      case PlistKind::data:
        return writeData(*value.data());
      case PlistKind::date:
        return writeDate(*value.date());
      case PlistKind::array:
        return open(value.array(), nullptr);
      case PlistKind::dictionary:
        return open(nullptr, value.dictionary());
      case PlistKind::set:
        return fail("a set");
    }
  }

  void open(const PlistArray* array, const PlistDictionary* dictionary) {
    if (frames_.size() == PropertyListDepthLimit) return fail("nested too deeply");
    // The short form, as others write it.
    if (array != nullptr && array->empty()) return writePlain("<array/>\n");
    if (dictionary != nullptr && dictionary->empty()) return writePlain("<dict/>\n");
    writePlain(array != nullptr ? "<array>\n" : "<dict>\n");
    frames_.push_back({array, dictionary, 0});
  }

  void writeInteger(const PlistValue& value) {
    char text[24];
    const std::int64_t* number = value.signedInteger();
    const auto end = number != nullptr
                         ? std::to_chars(text, text + sizeof text, *number)
                         : std::to_chars(text, text + sizeof text, *value.largeInteger());
    writeText("<integer>", {text, end.ptr}, "</integer>\n");
  }

  void writeDate(PlistDate date) { writeText("<date>", TextFromDate(date), "</date>\n"); }

  void writeData(const PlistData& data) {
    // Before it is written: base 64 makes it longer by a third, and one value alone may be many
    // times the limit.
    if (data.size() > PropertyListSizeLimit) return fail("it is too large");
    writePlain("<data>\n");
    for (std::size_t at = 0; at < data.size(); at += kDataBytesPerLine) {
      indent();
      AppendBase64(out_, data.data() + at, std::min(kDataBytesPerLine, data.size() - at));
      append("\n");
    }
    writePlain("</data>\n");
  }

  void writePlain(std::string_view markup) {
    indent();
    append(markup);
  }

  void writeText(std::string_view start, std::string_view text, std::string_view end) {
    if (text.size() > PropertyListSizeLimit) return fail("it is too large");
    indent();
    append(start);
    appendEscaped(text);
    append(end);
  }

  void appendEscaped(std::string_view text) {
    while (!text.empty()) {
      const std::size_t plain = plainLength(text);
      append(text.substr(0, plain));
      text.remove_prefix(plain);
      if (text.empty()) return;
      switch (text.front()) {
        case '&':
          append("&amp;");
          break;
        case '<':
          append("&lt;");
          break;
        case '>':
          append("&gt;");
          break;
        // A reader takes a bare carriage return for a line feed.
        case '\r':
          append("&#13;");
          break;
        default:
          return fail("a character that XML cannot hold");
      }
      text.remove_prefix(1);
    }
  }

  // Length of the beginning of the text that may stand as it is. Nearly all texts are plain
  // throughout and are appended in one piece. ASCII is judged here, without a call for each
  // character.
  static std::size_t plainLength(std::string_view text) {
    std::size_t at = 0;
    while (at < text.size()) {
      const auto byte = static_cast<unsigned char>(text[at]);
      if (byte < 0x80) {
        const bool control = byte < 0x20 && byte != '\t' && byte != '\n';
        if (control || byte == '&' || byte == '<' || byte == '>') break;
        ++at;
        continue;
      }
      const std::size_t length = XmlCharacterLength(text.substr(at));
      if (length == 0) break;
      at += length;
    }
    return at;
  }

  void indent() {
    const std::size_t tabs = std::min(frames_.size(), kMaximalIndentation);
    out_.insert(out_.end(), tabs, static_cast<std::uint8_t>('\t'));
  }

  void append(std::string_view text) { out_.insert(out_.end(), text.begin(), text.end()); }

  void fail(const char* reason) {
    if (reason_.empty()) reason_ = reason;
  }

  std::vector<std::uint8_t>& out_;
  std::vector<Frame> frames_;
  std::size_t nodes_ = 0;
  std::string reason_;
};

}  // namespace

std::string WriteXmlPropertyList(const PlistValue& value, std::vector<std::uint8_t>& out) {
  return XmlWriter(out).write(value);
}

}  // namespace quorvel::onlinux
