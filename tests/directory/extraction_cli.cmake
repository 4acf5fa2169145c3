# extraction_cli_test runs the kelctl binary: build it first.
if(TARGET extraction_cli_test AND TARGET kelctl)
  add_dependencies(extraction_cli_test kelctl)
endif()
