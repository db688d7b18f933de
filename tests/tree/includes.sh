#!/usr/bin/env bash
# Dependencies run one way: platform knows nothing above it, Velto nothing of the daemon, and a third-party header appears
# only in platform/, and in vtctl/'s own front; a service's insides only in it. The include root is the whole tree, so the compiler cannot tell.
set -euo pipefail
cd "$1"

status=0
refuse() { # FOLDER PATTERN-OF-INCLUDES-IT-MAY-NOT-HAVE WHY
    if grep -rnE "^ *# *include +$2" "$1" --include='*.h' --include='*.cpp'; then
        echo "$1/ includes $3" >&2
        status=1
    fi
}
refuse platform '"(Velto|vtd|vtctl|tests|bench)/' 'a layer above it'
refuse Velto '"(vtd|vtctl|tests|bench)/' 'a layer above it'
refuse vtd '"(vtctl|tests|bench)/' 'what is no layer below it'
refuse vtctl '"(vtd|tests|bench)/' 'what is no layer below it'
third_party='<(fmt|expat|sqlite3|nettle|sys/sdt|CLI|nlohmann|gtest|gmock|benchmark)[/.]'
refuse Velto "$third_party" 'a third-party header'
refuse vtd "$third_party" 'a third-party header'
# What hosts compile against names none either.
if grep -lE "^# *include +$third_party" platform/*/*.h | grep -vxE 'platform/text/Format\.h|platform/probe/[A-Za-z]+\.h'; then
    echo 'a public header names a third-party type' >&2
    status=1
fi
# The face of a service is at the top of its folder; the rooms below are its own, and that of its tests and fuzz targets.
for room in platform/*/*/; do
    service=${room%/*/}
    if grep -rnE "^ *# *include +\"$room" platform Velto vtd vtctl bench tests --include='*.h' --include='*.cpp' |
        grep -vE "^(tests/)?$service/"; then
        echo "$room is included from outside of $service/" >&2
        status=1
    fi
done
exit $status
