// Numbers objects, writes each distinct one once, then the offset table.
#include <bit>
#include <functional>
#include <string_view>

#include "platform/FileSystemRepresentation.h"
#include "platform/linux/plist/BinaryPropertyListFormat.h"
#include "platform/linux/plist/PropertyListBudget.h"
#include "platform/linux/plist/PropertyListEncodings.h"
#include "platform/linux/plist/PropertyListText.h"

namespace quorvel::onlinux {

namespace {

using namespace binary;

// One object of the file to be.
struct NewObject {
  PlistKind kind = PlistKind::boolean;
  bool large = false;            // of integers: 2^63 or above
  std::uint16_t depth = 0;       // of containers: how many are around it, and itself
  const void* source = nullptr;  // bytes, PlistArray or PlistDictionary
  // The bits of a number, the count of bytes, or where a container's references begin; once it
  // is written, the object's offset.
  std::uint64_t number = 0;

  std::string_view bytes() const { return {static_cast<const char*>(source), number}; }
  friend bool operator==(const NewObject& a, const NewObject& b) {
    if (a.kind != b.kind || a.large != b.large || a.number != b.number) return false;
    return a.source == nullptr || a.bytes() == b.bytes();
  }
};

// Numbers the objects so that equal scalars share one number, if they are to. Probing stops after a
// few slots and then gives a new number: text chosen to collide costs space, not time.
class ScalarNumbers {
 public:
  explicit ScalarNumbers(bool share) : share_(share) {}

  // The number of an equal object; otherwise the object is appended to the list.
  std::uint32_t numberOf(const NewObject& object, std::vector<NewObject>& objects) {
    const auto fresh = static_cast<std::uint32_t>(objects.size());
    // At most half full, so that free slots end most probes.
    if (share_ && 2 * used_ >= slots_.size()) grow();
    const std::uint32_t hash = share_ ? hashOf(object) : 0;
    for (std::size_t probe = 0; share_ && probe < kMaximalProbes; ++probe) {
      Slot& slot = slots_[(hash + probe) & (slots_.size() - 1)];
      if (slot.next == 0) {
        slot = {hash, fresh + 1};
        ++used_;
        break;
      }
      if (slot.hash == hash && objects[slot.next - 1] == object) return slot.next - 1;
    }
    objects.push_back(object);
    return fresh;
  }

 private:
  static constexpr std::size_t kMaximalProbes = 32;
  struct Slot {
    std::uint32_t hash = 0;
    std::uint32_t next = 0;  // the object's number plus one; 0 is a free slot
  };

  static std::uint32_t hashOf(const NewObject& object) {
    const std::uint64_t content =
        object.source != nullptr ? std::hash<std::string_view>()(object.bytes()) : object.number;
    // A multiplication by an odd number without pattern spreads numbers that lie close together.
    return static_cast<std::uint32_t>(
        (content + static_cast<unsigned>(object.kind)) * 0x9E3779B97F4A7C15U >> 32U);
  }

  // Here probing goes on to a free slot: what lands too far away is not found again and costs a
  // second copy of the object, nothing else.
  void grow() {
    std::vector<Slot> previous(slots_.empty() ? 64 : 2 * slots_.size());
    previous.swap(slots_);
    for (const Slot& slot : previous) {
      if (slot.next == 0) continue;
      std::size_t at = slot.hash;
      while (slots_[at & (slots_.size() - 1)].next != 0) ++at;
      slots_[at & (slots_.size() - 1)] = slot;
    }
  }

  const bool share_;
  std::vector<Slot> slots_;
  std::size_t used_ = 0;
};

// 1, 2, 4 or 8 bytes, the widths that integer objects have.
std::size_t WidthFor(std::uint64_t largest) {
  std::size_t width = 1;
  while (width < 8 && largest >> (8 * width) != 0) width *= 2;
  return width;
}

// The UTF-16 form of valid UTF-8.
std::u16string Utf16(std::string_view text) {
  std::u16string units;
  units.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = encoding_detail::Utf8SequenceLength(text);
    const auto bits = [&](std::size_t i, unsigned mask) {
      return static_cast<std::uint32_t>(static_cast<unsigned char>(text[i]) & mask);
    };
    // A lead byte has as many leading ones as its sequence has bytes, and then a zero; the rest
    // belongs to the character.
    std::uint32_t point = length == 1 ? bits(0, 0x7F) : bits(0, 0xFFU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) point = point << 6U | bits(i, 0x3F);
    if (point >= 0x10000) {
      units += static_cast<char16_t>(0xD800U + ((point - 0x10000U) >> 10U));
      point = 0xDC00U + (point & 0x3FFU);
    }
    units += static_cast<char16_t>(point);
    text.remove_prefix(length);
  }
  return units;
}

class BinaryWriter {
 public:
  BinaryWriter(std::vector<std::uint8_t>& out, bool share) : out_(out), scalars_(share) {}

