# The tests a sanitizer build runs (VELMORA_SANITIZE), and their options.
set(supp ${CMAKE_CURRENT_LIST_DIR})
# TBB loads its topology helper with RTLD_DEEPBIND, which the sanitizers refuse; this turns that off.
set(tbb "TBB_ENABLE_SANITIZERS=1")
# The others run uninstrumented programs (interpreters, hosts, installed copies): the plain build's.
get_property(velmora_plain_tests DIRECTORY PROPERTY TESTS)

if(VELMORA_SANITIZE STREQUAL "address")
  list(REMOVE_ITEM velmora_plain_tests unit_tests)
  set_tests_properties(${velmora_plain_tests} PROPERTIES DISABLED TRUE)
  set(ubsan "UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1")
  set(asan "strict_string_checks=1:check_initialization_order=1")
  set_tests_properties(unit_tests PROPERTIES ENVIRONMENT
    "${tbb};ASAN_OPTIONS=${asan}:detect_leaks=1;LSAN_OPTIONS=suppressions=${supp}/lsan.supp;${ubsan}")
  # Full unwinding, so that the suppressions can name the third-party library behind a leak;
  # InitModel's faults (a model load each) would take tens of minutes: the plain build's.
  add_test(NAME alloc_failures_asan COMMAND alloc_failures --gtest_filter=*Slots*)
  set_tests_properties(alloc_failures_asan PROPERTIES ENVIRONMENT
    "${tbb};ASAN_OPTIONS=${asan}:detect_leaks=1:fast_unwind_on_malloc=0;LSAN_OPTIONS=suppressions=${supp}/lsan.supp;${ubsan}")
  # Leaks are the leak cycle's (scripts/leak.sh --lsan), which unwinds fully. Left out: settings
  # and lists (the fuzzers'), and handles on several threads (TSan's: after a few hundred of the
  # runtime's threads, ASan's thread registry faulted and then deadlocked).
  add_test(NAME host_tests_asan
    COMMAND host_tests --gtest_filter=-WhisperLists.*:WhisperSettings.*:LlmSettings.*:Concurrency.*)
  set_tests_properties(host_tests_asan PROPERTIES TIMEOUT 900 ENVIRONMENT "${tbb};ASAN_OPTIONS=${asan}:detect_leaks=0;${ubsan}")
elseif(VELMORA_SANITIZE STREQUAL "thread")
  # Only the tests where threads meet; the rest is ASan's.
  set_tests_properties(${velmora_plain_tests} PROPERTIES DISABLED TRUE)
  add_test(NAME host_concurrency COMMAND host_tests --gtest_filter=LlmStream.*:Concurrency*)
  set_tests_properties(host_concurrency PROPERTIES ENVIRONMENT
    "${tbb};TSAN_OPTIONS=suppressions=${supp}/tsan.supp:halt_on_error=0:second_deadlock_stack=1:report_signal_unsafe=0")
endif()
