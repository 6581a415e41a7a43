#pragma once

namespace kutils {

// True when KVID_DEVELOPER_MODE was exactly "1" when the library was loaded.
// Later changes of the environment do not move it.
bool isDeveloperMode();

// The same byte-exact test on the environment as it is now (for the callers
// that read the variable afresh every time).
bool developerModeInEnvironment();

} // namespace kutils
