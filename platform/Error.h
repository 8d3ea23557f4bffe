// The record of one failure.
//
// Immutable and cheap to copy; may be handed between threads. A default-made Error holds no
// record. An operation that can fail takes an optional `Error*` and fills it on failure only.
// The service's own code builds records with the constructors of shared/support/Errors.h, which
// add where the failure was reported; platform implementations build theirs here.
//
// Two things are asked of an Error: what it says to a person, description(), and what a program may
// conclude, is() or IsCertainlyUnusable(). The text may change from version to version and is not
// to be compared.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "platform/PlistValue.h"

namespace quorvel {

// Code is an errno value. It is that of the call that failed or, where no call did, the one that
// says best what was found.
inline constexpr const char* PosixErrorDomain = "PosixErrorDomain";
// The platform object framework's own codes.
inline constexpr const char* PlatformErrorDomain = "PlatformErrorDomain";
// PlatformErrorDomain: a whole-file read found no file.
inline constexpr std::int64_t PlatformFileReadNoSuchFileError = 260;
// PlatformErrorDomain: a file is there but is no property list of the wanted shape.
inline constexpr std::int64_t PlatformPropertyListReadCorruptError = 3840;
// PlatformErrorDomain: a value cannot be written in the wanted property-list format.
inline constexpr std::int64_t PlatformPropertyListWriteInvalidError = 3852;

// The platform's userInfo keys: the human-readable text, and the Error that was the cause.
inline constexpr const char* LocalizedDescriptionKey = "LocalizedDescription";
inline constexpr const char* UnderlyingErrorKey = "UnderlyingError";

// A null pointer is the absent error, so that success costs nothing. Copies share one record, which
// lives as long as the last of them. Nothing here throws but std::bad_alloc when a record is made.
class Error {
 public:
  // What may stand beside the code: property-list values, which can be stored and shown, and
  // further Errors.
  using InfoValue = std::variant<PlistValue, Error>;
  using UserInfo = std::map<std::string, InfoValue, std::less<>>;

  Error() = default;
  // A record with these, whatever they are: 0 and "" make a record, too, and not the absent error.
  Error(std::string domain, std::int64_t code, UserInfo userInfo);

  // Whether there is a record: whether something failed. What an operation that succeeded left in
  // an out-parameter is what was in it before.
  explicit operator bool() const { return record_ != nullptr; }

  // Empty, 0 and empty without a record.
  // Which numbering the code belongs to.
  const std::string& domain() const;
  std::int64_t code() const;
  // References stay good as long as this Error or a copy of it exists.
  const UserInfo& userInfo() const;
  // Whether there is a record and it has both.
  bool is(std::string_view domain, std::int64_t code) const;
  // The text under LocalizedDescriptionKey, or "".
  const std::string& description() const;
  // The string under a key of userInfo, or null.
  const std::string* infoString(std::string_view key) const;
  // The Error under UnderlyingErrorKey; one without a record when there is none.
  // Chains are short: an operation adds its own record to the cause's.
  Error underlying() const;

 private:
  struct Record;
  static const Record& none();
  const Record& record() const { return record_ != nullptr ? *record_ : none(); }
  std::shared_ptr<const Record> record_;
};

// Never changed after it was made, which is why threads may share it without a lock.
struct Error::Record {
  std::string domain;
  std::int64_t code = 0;
  UserInfo userInfo;
};

inline Error::Error(std::string domain, std::int64_t code, UserInfo userInfo)
    : record_(
          std::make_shared<const Record>(Record{std::move(domain), code, std::move(userInfo)})) {}

inline const Error::Record& Error::none() {
  static const Record empty;
  return empty;
}

inline const std::string& Error::domain() const { return record().domain; }
inline std::int64_t Error::code() const { return record().code; }
inline const Error::UserInfo& Error::userInfo() const { return record().userInfo; }

inline bool Error::is(std::string_view domain, std::int64_t code) const {
  return record_ != nullptr && record_->domain == domain && record_->code == code;
}

inline const std::string* Error::infoString(std::string_view key) const {
  const auto at = userInfo().find(key);
  if (at == userInfo().end()) return nullptr;
  const auto* value = std::get_if<PlistValue>(&at->second);
  return value != nullptr ? value->string() : nullptr;
}

inline const std::string& Error::description() const {
  static const std::string nothing;
  const std::string* text = infoString(LocalizedDescriptionKey);
  return text != nullptr ? *text : nothing;
}

inline Error Error::underlying() const {
  const auto at = userInfo().find(UnderlyingErrorKey);
  if (at == userInfo().end()) return {};
  const auto* cause = std::get_if<Error>(&at->second);
  return cause != nullptr ? *cause : Error();
}

namespace error_detail {
// strerror_r comes in two forms, which of the two is the C library's choice: one returns the
// text, the other whether the buffer holds it. Nothing but the result's type tells which form was
// called.
inline const char* ErrnoText(const char* text, const char* /*buffer*/) { return text; }
inline const char* ErrnoText(int result, const char* buffer) {
  return result == 0 ? buffer : "Unknown error";
}
}  // namespace error_detail

// The description of an error number. Any thread may call. The text is in the language of the
// process's locale. Unlike strerror it uses no buffer that threads share.
inline std::string ErrnoDescription(int number) {
  char buffer[256] = "";
  return error_detail::ErrnoText(::strerror_r(number, buffer, sizeof buffer), buffer);
}

// Whether a file or directory whose reading failed is certain to be of no use: it is absent, or it
// was read whole and is not what it should be. Only then may anything be removed on account of
// the failure. Every other Error, one without a record included, says that nothing is known.
// The one list of such failures: whoever removes something asks here. A missing privilege, a full
// descriptor table or an input error may pass, and a later reader may know more than this one; what
// was removed does not come back.
inline bool IsCertainlyUnusable(const Error& error) {
  return error.is(PosixErrorDomain, ENOENT) || error.is(PosixErrorDomain, ENOTDIR) ||
         error.is(PlatformErrorDomain, PlatformPropertyListReadCorruptError);
}

// Fills an optional out-parameter. Returns false, so that a failing operation can end with it.
// `out` is null where the caller does not care why.
inline bool SetError(Error* out, Error error) {
  if (out != nullptr) *out = std::move(error);
  return false;
}

}  // namespace quorvel
