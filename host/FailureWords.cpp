#include "host/FailureWords.h"

#include <algorithm>
#include <iterator>

#include "host/console/TerminalText.h"

namespace quorvel::host {

namespace {

struct Phrase {
  std::string_view beginning;  // of the message
  std::string_view words;
  bool minor = false;
};

// No beginning is the beginning of a later one.
constexpr Phrase Phrases[] = {
    {"Found regular file at ", "a stray file, not a container"},
    {"Failed to get URLs in container ", "it cannot be read"},
    {"Failed to stat path ", "one of its items cannot be examined"},
    {"Skipping container with app symlink at ",
     "its app is a symbolic link, which is not followed"},
    {"VPN plugin was symlink; ", "its VPN plug-in is a symbolic link, which is not followed"},
    {"Migration marker was symlink; ", "its marker is a symbolic link, which is not followed"},
    {"Could not get identifier for bundle at ", "its app has no readable identifier"},
    {"No app or vpn bundle found in container ", "it holds no usable bundle"},
    {"Failed to load migration marker file from ", "its marker is damaged"},
    {"Failed to get bundle path from migration marker", "its marker lacks the bundle's path"},
    {"Failed to get container type from migration marker", "its marker lacks the container's type"},
    {"Failed to get container path from migration marker", "its marker lacks the container's path"},
    {"Failed to get container bundle ID from migration", "its marker lacks the identifier"},
    {"Second bundle path was not a string", "its marker's second bundle path is no text"},
    {"Failed to write out container marker", "its marker could not be written", true},
    {"Failed to create icon from bundle ", "no icon for its placeholder", true},
    {"GXImageDestination", "no icon for its placeholder", true},
    {"Failed to write image data to ", "no icon for its placeholder", true},
    {"Writing placeholder icon for app ", "no icon for its placeholder", true},
    {"Failed to create staged placeholder directory", "its placeholder could not be staged"},
    {"Failed to create PKBundle for ", "its bundle cannot be opened"},
    {"Failed to get bundle info dictionary for ", "its bundle has no readable info dictionary"},
    {"Failed to write placeholder Info.plist", "its placeholder could not be written"},
    {"Failed to install placeholder for ", "the registry refused its placeholder"},
    {"Failed to get bundle proxy for ",
     "the registry has no record of it (migration-host register adds one)"},
    {"Failed to get data container URL for ", "the registry has no data container for it"},
    {"Proxy ", "the registry's record is incomplete", true},
    {"Failed to move bundle from ", "its bundle could not be staged"},
    {"Failed to move vpn bundle from ", "its VPN plug-in could not be staged"},
    {"Failed to move app metadata from ", "its store metadata could not be staged"},
    {"Failed to install ", "the registry refused its bundle"},
    {"Failed to get group container URLs for ", "the registry cannot tell its group containers"},
    {"Missing source group container at ", "a group container of it is missing"},
    {"Failed to get all urls in source group", "a group container of it cannot be read"},
    {"Failed to move item ", "an item of a group container could not be moved and stays there"},
    {"Failed to remove old group container at ", "an emptied group container could not be removed"},
    {"Failed to enumerate container ", "it cannot be read"},
    {"Found missed items in ", "it holds items that no step moves"},
    {"Failed to remove container ", "it could not be removed"},
    {"Failed to migrate safe harbor for ", "a safe harbor could not be registered"},
    {"Failed to get harbor ", "an entry of the harbor map is damaged"},
    {"Identifier in harbor map was not string", "an entry of the harbor map is damaged"},
    {"Failed to load existing harbor map from ", "the harbor map cannot be read"},
    {"Failed to update container data protection",
     "data protection could not be updated (migration-host registry may tell why)"},
    {"Failed to determine if any items were", "the legacy directory cannot be read"},
    {"Failed to get items at ", "the legacy directory cannot be read"},
    {"Not removing ", "items remain in the legacy directory"},
    {"Failed to read ", "its store metadata cannot be read"},
    {"Failed to create ", "a staging directory could not be created"},
    {"Failed to move ", "its data could not be moved"},
    {"Failed to remove ", "something could not be removed"},
    {"Returning migration failed.", "the migration failed", true},
};

// A quoted text, from behind its opening quote up to the closing one, with its escapes undone.
std::string Unquoted(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size() && text[i] != '"'; ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) ++i;
    out += text[i];
  }
  return out;
}

// What the failure's own record says: its description, where the message shows the record.
std::string Cause(std::string_view message) {
  static constexpr std::string_view key = "LocalizedDescription = \"";
  const auto at = message.find(key);
  return at == std::string_view::npos ? std::string() : Unquoted(message.substr(at + key.size()));
}

// What follows the first colon after the container's names: the list of missed items.
std::string MissedItems(std::string_view message) {
  const auto at = message.rfind(": ");
  return at == std::string_view::npos ? std::string() : std::string(message.substr(at + 2));
}

// "... for <harbor> : <what is known of the cause>", which for a harbor is nothing.
std::string WhichHarbor(std::string_view message) {
  static constexpr std::string_view key = " for ";
  const auto at = message.find(key);
  if (at == std::string_view::npos) return {};
  message.remove_prefix(at + key.size());
  return std::string(message.substr(0, message.find(" : ")));
}

// What the message has beside its phrase that a person needs to know.
std::string Detail(std::string_view message, const Phrase& phrase) {
  if (message.starts_with("Found missed items in ")) return MissedItems(message);
  if (message.starts_with("Missing source group ")) {
    return std::string(message.substr(phrase.beginning.size()));
  }
  if (phrase.words.find("harbor") != std::string_view::npos) return WhichHarbor(message);
  return Cause(message);
}

// "Installation of %@ failed with Quorvel error %@ (%@ : %@)": description, name, detail.
std::string RefusalByName(std::string_view message) {
  static constexpr std::string_view key = " failed with Quorvel error ";
  const auto at = message.find(key);
  return at == std::string_view::npos ? std::string()
                                      : std::string(message.substr(at + key.size()));
}

}  // namespace

FailureWords InWords(std::string_view message) {
  if (message.starts_with("Installation of ")) {
    return {"the registry refused its bundle: " + Printable(RefusalByName(message)), false};
  }
  const auto* phrase = std::find_if(
      std::begin(Phrases), std::end(Phrases),
      [message](const Phrase& candidate) { return message.starts_with(candidate.beginning); });
  if (phrase == std::end(Phrases)) return {Printable(message), false};
  const std::string cause = Detail(message, *phrase);
  std::string words(phrase->words);
  if (!cause.empty()) words += ": " + Printable(cause);
  return {std::move(words), phrase->minor};
}

}  // namespace quorvel::host
