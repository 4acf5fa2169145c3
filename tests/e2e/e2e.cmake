# End-to-end tests drive the built kelctl, which runs the built keld as the daemon control program;
# the initiator is libiscsi (its tools and the library).
file(GLOB kel_e2e_tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*_e2e.cc)
find_library(KEL_LIBISCSI iscsi REQUIRED)
foreach(src IN LISTS kel_e2e_tests)
  get_filename_component(t ${src} NAME_WE)
  if(TARGET ${t})
    add_dependencies(${t} keld kelctl)
    target_link_libraries(${t} PRIVATE ${KEL_LIBISCSI})
  endif()
endforeach()
