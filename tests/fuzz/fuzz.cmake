# Fuzz targets of every parser of outside input (tests/fuzz/<name>_fuzz.cc, seed corpus in
# tests/fuzz/corpus/<name>):
#   conf         the kel.conf grammar
#   host_config  host.json
#   policy       storage policy texts
#   size         LUN size and unit texts
#   settings     the settings file
#   dir_entry    directory entries read back from etcd or the embedded directory
#   tgt_output   keld's reading of tgtadm's output
# Tests: <name>_fuzz_corpus replays a corpus once under the sanitizers (unit); conf_fuzz_run is a
# bounded fuzz session of about 60 seconds of the grammar that must find nothing (fuzz). Longer
# sessions of all of them: scripts/fuzz.sh --minutes N.
# With clang a target is a libFuzzer binary and the code it reaches is built into it with coverage
# instrumentation; with other compilers it only replays files.

# kel_add_fuzz(NAME name INSTRUMENT sources... [LIBS libs...])
function(kel_add_fuzz)
  cmake_parse_arguments(F "" "NAME" "INSTRUMENT;LIBS" ${ARGN})
  set(target ${F_NAME}_fuzz)
  set(corpus ${CMAKE_SOURCE_DIR}/tests/fuzz/corpus/${F_NAME})
  if(KEL_COMPILER_IS_CLANG)
    if(F_INSTRUMENT)
      add_library(${target}_cov OBJECT ${F_INSTRUMENT})
      target_link_libraries(${target}_cov PRIVATE kel ${F_LIBS})
      target_compile_options(${target}_cov PRIVATE -fsanitize=fuzzer-no-link)
      add_dependencies(${target}_cov kel_conf_generated)
      set(cov_objects $<TARGET_OBJECTS:${target}_cov>)
    else()
      set(cov_objects "")
    endif()
    add_executable(${target} ${CMAKE_SOURCE_DIR}/tests/fuzz/${target}.cc ${cov_objects})
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer)
    target_link_options(${target} PRIVATE -fsanitize=fuzzer)
    add_test(NAME ${target}_corpus COMMAND ${target} -runs=0 ${corpus})
  else()
    add_executable(${target} ${CMAKE_SOURCE_DIR}/tests/fuzz/${target}.cc)
    target_compile_definitions(${target} PRIVATE KEL_FUZZ_REPLAY_MAIN)
    add_test(NAME ${target}_corpus COMMAND ${target} ${corpus})
  endif()
  target_link_libraries(${target} PRIVATE ${F_LIBS} kel)
  set_tests_properties(${target}_corpus PROPERTIES LABELS unit TIMEOUT 300)
endfunction()

if(KEL_COMPILER_IS_CLANG)
  # The grammar's instrumented objects come from conf/ (kel_conf_fuzzable).
  add_executable(conf_fuzz ${CMAKE_SOURCE_DIR}/tests/fuzz/conf_fuzz.cc
    $<TARGET_OBJECTS:kel_conf_fuzzable>)
  target_compile_options(conf_fuzz PRIVATE -fsanitize=fuzzer)
  target_link_options(conf_fuzz PRIVATE -fsanitize=fuzzer)
  target_link_libraries(conf_fuzz PRIVATE kel)
  set(kel_fuzz_corpus ${CMAKE_SOURCE_DIR}/tests/fuzz/corpus/conf)
  add_test(NAME conf_fuzz_corpus COMMAND conf_fuzz -runs=0 ${kel_fuzz_corpus})
  set_tests_properties(conf_fuzz_corpus PROPERTIES LABELS unit TIMEOUT 300)

  # New inputs go to a scratch directory in the build tree, never into the checked-in corpus.
  set(kel_fuzz_work ${CMAKE_CURRENT_BINARY_DIR}/conf_fuzz_work)
  add_test(NAME conf_fuzz_run COMMAND sh -c "mkdir -p '${kel_fuzz_work}' && exec '$<TARGET_FILE:conf_fuzz>' -max_total_time=60 -timeout=10 -rss_limit_mb=2048 -dict='${CMAKE_SOURCE_DIR}/tests/fuzz/conf.dict' -artifact_prefix='${CMAKE_CURRENT_BINARY_DIR}/conf_fuzz_' '${kel_fuzz_work}' '${kel_fuzz_corpus}'")
  set_tests_properties(conf_fuzz_run PROPERTIES LABELS fuzz TIMEOUT 180)
else()
  kel_add_fuzz(NAME conf)
endif()

kel_add_fuzz(NAME host_config
  INSTRUMENT ${CMAKE_SOURCE_DIR}/platform/host_config.cc ${CMAKE_SOURCE_DIR}/platform/fs.cc)
kel_add_fuzz(NAME policy INSTRUMENT ${CMAKE_SOURCE_DIR}/platform/policy.cc)
kel_add_fuzz(NAME size INSTRUMENT ${CMAKE_SOURCE_DIR}/host/validation.cc)
kel_add_fuzz(NAME settings INSTRUMENT ${CMAKE_SOURCE_DIR}/platform/settings.cc)
kel_add_fuzz(NAME dir_entry
  INSTRUMENT ${CMAKE_SOURCE_DIR}/platform/directory.cc ${CMAKE_SOURCE_DIR}/platform/marshal.cc)
kel_add_fuzz(NAME tgt_output INSTRUMENT ${CMAKE_SOURCE_DIR}/keld/tgt_admin.cc LIBS kel_keld)
