// The order of release versions, the same as the site's when it picks the
// newest archive to offer: "1.2.3" or "1.3.0-rc1" (digits and dots, then an
// optional "-" and a suffix of letters, digits and dots).
#pragma once

#include <string>
#include <string_view>

namespace orvane {

// Negative when `a` is older than `b`, zero when they are the same
// release, positive when `a` is newer.
//
// Numbers compare part by part as whole numbers (any number of digits,
// leading zeros ignored), and a version that runs out of parts first is the
// older one ("1.2" < "1.2.0"). For equal numbers, a version with a suffix is
// older than the same without one ("1.3.0-rc1" < "1.3.0"); two suffixes
// compare as text. Text that is no version at all (empty, other characters,
// empty parts) is older than every version, and two such texts are the same
// release only when they are equal.
int CompareReleaseVersions(std::string_view a, std::string_view b);

// A version as a log line or an event may show it: printable ASCII only
// (other bytes as \xHH), at most `limit` characters before a "…".
std::string ShownVersion(std::string_view version, size_t limit = 64);

} // namespace orvane