  std::string write(const PlistValue& root) {
    if (!collect(root)) return reason_;
    constexpr std::string_view magic = "bplist00";
    out_.insert(out_.end(), magic.begin(), magic.end());
    // The largest reference is the last object's number.
    referenceWidth_ = WidthFor(objects_.size() - 1);
    for (NewObject& object : objects_) {
      const std::uint64_t offset = out_.size();
      writeObject(object);
      object.number = offset;
    }
    writeTable();
    return reason_;
  }

  // Whether a reader that bounds what it makes of a file would take what was written.
  bool isReadable() const { return PropertyListBudget(out_.size()).take(nodes_, content_); }

 private:
  bool fail(const char* reason) {
    if (reason_.empty()) reason_ = reason;
    return false;
  }

  // Numbers all objects, breadth first: the list of objects is also the queue of containers
  // whose children are still to be numbered. So the depth of a value costs no stack.
  bool collect(const PlistValue& root) {
    if (!number(root, 0)) return false;
    for (std::size_t i = 0; i < objects_.size(); ++i) {
      // Containers keep their children's numbers side by side, from here on.
      const NewObject object = objects_[i];  // a copy: the list grows
      const bool array = object.kind == PlistKind::array;
      if (!array && object.kind != PlistKind::dictionary) continue;
      objects_[i].number = references_.size();
      if (!(array ? collectArray(object) : collectDictionary(object))) return false;
    }
    return true;
  }

  bool collectArray(const NewObject& object) {
    for (const PlistValue& member : *static_cast<const PlistArray*>(object.source)) {
      if (!number(member, object.depth)) return false;
    }
    return true;
  }

  bool collectDictionary(const NewObject& object) {
    const auto& dictionary = *static_cast<const PlistDictionary*>(object.source);
    // All keys first, then all values: the order of the file format.
    for (const PlistEntry& entry : dictionary) {
      if (!numberString(entry.key)) return false;
    }
    for (const PlistEntry& entry : dictionary) {
      if (!number(entry.value, object.depth)) return false;
    }
    return true;
  }

  // Appends a reference to the value, numbering it if it is new.
  bool number(const PlistValue& value, unsigned depth) {
    if (++nodes_ > PropertyListNodeLimit) return fail("too many values");
    NewObject object;
    object.kind = value.kind();
    switch (object.kind) {
      case PlistKind::boolean:
        object.number = *value.boolean() ? 1 : 0;
        break;
      case PlistKind::integer:
        object.large = value.largeInteger() != nullptr;
        object.number = object.large ? *value.largeInteger()
                                     : static_cast<std::uint64_t>(*value.signedInteger());
        break;
      case PlistKind::real:
        object.number = std::bit_cast<std::uint64_t>(*value.real());
        break;
      case PlistKind::date:
        object.number = std::bit_cast<std::uint64_t>(value.date()->seconds);
        break;
      case PlistKind::string:
        return numberString(*value.string());
      case PlistKind::data:
        return numberBytes(object, value.data()->data(), value.data()->size());
      case PlistKind::array:
        return numberContainer(object, value.array(), depth);
      case PlistKind::dictionary:
        return numberContainer(object, value.dictionary(), depth);
      case PlistKind::set:
        return fail("a set");
    }
    references_.push_back(scalars_.numberOf(object, objects_));
    return true;
  }

  bool numberString(const std::string& text) {
    if (!IsAscii(text) && !IsUtf8(text)) return fail("a text that is not in UTF-8");
    NewObject object;
    object.kind = PlistKind::string;
    return numberBytes(object, text.data(), text.size());
  }

  bool numberBytes(NewObject object, const void* bytes, std::size_t count) {
    // Empty texts and data still need a source, which tells them from numbers.
    static constexpr char nothing = 0;
    object.source = count != 0 ? bytes : &nothing;
    object.number = count;
    const std::size_t before = objects_.size();
    references_.push_back(scalars_.numberOf(object, objects_));
    content_ += count;
    // A new object: its bytes will be written.
    if (objects_.size() != before) written_ += count;
    return (written_ <= PropertyListSizeLimit && references_.size() <= PropertyListSizeLimit) ||
           fail("it is too large");
  }

