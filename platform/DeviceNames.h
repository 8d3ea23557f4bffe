// Every name that this system reads or writes on a device, said once.
//
// Names of items are relative to the directory that the comment names. They are part of the
// device's format: one that is changed here no longer finds what earlier versions left.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace quorvel {

// --- In a legacy container ----------------------------------------------------------------------

// The record of a container whose migration was begun, an XML property list.
inline constexpr const char* MigrationMarkerName = "com.velto.quorvel.container_migrator.plist";
// Names that never count as missed items. Nothing in this system writes the last two.
inline constexpr std::array<std::string_view, 3> NeverMissedNames = {
    MigrationMarkerName, "com.velto.quorvel.migration_marker", "com.velto.quorvel.placeholder"};
// The user data items, in the order in which they move.
inline constexpr std::array<const char*, 4> UserDataItemNames = {"Documents", "Library", "tmp",
                                                                 "Tillkit"};
// The store's metadata, which travels beside an app's bundle, in the order in which it is carried.
inline constexpr const char* StoreManifestName = "Manifest.plist";
inline constexpr const char* StoreArtworkName = "LorvixArtwork";
inline constexpr const char* StoreMetadataName = "LorvixMetadata.plist";
inline constexpr const char* StoreGeoName = "GeoJSON";
inline constexpr std::array<const char*, 4> StoreMetadataItemNames = {
    StoreManifestName, StoreArtworkName, StoreMetadataName, StoreGeoName};
// The directory that the registry is handed, and the one in it that holds the bundles.
inline constexpr const char* StagingName = "Staging";
inline constexpr const char* PayloadName = "Payload";

// --- In a bundle --------------------------------------------------------------------------------

inline constexpr const char* AppExtension = "app";
inline constexpr const char* VPNPluginExtension = "vpnplugin";
inline constexpr const char* InfoPlistName = "Info.plist";
// What a placeholder's icon is called, and any bundle's that does not say otherwise.
inline constexpr const char* UsualIconName = "Icon.png";

// --- In the legacy applications directory and beside it -----------------------------------------

// Left by the former service to tell whoever looks where the apps went.
inline constexpr const char* FarewellName = "WhereDidMyApplicationsGo.txt";
// The legacy install map: group identifier to record, and the record's path.
inline constexpr const char* InstallMapGroupsKey = "GroupContainers";
inline constexpr const char* InstallMapContainerKey = "Container";
// The harbor map, in the legacy data directory: identifier to record, and the record's path.
inline constexpr const char* HarborMapName = "SafeHarbor.plist";
inline constexpr const char* HarborPathKey = "HarborPathKey";

// --- Extended attributes ------------------------------------------------------------------------

// 4 bytes: the bundle is a placeholder.
inline constexpr const char* PlaceholderAttributeName = "com.velto.quorveld.placeholder";
inline constexpr std::size_t PlaceholderAttributeSize = 4;
// 8 bytes, little-endian.
inline constexpr const char* InstallTypeAttributeName = "com.velto.quorveld.installType";
// 4 bytes, little-endian, by the name that the kernel knows: a data-protection class.
inline constexpr const char* ProtectionClassAttributeName =
    "user.com.velto.quorveld.protectionclass";

// --- Temporary items ----------------------------------------------------------------------------

// A directory that was moved to another file system is removed from within one that is called this
// and a number, beside where it was, and that carries the attribute (1 byte).
inline constexpr std::string_view MoveRemainPrefix = ".com.velto.quorvel.moved.";
inline constexpr const char* MoveRemainAttributeName = "com.velto.quorveld.moveRemain";
// Of the registry's moves, beside the new place: "." and its name and one of these.
inline constexpr std::string_view MoveIncomingSuffix = ".incoming";  // the copy as it grows
inline constexpr std::string_view MovePlacedSuffix = ".moving";  // where it came from, once whole
// Where placeholders are put together, in the process's temporary directory.
inline constexpr const char* PlaceholderParentName = "com.velto.quorvel.migrator";

// --- Preferences --------------------------------------------------------------------------------

// The service's own domain, for the current user and host.
inline constexpr const char* QVPreferencesDomain = "com.velto.quorvel";
inline constexpr const char* LowerInstallPriorityKey = "LowerInstallPriority";
inline constexpr const char* SkipDeviceFamilyCheckKey = "SkipDeviceFamilyCheck";
inline constexpr const char* SkipThinningCheckKey = "SkipThinningCheck";
inline constexpr const char* SimultaneousInstallsNumberKey = "SimultaneousInstallsNumber";
inline constexpr const char* UpdatedPluginContainersKey =
    "UpdatedPluginContainersWithParentIDWithSafeHarborFix";
// The media store's domain, which is only read.
inline constexpr const char* StorePreferencesDomain = "com.velto.lorvixstored";
inline constexpr const char* ThinnedAppVariantKey = "ThinnedAppVariantID";

// --- Paths below the device's root, without the leading slash ------------------------------------

inline constexpr const char* DaemonDirectory = "private/var/quorveld/";
inline constexpr const char* MobileHomeDirectory = "private/var/mobile/";
// In the mobile home.
inline constexpr const char* LegacyApplicationsName = "Applications";
inline constexpr const char* LegacyInstallMapPath = "Library/Caches/com.velto.quorvel.plist";
// The application registry, in the daemon's directory.
inline constexpr const char* RegistryDirectoryPath = "Library/Registry";
inline constexpr const char* RegistryFileName = "registry.db";
// The new containers, in the mobile home.
inline constexpr const char* ContainersPath = "Containers";
inline constexpr const char* DataContainersPath = "Containers/Data";
inline constexpr const char* BundleContainersPath = "Containers/Bundle";
inline constexpr const char* GroupContainersPath = "Containers/Group";

}  // namespace quorvel
