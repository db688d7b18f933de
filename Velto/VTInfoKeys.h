#pragma once

// The keys of a plug-in bundle's info dictionary, by the dictionary that they live in. An SDK dictionary has the same
// shape.
namespace VTInfoKey {

// The bundle's info dictionary.
inline constexpr char extension[] = "KXExtension";                          // the top dictionary
inline constexpr char oldStyle[] = "Velto";                                 // marks an old-style plug-in
inline constexpr char shortVersionString[] = "QFBundleShortVersionString";  // default for the plug-in's version
inline constexpr char infoPlistURL[] = "QFBundleInfoPlistURL";              // never leaves the daemon

inline constexpr char moxService[] = "MoxService";  // how the plug-in's process wants to be started

// The top dictionary.
inline constexpr char multiple[] = "Multiple";  // identifier to plug-in dictionary: one bundle, several plug-ins
inline constexpr char hubProtocolVersion[] = "HubProtocolVersion";

// The plug-in dictionary.
inline constexpr char extensionPoint[] = "KXExtensionPointIdentifier";  // names the SDK dictionary
inline constexpr char attributes[] = "KXExtensionAttributes";
inline constexpr char protocol[] = "KXExtensionProtocol";
inline constexpr char principalClass[] = "PrincipalClass";
inline constexpr char embeddedCode[] = "EmbeddedCode";
inline constexpr char embeddedProtocol[] = "EmbeddedProtocol";
inline constexpr char dedicated[] = "Dedicated";
inline constexpr char passProxy[] = "PassProxy";
inline constexpr char shared[] = "Shared";  // paths inside the bundle that hosts may read; "." is the bundle itself
inline constexpr char hostEntitlement[] = "KXExtensionHostEntitlement";
inline constexpr char cleanTimeout[] = "CleanTimeout";

// The attributes.
inline constexpr char version[] = "KXExtensionVersion";
inline constexpr char format[] = "halvern.format";  // "standard" or "hybrid"
inline constexpr char pointName[] = "KXExtensionPointName";
inline constexpr char requestsOpenAccess[] = "RequestsOpenAccess";  // a keyboard's wish for more than typing

}  // namespace VTInfoKey
