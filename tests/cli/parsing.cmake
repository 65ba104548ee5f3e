sylv_add_gtest(parsing_tests SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/parsing_test.cpp LIBS sylvcli)
