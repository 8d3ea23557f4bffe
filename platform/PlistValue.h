// A property-list value: the data model that every stored file of the system shares.
//
// Values are plain data. They own what they hold, are copied deeply, are compared exactly
// and may be used from any thread under the usual rules for values.
//
// Everything is defined in this header, so that programs, the plug-in and the platform's services
// can pass values to one another without sharing a library for them. Nothing is thrown but
// std::bad_alloc. Destruction, copies and comparisons recurse as deep as a value nests, so that
// whoever builds a value from input bounds its depth.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace quorvel {

class PlistValue;
// Values hold dictionaries and dictionaries hold entries: declared here, defined at the end.
struct PlistEntry;

// Members in their order, of any kinds. Arrays are equal when all members are, pairwise.
using PlistArray = std::vector<PlistValue>;
// Bytes without an interpretation.
using PlistData = std::vector<std::uint8_t>;

// A point in time, in seconds since 2001-01-01 00:00:00 UTC. Fractions and dates before that are as
// good as any. The binary encoding keeps every bit of it, XML whole seconds only.
struct PlistDate {
  double seconds = 0;
};

// An unordered collection. It exists in memory only: no property-list file holds one. Its members
// keep the order in which they were given, which means nothing. Writers refuse it.
struct PlistSet {
  PlistArray members;
};

// A dictionary with string keys, kept sorted by key (bytewise), each key once.
// Lookup is O(log n). set() at the end of the order is O(1), elsewhere O(n): a reader of many
// entries collects them and calls fromEntries(). The entries lie in one vector: the few keys of a
// usual file need no tree, and the order makes writers write the same bytes for equal values. Keys
// are compared bytewise, without regard to Unicode's equivalences: two spellings of one character
// are two keys.
class PlistDictionary {
 public:
  // Defined below, where an entry is a complete type. The list form takes entries as fromEntries()
  // does.
  PlistDictionary();
  PlistDictionary(const PlistDictionary&);
  PlistDictionary(PlistDictionary&&) noexcept;
  PlistDictionary& operator=(const PlistDictionary&);
  PlistDictionary& operator=(PlistDictionary&&) noexcept;
  ~PlistDictionary();
  PlistDictionary(std::initializer_list<PlistEntry> entries);

  // Takes entries in any order. Of entries with one key the last one given wins. Takes O(n) when
  // they are in order, O(n log n) otherwise.
  static PlistDictionary fromEntries(std::vector<PlistEntry> entries);

  // The value under the key, or null. Valid until the dictionary changes.
  const PlistValue* find(std::string_view key) const;
  // The string under the key; null when there is none or it is of another kind. Valid until the
  // dictionary changes.
  const std::string* findString(std::string_view key) const;
  // Stores the value, replacing an earlier one. Pointers into the dictionary that were got before
  // are not valid any more, as after every change.
  void set(std::string_view key, PlistValue value);
  // Whether there was an entry to remove. The rest keeps its order. O(n).
  bool erase(std::string_view key);

  std::size_t size() const;
  bool empty() const { return size() == 0; }
  // All entries, for callers that count or walk by position.
  const std::vector<PlistEntry>& entries() const { return entries_; }
  // In the order of the keys.
  const PlistEntry* begin() const;
  const PlistEntry* end() const;

  // Number of entries whose keys are no strings. Only a reader that was asked to tolerate a
  // damaged file sets it; such entries are counted, not kept. It is no part of the value: it does
  // not count for equality, and writers do not write it. A copy has it too.
  std::size_t foreignKeyCount() const { return foreignKeyCount_; }
  void setForeignKeyCount(std::size_t count) { foreignKeyCount_ = count; }

  friend bool operator==(const PlistDictionary& a, const PlistDictionary& b);

 private:
  // Where the key is, or would be inserted.
  std::vector<PlistEntry>::const_iterator position(std::string_view key) const;

  std::vector<PlistEntry> entries_;
  std::size_t foreignKeyCount_ = 0;
};

// In the order in which readers and writers name them; nothing depends on the numbers. A switch
// over them names each one, so that a kind that is added is noticed by the compiler.
enum class PlistKind { boolean, integer, real, string, data, date, array, dictionary, set };

