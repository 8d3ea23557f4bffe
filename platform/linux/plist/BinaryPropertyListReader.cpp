// Builds values from the object table with an explicit stack.
#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cmath>
#include <limits>
#include <memory>
#include <utility>

#include "platform/linux/plist/BinaryPropertyListFormat.h"
#include "platform/linux/plist/PropertyListBudget.h"
#include "platform/linux/plist/PropertyListEncodings.h"
#include "platform/linux/plist/PropertyListText.h"

namespace quorvel::onlinux {

namespace {

using namespace binary;

// An object's marker taken apart. The content is known to lie within the objects' part.
struct Object {
  unsigned kind = 0;  // high nibble
  unsigned low = 0;   // low nibble
  const std::uint8_t* content = nullptr;
  std::size_t count = 0;  // of bytes, characters or entries
};

class BinaryReader {
 public:
  explicit BinaryReader(std::span<const std::uint8_t> bytes)
      : bytes_(bytes), budget_(bytes.size()) {
    frames_.reserve(16);  // more than most files nest
  }

  Error read(PlistReading& out) {
    if (!readTrailer() || !addObject(root_)) return failure_;
    while (!frames_.empty()) {
      if (!step()) return failure_;
    }
    out.value = std::move(result_);
    out.isExact = isExact_;
    return {};
  }

 private:
  // A container whose entries before `next` are read, into the vector of its kind. An entry is
  // appended with its key; its value follows.
  struct Frame {
    const std::uint8_t* references;
    std::size_t count;
    std::size_t next;
    std::size_t foreignKeys;
    bool dictionary;
    PlistArray array;
    std::vector<PlistEntry> entries;
  };

  // A key that is no other kind of object, as the last dictionary had it.
  struct KnownKey {
    std::uint64_t index = UINT64_MAX;
    std::string text;
  };

  bool fail(const char* reason) {
    if (!failure_) failure_ = Damage(reason);
    return false;
  }

  // For what is beyond the limits: it may well be sound.
  bool refuse(int number, const char* reason) {
    if (!failure_) failure_ = Refusal(number, reason);
    return false;
  }

  bool readTrailer() {
    if (bytes_.size() < HeaderSize + 1 + TrailerSize) return fail("it is too short");
    // Six unused bytes, two widths, then three big-endian numbers of 8 bytes.
    const std::uint8_t* trailer = bytes_.data() + bytes_.size() - TrailerSize;
    entryWidth_ = trailer[6];
    referenceWidth_ = trailer[7];
    objectCount_ = ReadNumber(trailer + 8, 8);
    root_ = ReadNumber(trailer + 16, 8);
    const std::uint64_t tableOffset = ReadNumber(trailer + 24, 8);
    const std::size_t tableEnd = bytes_.size() - TrailerSize;
    if (entryWidth_ < 1 || entryWidth_ > 8 || referenceWidth_ < 1 || referenceWidth_ > 8) {
      return fail("impossible widths in the trailer");
    }
    // The room is divided by the width rather than the count multiplied by it: these numbers may be
    // chosen to overflow.
    if (tableOffset <= HeaderSize || tableOffset > tableEnd ||
        objectCount_ > (tableEnd - tableOffset) / entryWidth_) {
      return fail("the table of objects is not inside the file");
    }
    table_ = bytes_.data() + tableOffset;
    return true;
  }

  // Reads the entries of the innermost container up to one that is a container, or closes it.
  bool step() {
    Frame& frame = frames_.back();
    const std::size_t depth = frames_.size();
    while (frame.next < frame.count) {
      // `frame` may be gone once frames_ has grown, which is what the depth tells.
      if (!(frame.dictionary ? addEntry(frame) : addObject(reference(frame, frame.next++)))) {
        return false;
      }
      if (frames_.size() != depth) return true;
    }
    close(frame);
    return true;
  }

  bool addEntry(Frame& frame) {
    const std::size_t at = frame.next++;
    bool foreign = false;
    if (!addKey(frame, at, foreign)) return false;
    if (!foreign) return addObject(reference(frame, frame.count + at));
    ++frame.foreignKeys;
    isExact_ = false;
    return true;
  }

  // The container leaves its frame before it is added: the one around it is the innermost then.
  void close(Frame& frame) {
    if (!frame.dictionary) {
      PlistArray array = std::move(frame.array);
      frames_.pop_back();
      return add(std::move(array));
    }
    PlistDictionary dictionary = PlistDictionary::fromEntries(std::move(frame.entries));
    dictionary.setForeignKeyCount(frame.foreignKeys);
    frames_.pop_back();
    add(std::move(dictionary));
  }

