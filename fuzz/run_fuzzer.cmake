# Runs one libFuzzer harness as a CTest test: a fresh working corpus (new inputs go there), the
# seed corpus read after it (never written), artifacts beside the working corpus.
#   cmake -DHARNESS=exe -DSEEDS=dir -DWORK=dir -DOPTIONS="flag|flag|..." -P run_fuzzer.cmake

foreach(var HARNESS SEEDS WORK)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "run_fuzzer.cmake: ${var} is not set")
  endif()
endforeach()
string(REPLACE "|" ";" options "${OPTIONS}")

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK}/corpus ${WORK}/artifacts)

execute_process(
  COMMAND ${HARNESS} ${WORK}/corpus ${SEEDS} -artifact_prefix=${WORK}/artifacts/ ${options}
  RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  file(GLOB artifacts ${WORK}/artifacts/*)
  message(FATAL_ERROR "${HARNESS} failed (${result}); artifacts: ${artifacts}")
endif()
