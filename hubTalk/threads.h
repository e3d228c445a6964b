// Starting the agent's detached threads with the stack sizes their roles are
// given.
#pragma once
#include <cstddef>

// Stack sizes of the roles.
constexpr size_t LISTENER_STACK = 65536;
constexpr size_t EMR_STACK = 65536;
constexpr size_t EXPORT_SENDER_STACK = 131072;
constexpr size_t ROUTER_STACK = 131072;
constexpr size_t PROCESSING_STACK = 262144;
// Sends service-log lines (a TLS exchange each).
constexpr size_t SERVICE_LOG_STACK = 131072;

// Starts entry(arg) detached with the given stack (four times as much in
// sanitizer builds, whose frames are larger). False when it did not start.
bool startThread(void* (*entry)(void*), void* arg, size_t stack);
