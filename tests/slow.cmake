# Test programs that wait on real watchdog or listener time-outs (about a minute).
set(SLOW_TESTS test_cloudTimeout test_listenerTimeout)
# Test programs whose code runs on one thread only; every other program is
# labelled "threaded" and runs under ThreadSanitizer.
set(SINGLE_THREADED_TESTS test_secret test_text test_locks test_companions)
