#pragma once

namespace orvane {

// Runs the GTK application: single instance on the session bus, the launch
// sequence on first activation, reopen and file opening afterwards.
int RunApplication(int argc, char** argv);

} // namespace orvane
