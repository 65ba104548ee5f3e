sylv_add_gtest(cli_tests
    SOURCES
        ${CMAKE_CURRENT_LIST_DIR}/requests_test.cpp
    LIBS sylvcli)
