// Lines for the service's log (SendFile::sendLogMsg with this agent's data
// directory and flags). The outcome is not waited on by the callers.
#pragma once
#include <string>

// Sends the line now.
void logToService(const std::string& message);

// For lines a pass makes per item (thousands of EMR messages), which must not
// hold the pass up by one exchange with the service each: they are sent in
// order by one background sender. Queues the line (cut at the service's
// 2048 characters). Queued lines are held in memory up to Limits::SERVICE_LOG_QUEUE_BYTES; beyond that the
// caller waits for room up to Limits::SERVICE_LOG_ROOM_WAIT_S, then the line
// is dropped, and the count of dropped lines is sent ahead of the next line.
void logToServiceLater(const std::string& message);

// Waits until every line queued by logToServiceLater was sent (whatever the
// service answered), at most `seconds`; true when nothing is left.
bool flushServiceLog(unsigned seconds);
