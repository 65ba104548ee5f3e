sylv_add_gtest(cli_tests
    SOURCES
        ${CMAKE_CURRENT_LIST_DIR}/requests_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/responses_test.cpp
    LIBS sylvcli)
