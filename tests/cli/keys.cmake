sylv_add_gtest(keys_tests SOURCES ${CMAKE_CURRENT_LIST_DIR}/keys_test.cpp LIBS sylvcli)
