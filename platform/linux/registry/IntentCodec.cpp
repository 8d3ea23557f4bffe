// Fields with their lengths in front, refused whole when they do not add up.
#include "platform/linux/registry/IntentCodec.h"

#include <charconv>
#include <cstddef>
#include <optional>

namespace quorvel::onlinux {
namespace {

using Fields = std::vector<std::string>;

// An optional text: absent is empty, present begins with "=".
std::string FromOptional(const std::optional<std::string>& text) {
  return text ? "=" + *text : std::string();
}

std::optional<std::string> ToOptional(const std::string& field) {
  if (field.empty()) return std::nullopt;
  return field.substr(1);
}

std::string EncodeStep(const InstallStep& step) {
  return EncodeFields({std::to_string(static_cast<int>(step.kind)), step.cleanup ? "1" : "0",
                       step.identifier, step.source, step.target, step.data});
}

bool DecodeStep(const std::string& encoded, InstallStep* step) {
  Fields fields;
  if (!DecodeFields(encoded, &fields) || fields.size() != 6) return false;
  int kind = -1;
  std::from_chars(fields[0].data(), fields[0].data() + fields[0].size(), kind);
  if (kind < 0 || kind > static_cast<int>(InstallStep::Kind::removeStaging)) return false;
  *step = {static_cast<InstallStep::Kind>(kind),
           fields[1] == "1",
           fields[2],
           fields[3],
           fields[4],
           fields[5]};
  return true;
}

std::string EncodeRecord(const AppRecord& record) {
  return EncodeFields(
      {record.identifier, record.type, record.version, FromOptional(record.bundleContainer),
       record.bundleName, FromOptional(record.dataContainer), EncodeFields(record.groups),
       record.placeholder ? "1" : "0", record.staging, record.obsolete ? "1" : "0"});
}

bool DecodeRecord(const std::string& encoded, AppRecord* record) {
  Fields fields;
  if (!DecodeFields(encoded, &fields) || fields.size() != 10) return false;
  *record = {fields[0], fields[1],
             fields[2], ToOptional(fields[3]),
             fields[4], ToOptional(fields[5]),
             {},        fields[7] == "1",
             fields[8], fields[9] == "1"};
  return DecodeFields(fields[6], &record->groups);
}

}  // namespace

std::string EncodeFields(const Fields& fields) {
  std::string encoded;
  for (const std::string& field : fields) {
    encoded += std::to_string(field.size());
    encoded += ':';
    encoded += field;
  }
  return encoded;
}

bool DecodeFields(std::string_view encoded, Fields* fields) {
  fields->clear();
  while (!encoded.empty()) {
    std::size_t size = 0;
    const auto [end, failure] =
        std::from_chars(encoded.data(), encoded.data() + encoded.size(), size);
    if (failure != std::errc()) return false;
    encoded.remove_prefix(static_cast<std::size_t>(end - encoded.data()));
    if (encoded.empty() || encoded[0] != ':' || encoded.size() - 1 < size) return false;
    fields->emplace_back(encoded.substr(1, size));
    encoded.remove_prefix(1 + size);
  }
  return true;
}

std::string EncodeIntent(const InstallIntent& intent) {
  Fields steps;
  for (const InstallStep& step : intent.steps) steps.push_back(EncodeStep(step));
  Fields records;
  for (const AppRecord& record : intent.records) records.push_back(EncodeRecord(record));
  return EncodeFields({EncodeFields(steps), EncodeFields(records)});
}

bool DecodeIntent(std::string_view encoded, InstallIntent* intent) {
  Fields parts;
  Fields steps;
  Fields records;
  if (!DecodeFields(encoded, &parts) || parts.size() != 2 || !DecodeFields(parts[0], &steps) ||
      !DecodeFields(parts[1], &records)) {
    return false;
  }
  for (const std::string& step : steps) {
    if (!DecodeStep(step, &intent->steps.emplace_back())) return false;
  }
  for (const std::string& record : records) {
    if (!DecodeRecord(record, &intent->records.emplace_back())) return false;
  }
  return true;
}

}  // namespace quorvel::onlinux
