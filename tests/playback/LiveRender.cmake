# The live-render watcher driven as QML drives it, on clips made at test time.
kutils_add_test(tst_InstantReaderWatcher SOURCES tst_InstantReaderWatcher.cpp LIBS kutils_playback Qt6::Qml
                TIMEOUT 180 ENV TSAN_OPTIONS=die_after_fork=0:suppressions=${CMAKE_CURRENT_LIST_DIR}/tsan.supp)