  // Puts a finished value where the innermost container, or the caller, waits for it. It is made
  // in its place, which holds a boolean so far: an assignment would ask both what they are.
  template <class T>
  void add(T&& value) {
    if (frames_.empty() || frames_.back().dictionary) {
      PlistValue& place = frames_.empty() ? result_ : frames_.back().entries.back().value;
      std::destroy_at(&place);
      std::construct_at(&place, std::forward<T>(value));
    } else {
      frames_.back().array.emplace_back(std::forward<T>(value));
    }
  }

  std::uint64_t reference(const Frame& frame, std::size_t at) const {
    return number(frame.references + at * referenceWidth_, referenceWidth_);
  }

  // A number of the file that lies before its trailer: 8 bytes can be loaded whatever its width.
  static std::uint64_t number(const std::uint8_t* bytes, std::size_t width) {
    return ReadNumber(bytes, 8) >> (64 - 8 * width);
  }

  // Finds an object and checks that it is whole; does not look inside containers.
  bool find(std::uint64_t index, Object& object) {
    if (index >= objectCount_) return fail("a reference to no object");
    const std::uint64_t offset = number(table_ + index * entryWidth_, entryWidth_);
    const auto limit = static_cast<std::uint64_t>(table_ - bytes_.data());
    if (offset < HeaderSize || offset >= limit) return fail("an object outside the file");
    const std::uint8_t* at = bytes_.data() + offset;
    object.kind = *at >> 4U;
    object.low = *at & 15U;
    object.content = at + 1;
    return measure(object);
  }

  // Finds out how much the object holds, by its kind, and that it is all there.
  bool measure(Object& object) {
    std::uint64_t width = 0;
    switch (object.kind) {
      case Simple:
        object.count = 0;
        return true;
      case Integer:
      case Real:
      case Date:
        object.count = std::size_t{1} << object.low;
        return isWhole(object, 1);
      case Uid:
        object.count = object.low + 1U;
        return isWhole(object, 1);
      case Data:
      case AsciiString:
      case Utf8String:
        width = 1;
        break;
      case Utf16String:
        width = 2;
        break;
      case Array:
      case OrderedSet:
      case Set:
        width = referenceWidth_;
        break;
      case Dictionary:
        width = 2 * referenceWidth_;
        break;
      default:
        // A later version may have more kinds: not damage.
        return refuse(ENOTSUP, "an object of an unknown kind");
    }
    return readCount(object) && isWhole(object, width);
  }

  bool readCount(Object& object) {
    object.count = object.low;
    if (object.low != CountFollows) return true;
    // The marker was the last byte of the objects' part.
    if (object.content == table_) return fail("a count outside the file");
    const unsigned marker = *object.content;
    const std::size_t width = std::size_t{1} << (marker & 15U);
    if (marker >> 4U != Integer || width > 8) return fail("a count that is no integer");
    if (width > static_cast<std::size_t>(table_ - object.content - 1)) {
      return fail("a count outside the file");
    }
    object.count = ReadNumber(object.content + 1, width);
    object.content += 1 + width;
    return true;
  }

  // What is left is no more than a file's size: only a count that fits it is multiplied.
  bool isWhole(const Object& object, std::size_t width) {
    const auto left = static_cast<std::size_t>(table_ - object.content);
    return (object.count <= left && object.count * width <= left) ||
           fail("an object that is not whole");
  }

  // Most dictionaries of a file have the same keys in the same order as the one before.
  bool addKey(Frame& frame, std::size_t at, bool& foreign) {
    const std::uint64_t index = reference(frame, at);
    // By position, which finds the usual case without a search.
    KnownKey& known = knownKeys_[at % knownKeys_.size()];
    if (known.index != index) {
      Object object;
      if (!find(index, object)) return false;
      foreign = object.kind < AsciiString || object.kind > Utf8String;
      if (foreign) return true;
      known = {index, textOf(object)};
    }
    frame.entries.emplace_back().key = known.text;
    // At each use, as the text is copied at each use: one key that many dictionaries share may be
    // long.
    return budget_.take(0, known.text.size()) || refuse(EFBIG, "too much content");
  }

  // Adds a value, or opens a container whose entries step() reads.
  bool addObject(std::uint64_t index) {
    Object object;
    if (!find(index, object)) return false;
    switch (object.kind) {
      case Simple:
        return addSimple(object);
      case Integer:
      case Uid:
        return addInteger(object);
      case Real:
        return addReal(object);
      case Date:
        return addDate(object);
      case Data:
        return addData(object);
      case AsciiString:
      case Utf16String:
      case Utf8String:
        return addString(object);
      default:
        return open(object);
    }
  }

  bool addSimple(const Object& object) {
    if (object.low == Null || object.low == Fill) return passOver();
    if (object.low != True && object.low != False) return refuse(ENOTSUP, "an unknown constant");
    add(object.low == True);
    return true;
  }

