#pragma once

#include <cstdint>

// The names and numbers that a client and the daemon share: requests, their keys, replies, error codes, flags and the
// notification. Both sides take every one of them from here.
//
// A request is a dictionary with "request" and "version"; it gets exactly one reply, a dictionary that is empty or
// holds the result on success, and holds "errorcode" (never 0) and mostly "error" on failure.

inline constexpr char VTDefaultServiceName[] = "halvern.velto.vtd";

// Posted whenever the set of holds changes and whenever an annotation is stored on request. Carries nothing: whoever is
// interested asks again.
inline constexpr char VTAnnotationChangeNotification[] = "halvern.velto.annotation-change";

// What the client library writes, and the oldest that the daemon still answers. Values in message form ("matches") are
// defined for the current version only.
inline constexpr std::int64_t VTProtocolVersion = 3;
inline constexpr std::int64_t VTOldestProtocolVersion = 2;

// The names under "request".
namespace VTRequest {
inline constexpr char add[] = "add";
inline constexpr char remove[] = "remove";
inline constexpr char bulk[] = "bulk";
inline constexpr char match[] = "match";
inline constexpr char ready[] = "ready";
inline constexpr char access[] = "access";
inline constexpr char annotate[] = "annotate";
inline constexpr char lock[] = "lock";
}  // namespace VTRequest

// The keys of requests and replies.
namespace VTKey {
inline constexpr char request[] = "request";            // string: one of VTRequest
inline constexpr char version[] = "version";            // unsigned: the sender's protocol version
inline constexpr char paths[] = "paths";                // array of strings: absolute file-system paths
inline constexpr char rules[] = "rules";                // dictionary, plain form: match rules
inline constexpr char flags[] = "flags";                // unsigned: option bits of the request
inline constexpr char uuids[] = "uuids";                // array of UUIDs in requests; one UUID in the reply to a hold
inline constexpr char annotations[] = "annotations";    // dictionary, plain form: annotation changes
inline constexpr char errorCode[] = "errorcode";        // unsigned: the code, sign-extended; absent on success
inline constexpr char error[] = "error";                // string: the message for people
inline constexpr char matches[] = "matches";            // message form: an array of forms
inline constexpr char explain[] = "explain";            // boolean: "match" tells of what it leaves out, too
inline constexpr char forPid[] = "forPid";              // integer: beside it, as which running host that is answered
inline constexpr char forHost[] = "forHost";            // string: or as which application, by its absolute path
inline constexpr char explanations[] = "explanations";  // message form: an array of them, see VTExplanationKey
inline constexpr char conflicts[] = "conflicts";        // array of dictionaries: the plug-ins that refused a hold
inline constexpr char extensions[] = "extensions";      // array, plain form: the result of "access"
}  // namespace VTKey

// Error codes, in replies and in errors of the domain "Velto".
enum VTErrorCode : std::int64_t {
    VTErrorRegistry = 2,        // the registry refused to register or unregister a plug-in
    VTErrorRequest = 4,         // malformed request; a plug-in that could not be enabled; a failed connection
    VTErrorVersion = 7,         // unsupported version of the protocol, or of the annotation file
    VTErrorPath = 9,            // a path is not absolute, cannot be resolved, or holds no plug-in
    VTErrorAccess = 11,         // the caller may not use the plug-in, or the discovery flag
    VTErrorConfiguration = 12,  // the plug-in is mis-configured
    VTErrorBusy = 14,           // a hold was refused because plug-ins are busy
};

// The "flags" of "match"; every other bit is ignored.
enum VTDiscoveryFlags : std::uint64_t {
    VTDiscoverEveryVersion = 0x1,      // copies of one identifier whose versions differ are all kept
    VTDiscoverEveryCopy = 0x4,         // with the former: so are copies of equal version
    VTDiscoverSystemVolumeOnly = 0x8,  // only what lives on the system volume; nothing beside VTDiscoverAll
    VTDiscoverAll = 0x200,             // privileged: no location, dedication, hold or host filter
};

// The "flags" of a "lock" that takes a hold; any other value is refused.
enum VTHoldFlags : std::uint64_t {
    VTHoldApplication = 1,  // every plug-in inside the application at each path, unless one is busy
    VTHoldPlugIn = 2,       // the one plug-in at each path, busy or not
};
