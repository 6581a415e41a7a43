kutils_add_test(tst_ModelManager SOURCES ${CMAKE_CURRENT_LIST_DIR}/tst_ModelManager.cpp LIBS kutils_platform)
kutils_add_test(tst_SystemInfo SOURCES ${CMAKE_CURRENT_LIST_DIR}/tst_SystemInfo.cpp LIBS kutils_platform)