  // Leaves out a value that stands for none.
  bool passOver() {
    isExact_ = false;
    if (frames_.empty()) return refuse(ENOTSUP, "it holds no value");
    // Its key was appended already.
    if (frames_.back().dictionary) frames_.back().entries.pop_back();
    return true;
  }

  // Up to 4 bytes are unsigned, 8 and 16 bytes are signed. A uid is the number that it is.
  bool addInteger(const Object& object) {
    if (object.kind == Uid) isExact_ = false;
    const std::size_t width = object.count;
    if (width > 16) return refuse(ENOTSUP, "an integer of an unknown width");
    // 16 bytes are read as a high and a low half.
    const std::size_t lowWidth = std::min<std::size_t>(width, 8);
    const std::uint64_t low = ReadNumber(object.content + width - lowWidth, lowWidth);
    if (width <= 8) {
      const bool isSigned = width == 8 && object.kind == Integer;
      if (isSigned) add(static_cast<std::int64_t>(low));
      if (!isSigned) add(low);
      return true;
    }
    // Sixteen bytes hold what eight cannot, chiefly 2^63 and above; what fits neither form is
    // approximated.
    const std::uint64_t high = ReadNumber(object.content, width - 8);
    if (high == 0) {
      add(low);
    } else if (high == UINT64_MAX && low >> 63U != 0) {
      add(static_cast<std::int64_t>(low));
    } else {
      isExact_ = false;
      add(std::ldexp(static_cast<double>(static_cast<std::int64_t>(high)), 64) +
          static_cast<double>(low));
    }
    return true;
  }

  // Of what is not a number there is one value: text has no other.
  bool addReal(const Object& object) {
    double real = 0;
    if (object.count == 4) {
      const auto bits = static_cast<std::uint32_t>(ReadNumber(object.content, 4));
      real = static_cast<double>(std::bit_cast<float>(bits));
    } else if (object.count == 8) {
      real = std::bit_cast<double>(ReadNumber(object.content, 8));
    } else {
      return refuse(ENOTSUP, "a real number of an unknown width");
    }
    add(std::isnan(real) ? std::numeric_limits<double>::quiet_NaN() : real);
    return true;
  }

  bool addDate(const Object& object) {
    if (object.count != 8) return refuse(ENOTSUP, "a date of an unknown width");
    add(PlistDate{std::bit_cast<double>(ReadNumber(object.content, 8))});
    return true;
  }

  bool addData(const Object& object) {
    if (!budget_.take(0, object.count)) return refuse(EFBIG, "too much content");
    add(PlistData(object.content, object.content + object.count));
    return true;
  }

  bool addString(const Object& object) {
    std::string text = textOf(object);
    if (!budget_.take(0, text.size())) return refuse(EFBIG, "too much content");
    add(std::move(text));
    return true;
  }

  // Some writers put UTF-8 where ASCII belongs.
  std::string textOf(const Object& object) {
    if (object.kind == Utf16String) {
      std::string text;
      if (!Utf8FromUtf16(object.content, object.count, text)) isExact_ = false;
      return text;
    }
    const std::string_view text(reinterpret_cast<const char*>(object.content), object.count);
    if (IsAscii(text) || IsUtf8(text)) return std::string(text);
    isExact_ = false;
    return WithoutInvalidUtf8(text);
  }

  // The depth limit also ends cycles. Its entries are accounted for before space is made for
  // them, which a count that is shared by many parents could otherwise multiply.
  bool open(const Object& object) {
    if (frames_.size() == PropertyListDepthLimit) {
      return refuse(E2BIG, "nested too deeply, or in a cycle");
    }
    if (!budget_.take(object.count, 0)) return refuse(E2BIG, "too many values");
    Frame& frame = frames_.emplace_back();
    frame.references = object.content;
    frame.count = object.count;
    frame.dictionary = object.kind == Dictionary;
    // Its references lie within the file, so that the count is bounded by the file's size.
    if (frame.dictionary) frame.entries.reserve(object.count);
    if (!frame.dictionary) frame.array.reserve(object.count);
    return true;
  }

  std::span<const std::uint8_t> bytes_;
  PropertyListBudget budget_;
  PlistValue result_;
  bool isExact_ = true;
  std::vector<Frame> frames_;
  std::array<KnownKey, 16> knownKeys_;   // by their place in the dictionary, modulo the size
  const std::uint8_t* table_ = nullptr;  // also the end of the objects
  std::size_t entryWidth_ = 0;
  std::size_t referenceWidth_ = 0;
  std::uint64_t objectCount_ = 0;
  std::uint64_t root_ = 0;
  Error failure_;
};

}  // namespace

Error ReadBinaryPropertyList(std::span<const std::uint8_t> bytes, PlistReading& out) {
  return BinaryReader(bytes).read(out);
}

}  // namespace quorvel::onlinux
