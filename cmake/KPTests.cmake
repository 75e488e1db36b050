# The tests of ctest. A test has a name of the form AREA/SUBJECT, labels to select it, and a cost,
# about its time in seconds, so that long ones begin first. GoogleTest and pytest leave their
# results in KP_TEST_RESULTS/NAME.xml, where scripts/summarize_tests.py counts them.
enable_testing()
set(KP_TEST_RESULTS "${CMAKE_BINARY_DIR}/test-results")
# Seconds after which a test counts as hanging.
set(KP_TEST_TIMEOUT 7200)

if(KP_SANITIZE)
  # Both builds' tests can be part of one run.
  set(KP_TEST_PREFIX "asan/")
  set(KP_TEST_BUILD_LABELS asan)
  # Suppressions match whole stacks, see lsan.supp.
  set(KP_TEST_ENVIRONMENT
    "ASAN_OPTIONS=detect_leaks=1:fast_unwind_on_malloc=0"
    "LSAN_OPTIONS=suppressions=${CMAKE_SOURCE_DIR}/tests/lsan.supp:print_suppressions=0"
    "UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1")
endif()

# kp_test(NAME LABELS label... [COST seconds] [LOCK name] [PROCESSORS number]
#   [ENVIRONMENT variable=value...] COMMAND word...): one test of ctest. At most one test with the
# same LOCK runs at a time.
function(kp_test NAME)
  cmake_parse_arguments(TEST "" "COST;LOCK;PROCESSORS" "LABELS;ENVIRONMENT;COMMAND" ${ARGN})
  set(NAME "${KP_TEST_PREFIX}${NAME}")
  list(APPEND TEST_LABELS ${KP_TEST_BUILD_LABELS})
  list(PREPEND TEST_ENVIRONMENT ${KP_TEST_ENVIRONMENT})
  add_test(NAME "${NAME}" COMMAND ${TEST_COMMAND})
  set_tests_properties("${NAME}" PROPERTIES
    LABELS "${TEST_LABELS}"
    ENVIRONMENT "${TEST_ENVIRONMENT}"
    TIMEOUT ${KP_TEST_TIMEOUT})
  foreach(PROPERTY COST PROCESSORS)
    if(TEST_${PROPERTY})
      set_tests_properties("${NAME}" PROPERTIES ${PROPERTY} ${TEST_${PROPERTY}})
    endif()
  endforeach()
  if(TEST_LOCK)
    set_tests_properties("${NAME}" PROPERTIES RESOURCE_LOCK "${TEST_LOCK}")
  endif()
endfunction()

# kp_google_test(TARGET [RELEASE_ONLY pattern...]): the tests of one executable. The sanitizer build
# leaves out those whose names match: many megabytes of a content that smaller tests have too.
# Foundation writes into the home folder, so each executable has one of its own.
function(kp_google_test TARGET)
  cmake_parse_arguments(GOOGLE "" "" "RELEASE_ONLY" ${ARGN})
  set(HOME "${CMAKE_BINARY_DIR}/tests/homes/${TARGET}")
  file(MAKE_DIRECTORY "${HOME}")
  set(ENVIRONMENT "HOME=${HOME}")
  # Without Foundation no suppression is needed: frame pointers are enough.
  get_target_property(SOURCES ${TARGET} SOURCES)
  if(KP_SANITIZE AND NOT SOURCES MATCHES "\\.mm(;|$)")
    list(APPEND ENVIRONMENT "ASAN_OPTIONS=detect_leaks=1:fast_unwind_on_malloc=1")
  endif()
  if(KP_SANITIZE AND GOOGLE_RELEASE_ONLY)
    list(JOIN GOOGLE_RELEASE_ONLY ":" LEFT_OUT)
    list(APPEND ENVIRONMENT "GTEST_FILTER=-${LEFT_OUT}")
  endif()
  kp_test(unit/${TARGET} LABELS unit ENVIRONMENT ${ENVIRONMENT}
    COMMAND ${TARGET} --gtest_brief=1
      "--gtest_output=xml:${KP_TEST_RESULTS}/${KP_TEST_PREFIX}unit/${TARGET}.xml")
endfunction()

# kp_python_test(NAME [option of kp_test...] PYTEST word...): the tests that pytest, with Debian's
# own Python and without the plug-ins of the machine, runs for these words.
function(kp_python_test NAME)
  cmake_parse_arguments(PYTHON "" "" "PYTEST" ${ARGN})
  kp_test("${NAME}" ${PYTHON_UNPARSED_ARGUMENTS}
    ENVIRONMENT PYTHONDONTWRITEBYTECODE=1 PYTEST_DISABLE_PLUGIN_AUTOLOAD=1
    COMMAND /usr/bin/python3 -m pytest -q -p no:cacheprovider -o junit_family=xunit2
      "--junit-xml=${KP_TEST_RESULTS}/${KP_TEST_PREFIX}${NAME}.xml" ${PYTHON_PYTEST})
endfunction()
