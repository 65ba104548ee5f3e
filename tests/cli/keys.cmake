sylv_add_gtest(keys_tests SOURCES ${CMAKE_CURRENT_LIST_DIR}/keys_test.cpp LIBS sylvcli)
# The listener guard against another user's socket, as real root only.
add_test(NAME cli.foreign_listener
         COMMAND ${CMAKE_CURRENT_LIST_DIR}/foreign_listener.sh $<TARGET_FILE:sylvane-service>)
set_tests_properties(cli.foreign_listener PROPERTIES TIMEOUT 60 SKIP_RETURN_CODE 77)