  bool numberContainer(NewObject object, const void* source, unsigned depth) {
    if (depth == PropertyListDepthLimit) return fail("nested too deeply");
    object.source = source;
    object.depth = static_cast<std::uint16_t>(depth + 1);
    references_.push_back(static_cast<std::uint32_t>(objects_.size()));
    objects_.push_back(object);
    return true;
  }

  void writeObject(const NewObject& object) {
    switch (object.kind) {
      case PlistKind::boolean:
        return append(object.number != 0 ? True : False, 1);
      case PlistKind::integer:
        return writeInteger(object.number, object.large);
      case PlistKind::real:
        append(Real << 4U | 3U, 1);
        return append(object.number, 8);
      case PlistKind::date:
        append(DateMarker, 1);
        return append(object.number, 8);
      case PlistKind::string:
        return writeString(object.bytes());
      case PlistKind::data:
        writeMarker(Data, object.number);
        return appendBytes(object.bytes());
      case PlistKind::array: {
        const std::size_t count = static_cast<const PlistArray*>(object.source)->size();
        writeMarker(Array, count);
        return writeReferences(object.number, count);
      }
      case PlistKind::dictionary: {
        const std::size_t count = static_cast<const PlistDictionary*>(object.source)->size();
        writeMarker(Dictionary, count);
        return writeReferences(object.number, 2 * count);
      }
      case PlistKind::set:
        return;  // refused when it was numbered
    }
  }

  // Up to 4 bytes are unsigned, 8 are signed, and what is above those takes 16. A negative number
  // has its highest bits set and thus takes 8 bytes by itself.
  void writeInteger(std::uint64_t number, bool large) {
    const std::size_t width = WidthFor(number);
    append(Integer << 4U | (large ? 4U : static_cast<unsigned>(std::countr_zero(width))), 1);
    if (large) append(0, 8);
    append(number, width);
  }

  void writeString(std::string_view text) {
    if (IsAscii(text)) {
      writeMarker(AsciiString, text.size());
      return appendBytes(text);
    }
    const std::u16string units = Utf16(text);
    writeMarker(Utf16String, units.size());
    for (const char16_t unit : units) append(unit, 2);
  }

  void writeMarker(unsigned kind, std::uint64_t count) {
    // Small counts are part of the marker.
    append(kind << 4U | (count < CountFollows ? static_cast<unsigned>(count) : CountFollows), 1);
    if (count >= CountFollows) writeInteger(count, false);
  }

  void writeReferences(std::uint64_t first, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) append(references_[first + i], referenceWidth_);
  }

  void writeTable() {
    const std::uint64_t tableOffset = out_.size();
    // Every object lies before the table: no offset is larger.
    const std::size_t width = WidthFor(tableOffset);
    for (const NewObject& object : objects_) append(object.number, width);
    // The trailer: six unused bytes, the two widths, count, root and table.
    append(0, 6);
    append(width, 1);
    append(referenceWidth_, 1);
    append(objects_.size(), 8);
    append(0, 8);  // the root is the first object
    append(tableOffset, 8);
  }

  // The number in big-endian bytes.
  void append(std::uint64_t number, std::size_t width) {
    std::uint8_t bytes[8];
    for (std::size_t i = width; i-- > 0; number >>= 8U) {
      bytes[i] = static_cast<std::uint8_t>(number);
    }
    out_.insert(out_.end(), bytes, bytes + width);
  }

  void appendBytes(std::string_view bytes) { out_.insert(out_.end(), bytes.begin(), bytes.end()); }

  std::vector<std::uint8_t>& out_;
  std::vector<NewObject> objects_;
  std::vector<std::uint32_t> references_;  // those of each container side by side
  ScalarNumbers scalars_;
  std::size_t nodes_ = 0;
  std::size_t content_ = 0;  // bytes of text and data in the value
  std::size_t written_ = 0;  // the same, each distinct one once
  std::size_t referenceWidth_ = 1;
  std::string reason_;
};

}  // namespace

std::string WriteBinaryPropertyList(const PlistValue& value, std::vector<std::uint8_t>& out) {
  BinaryWriter sharing(out, true);
  std::string reason = sharing.write(value);
  if (!reason.empty() || sharing.isReadable()) return reason;
  // Much content that repeats: written as often as it occurs, the file is as large as the value.
  out.clear();
  return BinaryWriter(out, false).write(value);
}

}  // namespace quorvel::onlinux