// One value. Booleans, integers and reals are different kinds and never equal one another, but
// all three count as numbers. Integers span -2^63 to 2^64-1. A value of default making is the
// boolean false. The constructors are not explicit: a dictionary's literal names keys and plain C++
// values. A pointer other than to text converts to nothing here, and in particular not to a
// boolean.
class PlistValue {
 public:
  PlistValue() : PlistValue(false) {}
  // Boolean and integer types are taken exactly; no other type converts to them.
  template <class T>
  requires std::is_arithmetic_v<T> PlistValue(T number) : storage_(fromNumber(number)) {}
  // Texts are bytes to a value; whether they are UTF-8 is asked by the writers. The pointer is
  // neither null nor kept.
  PlistValue(const char* text) : storage_(std::string(text)) {}
  PlistValue(std::string_view text) : storage_(std::string(text)) {}
  PlistValue(std::string text) : storage_(std::move(text)) {}
  PlistValue(PlistData data) : storage_(std::move(data)) {}
  PlistValue(PlistDate date) : storage_(date) {}
  PlistValue(PlistArray array) : storage_(std::move(array)) {}
  PlistValue(PlistDictionary dictionary) : storage_(std::move(dictionary)) {}
  PlistValue(PlistSet set) : storage_(std::move(set)) {}

  // The kind, with the two ways of holding an integer as one.
  PlistKind kind() const;
  bool isNumber() const { return storage_.index() <= 3; }

  // Each is null when the value is of another kind.
  // Integers are not booleans here, nor the other way round. All of these pointers lead into the
  // value and are good until it changes or goes.
  const bool* boolean() const { return std::get_if<bool>(&storage_); }
  // Also of a number that is whole, as long as it was stored as a real.
  const double* real() const { return std::get_if<double>(&storage_); }
  const std::string* string() const { return std::get_if<std::string>(&storage_); }
  const PlistData* data() const { return std::get_if<PlistData>(&storage_); }
  const PlistDate* date() const { return std::get_if<PlistDate>(&storage_); }
  const PlistArray* array() const { return std::get_if<PlistArray>(&storage_); }
  PlistArray* array() { return std::get_if<PlistArray>(&storage_); }
  const PlistDictionary* dictionary() const { return std::get_if<PlistDictionary>(&storage_); }
  PlistDictionary* dictionary() { return std::get_if<PlistDictionary>(&storage_); }
  const PlistSet* set() const { return std::get_if<PlistSet>(&storage_); }

  // The integer as signed; null for other kinds and for integers of 2^63 and above.
  const std::int64_t* signedInteger() const { return std::get_if<std::int64_t>(&storage_); }
  // The integer, only when it is 2^63 or above: smaller ones are held signed.
  const std::uint64_t* largeInteger() const { return std::get_if<std::uint64_t>(&storage_); }

  friend bool operator==(const PlistValue& a, const PlistValue& b);

 private:
  // Order matters: the first four alternatives are the numbers (isNumber()). The order is that of
  // the table in kind(), too.
  using Storage = std::variant<bool, std::int64_t, std::uint64_t, double, std::string, PlistData,
                               PlistDate, PlistArray, PlistDictionary, PlistSet>;

  template <class T>
  // Unsigned integers that fit are held signed, so that one number has one form.
  static Storage fromNumber(T number) {
    if constexpr (std::is_same_v<T, bool>) {
      return number;
    } else if constexpr (std::is_floating_point_v<T>) {
      return static_cast<double>(number);
    } else if constexpr (std::is_signed_v<T>) {
      return static_cast<std::int64_t>(number);
    } else {
      const auto wide = static_cast<std::uint64_t>(number);
      if (wide <= static_cast<std::uint64_t>(INT64_MAX)) return static_cast<std::int64_t>(wide);
      return wide;
    }
  }

  Storage storage_;
};

// Ordered by key in a dictionary; the value may be of any kind. Whoever makes entries makes a
// dictionary of them; a key is unique only there.
struct PlistEntry {
  std::string key;
  PlistValue value;
  friend bool operator==(const PlistEntry&, const PlistEntry&) = default;
};

// Dates and reals are compared by their bits: what was read and what is written again are equal
// exactly when no bit was lost. So a not-a-number equals itself, and the two zeros differ.
inline bool operator==(PlistDate a, PlistDate b) {
  return std::bit_cast<std::uint64_t>(a.seconds) == std::bit_cast<std::uint64_t>(b.seconds);
}

