# Writes the build identity source: the build time as yyyyMMddHHmm and the
# seven-hex short revision of the source tree. Run at every build; the file
# is only rewritten when its text changes, so an unchanged minute costs nothing.
string(TIMESTAMP stamp "%Y%m%d%H%M")
execute_process(
  COMMAND git -C "${SOURCE_DIR}" rev-parse --short=7 HEAD
  OUTPUT_VARIABLE revision OUTPUT_STRIP_TRAILING_WHITESPACE
  RESULT_VARIABLE git_result ERROR_QUIET)
if(NOT git_result EQUAL 0 OR NOT revision MATCHES "^[0-9a-f]+$")
  set(revision "0000000")
endif()
string(SUBSTRING "${revision}" 0 7 revision)
set(text "// Generated at build time; do not edit.
#include \"base/BuildInfo.h\"
namespace orvane {
const char kBuildIdentifier[] = \"${stamp}-${revision}\";
const char kBuildDate[] = __DATE__;
const char kBuildTime[] = __TIME__;
const char kBundledSiteFolder[] = \"${SITE_DIR}\";
}
")
if(EXISTS "${OUTPUT}")
  file(READ "${OUTPUT}" old)
else()
  set(old "")
endif()
if(NOT old STREQUAL text)
  file(WRITE "${OUTPUT}" "${text}")
endif()
