# kelctl_conf_test runs the kelctl binary: build it first.
if(TARGET kelctl_conf_test AND TARGET kelctl)
  add_dependencies(kelctl_conf_test kelctl)
endif()