// Sets are equal when each member of one is in the other as often; they are small. Takes quadratic
// time.
inline bool operator==(const PlistSet& a, const PlistSet& b) {
  return std::is_permutation(a.members.begin(), a.members.end(), b.members.begin(),
                             b.members.end());
}

// Both are sorted, so that the order in which entries were added does not matter.
inline bool operator==(const PlistDictionary& a, const PlistDictionary& b) {
  return a.entries_ == b.entries_;
}

// Of different kinds is never equal, whatever the numbers.
inline bool operator==(const PlistValue& a, const PlistValue& b) {
  if (const double* left = a.real()) {
    const double* right = b.real();
    return right != nullptr &&
           std::bit_cast<std::uint64_t>(*left) == std::bit_cast<std::uint64_t>(*right);
  }
  return a.storage_ == b.storage_;
}

// The two integer alternatives are one kind.
inline PlistKind PlistValue::kind() const {
  static constexpr PlistKind kinds[] = {
      PlistKind::boolean,    PlistKind::integer, PlistKind::integer, PlistKind::real,
      PlistKind::string,     PlistKind::data,    PlistKind::date,    PlistKind::array,
      PlistKind::dictionary, PlistKind::set};
  return kinds[storage_.index()];
}

inline PlistDictionary::PlistDictionary() = default;
inline PlistDictionary::PlistDictionary(const PlistDictionary&) = default;
inline PlistDictionary::PlistDictionary(PlistDictionary&&) noexcept = default;
inline PlistDictionary& PlistDictionary::operator=(const PlistDictionary&) = default;
inline PlistDictionary& PlistDictionary::operator=(PlistDictionary&&) noexcept = default;
inline PlistDictionary::~PlistDictionary() = default;
inline PlistDictionary::PlistDictionary(std::initializer_list<PlistEntry> entries)
    : PlistDictionary(fromEntries(std::vector<PlistEntry>(entries))) {}

// Stable sorting keeps entries of one key in the order in which they were given, which says which
// of them was the last.
inline PlistDictionary PlistDictionary::fromEntries(std::vector<PlistEntry> entries) {
  const auto byKey = [](const PlistEntry& a, const PlistEntry& b) { return a.key < b.key; };
  // Most callers bring them in order, and then nothing is moved.
  const auto outOfOrder = [](const PlistEntry& a, const PlistEntry& b) { return b.key <= a.key; };
  if (std::adjacent_find(entries.begin(), entries.end(), outOfOrder) != entries.end()) {
    std::stable_sort(entries.begin(), entries.end(), byKey);
    // Keep the last of each run of one key: compare from the back, where the last comes first.
    const auto keptFromBack =
        std::unique(entries.rbegin(), entries.rend(),
                    [](const PlistEntry& a, const PlistEntry& b) { return a.key == b.key; });
    entries.erase(entries.begin(), keptFromBack.base());
  }
  PlistDictionary result;
  result.entries_ = std::move(entries);
  return result;
}

// Pointers serve as iterators. Those of an empty vector may be null: adding 0 to null is defined in
// C++.
inline const PlistEntry* PlistDictionary::begin() const { return entries_.data(); }
inline const PlistEntry* PlistDictionary::end() const { return entries_.data() + entries_.size(); }
inline std::size_t PlistDictionary::size() const { return entries_.size(); }

// The first entry that is not less than the key.
inline std::vector<PlistEntry>::const_iterator PlistDictionary::position(
    std::string_view key) const {
  return std::lower_bound(
      entries_.begin(), entries_.end(), key,
      [](const PlistEntry& entry, std::string_view wanted) { return entry.key < wanted; });
}

inline const PlistValue* PlistDictionary::find(std::string_view key) const {
  const auto at = position(key);
  return at != entries_.end() && at->key == key ? &at->value : nullptr;
}

inline const std::string* PlistDictionary::findString(std::string_view key) const {
  const PlistValue* value = find(key);
  return value != nullptr ? value->string() : nullptr;
}

inline void PlistDictionary::set(std::string_view key, PlistValue value) {
  const auto at = entries_.begin() + (position(key) - entries_.cbegin());
  if (at != entries_.end() && at->key == key) {
    at->value = std::move(value);
  } else {
    entries_.insert(at, PlistEntry{std::string(key), std::move(value)});
  }
}

inline bool PlistDictionary::erase(std::string_view key) {
  const auto at = position(key);
  if (at == entries_.end() || at->key != key) return false;
  entries_.erase(at);
  return true;
}

}  // namespace quorvel
