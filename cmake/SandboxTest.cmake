# Tests that run in the private root, on the installed tree.
set(KX_STAGE_DIR "${CMAKE_BINARY_DIR}/stage")

# The installed tree that the tests see as /usr and /etc, made once before the first of them.
add_test(NAME stage COMMAND "${CMAKE_COMMAND}" --install "${CMAKE_BINARY_DIR}" --prefix /usr)
set_tests_properties(stage PROPERTIES
  FIXTURES_SETUP stage
  ENVIRONMENT "DESTDIR=${KX_STAGE_DIR}"
  LABELS stage)

# The same with the desk terminal in it, for tests of that.
set(KX_DESK_DIR "${CMAKE_BINARY_DIR}/stage-sim")
if(KX_SIM)
  add_test(NAME stage.sim COMMAND sh -c
    "\"$0\" --install \"$1\" --prefix /usr && \"$0\" --install \"$1\" --prefix /usr --component sim"
    "${CMAKE_COMMAND}" "${CMAKE_BINARY_DIR}")
  set_tests_properties(stage.sim PROPERTIES
    FIXTURES_SETUP stage.sim
    ENVIRONMENT "DESTDIR=${KX_DESK_DIR}"
    LABELS stage)
endif()

# The same with the daemon under valgrind, for ctest -C Valgrind (scripts/test --valgrind), and what slows it down.
set(KX_VALGRIND_DIR "${CMAKE_BINARY_DIR}/stage-valgrind")
set(_kx_valgrind_slowness 10)
add_test(NAME stage.valgrind
  CONFIGURATIONS Valgrind
  COMMAND "${CMAKE_SOURCE_DIR}/tests/support/stage-valgrind" "${CMAKE_BINARY_DIR}" "${KX_VALGRIND_DIR}")
set_tests_properties(stage.valgrind PROPERTIES FIXTURES_SETUP stage.valgrind LABELS stage)

# Instrumented programs write their counts into the build tree.
set(_kx_build_bind $<IF:$<BOOL:${KX_COVERAGE}>,--bind-rw,--bind>)

# Built for another architecture, they are emulated there, which takes several times as long; so does the thread
# sanitizer.
set(_kx_sysroot "")
set(_kx_slowness 1)
if("thread" IN_LIST KX_SANITIZE)
  set(_kx_slowness 5)
endif()
if(CMAKE_CROSSCOMPILING)
  set(_kx_sysroot --sysroot "${CMAKE_SYSROOT}")
  set(_kx_slowness 5)
endif()

# Qt and the bus library are not built for the thread sanitizer, which then sees neither their locks nor the order
# in which they take them. Some tests try in a forked child what would end the test, and many processes end.
set(_kx_test_environment
  KX_TIME_FACTOR=${_kx_slowness}
  ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1
  UBSAN_OPTIONS=print_stacktrace=1
  TSAN_OPTIONS=ignore_noninstrumented_modules=1:detect_deadlocks=0:die_after_fork=0:atexit_sleep_ms=50:suppressions=${CMAKE_SOURCE_DIR}/tests/tsan.supp)

# kx_add_test(NAME name COMMAND program [arg...] [SIM] [LABELS label...] [TIMEOUT seconds] [SIZE size])
# Registers a test that runs the program, a target or an absolute path, in the private root. There are the staged
# installation, with SIM also the desk terminal, and the source and the build tree at the paths they have here.
# SIZE limits the root's disk.
function(kx_add_test)
  cmake_parse_arguments(PARSE_ARGV 0 arg "SIM" "NAME;TIMEOUT;SIZE" "COMMAND;LABELS")
  if(arg_UNPARSED_ARGUMENTS OR NOT arg_NAME OR NOT arg_COMMAND)
    message(FATAL_ERROR "kx_add_test: needs NAME and COMMAND; not understood: '${arg_UNPARSED_ARGUMENTS}'")
  endif()
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 60)
  endif()
  math(EXPR arg_TIMEOUT "${arg_TIMEOUT} * ${_kx_slowness}")
  set(stage "${KX_STAGE_DIR}")
  set(fixture stage)
  if(arg_SIM)
    set(stage "${KX_DESK_DIR}")
    set(fixture stage.sim)
  endif()
  set(size "")
  if(arg_SIZE)
    set(size --size ${arg_SIZE})
  endif()
  list(POP_FRONT arg_COMMAND program)
  if(TARGET ${program})
    set(program "$<TARGET_FILE:${program}>")
  endif()
  add_test(NAME ${arg_NAME}
    COMMAND "${CMAKE_SOURCE_DIR}/scripts/sandbox" --stage "${stage}" ${_kx_sysroot} ${size}
      --bind "${CMAKE_SOURCE_DIR}" ${_kx_build_bind} "${CMAKE_BINARY_DIR}" -- ${program} ${arg_COMMAND})
  set_tests_properties(${arg_NAME} PROPERTIES
    FIXTURES_REQUIRED ${fixture}
    LABELS "${arg_LABELS}"
    TIMEOUT ${arg_TIMEOUT})
  if(CMAKE_CROSSCOMPILING OR KX_SANITIZE)
    set_tests_properties(${arg_NAME} PROPERTIES ENVIRONMENT "${_kx_test_environment}")
  endif()
endfunction()

# kx_add_valgrind_test(name program seconds [arg...])
# Registers a program that starts the daemon once more, with that under valgrind: whatever valgrind has to say is a
# failure.
function(kx_add_valgrind_test name program timeout)
  math(EXPR timeout "${timeout} * ${_kx_valgrind_slowness}")
  add_test(NAME valgrind.${name}
    CONFIGURATIONS Valgrind
    COMMAND "${CMAKE_SOURCE_DIR}/scripts/sandbox" --stage "${KX_VALGRIND_DIR}"
      --bind "${CMAKE_SOURCE_DIR}" --bind "${CMAKE_BINARY_DIR}" --
      env QTEST_FUNCTION_TIMEOUT=${timeout}000 $<TARGET_FILE:${program}> ${ARGN}) # instead of five minutes
  set_tests_properties(valgrind.${name} PROPERTIES
    FIXTURES_REQUIRED stage.valgrind
    LABELS valgrind
    TIMEOUT ${timeout}
    ENVIRONMENT KX_TIME_FACTOR=${_kx_valgrind_slowness}
    FAIL_REGULAR_EXPRESSION "==[0-9]+== ")
endfunction()
