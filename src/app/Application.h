#pragma once

#include "desktop/DesktopChooser.h"

namespace orvane {

// Runs the GTK application: single instance on the session bus, the launch
// sequence on first activation, reopen and file opening afterwards.
// `desktop` is the choice made before GDK started.
int RunApplication(int argc, char** argv, const DesktopChoice& desktop);

} // namespace orvane
