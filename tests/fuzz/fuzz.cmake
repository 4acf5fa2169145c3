# The kel.conf grammar's fuzz target (tests/fuzz/conf_fuzz.cc).
#   conf_fuzz_corpus: every input of tests/fuzz/corpus/conf once, under the sanitizers (unit).
#   conf_fuzz_run:    a bounded fuzz session of about 60 seconds that must find nothing (fuzz).
# With clang the target is a libFuzzer binary and the configuration layer is built into it with
# coverage instrumentation; with other compilers it only replays files.
set(kel_fuzz_corpus ${CMAKE_SOURCE_DIR}/tests/fuzz/corpus/conf)
if(KEL_COMPILER_IS_CLANG)
  add_executable(conf_fuzz ${CMAKE_SOURCE_DIR}/tests/fuzz/conf_fuzz.cc
    $<TARGET_OBJECTS:kel_conf_fuzzable>)
  target_compile_options(conf_fuzz PRIVATE -fsanitize=fuzzer)
  target_link_options(conf_fuzz PRIVATE -fsanitize=fuzzer)
  target_link_libraries(conf_fuzz PRIVATE kel)

  add_test(NAME conf_fuzz_corpus COMMAND conf_fuzz -runs=0 ${kel_fuzz_corpus})
  set_tests_properties(conf_fuzz_corpus PROPERTIES LABELS unit TIMEOUT 300)

  # New inputs go to a scratch directory in the build tree, never into the checked-in corpus.
  set(kel_fuzz_work ${CMAKE_CURRENT_BINARY_DIR}/conf_fuzz_work)
  add_test(NAME conf_fuzz_run COMMAND sh -c "mkdir -p '${kel_fuzz_work}' && exec '$<TARGET_FILE:conf_fuzz>' -max_total_time=60 -timeout=10 -rss_limit_mb=2048 -dict='${CMAKE_SOURCE_DIR}/tests/fuzz/conf.dict' -artifact_prefix='${CMAKE_CURRENT_BINARY_DIR}/conf_fuzz_' '${kel_fuzz_work}' '${kel_fuzz_corpus}'")
  set_tests_properties(conf_fuzz_run PROPERTIES LABELS fuzz TIMEOUT 180)
else()
  add_executable(conf_fuzz ${CMAKE_SOURCE_DIR}/tests/fuzz/conf_fuzz.cc)
  target_compile_definitions(conf_fuzz PRIVATE KEL_FUZZ_REPLAY_MAIN)
  target_link_libraries(conf_fuzz PRIVATE kel)
  add_test(NAME conf_fuzz_corpus COMMAND conf_fuzz ${kel_fuzz_corpus})
  set_tests_properties(conf_fuzz_corpus PROPERTIES LABELS unit TIMEOUT 300)
endif()
