kutils_add_test(tst_ModelManager SOURCES ${CMAKE_CURRENT_LIST_DIR}/tst_ModelManager.cpp LIBS kutils_platform)
# One process per bus: Qt keeps the first system-bus connection for good.
kutils_add_test(tst_SleepInhibitor SOURCES ${CMAKE_CURRENT_LIST_DIR}/tst_SleepInhibitor.cpp
  LIBS kutils_platform Qt6::DBus TIMEOUT 60)
if(TARGET tst_SleepInhibitor)
  add_test(NAME tst_SleepInhibitorNoBus COMMAND tst_SleepInhibitor)
  set_tests_properties(tst_SleepInhibitorNoBus PROPERTIES TIMEOUT 60 WORKING_DIRECTORY ${KUTILS_TEST_WORK}
    ENVIRONMENT "KUTILS_NO_SYSTEM_BUS=1;QT_QPA_PLATFORM=offscreen")
endif()
