#pragma once

#include <QWindow>

namespace os {

// Asks the window manager for a dark title bar on the native window. Only
// Windows offers this; elsewhere it does nothing.
void applyDarkTitleBar(WId window);

} // namespace os
