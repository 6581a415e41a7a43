# The live-render watcher driven as QML drives it, on clips made at test time.
kutils_add_test(tst_InstantReaderWatcher SOURCES tst_InstantReaderWatcher.cpp LIBS kutils_playback Qt6::Qml
                TIMEOUT 180 ENV TSAN_OPTIONS=die_after_fork=0:suppressions=${CMAKE_CURRENT_LIST_DIR}/tsan.supp)
# End to end under Xvfb: real mpv panes, the player and the demo's live-render
# wiring. libmpv's hardware-decoder probing leaks (see Mpv.cmake).
kutils_add_test(tst_LiveRenderMpv SOURCES tst_LiveRenderMpv.cpp LIBS kutils_playback Qt6::Quick Qt6::Qml GUI SERIAL
                TIMEOUT 240 ENV ASAN_OPTIONS=detect_leaks=0
                TSAN_OPTIONS=die_after_fork=0:suppressions=${CMAKE_CURRENT_LIST_DIR}/tsan.supp)
