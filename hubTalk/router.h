// The router: delivers the studies the service queues for this box to the
// clinic's own nodes. Each pass asks for the next item
// ("<id>|<AE title>|<retrieve key>"), has the file pushed into the data
// directory, checks it is DICOM, runs the delivery command (routeCommand.h)
// and reports the outcome with SendFile::sendDdicom: the empty message for
// a delivery, else the reason. The pushed file is deleted either way.
//
// A delivery that does not end within "routeTimeout.txt" seconds (default
// Limits::ROUTE_DELIVERY_TIMEOUT_S) is stopped, with everything it started,
// and fails like any other: a node that accepts and never answers does not
// hold up the queue.
#pragma once
#include <cstdint>

// Thread body: 20 s, then a pass every 20 s, for ever.
void* route_proc(void* arg);
// One pass; the timestamp is set to 0 first and to the time each item was
// finished. Returns 0.
int route_loop_proc(int64_t* timestamp);
// The seconds a delivery may take.
unsigned routeTimeout();
// Removes the files pushed to an earlier process ("CR.<pid>.*" of another
// pid in the data directory): a stop in the middle of a delivery leaves its
// file behind, and the service queues the study again. Returns the count.
int removeStaleDrops();
