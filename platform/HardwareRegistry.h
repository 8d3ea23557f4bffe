// The platform's device tree.
//
// Why a service: attached disk images are found by walking it, and a test must be able to
// present any tree. Handles are small numbers; each one obtained must be released.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace quorvel {

using HardwareEntry = std::uint32_t;     // 0 is no entry
using HardwareIterator = std::uint32_t;  // 0 is no iterator

// Classes, plane and property that the system asks for.
inline constexpr const char* HRVDKXControllerClass = "HRVDKXController";
inline constexpr const char* HRVDKXHDDriveClass = "HRVDKXHDDrive";
inline constexpr const char* HRMediaClass = "HRMedia";
inline constexpr const char* HRServicePlane = "HRService";
inline constexpr const char* HRBSDNameKey = "BSD Name";

// Any thread may call.
class HardwareRegistry {
 public:
  virtual ~HardwareRegistry() = default;
  // The first registered service of the class (or a subclass); 0 when there is none.
  virtual HardwareEntry firstMatchingService(const char* className) = 0;
  // An iterator over the entry's direct children. 0, the kernel's result for success, fills
  // `iterator`; any other result code does not.
  virtual std::int32_t createChildIterator(HardwareEntry entry, const char* plane,
                                           HardwareIterator* iterator) = 0;
  // The same over all descendants, parents before children.
  virtual std::int32_t createDescendantIterator(HardwareEntry entry, const char* plane,
                                                HardwareIterator* iterator) = 0;
  // The next entry, to be released by the caller; 0 at the end.
  virtual HardwareEntry next(HardwareIterator iterator) = 0;
  // False for what is no entry.
  virtual bool conformsTo(HardwareEntry entry, const char* className) = 0;
  // None when the entry has no such property, or it is no string.
  virtual std::optional<std::string> stringProperty(HardwareEntry entry, const char* key) = 0;
  // Releases an entry or an iterator.
  virtual void release(std::uint32_t handle) = 0;
};

}  // namespace quorvel
