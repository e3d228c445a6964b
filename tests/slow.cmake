# Test programs that wait on real watchdog or listener time-outs (about a minute).
set(SLOW_TESTS test_cloudTimeout test_listenerTimeout)
