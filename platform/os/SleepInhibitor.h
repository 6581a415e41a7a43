#pragma once

namespace os {

// Keeps the machine from sleeping during a long render. One inhibitor for the
// whole process: holding twice does not stack, and one release ends it.
//
// On Linux it is a "block" inhibitor of logind on the system bus, held as the
// file descriptor logind hands out. The call is asynchronous, because a
// stalled logind would freeze the UI thread for the bus timeout; a release
// that comes while the answer is on its way closes the descriptor when it
// arrives. Without a system bus (containers, CI) it logs and does nothing.
// Call from the thread that runs the event loop (the UI thread).
class SleepInhibitor
{
public:
    static void hold();
    static void release();
    // True while a descriptor is held.
    static bool holding();
};

} // namespace os
