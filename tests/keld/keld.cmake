# keld's integration and end-to-end tests start the keld program and tgtd; the end-to-end test is
# also an iSCSI initiator (libiscsi).
foreach(t keld_itest keld_e2e keld_cluster_itest)
  if(TARGET ${t})
    add_dependencies(${t} keld)
  endif()
endforeach()
# The cluster test drives both hosts through kelctl.
if(TARGET keld_cluster_itest)
  add_dependencies(keld_cluster_itest kelctl)
endif()
if(TARGET keld_e2e)
  find_library(KEL_LIBISCSI iscsi REQUIRED)
  target_link_libraries(keld_e2e PRIVATE ${KEL_LIBISCSI})
endif()
