# The handlers, nodes, queue and live-render watcher, on clips that ffmpeg
# makes while the test runs; the watcher is driven as QML drives it.
kutils_add_test(tst_VideoPlayer SOURCES tst_VideoPlayer.cpp LIBS kutils_playback Qt6::Quick Qt6::Qml TIMEOUT 180
                ENV TSAN_OPTIONS=die_after_fork=0:suppressions=${CMAKE_CURRENT_LIST_DIR}/tsan.supp)
# The two-pane player and the single-clip player end to end. The test builds
# its QML scenes over the types of this build under the module's own name,
# the demo's live-render wiring among them. It plays files through real
# libmpv, whose hardware-decoder probing leaks in libraries it unloads again
# (see Mpv.cmake): no leak check there.
kutils_add_test(tst_VideoPlayerMpv SOURCES tst_VideoPlayerMpv.cpp LIBS kutils_playback Qt6::Quick Qt6::Qml GUI SERIAL
                ENV ASAN_OPTIONS=detect_leaks=0
                TSAN_OPTIONS=die_after_fork=0:suppressions=${CMAKE_CURRENT_LIST_DIR}/tsan.supp)
