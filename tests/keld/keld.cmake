# keld's integration test starts the keld program and tgtd.
if(TARGET keld_itest)
  add_dependencies(keld_itest keld)
endif()
