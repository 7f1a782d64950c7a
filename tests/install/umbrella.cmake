# <vlk/vlk.hpp> must include every public header, and only those.
add_test(NAME umbrella_header
         COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/check_umbrella.sh ${PROJECT_SOURCE_DIR}/include
                 ${PROJECT_BINARY_DIR}/include)
