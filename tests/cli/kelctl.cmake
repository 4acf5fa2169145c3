# The tests of this folder run the kelctl binary: build it first.
foreach(t kelctl_service_test kelctl_cluster_itest)
  if(TARGET ${t} AND TARGET kelctl)
    add_dependencies(${t} kelctl)
  endif()
endforeach()
