# The layers of src/CMakeLists.txt point one way.
#
# layer_includes: no header or source includes a higher layer's header or
# another area's internal/ header.
add_test(NAME layer_includes
         COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/check_includes.sh ${PROJECT_SOURCE_DIR}
                 ${VLK_LAYERS})

# layer_link_<layer>: every object of the layer, with every object of the
# layers below and the libraries the layer itself names, links into a
# program; a call into a higher layer is an undefined symbol. The programs
# are built by the tests, not by the default build.
set(_vlk_layer_main ${CMAKE_CURRENT_BINARY_DIR}/layer_main.cpp)
file(WRITE ${_vlk_layer_main} "int main() { return 0; }\n")
set(_vlk_layers_linked "")
foreach(layer IN LISTS VLK_LAYERS)
  if(NOT TARGET vlk_${layer})
    continue()
  endif()
  list(APPEND _vlk_layers_linked vlk_${layer})
  get_target_property(_vlk_layer_type vlk_${layer} TYPE)
  if(NOT _vlk_layer_type STREQUAL "OBJECT_LIBRARY")
    continue()  # headers only: layer_includes covers it
  endif()
  add_executable(layer_link_${layer} EXCLUDE_FROM_ALL ${_vlk_layer_main})
  target_link_libraries(layer_link_${layer} PRIVATE ${_vlk_layers_linked})
  target_link_options(layer_link_${layer} PRIVATE LINKER:--no-undefined)
  add_test(NAME layer_link_${layer}
           COMMAND ${CMAKE_COMMAND} --build ${PROJECT_BINARY_DIR} --config $<CONFIG>
                   --target layer_link_${layer})
  # One build at a time in the tree.
  set_tests_properties(layer_link_${layer} PROPERTIES RESOURCE_LOCK vlk_build_tree)
endforeach()
