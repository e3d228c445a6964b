# Test programs that wait on real watchdog or listener time-outs, or on the
# agent's own start-up delays (about a minute each).
set(SLOW_TESTS test_cloudTimeout test_listenerTimeout test_exportSender)
# Test programs whose code runs on one thread only; every other program is
# labelled "threaded" and runs under ThreadSanitizer.
set(SINGLE_THREADED_TESTS test_secret test_text test_locks test_companions test_packaging)
