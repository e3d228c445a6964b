// A line for the service's log (SendFile::sendLogMsg with this agent's data
// directory and flags); the outcome is not waited on by the callers.
#pragma once
#include <string>

void logToService(const std::string& message);
