# The host program of plugin_test: it links nothing of kel and reaches the service only through
# the plug-in module.
add_executable(kel_plugin_host ${CMAKE_CURRENT_LIST_DIR}/plugin_host/main.cc)
target_include_directories(kel_plugin_host PRIVATE ${CMAKE_SOURCE_DIR})
target_link_libraries(kel_plugin_host PRIVATE ${CMAKE_DL_LIBS})
if(TARGET plugin_test)
  add_dependencies(plugin_test kel_plugin_host kel_plugin)
endif()
