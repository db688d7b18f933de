#pragma once

#include "platform/paths/Paths.h"
#include "tests/support/TemporaryDirectory.h"

namespace support {

// A root of one test's own: while it lives, all the system's directories lie below it, as with HALVERN_ROOT.
class PrivateRoot : public TemporaryDirectory {
public:
    PrivateRoot() {
        const TemporaryDirectory& root = *this;
        paths::setDirectories({root / "run", root / "state", root / "config", root / "user", root / "system", true});
    }
    ~PrivateRoot() { paths::setDirectories(before_); }

private:
    const paths::Directories before_ = paths::directories();
};

}  // namespace support
