// Names each structure's fields once, for writing and reading; refuses whole what does not add up.
#include "platform/linux/registry/IntentCodec.h"

#include <array>
#include <charconv>
#include <cstddef>
#include <optional>
#include <tuple>
#include <utility>

namespace quorvel::onlinux {
namespace {

constexpr auto kStepFields =
    std::tuple(&InstallStep::kind, &InstallStep::cleanup, &InstallStep::identifier,
               &InstallStep::source, &InstallStep::target, &InstallStep::data);
constexpr auto kRecordFields = std::tuple(
    &AppRecord::identifier, &AppRecord::type, &AppRecord::version, &AppRecord::bundleContainer,
    &AppRecord::bundleName, &AppRecord::dataContainer, &AppRecord::groups, &AppRecord::placeholder,
    &AppRecord::staging, &AppRecord::obsolete);

// Adds values, each as one field, to a text.
class Writer {
 public:
  // Mostly an intent has about this size.
  Writer() { text_.reserve(1024); }

  std::string take() { return std::move(text_); }

  // "<length>:<bytes>": any bytes may stand in a field, and none needs an escape.
  void put(std::string_view text) {
    putLength(text_.size(), text.size());
    text_ += text;
  }
  void put(const std::string& text) { put(std::string_view(text)); }
  void put(bool value) { put(std::string_view(value ? "1" : "0")); }
  void put(InstallStep::Kind kind) { put(std::to_string(static_cast<int>(kind))); }
  // Absent is empty, present begins with "=".
  void put(const std::optional<std::string>& text) { put(text ? "=" + *text : std::string()); }
  void put(const AppRecord& record) { putFields(record, kRecordFields); }
  void put(const InstallStep& step) { putFields(step, kStepFields); }
  template <class Value>
  void put(const std::vector<Value>& list) {
    const std::size_t start = text_.size();
    for (const Value& value : list) put(value);
    putLength(start, text_.size() - start);
  }

 private:
  // A field that consists of fields is written in its place, and its length then put before it.
  template <class Structure, class Fields>
  void putFields(const Structure& value, const Fields& fields) {
    const std::size_t start = text_.size();
    std::apply([&](auto... field) { (put(value.*field), ...); }, fields);
    putLength(start, text_.size() - start);
  }
  void putLength(std::size_t position, std::size_t length) {
    std::array<char, 21> digits;  // as many as a size may have, and the colon
    char* const end = std::to_chars(digits.data(), digits.data() + 20, length).ptr;
    *end = ':';
    text_.insert(position, digits.data(), static_cast<std::size_t>(end + 1 - digits.data()));
  }

  std::string text_;
};

// Takes fields from the front; each operation is false when there is no such field.
class Reader {
 public:
  explicit Reader(std::string_view text) : rest_(text) {}
  bool atEnd() const { return rest_.empty(); }

  // The others come down to this: a length in decimal, a colon, so many bytes.
  bool take(std::string_view* text) {
    std::size_t size = 0;
    const auto [end, failure] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), size);
    if (failure != std::errc()) return false;
    rest_.remove_prefix(static_cast<std::size_t>(end - rest_.data()));
    // A length that goes beyond the text is damage, not an invitation.
    if (rest_.empty() || rest_[0] != ':' || rest_.size() - 1 < size) return false;
    *text = rest_.substr(1, size);
    rest_.remove_prefix(1 + size);
    return true;
  }
  bool take(std::string* value) {
    std::string_view text;
    if (!take(&text)) return false;
    value->assign(text);
    return true;
  }
  // Only what put() writes: another text is damage, and an intent is carried out whole or not.
  bool take(bool* value) {
    std::string_view text;
    if (!take(&text)) return false;
    *value = text == "1";
    return *value || text == "0";
  }
  bool take(InstallStep::Kind* kind) {
    std::string_view text;
    int number = -1;
    if (!take(&text)) return false;
    const char* const end = text.data() + text.size();
    if (std::from_chars(text.data(), end, number).ptr != end) return false;
    *kind = static_cast<InstallStep::Kind>(number);
    // A step that this version does not know must not be guessed at.
    return number >= 0 && *kind <= InstallStep::Kind::removeStaging;
  }
  bool take(std::optional<std::string>* value) {
    std::string_view text;
    if (!take(&text)) return false;
    value->reset();
    if (!text.empty()) value->emplace(text.substr(1));
    return text.empty() || text[0] == '=';
  }
  bool take(AppRecord* record) {
    std::string_view text;
    return take(&text) && Reader(text).takeAll(record, kRecordFields);
  }
  // Earlier versions added what removeStaging no longer needs: more fields are no damage.
  bool take(InstallStep* step) {
    std::string_view text;
    return take(&text) && Reader(text).takeAll(step, kStepFields);
  }
  template <class Value>
  bool take(std::vector<Value>* list) {
    std::string_view text;
    return take(&text) && Reader(text).takeRest(list);
  }
  template <class Value>
  bool takeRest(std::vector<Value>* list) {
    list->clear();
    while (!atEnd()) {
      if (!take(&list->emplace_back())) return false;
    }
    return true;
  }

 private:
  template <class Structure, class Fields>
  bool takeAll(Structure* value, const Fields& fields) {
    return std::apply([&](auto... field) { return (take(&(value->*field)) && ...); }, fields);
  }

  std::string_view rest_;
};

}  // namespace

std::string EncodeList(const std::vector<std::string>& texts) {
  Writer writer;
  for (const std::string& text : texts) writer.put(text);
  return writer.take();
}

bool DecodeList(std::string_view encoded, std::vector<std::string>* texts) {
  return Reader(encoded).takeRest(texts);
}

std::string EncodeIntent(const InstallIntent& intent) {
  Writer writer;
  writer.put(intent.steps);
  writer.put(intent.records);
  return writer.take();
}

// Nothing may follow: a text that goes on was written by somebody else.
bool DecodeIntent(std::string_view encoded, InstallIntent* intent) {
  Reader reader(encoded);
  return reader.take(&intent->steps) && reader.take(&intent->records) && reader.atEnd();
}

}  // namespace quorvel::onlinux
