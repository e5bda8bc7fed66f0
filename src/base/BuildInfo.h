// The build's fixed identity, compiled in.
#pragma once

namespace orvane {

inline constexpr char kVersion[] = "1.0";
// yyyyMMddHHmm of the build, "-", and the seven-hex short source revision.
extern const char kBuildIdentifier[];
// The compiler's __DATE__ ("Sep  4 2026") and __TIME__ ("16:42:50").
extern const char kBuildDate[];
extern const char kBuildTime[];
// Absolute path of the reference site in the source tree this was built
// from; a run uses BundledSiteFolder() (base/Paths.h), which prefers the
// copy inside an install folder.
extern const char kBundledSiteFolder[];

inline constexpr char kApplicationId[] = "com.tarnwick.orvane";

} // namespace orvane
