#pragma once

#include <string>

// The keys and names of the sandbox service's messages; Sandbox.h tells what they mean.
namespace sandbox {

inline std::string serviceNameFor(const std::string& daemonServiceName) {
    return daemonServiceName + ".sandbox";
}

inline constexpr char kRequestKey[] = "request";
inline constexpr char kTokenKey[] = "token";
inline constexpr char kHandleKey[] = "handle";
inline constexpr char kPathKey[] = "path";
inline constexpr char kErrorCodeKey[] = "errorcode";
inline constexpr char kErrorKey[] = "error";

inline constexpr char kConsumeRequest[] = "consume";
inline constexpr char kReleaseRequest[] = "release";
inline constexpr char kOpenRequest[] = "open";

}  // namespace sandbox
