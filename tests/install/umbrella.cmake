# <vlk/vlk.hpp> must include every public header, and only those; each
# public header must compile alone, and the umbrella reach no internal one.
add_test(NAME umbrella_header
         COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/check_umbrella.sh ${PROJECT_SOURCE_DIR}/include
                 ${CMAKE_CXX_COMPILER} ${PROJECT_BINARY_DIR}/include)
