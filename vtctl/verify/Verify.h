#pragma once

#include <string>

#include "vtctl/verify/Findings.h"

// What is wrong with what plug-in authors make, as it lies on the disk: found out without the daemon, which need not
// run, nor have taken it.
namespace verify {

// All of what lies at the absolute path: a plug-in's bundle; an application, with its plug-ins; or the file of an
// extension point. The path may also be that of the Info.plist or Entitlements.plist in a bundle.
Problems ofPath(const std::string& path);

// Its kinds of path.
void judgePlugIn(const std::string& path, Problems& problems);
void judgeApplication(const std::string& path, Problems& problems);
void judgeExtensionPoint(const std::string& path, Problems& problems);

// What a bundle's and an application's have in common: the file Info.plist (told where it is missing), entitlements,
// and the executable.
std::optional<value::Dictionary> readInfo(Findings& findings, const std::string& bundle);
std::optional<value::Dictionary> readEntitlements(Findings& findings, const std::string& bundle, Level level);
void judgeExecutable(Findings& findings, const std::string& bundle, const value::Dictionary& info);

// Where SDK files are installed.
std::string sdkDirectory();

}  // namespace verify
